// kd_configd: the session with configd, the one connection to it. Subscribes to both domains,
// fetches their documents (again on every change indication), hands them to
// the merge, sends changed documents back, and tears the configuration down
// when the connection closes.
#include <cstdlib>
#include <cstring>
#include <sys/un.h>
#include "config/kd_config.h"
#include "config/kd_config_state.h"
#include "config/kd_merge.h"
#include "platform/csock.h"
#include "platform/kd_paths.h"
#include "platform/rpc_configd.h"
#include "platform/slab.h"
#include "util/kd_log.h"

int32_t g_configstate = KD_CONFIG_NONE;

namespace {

// The session beside its state: what has arrived, and where saves go.
struct configd_session {
    uint32_t received;   // KD_RECEIVED_* bits, only ever ORed
    rpc_conn *conn;      // from "established" to "closed", else null
};

configd_session g_session;

} // namespace

int32_t kd_config_state(void) { return g_configstate; }
uint32_t kd_config_received(void) { return g_session.received; }
void kd_config_set_received(uint32_t bits) { g_session.received = bits; }

namespace {

const rpc_callback g_configd_callbacks[] = {
    {RPC_EV_CLOSED, kd_configd_closed},
    {RPC_EV_ESTABLISHED, kd_configd_established},
    {RPC_EV_ERROR, kd_configd_error},
    {RPC_CONFIGD_GET_CONFIG, kd_configd_data},
    {RPC_CONFIGD_CHANGE_IND, kd_configd_change},
    {0, nullptr},
};

} // namespace

rpc_conn *kd_config_init(void)
{
    KD_LOG(3, LOG_INFO, "connecting to configd ...");
    if (rpc_addiface(&g_ConfigD_IfaceInfo, g_ConfigD_ParamsList, 0, 0) < 0) {
        g_configstate = KD_CONFIG_NONE;
        return nullptr;
    }
    sockaddr_un addr;
    csock_sockaddr_set_unix(&addr, KD_CONFIGD_SOCKET);
    rpc_conn *conn = rpc_connect(&addr, &g_ConfigD_IfaceInfo, g_configd_callbacks);
    g_configstate = conn ? KD_CONFIG_CONNECTING : KD_CONFIG_NONE;
    return conn;
}

void kd_configd_established(rpc_conn *conn, rpc_msg *)
{
    static const char *const domains[] = {KD_DOMAIN_RSS, KD_DOMAIN_PODCAST, nullptr};
    KD_LOG(3, LOG_INFO, "configd connection established");
    rpc_send_req(conn, RPC_CONFIGD_SUBSCRIBE, 0, domains);
    rpc_send_req(conn, RPC_CONFIGD_GET_CONFIG, KD_HANDLE_RSS, KD_DOMAIN_RSS);
    rpc_send_req(conn, RPC_CONFIGD_GET_CONFIG, KD_HANDLE_PODCAST, KD_DOMAIN_PODCAST);
    g_configstate = KD_CONFIG_REQUESTED;
    g_session.conn = conn;
}

namespace {

// The session owns the tree from here on: the merge adopts it or refuses it.
void adopt(mxml_node_t **slot, kd_profile **list, rpc_msg *msg, uint32_t bit)
{
    mxml_node_t *tree = msg->x;
    msg->x = nullptr;
    kd_config_merge(slot, list, tree);
    // A refused tree is out of the reply and held by nobody: keeping it would leak it.
    if (*slot != tree)
        mxmlDelete(tree);
    g_session.received |= bit;
}

} // namespace

