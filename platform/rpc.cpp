// rpc: connections of the configd RPC on csock. Each connection queues its
// outgoing frames and writes them when the socket is writable, reassembles
// incoming frames and dispatches them and its connection events to the
// owner's callback table, always from inside csock_select().
#include "platform/rpc.h"
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include "platform/csock.h"
#include "platform/rpc_wire.h"
#include "platform/slab.h"

struct rpc_conn {
    int fd;
    int handle;
    rpc_ifaceinfo *iface;
    const rpc_callback *cbs;
    rpc_buf in;
    rpc_buf out;
    uint8_t server;
    uint8_t established;
    uint8_t closing;    // rpc_close: finish once the queue is empty
    uint8_t failed;     // broken: drop the queue and finish at once
    void *user;
    rpc_conn *next;
};

namespace {

// The connections this process made and those it accepted, and its
// listening socket with what each accepted connection gets.
struct rpc_state {
    rpc_conn *clients;
    rpc_conn *servers;
    int listenfd = -1;
    int listenhandle = -1;
    rpc_ifaceinfo *listeniface;
    const rpc_callback *listencbs;
};

rpc_state g_rpc;

constexpr size_t READ_CHUNK = 64 * 1024;
// A peer that stops reading must not make us queue without end.
constexpr size_t MAX_QUEUED = 4 * size_t(RPC_MAX_FRAME);

rpc_conn **list_of(rpc_conn *c)
{
    return c->server ? &g_rpc.servers : &g_rpc.clients;
}

void unlink_conn(rpc_conn *c)
{
    for (rpc_conn **p = list_of(c); *p; p = &(*p)->next)
        if (*p == c) {
            *p = c->next;
            return;
        }
}

rpc_handler find_handler(const rpc_callback *cbs, uint32_t id)
{
    for (; cbs && (cbs->id || cbs->handler); cbs++)
        if (cbs->id == id)
            return cbs->handler;
    return nullptr;
}

void deliver_event(rpc_conn *c, uint32_t ev, int32_t code)
{
    rpc_handler h = find_handler(c->cbs, ev);
    rpc_msg m{};
    m.id = ev;
    m.code = code;
    if (h)
        h(c, &m);
}

// Marks the connection broken after telling the owner why; the close itself
// happens when the current csock callback has returned.
void fail(rpc_conn *c, int32_t code)
{
    if (c->failed)
        return;
    c->failed = 1;
    if (code)
        deliver_event(c, RPC_EV_ERROR, code);
    c->out.len = c->out.off = 0;
}

// Closes the socket once nothing is left to do on it.
void maybe_finish(rpc_conn *c)
{
    bool idle = c->out.len == c->out.off;
    if (c->failed || (c->closing && idle))
        csock_close(c->handle, 0);
}

void ensure_established(rpc_conn *c)
{
    if (c->established)
        return;
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(c->fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0 || err) {
        fail(c, RPC_ERR_CONNECT);
        return;
    }
    c->established = 1;
    deliver_event(c, RPC_EV_ESTABLISHED, 0);
}

// Requests only go to servers, replies and indications only to clients: a
// frame the other way would reach a handler with the wrong payload.
bool wrong_direction(const rpc_conn *c, uint8_t kind)
{
    return c->server ? kind != RPCW_REQUEST : kind == RPCW_REQUEST;
}

void dispatch(rpc_conn *c, const uint8_t *payload, uint32_t len)
{
    if (wrong_direction(c, payload[0])) {
        fail(c, RPC_ERR_MALFORMED);
        return;
    }
    rpc_msg m;
    int r = rpcw_decode(payload, len, c->iface->params, &m);
    // A server refuses a request with broken XML and keeps the connection.
    if (r == -2 && c->server && !m.is_reply) {
        rpc_send_error(c, m.id, m.tag, "document is not well-formed XML");
        return;
    }
    if (r < 0) {
        fail(c, RPC_ERR_MALFORMED);
        return;
    }
    rpc_handler h = r ? find_handler(c->cbs, m.id) : nullptr;
    if (h)
        h(c, &m);
    else if (r && m.is_reply && m.error)
        // A refusal its owner has no handler for must not vanish unseen.
        syslog(LOG_ERR, "rpc: request 0x%08x refused: %s", unsigned(m.id), m.error);
    rpcw_msg_clear(&m);
}

// Runs every complete frame in the input buffer, stopping when the owner
// closed the connection from a handler.
void process_input(rpc_conn *c)
{
    uint32_t len;
    int r;
    while (!c->failed && !c->closing && (r = rpcw_frame_ready(c->in.data + c->in.off, c->in.len - c->in.off, &len)) != 0) {
        if (r < 0) {
            fail(c, -r);
            return;
        }
        const uint8_t *payload = c->in.data + c->in.off + RPCW_PREFIX;
        c->in.off += RPCW_PREFIX + len;
        dispatch(c, payload, len);
    }
    rpcw_buf_compact(&c->in);
}

// Reads what is there: 1 while the stream stays open, 0 at its end, or the
// negative RPC_ERR_* code of a failure.
int read_some(rpc_conn *c)
{
    for (int rounds = 0; rounds < 64; rounds++) {
        if (!rpcw_buf_reserve(&c->in, READ_CHUNK))
            return -RPC_ERR_NOMEM;
        ssize_t n = read(c->fd, c->in.data + c->in.len, c->in.cap - c->in.len);
        if (n > 0)
            c->in.len += size_t(n);
        // A peer that closes with our frames unread resets the stream: still its end.
        else if (n == 0 || errno == ECONNRESET)
            return 0;
        else
            return errno == EAGAIN || errno == EINTR ? 1 : -RPC_ERR_IO;
    }
    return 1;
}

void on_read(int, void *ctx)
{
    auto *c = static_cast<rpc_conn *>(ctx);
    if (!c->failed)
        ensure_established(c);
    int st = c->failed ? 1 : read_some(c);
    // Frames that arrived before the end of the stream are still served.
    if (!c->failed)
        process_input(c);
    if (st == 0)
        fail(c, c->in.len > c->in.off ? RPC_ERR_TRUNCATED : 0);
    else if (st < 0)
        fail(c, -st);
    maybe_finish(c);
}

void flush_output(rpc_conn *c)
{
    while (c->out.off < c->out.len) {
        ssize_t n = send(c->fd, c->out.data + c->out.off, c->out.len - c->out.off, MSG_NOSIGNAL);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (n < 0) {
            fail(c, RPC_ERR_IO);
            return;
        }
        c->out.off += size_t(n);
    }
    // Drained: a burst of queued frames leaves no peak-sized buffer behind.
    rpcw_buf_free(&c->out);
    csock_want_write(c->handle, 0);
}

void on_write(int, void *ctx)
{
    auto *c = static_cast<rpc_conn *>(ctx);
    if (!c->failed)
        ensure_established(c);
    if (!c->failed)
        flush_output(c);
    maybe_finish(c);
}

void on_error(int, void *ctx)
{
    auto *c = static_cast<rpc_conn *>(ctx);
    if (!c->failed && !c->closing && c->in.len > c->in.off)
        fail(c, RPC_ERR_TRUNCATED);
    fail(c, 0);
    maybe_finish(c);
}

void on_close(int, void *ctx)
{
    auto *c = static_cast<rpc_conn *>(ctx);
    close(c->fd);
    unlink_conn(c);
    c->failed = 1;
    deliver_event(c, RPC_EV_CLOSED, 0);
    rpcw_buf_free(&c->in);
    rpcw_buf_free(&c->out);
    kd_free(c);
}

rpc_conn *add_conn(int fd, rpc_ifaceinfo *iface, const rpc_callback *cbs, int server)
{
    auto *c = static_cast<rpc_conn *>(kd_calloc(1, sizeof(rpc_conn)));
    if (!c)
        return nullptr;
    c->fd = fd;
    c->iface = iface;
    c->cbs = cbs;
    c->server = uint8_t(server != 0);
    // Write interest starts on: the first writability reports the connection.
    c->handle = csock_add_fd(fd, "rpc", on_read, on_write, nullptr, on_error, on_close, c);
    if (c->handle <= 0) {
        kd_free(c);
        return nullptr;
    }
    c->next = *list_of(c);
    *list_of(c) = c;
    return c;
}

} // namespace

