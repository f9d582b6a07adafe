// kelp-web's HTTP requests: the page's files, the JSON API and the event
// streams, served by libmicrohttpd in external-poll (epoll) mode.
#include "server.h"

#include "cfgweb.h"
#include "origin.h"
#include "wire.h"

#include "util/kd_fd.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kweb {

namespace {

constexpr size_t kMaxPostBytes = 4096;
// An OPML file travels as a JSON string: room for its escapes.
constexpr size_t kMaxImportPostBytes = 4 * kMaxOpmlBytes;
constexpr char kConfigPrefix[] = "/api/config/";
constexpr size_t kStreamBlock = 16384;

// The body of a POST while it arrives; freed when the request completes.
struct post_body {
    std::string data;
    bool too_big = false;
};

// One attached event stream; owned by its MHD response.
struct sse_stream {
    web_server *srv;
    std::string token;
    MHD_Connection *conn;
    bool suspended = false;
};

// A response is ours until queued; the connection keeps its own reference.
struct response_free {
    void operator()(MHD_Response *r) const { MHD_destroy_response(r); }
};
using response_ptr = std::unique_ptr<MHD_Response, response_free>;

void add_common_headers(MHD_Response *r, const char *type)
{
    MHD_add_response_header(r, "Content-Type", type);
    MHD_add_response_header(r, "Content-Security-Policy", kCsp);
    MHD_add_response_header(r, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(r, "Referrer-Policy", "no-referrer");
    MHD_add_response_header(r, "X-Frame-Options", "DENY");
    MHD_add_response_header(r, "Cache-Control", "no-store");
}

MHD_Result queue(MHD_Connection *c, unsigned status, response_ptr r, const char *type)
{
    if (!r)
        return MHD_NO;
    add_common_headers(r.get(), type);
    return MHD_queue_response(c, status, r.get());
}

MHD_Result respond(MHD_Connection *c, unsigned status, const std::string &body, const char *type)
{
    response_ptr r(MHD_create_response_from_buffer(body.size(), const_cast<char *>(body.data()),
                                                   MHD_RESPMEM_MUST_COPY));
    return queue(c, status, std::move(r), type);
}

MHD_Result respond_json(MHD_Connection *c, unsigned status, const std::string &json)
{
    return respond(c, status, json, "application/json");
}

MHD_Result respond_error(MHD_Connection *c, unsigned status, std::string_view text)
{
    std::string json = "{\"error\":";
    json_append_string(&json, text);
    return respond_json(c, status, json + "}");
}

MHD_Result serve_asset(MHD_Connection *c, std::string_view url)
{
    if (url == "/")
        url = "/index.html";
    else if (url == "/favicon.ico")
        url = "/favicon.svg"; // browsers ask for it whatever the page names
    for (size_t i = 0; i < kAssetCount; i++) {
        if (url != kAssets[i].path)
            continue;
        response_ptr r(MHD_create_response_from_buffer(
            kAssets[i].size, const_cast<unsigned char *>(kAssets[i].data), MHD_RESPMEM_PERSISTENT));
        return queue(c, MHD_HTTP_OK, std::move(r), kAssets[i].type);
    }
    return respond(c, MHD_HTTP_NOT_FOUND, "not found\n", "text/plain; charset=utf-8");
}

// Only the page itself may post: its Origin must name the host it was
// loaded from. A browser always sends Origin with a POST.
bool same_origin(MHD_Connection *c)
{
    const char *origin = MHD_lookup_connection_value(c, MHD_HEADER_KIND, "Origin");
    const char *host = MHD_lookup_connection_value(c, MHD_HEADER_KIND, "Host");
    return origin && host && origin_matches(origin, host);
}

bool host_ok(web_server *srv, MHD_Connection *c)
{
    const char *host = MHD_lookup_connection_value(c, MHD_HEADER_KIND, "Host");
    return host && host_allowed(host, srv->allowed_hosts);
}

bool is_json(MHD_Connection *c)
{
    const char *type = MHD_lookup_connection_value(c, MHD_HEADER_KIND, "Content-Type");
    return type && strncmp(type, "application/json", 16) == 0;
}

ssize_t read_events(void *cls, uint64_t, char *buf, size_t max)
{
    auto *st = static_cast<sse_stream *>(cls);
    session *s = session_find(&st->srv->sessions, st->token);
    if (!s || s->dead)
        return MHD_CONTENT_READER_END_WITH_ERROR;
    size_t n = session_take(s, buf, max);
    if (n > 0)
        return static_cast<ssize_t>(n);
    // Nothing to send: park the connection until the session wakes it.
    st->suspended = true;
    MHD_suspend_connection(st->conn);
    return 0;
}

void free_stream(void *cls)
{
    auto *st = static_cast<sse_stream *>(cls);
    session_stream_ended(&st->srv->sessions, st->token);
    delete st;
}

void wake_stream(void *stream)
{
    auto *st = static_cast<sse_stream *>(stream);
    if (!st->suspended)
        return;
    st->suspended = false;
    MHD_resume_connection(st->conn);
}

MHD_Result open_stream(web_server *srv, MHD_Connection *c)
{
    const char *token = MHD_lookup_connection_value(c, MHD_GET_ARGUMENT_KIND, "session");
    session *s = token ? session_find(&srv->sessions, token) : nullptr;
    if (!s || s->dead)
        return respond_error(c, MHD_HTTP_NOT_FOUND, "no such session");
    if (s->stream)
        return respond_error(c, MHD_HTTP_CONFLICT, "the session has its event stream already");
    auto st = std::make_unique<sse_stream>(sse_stream{srv, s->token, c});
    response_ptr r(MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBlock, read_events, st.get(),
                                                     free_stream));
    if (!r)
        return MHD_NO;
    s->stream = st.release(); // free_stream deletes it with the response
    return queue(c, MHD_HTTP_OK, std::move(r), "text/event-stream");
}

MHD_Result open_session(web_server *srv, MHD_Connection *c, const std::vector<json_member> &obj)
{
    const json_member *domain = json_find(obj, "domain");
    const json_member *profile = json_find(obj, "profile");
    if (!domain || domain->is_number || (domain->text != "rss" && domain->text != "podcast"))
        return respond_error(c, MHD_HTTP_BAD_REQUEST, "domain must be rss or podcast");
    if (!profile || !profile->is_number)
        return respond_error(c, MHD_HTTP_BAD_REQUEST, "profile must be a number");
    session *s = nullptr;
    switch (session_open(&srv->sessions, domain->text, profile->number, time(nullptr), &s)) {
    case open_result::ok:
        // Connected (or kelpd started) on this turn of the loop.
        return respond_json(c, MHD_HTTP_OK, "{\"session\":\"" + s->token + "\"}");
    case open_result::too_many:
        return respond_error(c, MHD_HTTP_SERVICE_UNAVAILABLE, "too many sessions");
    case open_result::no_token:
        break;
    }
    return respond_error(c, MHD_HTTP_SERVICE_UNAVAILABLE, "no random numbers for a session");
}

// A configd request of the page; a stored change may let kelpd run again.
MHD_Result config(web_server *srv, MHD_Connection *c, std::string_view what, const std::vector<json_member> &obj)
{
    web_reply reply;
    if (!config_request(what, obj, &reply))
        return respond_error(c, MHD_HTTP_NOT_FOUND, "unknown request");
    if (reply.status == MHD_HTTP_OK && what != "list" && what != "opml-export")
        ondemand_kick(srv, mono_ms());
    if (reply.filename.empty())
        return respond(c, reply.status, reply.body, reply.type);
    response_ptr r(MHD_create_response_from_buffer(reply.body.size(), reply.body.data(), MHD_RESPMEM_MUST_COPY));
    if (r)
        MHD_add_response_header(r.get(), "Content-Disposition",
                                ("attachment; filename=\"" + reply.filename + "\"").c_str());
    return queue(c, reply.status, std::move(r), reply.type);
}

MHD_Result handle_post(web_server *srv, MHD_Connection *c, std::string_view url, const post_body &body)
{
    if (!same_origin(c))
        return respond_error(c, MHD_HTTP_FORBIDDEN, "requests are accepted from this page only");
    if (!is_json(c))
        return respond_error(c, MHD_HTTP_UNSUPPORTED_MEDIA_TYPE, "JSON expected");
    if (body.too_big)
        return respond_error(c, MHD_HTTP_CONTENT_TOO_LARGE, "request too large");
    std::vector<json_member> obj;
    if (!json_parse_object(body.data, &obj))
        return respond_error(c, MHD_HTTP_BAD_REQUEST, "malformed JSON");
    if (url == "/api/session")
        return open_session(srv, c, obj);
    if (url.starts_with(kConfigPrefix))
        return config(srv, c, url.substr(sizeof(kConfigPrefix) - 1), obj);
    const json_member *token = json_find(obj, "session");
    session *s = token && !token->is_number ? session_find(&srv->sessions, token->text) : nullptr;
    if (!s || s->dead)
        return respond_error(c, MHD_HTTP_NOT_FOUND, "no such session");
    if (url == "/api/logout") {
        session_kill(&srv->sessions, s);
        return respond_json(c, MHD_HTTP_OK, "{}");
    }
    std::string request;
    if (url != "/api/request" || !request_from_json(obj, s->domain, s->profile, &request))
        return respond_error(c, MHD_HTTP_BAD_REQUEST, "unknown request");
    if (s->state != link::live)
        return respond_error(c, MHD_HTTP_SERVICE_UNAVAILABLE, "kelpd is not ready yet: try again in a moment");
    if (!session_send(s, request))
        return respond_error(c, MHD_HTTP_BAD_GATEWAY, "kelpd has gone");
    return respond_json(c, MHD_HTTP_ACCEPTED, "{}");
}

// A POST body arrives in pieces; the last call has nothing left to upload.
MHD_Result collect_post(web_server *srv, MHD_Connection *c, const char *url, const char *data, size_t *size,
                        void **req_cls)
{
    auto *body = static_cast<post_body *>(*req_cls);
    if (!body) {
        *req_cls = new post_body;
        return MHD_YES;
    }
    if (*size > 0) {
        size_t limit = strcmp(url, "/api/config/opml-import") == 0 ? kMaxImportPostBytes : kMaxPostBytes;
        if (body->data.size() + *size > limit)
            body->too_big = true;
        else
            body->data.append(data, *size);
        *size = 0;
        return MHD_YES;
    }
    return handle_post(srv, c, url, *body);
}

MHD_Result on_request(void *cls, MHD_Connection *c, const char *url, const char *method, const char *,
                      const char *data, size_t *size, void **req_cls)
{
    auto *srv = static_cast<web_server *>(cls);
    if (!host_ok(srv, c))
        return respond(c, MHD_HTTP_MISDIRECTED_REQUEST, "unknown host name (see --allow-host)\n",
                       "text/plain; charset=utf-8");
    if (strcmp(method, "POST") == 0)
        return collect_post(srv, c, url, data, size, req_cls);
    if (strcmp(method, "GET") != 0 && strcmp(method, "HEAD") != 0)
        return respond(c, MHD_HTTP_METHOD_NOT_ALLOWED, "method not allowed\n", "text/plain; charset=utf-8");
    if (strcmp(url, "/api/events") == 0)
        return open_stream(srv, c);
    return serve_asset(c, url);
}

// libmicrohttpd's own messages (a stream ended while kelp-web closed it,
// a client that broke off) are routine here: debug level.
void on_mhd_log(void *, const char *fmt, va_list ap)
{
    vsyslog(LOG_DEBUG, fmt, ap);
}

void on_completed(void *, MHD_Connection *, void **req_cls, MHD_RequestTerminationCode)
{
    delete static_cast<post_body *>(*req_cls);
    *req_cls = nullptr;
}

// A TCP socket bound to addr and listening, or -1 with errno telling why.
// Made here rather than by libmicrohttpd so that the reason is known.
int listen_on(const sockaddr_in &addr)
{
    kd_unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return -1;
    // As libmicrohttpd does: a restart need not wait for old connections.
    int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0 ||
        listen(fd.get(), SOMAXCONN) != 0) {
        int err = errno;
        fd = kd_unique_fd(); // closed before errno is set for the caller
        errno = err;
        return -1;
    }
    return fd.release();
}

} // namespace

