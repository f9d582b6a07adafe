// configd: the reference configuration daemon. Keeps one XML document per
// domain in its state directory and serves them over the configd RPC on
// "/var/rpc/configd": subscriptions, fetches, saves (plain and conditional
// on the document's generation) and change indications.
// Ownership: each connection's record lives by value in g_clients from the
// established event to the closed one (no user data on the connection);
// trees are held by kd_mxml_tree, descriptors by kd_unique_fd (store.cpp).
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
#include "configd/cfgproto.h"
#include "configd/store.h"
#include "platform/csock.h"
#include "platform/kd_paths.h"
#include "platform/rpc_configd.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "util/kd_mxml.h"

namespace {

// One client connection and the domains it subscribed to, as one
// "|name|name|" text.
struct client_rec {
    rpc_conn *conn;
    std::string domains;
};

std::string g_statedir = KD_CONFIGD_STATEDIR;
volatile sig_atomic_t g_stop;
std::vector<client_rec> g_clients;
rpc_ifaceinfo g_iface = {"configd", 1, nullptr};

void on_signal(int)
{
    g_stop = 1;
}

// The record of a connection; made here should a request come before the
// established event.
client_rec &client_of(rpc_conn *c)
{
    for (client_rec &r : g_clients)
        if (r.conn == c)
            return r;
    return g_clients.emplace_back(client_rec{c, ""});
}

void on_established(rpc_conn *c, rpc_msg *)
{
    client_of(c);
    syslog(LOG_DEBUG, "client connected");
}

void on_closed(rpc_conn *c, rpc_msg *)
{
    std::erase_if(g_clients, [c](const client_rec &r) { return r.conn == c; });
    syslog(LOG_DEBUG, "client disconnected");
}

void on_error(rpc_conn *, rpc_msg *m)
{
    syslog(LOG_WARNING, "dropping client after RPC error %d", m->code);
}

void on_subscribe(rpc_conn *c, rpc_msg *m)
{
    client_rec &s = client_of(c);
    for (uint32_t i = 0; i < m->nlist; i++) {
        if (!cfg_valid_domain(m->list[i])) {
            rpc_send_error(c, m->id, m->tag, "invalid domain name");
            continue;
        }
        s.domains += std::string("|") + m->list[i] + "|";
        syslog(LOG_INFO, "client subscribed to domain '%s'", m->list[i]);
    }
}

// The document of a domain, or null after an error reply to the request.
mxml_node_t *load_or_refuse(rpc_conn *c, rpc_msg *m, const char *domain)
{
    if (!cfg_valid_domain(domain)) {
        rpc_send_error(c, m->id, m->tag, "invalid domain name");
        return nullptr;
    }
    std::string why;
    mxml_node_t *doc = cfg_load(g_statedir, domain, &why);
    if (!doc) {
        syslog(LOG_ERR, "domain '%s': %s", domain, why.c_str());
        rpc_send_error(c, m->id, m->tag, why.c_str());
    }
    return doc;
}

void on_get(rpc_conn *c, rpc_msg *m)
{
    kd_mxml_tree doc(load_or_refuse(c, m, m->s));
    if (doc && rpc_send_reply(c, m->id, m->tag, doc.get()) < 0)
        rpc_send_error(c, m->id, m->tag, "document too large to send");
}

void on_get_generation(rpc_conn *c, rpc_msg *m)
{
    kd_mxml_tree doc(load_or_refuse(c, m, m->s));
    if (!doc)
        return;
    std::string gen = cfg_generation_of(doc.get());
    if (gen.empty() || rpc_send_reply(c, m->id, m->tag, gen.c_str(), doc.get()) < 0)
        rpc_send_error(c, m->id, m->tag, "document too large to send");
}

void indicate_change(rpc_conn *saver, const char *domain)
{
    std::string key = std::string("|") + domain + "|";
    for (const client_rec &r : g_clients)
        if (r.conn != saver && r.domains.find(key) != std::string::npos)
            rpc_send_ind(r.conn, RPC_CONFIGD_CHANGE_IND, domain);
}

// Checks and stores a document; false after an error reply.
bool store_or_refuse(rpc_conn *c, rpc_msg *m, const char *domain)
{
    std::string why = cfg_check_document(m->x);
    if (!why.empty()) {
        syslog(LOG_NOTICE, "refused document for domain '%s': %s", domain, why.c_str());
        rpc_send_error(c, m->id, m->tag, why.c_str());
        return false;
    }
    if (!cfg_store(g_statedir, domain, m->x, &why)) {
        syslog(LOG_ERR, "domain '%s': %s", domain, why.c_str());
        rpc_send_error(c, m->id, m->tag, why.c_str());
        return false;
    }
    if (!why.empty())
        syslog(LOG_WARNING, "domain '%s': %s", domain, why.c_str());
    syslog(LOG_INFO, "domain '%s' saved", domain);
    indicate_change(c, domain);
    return true;
}

void on_save(rpc_conn *c, rpc_msg *m)
{
    if (!cfg_valid_domain(m->s)) {
        rpc_send_error(c, m->id, m->tag, "invalid domain name");
        return;
    }
    store_or_refuse(c, m, m->s);
}

// "DOMAIN GENERATION": the save goes through only while the stored document
// is still the one the client read, so concurrent editors lose no update.
void on_save_if(rpc_conn *c, rpc_msg *m)
{
    std::string arg = m->s;
    size_t sp = arg.find(' ');
    std::string domain = arg.substr(0, sp);
    std::string based = sp == std::string::npos ? "" : arg.substr(sp + 1);
    kd_mxml_tree cur(load_or_refuse(c, m, domain.c_str()));
    if (!cur)
        return;
    std::string now = cfg_generation_of(cur.get());
    if (based != now) {
        std::string why = std::string(CFG_CONFLICT) + "domain '" + domain + "' changed since generation " +
                          (based.empty() ? "(none)" : based) + " was read (now " + now + ")";
        syslog(LOG_NOTICE, "refused document for domain '%s': %s", domain.c_str(), why.c_str());
        rpc_send_error(c, m->id, m->tag, why.c_str());
        return;
    }
    if (store_or_refuse(c, m, domain.c_str()))
        rpc_send_reply(c, m->id, m->tag, cfg_generation_of(m->x).c_str());
}

const rpc_callback g_callbacks[] = {
    {RPC_EV_CLOSED, on_closed},
    {RPC_EV_ESTABLISHED, on_established},
    {RPC_EV_ERROR, on_error},
    {RPC_CONFIGD_SUBSCRIBE, on_subscribe},
    {RPC_CONFIGD_GET_CONFIG, on_get},
    {RPC_CONFIGD_SAVE_CONFIG, on_save},
    {CFG_GET_GENERATION, on_get_generation},
    {CFG_SAVE_IF, on_save_if},
    {0, nullptr},
};

// mkdir -p for the socket and state directories; false with the directory
// that could not be made in *failed (errno tells why).
bool make_dirs(const std::string &path, std::string *failed)
{
    for (size_t i = 1; i <= path.size(); i++) {
        if (i < path.size() && path[i] != '/')
            continue;
        std::string part = path.substr(0, i);
        if (mkdir(part.c_str(), 0755) < 0 && errno != EEXIST) {
            *failed = part;
            return false;
        }
    }
    return true;
}

// Signals are blocked except while csock_select() waits, so that a handler
// never interrupts a callback.
void setup_signals()
{
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    // Over a file size limit a write then fails with EFBIG, and the save is
    // refused like any other that cannot be stored, instead of killing configd.
    signal(SIGXFSZ, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

const char g_usage[] = "usage: configd [--state-dir DIR]\n";

// A command line configd cannot take: one line naming what is wrong, then
// for a misused argument (not for a bad value) the usage line.
int refuse_args(const std::string &what, bool misuse)
{
    fprintf(stderr, "configd: %s\n", what.c_str());
    if (misuse)
        fputs(g_usage, stderr);
    return 2;
}

// -1 to go on serving, else the exit status.
int parse_args(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(g_usage, stdout);
            return 0;
        }
        if (a == "--state-dir" && i + 1 < argc)
            g_statedir = argv[++i];
        else if (a == "--state-dir")
            return refuse_args("--state-dir needs a directory", true);
        else if (a.rfind("--state-dir=", 0) == 0)
            g_statedir = a.substr(12);
        else
            return refuse_args("unknown argument '" + a + "'", true);
    }
    return g_statedir.empty() ? refuse_args("--state-dir: the directory name is empty", false) : -1;
}

int serve()
{
    std::string sockpath = KD_CONFIGD_SOCKET;
    std::string sockdir = sockpath.substr(0, sockpath.rfind('/'));
    std::string failed;
    if (!make_dirs(sockdir, &failed) || !make_dirs(g_statedir, &failed)) {
        int err = errno;
        syslog(LOG_ERR, "cannot create %s: %s", failed.c_str(), strerror(err));
        fprintf(stderr, "configd: cannot create %s: %s\n", failed.c_str(), strerror(err));
        return 1;
    }
    // A crash in the middle of a save leaves its temporary file; the stored
    // document is whole, and the leftover would only take space.
    for (const std::string &name : cfg_remove_leftovers(g_statedir))
        syslog(LOG_NOTICE, "removed %s/%s, left by an interrupted save", g_statedir.c_str(), name.c_str());
    if (rpc_addiface(&g_iface, g_cfg_messages, 0, 0) < 0 || rpc_listen(KD_CONFIGD_SOCKET, &g_iface, g_callbacks) < 0) {
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

} // namespace

int main(int argc, char **argv)
{
    if (int status = parse_args(argc, argv); status >= 0)
        return status;
    openlog("configd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    setup_signals();
    if (csock_init() < 0 || timeout_init() < 0) {
        fprintf(stderr, "configd: cannot initialise the event loop\n");
        return 1;
    }
    int rc = serve();
    // Connections go without callbacks, so their records go here.
    g_clients.clear();
    rpc_shutdown();
    unlink(KD_CONFIGD_SOCKET);
    timeout_exit();
    csock_exit();
    syslog(LOG_INFO, "stopped");
    closelog();
    return rc;
}
