// csock: owns the epoll instance and one record per registered descriptor
// (never the descriptors themselves). A handle encodes its table slot and the
// slot's generation, so a stale handle never reaches a newer record. Records
// closed while callbacks run stay in their slot, marked closed, until the end
// of the dispatch round; their close callbacks run after the callback that
// closed them has returned. A table indexed by descriptor number names the
// handle whose epoll registration that descriptor is, so a record whose
// descriptor its owner closed (and the number went to a newer handle) never
// changes or removes the newer handle's registration.
#include "platform/csock.h"

#include "platform/slab.h"
#include "platform/timeout.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int kSlotBits = 16;
constexpr unsigned kMaxSlots = (1u << kSlotBits) - 1;
constexpr int kBacklog = 8;
constexpr int kMaxEvents = 64;
constexpr uint32_t kAcceptPauseSec = 1;

struct csock_rec {
    int handle;
    int fd;
    char name[24];
    csock_cb readcb, writecb, exceptcb, errcb, closecb;
    csock_accept_cb acceptcb;
    void *ctx;
    bool want_write;
    bool closed;
    bool close_pending; // close callback still to run
    bool in_epoll;
    int pause_timer; // listener resting after a failed accept
    csock_rec *next_dead;
};

// The multiplexer: its table of records, the epoll instance, the dispatch
// depth and the records closed during a round; csock_exit resets it.
struct csock_state {
    csock_rec **slots;
    unsigned short *gens;
    unsigned nslots;
    unsigned cursor;
    int epfd = -1;
    pid_t eppid;
    int depth; // > 0 while callbacks run
    csock_rec *dead_head, *dead_tail, *pending;
    int *fdown; // per descriptor number: handle owning its epoll registration, 0 none
    unsigned nfdown;
};

csock_state g_csock;

csock_rec *lookup(int handle)
{
    if (handle <= 0)
        return nullptr;
    unsigned slot = (static_cast<unsigned>(handle) & kMaxSlots) - 1;
    unsigned gen = static_cast<unsigned>(handle) >> kSlotBits;
    if (slot >= g_csock.nslots || g_csock.gens[slot] != gen)
        return nullptr;
    csock_rec *r = g_csock.slots[slot];
    return (r && !r->closed) ? r : nullptr;
}

// Only conditions that some callback handles are asked for: an unhandled
// level-triggered condition would end every wait at once.
uint32_t interest(const csock_rec *r)
{
    if (r->acceptcb)
        return EPOLLIN;
    uint32_t ev = r->readcb ? EPOLLIN | EPOLLRDHUP : 0;
    if (r->exceptcb)
        ev |= EPOLLPRI;
    return r->want_write ? ev | EPOLLOUT : ev;
}

bool owns_fd(const csock_rec *r)
{
    return static_cast<unsigned>(r->fd) < g_csock.nfdown && g_csock.fdown[r->fd] == r->handle;
}

bool reserve_fd(int fd)
{
    unsigned need = static_cast<unsigned>(fd) + 1;
    if (need <= g_csock.nfdown)
        return true;
    unsigned n = need < 64 ? 64 : need + need / 2;
    auto *t = static_cast<int *>(kd_realloc(g_csock.fdown, n * sizeof(*g_csock.fdown)));
    if (!t)
        return false;
    for (unsigned i = g_csock.nfdown; i < n; i++)
        t[i] = 0;
    g_csock.fdown = t;
    g_csock.nfdown = n;
    return true;
}

bool epoll_register(csock_rec *r, int op)
{
    epoll_event ev{};
    ev.events = interest(r);
    ev.data.u64 = static_cast<uint64_t>(r->handle);
    return epoll_ctl(g_csock.epfd, op, r->fd, &ev) == 0;
}

// The epoll instance is made on first use, so that it is created after the
// daemon has forked and closed its inherited descriptors; a forked child
// makes its own rather than sharing its parent's.
bool ensure_epoll()
{
    if (g_csock.epfd >= 0 && g_csock.eppid == getpid())
        return true;
    g_csock.epfd = epoll_create1(EPOLL_CLOEXEC);
    if (g_csock.epfd < 0)
        return false;
    g_csock.eppid = getpid();
    for (unsigned i = 0; i < g_csock.nslots; i++) {
        csock_rec *r = g_csock.slots[i];
        if (r && !r->closed && r->in_epoll && owns_fd(r))
            r->in_epoll = epoll_register(r, EPOLL_CTL_ADD);
    }
    return true;
}

