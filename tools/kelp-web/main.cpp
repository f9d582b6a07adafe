// kelp-web: the gateway's feed reader in the browser. Serves one page on
// 127.0.0.1:8080 (or --listen ADDR:PORT) and bridges each browser session
// to its own connection on kelpd's control socket, starting kelpd when a
// page needs it (--kelpd PATH names the program); the page edits the
// subscriptions through configd. It has no login of its own: the gateway
// puts its own in front.
#include "server.h"

#include "platform/kd_paths.h"

#include <arpa/inet.h>
#include <syslog.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

volatile int g_stop = 0;

void on_stop(int)
{
    g_stop = 1;
}

int usage(FILE *to, int status)
{
    fprintf(to, "usage: kelp-web [--listen ADDR:PORT] [--allow-host NAME]... [--kelpd PATH]\n"
                "Serves kelp's feed reader page on http://ADDR:PORT/ (default 127.0.0.1:8080)\n"
                "and connects each browser session to kelpd's control socket %s.\n"
                "PORT 0 picks a free port; the URL is printed on standard output.\n"
                "Requests are taken for IP addresses and localhost; --allow-host adds a\n"
                "host name (the gateway's own, when a proxy passes it on).\n"
                "kelpd is started when a page needs it and is not running: PATH, else the\n"
                "kelpd beside kelp-web, else the one on PATH.\n",
            KD_CTL_SOCKET);
    return status;
}

// "ADDR:PORT" with an IPv4 address and a port from 0 to 65535.
bool parse_listen(const char *text, sockaddr_in *sa)
{
    std::string s(text);
    size_t colon = s.rfind(':');
    if (colon == std::string::npos || colon + 1 == s.size() || s.size() - colon > 6)
        return false;
    unsigned long port = 0;
    for (size_t i = colon + 1; i < s.size(); i++) {
        if (s[i] < '0' || s[i] > '9')
            return false;
        port = port * 10 + static_cast<unsigned long>(s[i] - '0');
    }
    if (port > 65535)
        return false;
    *sa = {};
    sa->sin_family = AF_INET;
    sa->sin_port = htons(static_cast<uint16_t>(port));
    return inet_pton(AF_INET, s.substr(0, colon).c_str(), &sa->sin_addr) == 1;
}

void catch_signals()
{
    struct sigaction sa = {};
    sa.sa_handler = on_stop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

} // namespace

int main(int argc, char **argv)
{
    sockaddr_in addr;
    std::vector<std::string> hosts;
    std::string kelpd;
    parse_listen("127.0.0.1:8080", &addr);
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0)
            return usage(stdout, 0);
        if (strcmp(argv[i], "--listen") == 0 && i + 1 < argc && parse_listen(argv[i + 1], &addr)) {
            i++;
            continue;
        }
        if (strcmp(argv[i], "--allow-host") == 0 && i + 1 < argc && *argv[i + 1]) {
            hosts.emplace_back(argv[++i]);
            continue;
        }
        if (strcmp(argv[i], "--kelpd") == 0 && i + 1 < argc && *argv[i + 1]) {
            kelpd = argv[++i];
            continue;
        }
        fprintf(stderr, "kelp-web: bad argument '%s'\n", argv[i]);
        return usage(stderr, 2);
    }
    openlog("kelp-web", LOG_PID | LOG_NDELAY, LOG_USER);
    catch_signals();
    kweb::web_server srv;
    srv.keeper.ctl_path = KD_CTL_SOCKET;
    srv.keeper.program = kelpd;
    srv.allowed_hosts = std::move(hosts);
    if (!kweb::server_start(&srv, addr))
        return 1;
    char ip[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &addr.sin_addr, ip, sizeof(ip));
    printf("kelp-web listening on http://%s:%u/\n", ip, kweb::server_port(&srv));
    fflush(stdout);
    syslog(LOG_INFO, "listening on %s:%u", ip, kweb::server_port(&srv));
    kweb::server_run(&srv, &g_stop);
    kweb::server_stop(&srv);
    syslog(LOG_INFO, "stopped");
    return 0;
}
