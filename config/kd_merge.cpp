// kd_merge: adoption of a newly received domain document and the poll timers.
// Interim version: a new document replaces the running one whole; feeds and
// timers are not carried over yet.
#include "config/kd_config.h"
#include "client/kd_client.h"
#include "feed/kd_node.h"
#include "util/kd_log.h"

// Frees the feed records hanging off the entries of a document's pool.
static void free_pool_feeds(mxml_node_t *root)
{
    mxml_node_t *pool = root ? mxmlFindElement(root, root, "pool", nullptr, nullptr, MXML_DESCEND_FIRST) : nullptr;
    if (!pool)
        return;
    for (mxml_node_t *e = mxmlFindElement(pool, pool, "entry", nullptr, nullptr, MXML_DESCEND_FIRST); e;
         e = mxmlFindElement(e, pool, "entry", nullptr, nullptr, MXML_NO_DESCEND)) {
        kdn_free_feed(static_cast<kd_node *>(mxmlGetUserData(e)));
        mxmlSetUserData(e, nullptr);
    }
}

void kd_config_merge(mxml_node_t **slot, kd_profile **list, mxml_node_t *newdoc)
{
    (void)list;
    if (!mxmlFindElement(newdoc, newdoc, "pool", nullptr, nullptr, MXML_DESCEND_FIRST)) {
        KD_LOG(1, LOG_CRIT, "missing <pool>-node in config");
        return;
    }
    if (!mxmlFindElement(newdoc, newdoc, "profiles", nullptr, nullptr, MXML_DESCEND_FIRST)) {
        KD_LOG(1, LOG_CRIT, "missing <profiles>-node in config");
        return;
    }
    free_pool_feeds(*slot);
    if (*slot)
        mxmlDelete(*slot);
    *slot = newdoc;
    kd_refresh_domain_timers(newdoc);
}

void kd_refresh_domain_timers(mxml_node_t *) {}

void kd_refresh_timers(void)
{
    kd_refresh_domain_timers(g_rssdomain);
    kd_refresh_domain_timers(g_poddomain);
}

// Removes the first occurrence of p from an array of n pointers.
template <typename T> static void remove_first(T **arr, uint32_t *n, const T *p)
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

void kd_unlink_profile(kd_client *client, kd_profile *profile)
{
    if (!client || !profile)
        return;
    remove_first(profile->connections, &profile->nconns, client);
    remove_first(client->profiles, &client->nprofiles, profile);
    kd_refresh_timers();
}

static int has_items(mxml_node_t *root)
{
    return root && mxmlFindElement(root, root, "item", nullptr, nullptr, MXML_DESCEND) != nullptr;
}

int kd_config_empty(void)
{
    if (g_configstate != 2 || g_receiveddomains != 3)
        return 0;
    if (has_items(g_rssdomain) || has_items(g_poddomain))
        return 0;
    KD_LOG(2, LOG_INFO, "config has no items");
    return 1;
}