bool grow_table()
{
    unsigned n = g_csock.nslots ? g_csock.nslots * 2 : 16;
    if (n > kMaxSlots)
        n = kMaxSlots;
    if (n <= g_csock.nslots)
        return false;
    auto *slots = static_cast<csock_rec **>(kd_realloc(g_csock.slots, n * sizeof(*g_csock.slots)));
    if (!slots)
        return false;
    g_csock.slots = slots;
    auto *gens = static_cast<unsigned short *>(kd_realloc(g_csock.gens, n * sizeof(*g_csock.gens)));
    if (!gens)
        return false;
    g_csock.gens = gens;
    for (unsigned i = g_csock.nslots; i < n; i++) {
        g_csock.slots[i] = nullptr;
        g_csock.gens[i] = 0;
    }
    g_csock.nslots = n;
    return true;
}

// A free slot, searched from a moving cursor so that slots are not reused at once.
int free_slot()
{
    for (int pass = 0; pass < 2; pass++) {
        for (unsigned i = 0; i < g_csock.nslots; i++) {
            unsigned s = (g_csock.cursor + i) % g_csock.nslots;
            if (!g_csock.slots[s]) {
                g_csock.cursor = s + 1;
                return static_cast<int>(s);
            }
        }
        if (!grow_table())
            return -1;
    }
    return -1;
}

int add_record(csock_rec *proto)
{
    if (proto->fd < 0 || !ensure_epoll() || !reserve_fd(proto->fd))
        return -1;
    int slot = free_slot();
    if (slot < 0)
        return -1;
    auto *r = static_cast<csock_rec *>(kd_calloc(1, sizeof(csock_rec)));
    if (!r)
        return -1;
    *r = *proto;
    r->handle = static_cast<int>((static_cast<unsigned>(g_csock.gens[slot]) << kSlotBits) | (slot + 1));
    if (!epoll_register(r, EPOLL_CTL_ADD)) {
        kd_free(r);
        return -1;
    }
    r->in_epoll = true;
    g_csock.slots[slot] = r;
    g_csock.fdown[r->fd] = r->handle;
    return r->handle;
}

void release_slot(csock_rec *r)
{
    unsigned slot = (static_cast<unsigned>(r->handle) & kMaxSlots) - 1;
    g_csock.slots[slot] = nullptr;
    g_csock.gens[slot] = static_cast<unsigned short>((g_csock.gens[slot] + 1) & 0x7fff);
    kd_free(r);
}

// The owner may already have closed the descriptor, and its number may now
// belong to another registered handle, whose registration must stay.
void stop_watching(csock_rec *r)
{
    if (r->in_epoll && g_csock.epfd >= 0 && owns_fd(r))
        epoll_ctl(g_csock.epfd, EPOLL_CTL_DEL, r->fd, nullptr);
    r->in_epoll = false;
}

void unregister(csock_rec *r)
{
    r->closed = true;
    if (r->pause_timer > 0)
        timeout_del(r->pause_timer);
    r->pause_timer = 0;
    stop_watching(r);
    if (owns_fd(r))
        g_csock.fdown[r->fd] = 0;
}

void defer(csock_rec *r, bool with_closecb)
{
    r->close_pending = with_closecb && r->closecb;
    r->next_dead = nullptr;
    if (g_csock.dead_tail)
        g_csock.dead_tail->next_dead = r;
    else
        g_csock.dead_head = r;
    g_csock.dead_tail = r;
    if (!g_csock.pending)
        g_csock.pending = r;
}

// Runs the close callbacks of handles closed by the callback that just returned
// (and of those closed by these close callbacks in turn).
void run_pending_closes()
{
    while (g_csock.pending) {
        csock_rec *r = g_csock.pending;
        g_csock.pending = r->next_dead;
        if (!r->close_pending)
            continue;
        r->close_pending = false;
        r->closecb(r->handle, r->ctx);
    }
}

void free_dead()
{
    while (g_csock.dead_head) {
        csock_rec *r = g_csock.dead_head;
        g_csock.dead_head = r->next_dead;
        release_slot(r);
    }
    g_csock.dead_tail = nullptr;
    g_csock.pending = nullptr;
}

void *handle_param(int handle)
{
    return reinterpret_cast<void *>(static_cast<intptr_t>(handle));
}