int rpc_addiface(rpc_ifaceinfo *iface, const rpc_msgdesc *params, int, int)
{
    if (!iface || !params || !iface->name)
        return -1;
    iface->params = params;
    // Trees travel as text: no line wrapping inserted into documents.
    mxmlSetWrapMargin(0);
    return 0;
}

rpc_conn *rpc_connect(const struct sockaddr_un *addr, rpc_ifaceinfo *iface, const rpc_callback *cbs)
{
    if (!addr || !iface || !iface->params)
        return nullptr;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return nullptr;
    if (connect(fd, reinterpret_cast<const sockaddr *>(addr), sizeof *addr) < 0 && errno != EINPROGRESS &&
        errno != EAGAIN) {
        close(fd);
        return nullptr;
    }
    rpc_conn *c = add_conn(fd, iface, cbs, 0);
    if (!c)
        close(fd);
    return c;
}

rpc_conn *rpc_adopt_fd(int fd, rpc_ifaceinfo *iface, const rpc_callback *cbs, int server)
{
    if (fd < 0 || !iface || !iface->params)
        return nullptr;
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return add_conn(fd, iface, cbs, server);
}

namespace {

int queue_frame(rpc_conn *c, uint8_t kind, uint32_t id, uint32_t tag, va_list ap)
{
    if (!c || c->closing || c->failed || c->out.len - c->out.off > MAX_QUEUED)
        return -1;
    const rpc_msgdesc *d = rpcw_find(c->iface->params, id);
    if (!d)
        return -1;
    if (!rpcw_encode(&c->out, kind, id, tag, rpcw_format(d, kind), ap))
        return -1;
    csock_want_write(c->handle, 1);
    return 0;
}

} // namespace