void kd_configd_data(rpc_conn *, rpc_msg *msg)
{
    KD_LOG(3, LOG_INFO, "incoming config data (handle=%d)", int(msg->tag));
    // An error reply still answers the request: waiting on in state 1 would
    // keep every later read mark from ever being saved.
    if (!msg->x)
        KD_LOG(1, LOG_ERR, "configd refused config request (handle=%u): %s", msg->tag,
               msg->error ? msg->error : "");
    else if (msg->tag == KD_HANDLE_RSS)
        adopt(&g_rssdomain, &g_rssproflist, msg, KD_RECEIVED_RSS);
    else if (msg->tag == KD_HANDLE_PODCAST)
        adopt(&g_poddomain, &g_podproflist, msg, KD_RECEIVED_PODCAST);
    else
        KD_LOG(1, LOG_ERR, "received config for unknown handle %u - ignored", msg->tag);
    g_configstate = KD_CONFIG_RECEIVED;
}

void kd_configd_change(rpc_conn *conn, rpc_msg *msg)
{
    const char *name = msg->s ? msg->s : "";
    KD_LOG(3, LOG_INFO, "config change on domain '%s' indicated", name);
    uint32_t tag = 0;
    if (!strcmp(name, KD_DOMAIN_RSS))
        tag = KD_HANDLE_RSS;
    else if (!strcmp(name, KD_DOMAIN_PODCAST))
        tag = KD_HANDLE_PODCAST;
    rpc_send_req(conn, RPC_CONFIGD_GET_CONFIG, tag, name);
    g_configstate = KD_CONFIG_REQUESTED;
}

void kd_configd_error(rpc_conn *conn, rpc_msg *msg)
{
    KD_LOG(1, LOG_CRIT, "configd error %d", int(msg->code & 0xff));
    g_configstate = KD_CONFIG_CLOSING;
    rpc_close(conn);
}

namespace {

// Unlinks every connection of every record of a list, then frees the records.
void free_profiles(kd_profile **list)
{
    while (kd_profile *p = *list) {
        while (p->nconns > 0) {
            uint32_t before = p->nconns;
            kd_unlink_profile(p->connections[0], p);
            if (p->nconns >= before)
                p->nconns = 0;   // never spin on a record that will not shrink
        }
        kd_free(p->connections);
        // Unlinks of the other domain still look up profiles through their elements.
        if (p->profile)
            mxmlSetUserData(p->profile, nullptr);
        *list = p->next;
        if (*list)
            (*list)->prev = nullptr;
        kd_free(p);
    }
}

// Frees the feed records of the pool, then the document.
void free_domain(mxml_node_t **slot)
{
    mxml_node_t *root = *slot;
    if (!root)
        return;
    mxml_node_t *pool = kd_pool_of(root);
    for (mxml_node_t *e = kd_first_entry(pool); e; e = kd_next_entry(e, pool))
        kd_free_entry_feed(e);
    mxmlDelete(root);
    *slot = nullptr;
}

} // namespace

void kd_configd_closed(rpc_conn *, rpc_msg *)
{
    KD_LOG(3, LOG_INFO, "configd connection closed");
    g_configstate = KD_CONFIG_NONE;
    g_session.conn = nullptr;
    free_profiles(&g_rssproflist);
    free_profiles(&g_podproflist);
    free_domain(&g_rssdomain);
    free_domain(&g_poddomain);
}

void kd_config_close(rpc_conn *conn)
{
    KD_LOG(3, LOG_INFO, "disconnecting from configd ...");
    g_configstate = KD_CONFIG_CLOSING;
    rpc_close(conn);
}

void kd_save_config(mxml_node_t *root)
{
    const char *name = nullptr;
    if (root && root == g_rssdomain)
        name = KD_DOMAIN_RSS;
    else if (root && root == g_poddomain)
        name = KD_DOMAIN_PODCAST;
    if (!name) {
        KD_LOG(1, LOG_CRIT, "unable to save config, non-matching domain node");
        return;
    }
    // Outside state 2 the change stays in memory until the next save.
    if (g_configstate != KD_CONFIG_RECEIVED)
        return;
    if (verbosity >= 4) {
        char *text = mxmlSaveAllocString(root, MXML_NO_CALLBACK);
        if (text)
            KD_LOG(4, LOG_DEBUG, "%s", text);
        free(text);
    }
    rpc_send_req(g_session.conn, RPC_CONFIGD_SAVE_CONFIG, 0, name, root);
}