bool stream_parked(void *stream)
{
    return static_cast<sse_stream *>(stream)->suspended;
}

int stream_socket(void *stream)
{
    MHD_Connection *c = static_cast<sse_stream *>(stream)->conn;
    const MHD_ConnectionInfo *info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CONNECTION_FD);
    return info ? info->connect_fd : -1;
}

bool server_start(web_server *srv, const sockaddr_in &addr)
{
    srv->sessions.wake = wake_stream;
    int fd = listen_on(addr);
    if (fd < 0) {
        int err = errno;
        char ip[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &addr.sin_addr, ip, sizeof(ip));
        fprintf(stderr, "kelp-web: cannot listen on %s:%u: %s\n", ip, ntohs(addr.sin_port), strerror(err));
        return false;
    }
    unsigned flags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
    MHD_Daemon *d = MHD_start_daemon(flags, ntohs(addr.sin_port), nullptr, nullptr, on_request, srv,
                                     MHD_OPTION_EXTERNAL_LOGGER, on_mhd_log, nullptr,
                                     MHD_OPTION_LISTEN_SOCKET, fd,
                                     MHD_OPTION_NOTIFY_COMPLETED, on_completed, srv,
                                     MHD_OPTION_CONNECTION_LIMIT, 64u,
                                     MHD_OPTION_CONNECTION_TIMEOUT, 60u,
                                     MHD_OPTION_END);
    if (!d) {
        // The socket is left to the process's end: whether libmicrohttpd
        // closed it on its way out is not said.
        fprintf(stderr, "kelp-web: cannot start the HTTP server\n");
        return false;
    }
    srv->mhd.reset(d); // the daemon owns the socket from here on
    return true;
}

void server_stop(web_server *srv)
{
    // libmicrohttpd refuses to stop with a parked stream: every session is
    // ended first, which wakes its stream to end itself.
    std::vector<session *> all;
    for (auto &s : srv->sessions.all)
        all.push_back(s.get());
    for (session *s : all)
        session_kill(&srv->sessions, s);
    srv->mhd.reset();
}

uint16_t server_port(web_server *srv)
{
    const MHD_DaemonInfo *info = MHD_get_daemon_info(srv->mhd.get(), MHD_DAEMON_INFO_BIND_PORT);
    return info ? info->port : 0;
}

} // namespace kweb
