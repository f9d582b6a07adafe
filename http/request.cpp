// httpcli exchange: resolving and connecting without blocking, sending the
// request and receiving the response, every wait bounded by the context's
// time-out and by what is left of the fetch's deadline, and the response
// bounded in size. An https URL runs the same exchange through a TLS session
// (http/tls.h) on the same socket.
#include "http/httpcli.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "http/deadline.h"
#include "http/tls.h"
#include "platform/slab.h"
#include "util/kd_fd.h"
#include "util/kd_log.h"

namespace {

constexpr size_t recv_block = 1560;

// Reception ended because the fetch's deadline passed (never a result code).
constexpr int deadline_passed = -1;

// Bound of one wait: the context's time-out, cut to the `left_ns` the fetch
// has left, rounded up so that a wait that ran out finds the deadline passed.
timeval wait_bound(const httpcli_ctx *ctx, int64_t left_ns)
{
    // A negative, NaN or absurd time-out would make the conversion undefined.
    float t = ctx->timeout >= 0.0f ? std::min(ctx->timeout, 1e8f) : 0.0f;
    timeval tv;
    tv.tv_sec = static_cast<time_t>(t);
    tv.tv_usec = static_cast<suseconds_t>((t - static_cast<float>(tv.tv_sec)) * 1000000);
    int64_t left_us = left_ns / 1000 + (left_ns % 1000 != 0);
    if (left_us < static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec) {
        tv.tv_sec = static_cast<time_t>(left_us / 1000000);
        tv.tv_usec = static_cast<suseconds_t>(left_us % 1000000);
    }
    return tv;
}

// Everything one exchange holds, released in a fixed order on every path.
struct exchange {
    httpcli_ctx *ctx;
    http_uri *uri = nullptr;
    httpcli_buffer *req = nullptr;
    kd_unique_fd fd;         // closed after the body below has ended the TLS session
    http_tls *tls = nullptr; // https only; ends before its socket is closed

    explicit exchange(httpcli_ctx *c) : ctx(c) {}
    exchange(const exchange &) = delete;
    exchange &operator=(const exchange &) = delete;
    ~exchange()
    {
        if (req)
            kd_free(req->start);
        kd_free(req);
        http_tls_close(tls);
        if (uri)
            http_free_uri(ctx, uri);
        kd_free(uri);
    }
};

// Starts a non-blocking connect to one resolved address; the socket, or -1.
int start_connect(const addrinfo *ai, uint16_t port)
{
    sockaddr_storage sa = {};
    memcpy(&sa, ai->ai_addr, std::min<size_t>(ai->ai_addrlen, sizeof sa));
    if (ai->ai_family == AF_INET)
        reinterpret_cast<sockaddr_in *>(&sa)->sin_port = htons(port);
    else
        reinterpret_cast<sockaddr_in6 *>(&sa)->sin6_port = htons(port);
    kd_unique_fd fd(socket(ai->ai_family, SOCK_STREAM, 0));
    if (!fd)
        return -1;
    int flags = fcntl(fd.get(), F_GETFL);
    if (flags != -1)
        fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&sa), ai->ai_addrlen) != 0 && errno != EINPROGRESS)
        return -1;
    return fd.release();
}

// The connect under way on fd has succeeded, within the wait's bounds.
bool connected(const httpcli_ctx *ctx, int fd)
{
    int err = 0;
    socklen_t errlen = sizeof err;
    return http_wait(ctx, fd, true) && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &errlen) == 0 && err == 0;
}

// Resolves the target (the proxy when one is set) and starts a non-blocking
// connect, trying its addresses (IPv6 and IPv4) in the resolver's order
// while the fetch has time; the last one's connect is left under way, as
// the send waits for it anyway. The socket, or -1.
int open_connection(const httpcli_ctx *ctx, const http_uri *uri)
{
    bool via_proxy = ctx->proxy && *ctx->proxy;
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    if (getaddrinfo(via_proxy ? ctx->proxy : uri->host, nullptr, &hints, &list) != 0)
        return -1;
    auto port = static_cast<uint16_t>(via_proxy ? ctx->proxy_port : uri->port);
    int fd = -1;
    for (const addrinfo *ai = list; ai && fd < 0 && !http_fetch_expired(); ai = ai->ai_next) {
        if (ai->ai_family != AF_INET && ai->ai_family != AF_INET6)
            continue;
        kd_unique_fd s(start_connect(ai, port));
        if (s && (!ai->ai_next || connected(ctx, s.get())))
            fd = s.release();
    }
    freeaddrinfo(list);
    return fd;
}

// Sends the whole request; any pass that cannot send ends the exchange.
bool send_request(const httpcli_ctx *ctx, int fd, const httpcli_buffer *req)
{
    uint32_t sent = 0;
    while (sent < req->len) {
        int err = 0;
        socklen_t errlen = sizeof err;
        if (!http_wait(ctx, fd, true) || getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &errlen) != 0 || err)
            return false;
        // MSG_NOSIGNAL: a peer that resets the connection must not kill the daemon.
        ssize_t n = send(fd, req->start + sent, req->len - sent, MSG_NOSIGNAL);
        if (n < 0)
            return false;
        sent += static_cast<uint32_t>(n);
    }
    return true;
}

