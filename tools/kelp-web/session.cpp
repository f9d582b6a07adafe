// kelp-web's browser sessions and their control connections (see session.h).
#include "session.h"

#include "wire.h"

#include "platform/csock.h"

#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kweb {

namespace {

// 128 random bits as hex: a page can only use the session it was given.
bool make_token(std::string *token)
{
    unsigned char raw[16];
    if (getrandom(raw, sizeof(raw), 0) != static_cast<ssize_t>(sizeof(raw)))
        return false;
    char hex[3];
    token->clear();
    for (unsigned char b : raw) {
        snprintf(hex, sizeof(hex), "%02x", b);
        token->append(hex);
    }
    return true;
}

void enqueue(session *s, std::string event)
{
    s->queued += event.size();
    s->queue.push_back(std::move(event));
}

void wake(session_table *t, session *s)
{
    if (s->stream && t->wake)
        t->wake(s->stream);
}

void erase(session_table *t, session *s)
{
    auto it = std::find_if(t->all.begin(), t->all.end(), [s](const auto &p) { return p.get() == s; });
    if (it != t->all.end())
        t->all.erase(it);
}

} // namespace

int ctl_connect(const char *path)
{
    kd_unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        return -1;
    sockaddr_un sa;
    if (csock_sockaddr_set_unix(&sa, path) < 0)
        return -1;
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) != 0)
        return -1;
    return fd.release();
}

open_result session_open(session_table *t, std::string_view domain, uint32_t profile, time_t now, session **out)
{
    if (t->all.size() >= kMaxSessions)
        return open_result::too_many;
    auto s = std::make_unique<session>();
    if (!make_token(&s->token))
        return open_result::no_token;
    s->domain = std::string(domain);
    s->profile = profile;
    s->born = now;
    syslog(LOG_INFO, "session %.8s opened for profile %u of %s", s->token.c_str(), profile, s->domain.c_str());
    *out = s.get();
    t->all.push_back(std::move(s));
    return open_result::ok;
}

bool session_attach(session *s, kd_unique_fd ctl)
{
    s->ctl = std::move(ctl);
    s->relogin_at = 0;
    if (!session_send(s, login_request(s->domain, s->profile))) {
        s->ctl = kd_unique_fd();
        s->state = link::waiting;
        return false;
    }
    s->state = link::login;
    return true;
}

session *session_find(session_table *t, std::string_view token)
{
    for (auto &s : t->all)
        if (s->token == token)
            return s.get();
    return nullptr;
}

bool session_send(session *s, std::string_view request)
{
    if (!s->ctl)
        return false;
    // kelpd reads one packet per request; the socket has room for small ones.
    ssize_t n = send(s->ctl.get(), request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return n == static_cast<ssize_t>(request.size());
}

bool session_push(session_table *t, session *s, std::string_view json)
{
    if (s->dead)
        return false;
    size_t size = json.size() + 8;
    if (s->queued + size > kMaxQueueBytes) {
        syslog(LOG_NOTICE, "session %.8s dropped: its browser does not keep up", s->token.c_str());
        session_kill(t, s);
        return false;
    }
    std::string event;
    event.reserve(size);
    event.append("data: ").append(json).append("\n\n");
    enqueue(s, std::move(event));
    wake(t, s);
    return true;
}

void session_keepalive(session_table *t, session *s)
{
    if (s->dead || s->queued > 0)
        return;
    enqueue(s, ":\n\n");
    wake(t, s);
}

namespace {

void kelpd_gone(session *s)
{
    syslog(LOG_INFO, "session %.8s: kelpd closed the connection", s->token.c_str());
    s->ctl = kd_unique_fd();
    s->state = link::waiting;
    s->relogin_at = 0;
}

// The answer to the login: a refusal for want of configuration (kelpd has
// just started) is not the page's business; the login goes again shortly.
bool login_answered(session *s, std::string_view text, int64_t now_ms)
{
    if (s->state != link::login || !(text.starts_with("OK\tlogin\t") || text.starts_with("ERROR\tlogin\t")))
        return false;
    if (text.starts_with("ERROR\tlogin\t19:")) {
        s->relogin_at = now_ms + kReloginMs;
        return true;
    }
    s->state = link::live;
    return false;
}

// A packet over the limit is taken with a one-byte buffer, which discards
// the rest of it; the page is told that something was lost.
void drop_packet(session_table *t, session *s, ssize_t len)
{
    char c;
    recv(s->ctl.get(), &c, 1, MSG_DONTWAIT);
    syslog(LOG_ERR, "session %.8s: a message of %zd bytes from kelpd was dropped", s->token.c_str(), len);
    session_push(t, s, "{\"type\":\"error\",\"text\":\"a message from kelpd was too large and was dropped\"}");
}

} // namespace

bool session_receive(session_table *t, session *s, int64_t now_ms)
{
    if (!s->ctl)
        return false;
    char probe;
    ssize_t len = recv(s->ctl.get(), &probe, 1, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    if (len < 0 && (errno == EAGAIN || errno == EINTR))
        return true;
    if (len <= 0) {
        kelpd_gone(s);
        return false;
    }
    if (static_cast<size_t>(len) > t->max_packet) {
        drop_packet(t, s, len);
        return true;
    }
    std::string block(static_cast<size_t>(len), '\0');
    ssize_t got = recv(s->ctl.get(), block.data(), block.size(), MSG_DONTWAIT);
    if (got <= 0)
        return true;
    // The text ends at the first NUL; the padding behind it means nothing.
    block.resize(std::min(block.find('\0'), static_cast<size_t>(got)));
    if (login_answered(s, block, now_ms))
        return true;
    std::string json;
    if (message_to_json(block, &json))
        session_push(t, s, json);
    else
        syslog(LOG_NOTICE, "session %.8s: message from kelpd not understood", s->token.c_str());
    return true;
}

void session_relogin(session_table *t, int64_t now_ms)
{
    for (auto &s : t->all) {
        if (s->state != link::login || s->relogin_at == 0 || now_ms < s->relogin_at)
            continue;
        s->relogin_at = 0;
        if (!session_send(s.get(), login_request(s->domain, s->profile)))
            s->relogin_at = now_ms + kReloginMs;
    }
}

size_t session_take(session *s, char *buf, size_t max)
{
    size_t n = 0;
    while (n < max && !s->queue.empty()) {
        const std::string &front = s->queue.front();
        size_t k = std::min(max - n, front.size() - s->front_taken);
        memcpy(buf + n, front.data() + s->front_taken, k);
        n += k;
        s->front_taken += k;
        s->queued -= k;
        if (s->front_taken == front.size()) {
            s->queue.pop_front();
            s->front_taken = 0;
        }
    }
    return n;
}

void session_kill(session_table *t, session *s)
{
    s->ctl = kd_unique_fd();
    s->dead = true;
    s->queue.clear();
    s->queued = 0;
    s->front_taken = 0;
    if (!s->stream) {
        syslog(LOG_INFO, "session %.8s closed", s->token.c_str());
        erase(t, s);
        return;
    }
    wake(t, s); // the stream runs once more to end itself
}

void session_stream_ended(session_table *t, std::string_view token)
{
    session *s = session_find(t, token);
    if (!s)
        return;
    syslog(LOG_INFO, "session %.8s closed", s->token.c_str());
    erase(t, s);
}

void session_expire(session_table *t, time_t now)
{
    std::vector<session *> gone;
    for (auto &s : t->all)
        if (!s->stream && (s->dead || now - s->born > kAttachSeconds))
            gone.push_back(s.get());
    for (session *s : gone)
        session_kill(t, s);
}

} // namespace kweb
