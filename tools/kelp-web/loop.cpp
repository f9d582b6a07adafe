// kelp-web's event loop: one poll over libmicrohttpd's epoll descriptor,
// every session's control connection and the sockets of the parked event
// streams (watched for the browser hanging up), woken in time for kelpd on
// demand (probes, pauses, logins sent again).
#include "server.h"

#include <poll.h>

#include <cerrno>
#include <csignal>

namespace kweb {

namespace {

constexpr int kKeepaliveSeconds = 25;
constexpr int kMaxWaitMs = 1000;

enum class watch { ctl, stream };

struct watched {
    std::string token;
    watch what;
};

void collect(web_server *srv, std::vector<pollfd> *fds, std::vector<watched> *who)
{
    const MHD_DaemonInfo *info = MHD_get_daemon_info(srv->mhd.get(), MHD_DAEMON_INFO_EPOLL_FD);
    fds->push_back({info ? info->epoll_fd : -1, POLLIN, 0});
    who->push_back({"", watch::ctl});
    for (auto &s : srv->sessions.all) {
        if (s->ctl) {
            fds->push_back({s->ctl.get(), POLLIN, 0});
            who->push_back({s->token, watch::ctl});
        }
        int sock = s->stream && stream_parked(s->stream) ? stream_socket(s->stream) : -1;
        if (sock >= 0) {
            fds->push_back({sock, POLLRDHUP, 0});
            who->push_back({s->token, watch::stream});
        }
    }
}

void serve_ready(web_server *srv, const std::vector<pollfd> &fds, const std::vector<watched> &who)
{
    for (size_t i = 1; i < fds.size(); i++) {
        if (fds[i].revents == 0)
            continue;
        session *s = session_find(&srv->sessions, who[i].token);
        if (!s)
            continue;
        if (who[i].what == watch::stream)
            session_kill(&srv->sessions, s); // the browser went away
        else if (s->ctl && !session_receive(&srv->sessions, s, mono_ms()))
            ondemand_lost(srv, s, mono_ms());
    }
}

void keep_alive(web_server *srv, time_t now)
{
    if (now - srv->last_keepalive < kKeepaliveSeconds)
        return;
    srv->last_keepalive = now;
    for (auto &s : srv->sessions.all)
        if (s->stream)
            session_keepalive(&srv->sessions, s.get());
}

int wait_ms(web_server *srv)
{
    int ms = kMaxWaitMs;
    MHD_UNSIGNED_LONG_LONG t = 0;
    if (MHD_get_timeout(srv->mhd.get(), &t) == MHD_YES && t < static_cast<MHD_UNSIGNED_LONG_LONG>(ms))
        ms = static_cast<int>(t);
    int kelpd = ondemand_wait_ms(srv, mono_ms());
    return kelpd >= 0 && kelpd < ms ? kelpd : ms;
}

} // namespace

void server_run(web_server *srv, volatile const int *stop)
{
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    sigprocmask(SIG_BLOCK, &block, &old);
    srv->last_keepalive = time(nullptr);
    while (!*stop) {
        std::vector<pollfd> fds;
        std::vector<watched> who;
        collect(srv, &fds, &who);
        int ms = wait_ms(srv);
        timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
        int n = ppoll(fds.data(), fds.size(), &ts, &old);
        if (n < 0 && errno != EINTR)
            break;
        if (n > 0)
            serve_ready(srv, fds, who);
        MHD_run(srv->mhd.get());
        ondemand_turn(srv, mono_ms());
        time_t now = time(nullptr);
        session_expire(&srv->sessions, now);
        keep_alive(srv, now);
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

} // namespace kweb