int rpc_send_req(rpc_conn *conn, uint32_t id, uint32_t tag, ...)
{
    va_list ap;
    va_start(ap, tag);
    int r = queue_frame(conn, RPCW_REQUEST, id, tag, ap);
    va_end(ap);
    return r;
}

int rpc_send_reply(rpc_conn *conn, uint32_t id, uint32_t tag, ...)
{
    va_list ap;
    va_start(ap, tag);
    int r = queue_frame(conn, RPCW_REPLY, id, tag, ap);
    va_end(ap);
    return r;
}

namespace {

// The reason travels as the error reply's one text.
int queue_error(rpc_conn *c, uint32_t id, uint32_t tag, ...)
{
    va_list ap;
    va_start(ap, tag);
    int r = queue_frame(c, RPCW_ERROR_REPLY, id, tag, ap);
    va_end(ap);
    return r;
}

} // namespace

int rpc_send_error(rpc_conn *conn, uint32_t id, uint32_t tag, const char *reason)
{
    return queue_error(conn, id, tag, reason ? reason : "");
}

int rpc_send_ind(rpc_conn *conn, uint32_t id, ...)
{
    va_list ap;
    va_start(ap, id);
    int r = queue_frame(conn, RPCW_INDICATION, id, 0, ap);
    va_end(ap);
    return r;
}

namespace {

// A caller may still hold a connection that the peer already closed (and we
// freed): only act on connections that are still in one of our lists.
bool is_live(const rpc_conn *conn)
{
    for (const rpc_conn *c = g_rpc.clients; c; c = c->next)
        if (c == conn)
            return true;
    for (const rpc_conn *c = g_rpc.servers; c; c = c->next)
        if (c == conn)
            return true;
    return false;
}

} // namespace

void rpc_close(rpc_conn *conn)
{
    if (!conn || !is_live(conn) || conn->closing || conn->failed)
        return;
    conn->closing = 1;
    // The close completes from the loop: writability always comes round.
    csock_want_write(conn->handle, 1);
}

int rpc_isempty(void)
{
    return g_rpc.clients == nullptr;
}

namespace {

int on_accept(int fd, void *)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    return add_conn(fd, g_rpc.listeniface, g_rpc.listencbs, 1) ? 0 : -1;
}

} // namespace

int rpc_listen(const char *path, rpc_ifaceinfo *iface, const rpc_callback *cbs)
{
    sockaddr_un addr;
    if (!iface || !iface->params || csock_sockaddr_set_unix(&addr, path) < 0)
        return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if ((unlink(path) < 0 && errno != ENOENT) || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        close(fd);
        return -1;
    }
    mxmlSetWrapMargin(0);
    g_rpc.listeniface = iface;
    g_rpc.listencbs = cbs;
    int h = csock_add_listenfd(fd, "rpc-listen", on_accept, nullptr, nullptr);
    if (h <= 0) {
        close(fd);
        return -1;
    }
    g_rpc.listenfd = fd;
    g_rpc.listenhandle = h;
    return h;
}

namespace {

void drop_all(rpc_conn **list)
{
    while (rpc_conn *c = *list) {
        *list = c->next;
        csock_fastclose(c->handle);
        close(c->fd);
        rpcw_buf_free(&c->in);
        rpcw_buf_free(&c->out);
        kd_free(c);
    }
}

} // namespace

void rpc_shutdown(void)
{
    drop_all(&g_rpc.servers);
    drop_all(&g_rpc.clients);
    if (g_rpc.listenhandle > 0)
        csock_fastclose(g_rpc.listenhandle);
    if (g_rpc.listenfd >= 0)
        close(g_rpc.listenfd);
    g_rpc.listenfd = g_rpc.listenhandle = -1;
}

void rpc_set_userdata(rpc_conn *conn, void *data)
{
    if (conn)
        conn->user = data;
}

void *rpc_get_userdata(rpc_conn *conn)
{
    return conn ? conn->user : nullptr;
}
