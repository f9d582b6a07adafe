// kd_mainloop: the control socket and the loop that serves events, signal
// flags and the rule that decides when the daemon has no work left.
#include "daemon/kd_mainloop.h"

#include "client/kd_client.h"
#include "client/kd_notify.h"
#include "config/kd_config.h"
#include "daemon/kd_daemon.h"
#include "daemon/kd_diag.h"
#include "platform/csock.h"
#include "platform/kd_paths.h"
#include "platform/rpc.h"
#include "refresh/kd_fetch.h"
#include "refresh/kd_interweb.h"
#include "util/kd_fd.h"
#include "util/kd_log.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

bool kd_loop_continue(bool terminate, bool had_clients, bool have_clients, bool config_empty)
{
    if (terminate || config_empty)
        return false;
    return !had_clients || have_clients;
}

const char *kd_shutdown_reason(bool terminate, bool had_clients, bool have_clients)
{
    if (had_clients && !have_clients)
        return "last client disconnected";
    if (!terminate)
        return "configuration is empty";
    return nullptr;
}

uint32_t kd_next_verbosity(uint32_t v)
{
    return (v + 1) % 5;
}

void kd_disconnect_all(kd_client **head)
{
    // A disconnect may unlink and free the record: step on before it.
    kd_client *c = *head;
    while (c) {
        kd_client *next = c->next;
        kd_disconnect_client(c);
        c = next;
    }
}

void listener_closed(int, void *ctx)
{
    kd_disconnect_all(static_cast<kd_client **>(ctx));
}

namespace {

// Binds the socket to the control path, replacing a stale socket file left
// by an earlier run (bind would fail on it); false with the reason logged.
bool bind_control_socket(int fd)
{
    sockaddr_un addr;
    csock_sockaddr_set_unix(&addr, KD_CTL_SOCKET);
    if (unlink(addr.sun_path) != 0 && errno != ENOENT) {
        int err = errno;
        KD_LOG(1, LOG_CRIT, "error unlink()ing local socket (%s): %s", addr.sun_path, strerror(err));
        return false;
    }
    // The family's two bytes and the path without its terminating NUL.
    socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(addr.sun_path));
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0) {
        int err = errno;
        KD_LOG(1, LOG_CRIT, "error bind()ing local socket (%s): %s", addr.sun_path, strerror(err));
        return false;
    }
    return true;
}

// Returns the listener handle, or -1 with the reason logged.
int open_control_socket(kd_unique_fd &sock, kd_client **clients)
{
    sock.fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (sock.fd < 0) {
        KD_LOG(1, LOG_CRIT, "error getting socket(): %s", strerror(errno));
        return -1;
    }
    if (!bind_control_socket(sock.fd))
        return -1;
    int handle = csock_add_listenfd(sock.fd, "listener", kd_new_connection, listener_closed, clients);
    if (handle < 0)
        KD_LOG(1, LOG_CRIT, "error listening on local socket (%s)", KD_CTL_SOCKET);
    return handle < 0 ? -1 : handle;
}

// SIGUSR2: the status dump, then the flag is cleared (here only).
void serve_dump(kd_client *clients)
{
    kd_status_dump(clients);
    g_dump = 0;
}

void serve_hangup()
{
    verbosity = kd_next_verbosity(verbosity);
    if (verbosity != 0)
        syslog(LOG_INFO, "verbosity set to: %d", static_cast<int>(verbosity));
    else
        syslog(LOG_INFO, "verbosity set to: shut up :)");
    g_hangup = 0;
}

struct kd_loop {
    kd_client *clients = nullptr;
    rpc_conn *conn = nullptr;
    bool had_clients = false;
};

void shutdown_step(kd_loop &loop)
{
    const char *why = kd_shutdown_reason(g_terminate != 0, loop.had_clients, loop.clients != nullptr);
    if (why)
        KD_LOG(2, LOG_INFO, "%s", why);
    kd_disconnect_all(&loop.clients);
    loop.had_clients = false;
    kd_config_close(loop.conn);
}

} // namespace

int32_t main_loop(void)
{
    // The modules above config/ hand it what it calls up to, before the
    // first document can arrive.
    kd_refresh_register();
    kd_client_register();
    kd_loop loop;
    loop.conn = kd_config_init();
    if (!loop.conn)
        KD_LOG(1, LOG_CRIT, "unable to connect to configd");
    kd_unique_fd sock; // the control socket, closed on every way out of the loop
    int listener = open_control_socket(sock, &loop.clients);
    if (listener < 0)
        return -2;
    for (;;) {
        if ((g_terminate && !loop.clients) || rpc_isempty()) {
            // Clients still here when configd went away are let go now: their
            // records must not outlive the list head they are linked to.
            kd_disconnect_all(&loop.clients);
            kd_fetch_cancel_all(); // no fetching child outlives the daemon
            csock_fastclose(listener);
            return 0;
        }
        csock_select();
        kd_log_received_signals();
        if (loop.clients)
            loop.had_clients = true;
        if (g_dump)
            serve_dump(loop.clients);
        if (g_hangup)
            serve_hangup();
        if (!kd_loop_continue(g_terminate != 0, loop.had_clients, loop.clients != nullptr, kd_config_empty() != 0))
            shutdown_step(loop);
    }
}
