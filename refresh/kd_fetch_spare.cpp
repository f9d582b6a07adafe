// kd_fetch_spare: the one fetching child started ahead of need.
#include "refresh/kd_fetch_spare.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <unistd.h>

#include "platform/child.h"
#include "platform/timeout.h"

namespace {

// All zero at first (no spare), so that the record takes no room in the
// program file; the descriptors mean something only while pid > 0.
struct spare_state {
    pid_t pid;        // 0: no spare
    int more;         // the write end of its input, for the rest of its job
    int rfd;          // the read end of its result pipe
    int start_timer;  // its start at the loop's next turn
    int idle_timer;   // its end when no poll takes it
    uint32_t idle_ms;
    char program[PATH_MAX];
    char who[64];
    size_t who_len;
};

spare_state g_spare;

// Closes what the daemon still holds of the spare (-1: handed on); the
// child itself is left alone.
void let_go()
{
    if (g_spare.pid > 0 && g_spare.more >= 0)
        close(g_spare.more);
    if (g_spare.pid > 0 && g_spare.rfd >= 0)
        close(g_spare.rfd);
    timeout_del(g_spare.idle_timer);
    g_spare.pid = 0;
    g_spare.idle_timer = 0;
}

void end_spare()
{
    pid_t pid = g_spare.pid;
    let_go();
    child_end(pid);
}

void on_idle(void *, int)
{
    g_spare.idle_timer = 0;
    end_spare();
}

// Started from a timer, not from the poll that asked: that poll's own child
// goes first. A spare that cannot be started is not missed: the next poll
// starts its own child and says why that failed.
void on_start(void *, int)
{
    g_spare.start_timer = 0;
    if (g_spare.pid > 0)
        return;
    int rfd = -1, more = -1;
    pid_t pid = child_spawn(g_spare.program, g_spare.who, g_spare.who_len, &rfd, &more);
    if (pid <= 0)
        return;
    g_spare.pid = pid;
    g_spare.rfd = rfd;
    g_spare.more = more;
    g_spare.idle_timer = timeout_add_ms(on_idle, g_spare.idle_ms, nullptr);
}

} // namespace

void kd_spare_want(const char *program, const char *who, size_t n, uint32_t idle_ms)
{
    if (idle_ms == 0 || g_spare.pid > 0 || g_spare.start_timer > 0)
        return;
    if (strlen(program) >= sizeof g_spare.program || n > sizeof g_spare.who)
        return;
    strcpy(g_spare.program, program);
    memcpy(g_spare.who, who, n);
    g_spare.who_len = n;
    g_spare.idle_ms = idle_ms;
    g_spare.start_timer = timeout_add_ms(on_start, 0, nullptr);
    if (g_spare.start_timer < 0)
        g_spare.start_timer = 0;
}

bool kd_spare_take(const char *program, const char *what, size_t n, pid_t *pid, int *rfd)
{
    if (g_spare.pid <= 0)
        return false;
    if (strcmp(program, g_spare.program) != 0) {
        end_spare();
        return false;
    }
    int more = g_spare.more;
    g_spare.more = -1;
    // A spare that has died has closed its input: the send fails.
    if (!child_send_rest(more, what, n)) {
        end_spare();
        return false;
    }
    *pid = g_spare.pid;
    *rfd = g_spare.rfd;
    g_spare.rfd = -1;
    let_go();
    return true;
}

void kd_spare_end(void)
{
    timeout_del(g_spare.start_timer);
    g_spare.start_timer = 0;
    end_spare();
}

pid_t kd_spare_pid(void)
{
    return g_spare.pid;
}