// Reads until the peer closes, a wait ends empty-handed, the size bound is
// passed or the deadline: HTTPCLI_TRUNCATED, HTTPCLI_NO_MEMORY,
// deadline_passed or 0.
int receive(httpcli_ctx *ctx, int fd, httpcli_buffer *resp)
{
    char block[recv_block];
    for (;;) {
        // Checked at every pass: a peer may keep the socket readable.
        if (http_fetch_expired())
            return deadline_passed;
        ssize_t n = recv(fd, block, sizeof block, 0);
        if (n >= 0) {
            buffadd(ctx, resp, block, static_cast<uint32_t>(n));
            if (!resp->start && n > 0)
                return HTTPCLI_NO_MEMORY;
            if (resp->len > HTTPCLI_MAX_RESPONSE)
                return HTTPCLI_TRUNCATED;
            if (n == 0)
                return 0;
        } else if (errno != EAGAIN || !http_wait(ctx, fd, false)) {
            // also EINTR: the caller gets what arrived before the signal
            return http_fetch_expired() ? deadline_passed : 0;
        }
    }
}

// The same over TLS, where the session hands out the application data.
int receive_tls(httpcli_ctx *ctx, http_tls *t, httpcli_buffer *resp)
{
    char block[recv_block];
    for (size_t n; !http_fetch_expired() && (n = http_tls_recv(ctx, t, block, sizeof block)) > 0;) {
        buffadd(ctx, resp, block, static_cast<uint32_t>(n));
        if (!resp->start)
            return HTTPCLI_NO_MEMORY;
        if (resp->len > HTTPCLI_MAX_RESPONSE)
            return HTTPCLI_TRUNCATED;
    }
    return http_fetch_expired() ? deadline_passed : 0;
}

// Reception and parsing: the status, or one of the client's codes.
int take_response(httpcli_ctx *ctx, const exchange &x, httpcli_buffer *resp, http_result *res)
{
    httpcli_buffer *own = nullptr; // parsed, then freed so that nothing leaks
    if (!resp && !(resp = own = static_cast<httpcli_buffer *>(kd_calloc(1, sizeof(httpcli_buffer)))))
        return HTTPCLI_NO_CONNECTION;
    int rc = x.tls ? receive_tls(ctx, x.tls, resp) : receive(ctx, x.fd.get(), resp);
    int code = HTTPCLI_NO_CONNECTION;
    if (rc == HTTPCLI_NO_MEMORY) {
        code = rc;
    } else if (rc == deadline_passed) {
        resp->len = 0; // a fetch that ran out of time delivers nothing
    } else if (resp->start && resp->len >= 4) {
        int parsed = strip_response(ctx, resp, res);
        code = rc == HTTPCLI_TRUNCATED ? rc : parsed;
    }
    if (resp->start) // len < size always leaves room for the terminator
        resp->start[resp->len] = '\0';
    if (own) {
        kd_free(own->start);
        kd_free(own);
    }
    return code;
}

// Handshake, the same request text, and reception through the session.
int tls_exchange(httpcli_ctx *ctx, exchange *x, httpcli_buffer *resp, http_result *res)
{
    int rc = http_tls_open(ctx, x->fd.get(), x->uri, &x->tls);
    if (rc)
        return rc;
    if (!http_tls_send(ctx, x->tls, x->req->start, x->req->len))
        return HTTPCLI_NO_CONNECTION;
    return take_response(ctx, *x, resp, res);
}

} // namespace

// Waits until fd is readable or writable; false on time-out, failure (a
// signal too: the exchange ends with what has arrived), when the socket is
// not the one reported, or when the fetch's deadline has passed.
bool http_wait(const httpcli_ctx *ctx, int fd, bool writable)
{
    if (fd >= FD_SETSIZE) // select cannot watch it without overrunning the set
        return false;
    int64_t left = http_fetch_left_ns();
    if (left == 0)
        return false;
    timeval tv = wait_bound(ctx, left);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    int n = writable ? select(fd + 1, nullptr, &set, nullptr, &tv)
                     : select(fd + 1, &set, nullptr, nullptr, &tv);
    return n > 0 && FD_ISSET(fd, &set);
}

int http_request(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(url!=((void *)0));
    http_fetch_clock clock; // a hop of a redirect chain runs on the chain's clock
    if (http_fetch_expired())
        return HTTPCLI_NO_CONNECTION;
    exchange x(ctx);
    x.uri = static_cast<http_uri *>(kd_calloc(1, sizeof(http_uri)));
    if (!x.uri)
        return HTTPCLI_NO_CONNECTION;
    http_parse_uri(ctx, url, x.uri);
    if (!x.uri->scheme || !x.uri->host || !x.uri->path) // a part could not be copied
        return HTTPCLI_NO_MEMORY;
    x.fd = kd_unique_fd(open_connection(ctx, x.uri));
    if (!x.fd)
        return HTTPCLI_NO_CONNECTION;
    x.req = static_cast<httpcli_buffer *>(kd_calloc(1, sizeof(httpcli_buffer)));
    if (!x.req)
        return HTTPCLI_NO_MEMORY;
    build_request(ctx, x.uri, x.req);
    if (!x.req->start)
        return HTTPCLI_NO_MEMORY;
    if (http_tls_wanted(ctx, x.uri))
        return tls_exchange(ctx, &x, resp, res);
    if (!send_request(ctx, x.fd.get(), x.req))
        return HTTPCLI_NO_CONNECTION;
    return take_response(ctx, x, resp, res);
}
