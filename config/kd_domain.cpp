// kd_domain: the two configuration domains (their documents and profile
// lists) and the lookups between configuration elements, profile records
// and feed records.
#include <climits>
#include <cstdlib>
#include <cstring>
#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "util/kd_log.h"

mxml_node_t *g_rssdomain;
mxml_node_t *g_poddomain;
kd_profile *g_rssproflist;
kd_profile *g_podproflist;

namespace {

constexpr uint32_t KD_POLL_MIN = 30;
constexpr uint32_t KD_POLL_DEFAULT = 1200;

} // namespace

const char *kd_get_domainname_from_profile(const kd_profile *p)
{
    if (!p)
        return "";
    while (p->prev)
        p = p->prev;
    if (p == g_rssproflist)
        return KD_DOMAIN_RSS;
    if (p == g_podproflist)
        return KD_DOMAIN_PODCAST;
    return "";
}

mxml_node_t *kd_get_domain_from_node(mxml_node_t *node)
{
    if (!node)
        return nullptr;
    while (mxmlGetParent(node))
        node = mxmlGetParent(node);
    return node;
}

mxml_node_t *kd_pool_of(mxml_node_t *root)
{
    return root ? mxmlFindElement(root, root, "pool", nullptr, nullptr, MXML_DESCEND_FIRST) : nullptr;
}

mxml_node_t *kd_first_entry(mxml_node_t *pool)
{
    return pool ? mxmlFindElement(pool, pool, "entry", nullptr, nullptr, MXML_DESCEND_FIRST) : nullptr;
}

mxml_node_t *kd_next_entry(mxml_node_t *entry, mxml_node_t *pool)
{
    return mxmlFindElement(entry, pool, "entry", nullptr, nullptr, MXML_NO_DESCEND);
}

// Only element nodes are looked at on the way up; text nodes have no name.
kd_profile *kd_get_profile_from_item(mxml_node_t *node)
{
    for (; node; node = mxmlGetParent(node)) {
        const char *name = mxmlGetType(node) == MXML_ELEMENT ? mxmlGetElement(node) : nullptr;
        if (name && !strcmp(name, "profile"))
            return static_cast<kd_profile *>(mxmlGetUserData(node));
    }
    return nullptr;
}

namespace {

// Leading decimal digits with an optional sign; no digits read as 0.
long leading_decimal(const char *text)
{
    long v = strtol(text, nullptr, 10);
    if (v > INT_MAX)
        return INT_MAX;
    return v < INT_MIN ? INT_MIN : v;
}

} // namespace

uint32_t kd_extract_pollfreq(mxml_node_t *entry)
{
    const char *id = mxmlElementGetAttr(entry, "id");
    const char *poll = mxmlElementGetAttr(entry, "poll");
    if (!poll) {
        KD_LOG(3, LOG_INFO, "missing poll attribute in entry %s, using default (%d)", id ? id : "",
               int(KD_POLL_DEFAULT));
        return KD_POLL_DEFAULT;
    }
    long v = leading_decimal(poll);
    // A tight poll would hammer the feed server: never faster than the minimum.
    if (v < long(KD_POLL_MIN)) {
        KD_LOG(3, LOG_INFO, "poll frequency too low in entry %s, DoS prevention active, using minimum (%d)",
               id ? id : "", int(KD_POLL_MIN));
        return KD_POLL_MIN;
    }
    return uint32_t(v);
}

int kd_feed_in_use(mxml_node_t *entry)
{
    KD_ASSERT(entry!=((void *)0));
    kd_node *node = static_cast<kd_node *>(mxmlGetUserData(entry));
    KD_ASSERT(node!=((void *)0));
    for (uint32_t i = 0; i < node->nrefs; i++) {
        kd_profile *p = kd_get_profile_from_item(node->refs[i]);
        if (p && p->nconns > 0)
            return 1;
    }
    return 0;
}