void resume_listener(void *param, int)
{
    csock_rec *r = lookup(static_cast<int>(reinterpret_cast<intptr_t>(param)));
    if (!r)
        return;
    r->pause_timer = 0;
    if (!r->in_epoll && owns_fd(r))
        r->in_epoll = epoll_register(r, EPOLL_CTL_ADD);
}

// Out of descriptors or memory the connection stays queued and the listener
// would be ready again at once: it rests for a while instead of spinning.
void pause_listener(csock_rec *r)
{
    int id = timeout_add(resume_listener, kAcceptPauseSec, handle_param(r->handle));
    if (id < 0)
        return;
    stop_watching(r);
    r->pause_timer = id;
}

int accept_one(csock_rec *r)
{
    int fd = accept4(r->fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        if (r->acceptcb(fd, r->ctx) != 0)
            close(fd);
        return 1;
    }
    int err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR || err == ECONNABORTED)
        return 0;
    syslog(LOG_ERR, "csock: accept on %s failed: %s", r->name, strerror(err));
    pause_listener(r);
    return 0;
}

int call(csock_rec *r, csock_cb cb)
{
    if (!cb || r->closed)
        return 0;
    cb(r->handle, r->ctx);
    run_pending_closes();
    return 1;
}

// Dispatches one ready handle; a callback that closes it ends its turn.
int dispatch(uint32_t ev, csock_rec *r)
{
    if (r->acceptcb) {
        int n = (ev & (EPOLLIN | EPOLLERR | EPOLLHUP)) ? accept_one(r) : 0;
        run_pending_closes();
        return n;
    }
    int n = 0;
    bool broken = ev & (EPOLLHUP | EPOLLERR);
    if (ev & (EPOLLIN | EPOLLRDHUP) || broken)
        n += call(r, r->readcb);
    if (ev & EPOLLOUT && r->want_write)
        n += call(r, r->writecb);
    if (ev & EPOLLPRI)
        n += call(r, r->exceptcb);
    if (broken)
        n += call(r, r->errcb);
    // Nobody reads a hung-up descriptor without a read callback: stop
    // watching it, or the wait would return at once forever.
    if (broken && !r->closed && !r->readcb)
        stop_watching(r);
    return n;
}

int dispatch_events(const epoll_event *evs, int n)
{
    int ran = 0;
    for (int i = 0; i < n; i++) {
        csock_rec *r = lookup(static_cast<int>(evs[i].data.u64));
        if (r)
            ran += dispatch(evs[i].events, r);
    }
    return ran;
}

int run_timers()
{
    return timeout_run_due_hook(run_pending_closes);
}

// A wait that returns at once (handles ready, a timer due) lets no blocked
// signal in, so under steady traffic a pending one would wait for ever: the
// signals the wait would have let in are let in now.
bool deliver_pending_signals(const sigset_t *wait_mask)
{
    sigset_t pending;
    if (sigpending(&pending) != 0 || sigisemptyset(&pending))
        return false;
    sigset_t old;
    sigprocmask(SIG_SETMASK, wait_mask, &old);
    sigprocmask(SIG_SETMASK, &old, nullptr);
    return true;
}

// Socket callbacks of one wake-up, then the timers due; records closed on
// the way are freed once the outermost round ends.
int dispatch_round(const epoll_event *evs, int n)
{
    timeout_round_begin();
    g_csock.depth++;
    int ran = dispatch_events(evs, n);
    ran += run_timers();
    if (--g_csock.depth == 0)
        free_dead();
    return ran;
}

} // namespace

int csock_init(void)
{
    return 0;
}

void csock_exit(void)
{
    for (unsigned i = 0; i < g_csock.nslots; i++) {
        if (g_csock.slots[i] && g_csock.slots[i]->pause_timer > 0)
            timeout_del(g_csock.slots[i]->pause_timer);
        kd_free(g_csock.slots[i]);
    }
    kd_free(g_csock.slots);
    kd_free(g_csock.gens);
    kd_free(g_csock.fdown);
    g_csock.slots = nullptr;
    g_csock.gens = nullptr;
    g_csock.fdown = nullptr;
    g_csock.nslots = g_csock.cursor = g_csock.nfdown = 0;
    g_csock.dead_head = g_csock.dead_tail = g_csock.pending = nullptr;
    if (g_csock.epfd >= 0 && g_csock.eppid == getpid())
        close(g_csock.epfd);
    g_csock.epfd = -1;
}

