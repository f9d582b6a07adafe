// kd_merge_timers: which feeds are polled. A feed is polled while a profile
// subscribing it has a connected client and the internet is usable; this
// module starts and stops the poll timers, unlinks profiles from connections
// and decides whether the configuration is empty. Polls run and stop through
// refresh/'s registered functions (kd_polls).
#include "config/kd_config.h"
#include "config/kd_config_state.h"
#include "config/kd_merge.h"
#include "feed/kd_node.h"
#include "platform/dsldstat.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "util/kd_log.h"

namespace {

bool feed_attached_in(mxml_node_t *root, const void *feed)
{
    mxml_node_t *pool = kd_pool_of(root);
    for (mxml_node_t *e = kd_first_entry(pool); e; e = kd_next_entry(e, pool))
        if (mxmlGetUserData(e) == feed)
            return true;
    return false;
}

// A merge may free a record between queueing its refresh and the timer
// firing, so the record is used only when an entry still holds it.
void immediate_refresh(void *param, int id)
{
    if (feed_attached_in(g_rssdomain, param) || feed_attached_in(g_poddomain, param))
        kd_polls().refresh(param, id);
}

const char *url_of(mxml_node_t *entry)
{
    const char *url = mxmlElementGetAttr(entry, "url");
    return url ? url : "";
}

void start_poll(kd_node *n, mxml_node_t *entry)
{
    auto interval = kd_extract_pollfreq(entry);
    KD_LOG(3, LOG_DEBUG, "start %lds poll on: %s", static_cast<long>(interval), url_of(entry));
    kd_add_immediate_refresh(n);
    int id = timeout_add(kd_polls().refresh, interval, n, 1);
    n->timer = id > 0 ? id : 0;
    n->poll = id > 0 ? static_cast<int32_t>(interval) : 0;
}

void stop_poll(kd_node *n, mxml_node_t *entry)
{
    KD_LOG(3, LOG_DEBUG, "stop poll on: %s", url_of(entry));
    timeout_del(n->timer);
    kd_polls().cancel(n); // a stopped poll takes no answer
    n->timer = 0;
    n->poll = 0;
}

template <typename T> void remove_first(T **arr, uint32_t *n, const T *p)
{
    for (uint32_t i = 0; i < *n; i++) {
        if (arr[i] != p)
            continue;
        for (uint32_t j = i + 1; j < *n; j++)
            arr[j - 1] = arr[j];
        (*n)--;
        return;
    }
}

bool has_items(mxml_node_t *root)
{
    return root && mxmlFindElement(root, root, "item", nullptr, nullptr, MXML_DESCEND) != nullptr;
}

constexpr kd_config_hooks kDefaultHooks{dsldstat_internet_usable};

kd_config_hooks g_hooks = kDefaultHooks;

} // namespace

void kd_config_set_hooks(const kd_config_hooks *hooks)
{
    g_hooks = hooks ? *hooks : kDefaultHooks;
}

int kd_internet_usable(void)
{
    return g_hooks.internet_usable();
}

void kd_add_immediate_refresh(kd_node *feed)
{
    timeout_add(immediate_refresh, 0, feed, 0);
}

void kd_refresh_domain_timers(mxml_node_t *root)
{
    mxml_node_t *pool = kd_pool_of(root);
    for (mxml_node_t *e = kd_first_entry(pool); e; e = kd_next_entry(e, pool)) {
        auto *n = static_cast<kd_node *>(mxmlGetUserData(e));
        if (!n)
            continue;
        bool in_use = kd_feed_in_use(e) != 0;
        if (n->timer <= 0) {
            if (in_use && kd_internet_usable())
                start_poll(n, e);
        } else if (!in_use || !kd_internet_usable()) {
            stop_poll(n, e);
        }
    }
}

void kd_refresh_timers(void)
{
    kd_refresh_domain_timers(g_rssdomain);
    kd_refresh_domain_timers(g_poddomain);
}

void kd_unlink_profile(kd_client *client, kd_profile *profile)
{
    if (!client || !profile)
        return;
    KD_LOG(4, LOG_DEBUG, "unlinking profile %u from connection on sd %d", profile->profile_id,
           kd_clients().client_fd(client));
    remove_first(profile->connections, &profile->nconns, client);
    // The array grows by one slot per login and never shrinks: once the last
    // connection has gone it is given back, so a burst of logins is not held.
    if (profile->nconns == 0) {
        kd_free(profile->connections);
        profile->connections = nullptr;
    }
    kd_clients().drop_profile(client, profile);
    kd_refresh_timers();
}

int kd_config_empty(void)
{
    if (g_configstate != KD_CONFIG_RECEIVED || kd_config_received() != KD_RECEIVED_BOTH)
        return 0;
    if (has_items(g_rssdomain) || has_items(g_poddomain))
        return 0;
    KD_LOG(2, LOG_INFO, "config has no items");
    return 1;
}
