// configd: the reference configuration daemon. Keeps one XML document per
// domain in its state directory and serves them over the configd RPC on
// "/var/rpc/configd": subscriptions, fetches, saves and change indications.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <algorithm>
#include <vector>
#include "configd/store.h"
#include "platform/csock.h"
#include "platform/kd_paths.h"
#include "platform/rpc_configd.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "util/kd_mxml.h"

// Domains a connection subscribed to, as one "|name|name|" text.
struct subscriber {
    std::string domains;
};

static std::string g_statedir = KD_CONFIGD_STATEDIR;
static volatile sig_atomic_t g_stop;
static std::vector<rpc_conn *> g_conns;   // every client connection

static void on_signal(int)
{
    g_stop = 1;
}

static subscriber *subs_of(rpc_conn *c)
{
    auto *s = static_cast<subscriber *>(rpc_get_userdata(c));
    if (!s) {
        s = new subscriber;
        rpc_set_userdata(c, s);
    }
    return s;
}

static void on_established(rpc_conn *c, rpc_msg *)
{
    g_conns.push_back(c);
    syslog(LOG_DEBUG, "client connected");
}

static void on_closed(rpc_conn *c, rpc_msg *)
{
    g_conns.erase(std::remove(g_conns.begin(), g_conns.end(), c), g_conns.end());
    delete static_cast<subscriber *>(rpc_get_userdata(c));
    rpc_set_userdata(c, nullptr);
    syslog(LOG_DEBUG, "client disconnected");
}

static void on_error(rpc_conn *, rpc_msg *m)
{
    syslog(LOG_WARNING, "dropping client after RPC error %d", m->code);
}

static void on_subscribe(rpc_conn *c, rpc_msg *m)
{
    subscriber *s = subs_of(c);
    for (uint32_t i = 0; i < m->nlist; i++) {
        if (!cfg_valid_domain(m->list[i])) {
            rpc_send_error(c, m->id, m->tag, "invalid domain name");
            continue;
        }
        s->domains += std::string("|") + m->list[i] + "|";
        syslog(LOG_INFO, "client subscribed to domain '%s'", m->list[i]);
    }
}

static void on_get(rpc_conn *c, rpc_msg *m)
{
    if (!cfg_valid_domain(m->s)) {
        rpc_send_error(c, m->id, m->tag, "invalid domain name");
        return;
    }
    std::string why;
    kd_mxml_tree doc(cfg_load(g_statedir, m->s, &why));
    if (!doc) {
        syslog(LOG_ERR, "domain '%s': %s", m->s, why.c_str());
        rpc_send_error(c, m->id, m->tag, why.c_str());
        return;
    }
    if (rpc_send_reply(c, m->id, m->tag, doc.get()) < 0)
        rpc_send_error(c, m->id, m->tag, "document too large to send");
}

static void indicate_change(rpc_conn *saver, const char *domain)
{
    std::string key = std::string("|") + domain + "|";
    for (rpc_conn *c : g_conns) {
        if (c == saver)
            continue;
        auto *s = static_cast<subscriber *>(rpc_get_userdata(c));
        if (s && s->domains.find(key) != std::string::npos)
            rpc_send_ind(c, RPC_CONFIGD_CHANGE_IND, domain);
    }
}

static void on_save(rpc_conn *c, rpc_msg *m)
{
    if (!cfg_valid_domain(m->s)) {
        rpc_send_error(c, m->id, m->tag, "invalid domain name");
        return;
    }
    std::string why = cfg_check_document(m->x);
    if (!why.empty()) {
        syslog(LOG_NOTICE, "refused document for domain '%s': %s", m->s, why.c_str());
        rpc_send_error(c, m->id, m->tag, why.c_str());
        return;
    }
    if (!cfg_store(g_statedir, m->s, m->x, &why)) {
        syslog(LOG_ERR, "domain '%s': %s", m->s, why.c_str());
        rpc_send_error(c, m->id, m->tag, why.c_str());
        return;
    }
    if (!why.empty())
        syslog(LOG_WARNING, "domain '%s': %s", m->s, why.c_str());
    syslog(LOG_INFO, "domain '%s' saved", m->s);
    indicate_change(c, m->s);
}

static const rpc_callback g_callbacks[] = {
    {RPC_EV_CLOSED, on_closed},
    {RPC_EV_ESTABLISHED, on_established},
    {RPC_EV_ERROR, on_error},
    {RPC_CONFIGD_SUBSCRIBE, on_subscribe},
    {RPC_CONFIGD_GET_CONFIG, on_get},
    {RPC_CONFIGD_SAVE_CONFIG, on_save},
    {0, nullptr},
};

// mkdir -p for the socket and state directories.
static bool make_dirs(const std::string &path)
{
    for (size_t i = 1; i <= path.size(); i++) {
        if (i < path.size() && path[i] != '/')
            continue;
        std::string part = path.substr(0, i);
        if (mkdir(part.c_str(), 0755) < 0 && errno != EEXIST)
            return false;
    }
    return true;
}

// Signals are blocked except while csock_select() waits, so that a handler
// never interrupts a callback.
static void setup_signals()
{
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

static int usage()
{
    fprintf(stderr, "usage: configd [--state-dir DIR]\n");
    return 2;
}

static int parse_args(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--state-dir" && i + 1 < argc)
            g_statedir = argv[++i];
        else if (a.rfind("--state-dir=", 0) == 0)
            g_statedir = a.substr(12);
        else
            return -1;
    }
    return g_statedir.empty() ? -1 : 0;
}

static int serve()
{
    std::string sockpath = KD_CONFIGD_SOCKET;
    std::string sockdir = sockpath.substr(0, sockpath.rfind('/'));
    if (!make_dirs(sockdir) || !make_dirs(g_statedir)) {
        syslog(LOG_ERR, "cannot create %s or %s: %s", sockdir.c_str(), g_statedir.c_str(), strerror(errno));
        fprintf(stderr, "configd: cannot create directories: %s\n", strerror(errno));
        return 1;
    }
    if (rpc_addiface(&g_ConfigD_IfaceInfo, g_ConfigD_ParamsList, 0, 0) < 0 ||
        rpc_listen(KD_CONFIGD_SOCKET, &g_ConfigD_IfaceInfo, g_callbacks) < 0) {
        syslog(LOG_ERR, "cannot listen on %s: %s", KD_CONFIGD_SOCKET, strerror(errno));
        fprintf(stderr, "configd: cannot listen on %s: %s\n", KD_CONFIGD_SOCKET, strerror(errno));
        return 1;
    }
    syslog(LOG_INFO, "serving %s, documents in %s", KD_CONFIGD_SOCKET, g_statedir.c_str());
    while (!g_stop)
        if (csock_select() < 0 && errno != EINTR)
            break;
    return 0;
}

int main(int argc, char **argv)
{
    if (parse_args(argc, argv) < 0)
        return usage();
    openlog("configd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    setup_signals();
    if (csock_init() < 0 || timeout_init() < 0) {
        fprintf(stderr, "configd: cannot initialise the event loop\n");
        return 1;
    }
    int rc = serve();
    // Connections go without callbacks, so the subscriber records go here.
    for (rpc_conn *c : g_conns)
        delete static_cast<subscriber *>(rpc_get_userdata(c));
    g_conns.clear();
    rpc_shutdown();
    unlink(KD_CONFIGD_SOCKET);
    timeout_exit();
    csock_exit();
    syslog(LOG_INFO, "stopped");
    closelog();
    return rc;
}