namespace {

csock_rec proto_rec(int fd, const char *name, csock_cb closecb, void *ctx)
{
    csock_rec proto{};
    proto.fd = fd;
    strncpy(proto.name, name ? name : "", sizeof(proto.name) - 1);
    proto.closecb = closecb;
    proto.ctx = ctx;
    return proto;
}

} // namespace

int csock_add_listenfd(int fd, const char *name, csock_accept_cb acceptcb, csock_cb closecb, void *ctx)
{
    if (!acceptcb || fd < 0 || listen(fd, kBacklog) != 0)
        return -1;
    // A connection that goes away between readiness and accept must not block the loop.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    csock_rec proto = proto_rec(fd, name, closecb, ctx);
    proto.acceptcb = acceptcb;
    return add_record(&proto);
}

int csock_add_fd(int fd, const char *name, csock_cb readcb, csock_cb writecb, csock_cb exceptcb,
                 csock_cb errcb, csock_cb closecb, void *ctx)
{
    csock_rec proto = proto_rec(fd, name, closecb, ctx);
    proto.readcb = readcb;
    proto.writecb = writecb;
    proto.exceptcb = exceptcb;
    proto.errcb = errcb;
    proto.want_write = writecb != nullptr;
    return add_record(&proto);
}

void csock_want_write(int handle, int on)
{
    csock_rec *r = lookup(handle);
    if (!r || r->acceptcb || r->want_write == (on != 0))
        return;
    r->want_write = on != 0;
    if (r->in_epoll && owns_fd(r))
        epoll_register(r, EPOLL_CTL_MOD);
}

int csock_select(void)
{
    if (!ensure_epoll())
        return -1;
    epoll_event evs[kMaxEvents];
    sigset_t none;
    sigemptyset(&none);
    for (;;) {
        int n = epoll_pwait(g_csock.epfd, evs, kMaxEvents, timeout_next_ms(), &none);
        if (n < 0 && errno != EINTR)
            return -1;
        bool signalled = n < 0 || deliver_pending_signals(&none);
        int ran = dispatch_round(evs, n > 0 ? n : 0);
        // A wait that timed out a hair early has nothing to report: wait again.
        if (n != 0 || ran > 0 || signalled)
            return ran;
    }
}

void csock_close(int handle, int)
{
    csock_rec *r = lookup(handle);
    if (!r)
        return;
    unregister(r);
    if (g_csock.depth > 0) {
        defer(r, true);
        return;
    }
    if (r->closecb)
        r->closecb(r->handle, r->ctx);
    release_slot(r);
}

void csock_fastclose(int handle)
{
    csock_rec *r = lookup(handle);
    if (!r)
        return;
    unregister(r);
    if (g_csock.depth > 0)
        defer(r, false);
    else
        release_slot(r);
}

int csock_fileno(int handle)
{
    csock_rec *r = lookup(handle);
    return r ? r->fd : -1;
}

int csock_sockaddr_set_unix(struct sockaddr_un *addr, const char *path)
{
    if (!addr || !path)
        return -1;
    size_t len = strlen(path);
    if (len >= sizeof(addr->sun_path))
        return -1;
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    memcpy(addr->sun_path, path, len + 1);
    return static_cast<int>(offsetof(struct sockaddr_un, sun_path) + len + 1);
}

namespace {

// What the kernel keeps of an AF_UNIX socket's send buffer for itself: a
// packet may be at most this much smaller than the buffer.
constexpr int kUnixSendReserve = 32;

int largest_packet(int fd)
{
    int have = 0;
    socklen_t len = sizeof have;
    if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &have, &len) != 0)
        return -1;
    return have - kUnixSendReserve;
}

} // namespace

int csock_fit_packets(int fd, uint32_t packet)
{
    int now = largest_packet(fd);
    if (now < 0 || packet > static_cast<uint32_t>(INT32_MAX - kUnixSendReserve) ||
        static_cast<uint32_t>(now) >= packet)
        return now;
    int want = static_cast<int>(packet) + kUnixSendReserve;
    // The forced size passes net.core.wmem_max but needs CAP_NET_ADMIN.
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &want, sizeof want) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &want, sizeof want);
    return largest_packet(fd);
}

size_t csock_count(void)
{
    size_t n = 0;
    for (unsigned i = 0; i < g_csock.nslots; i++) {
        if (g_csock.slots[i] && !g_csock.slots[i]->closed)
            n++;
    }
    return n;
}
