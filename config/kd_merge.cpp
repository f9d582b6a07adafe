// kd_merge: adoption of a newly received domain document. Feed records (with
// their items, timers and errors) move from the old entries to the new ones
// with the same "id", profile records move to the new profile elements, and
// feeds that nothing references any more are freed with their timers.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "config/kd_config.h"
#include "config/kd_merge.h"
#include "feed/kd_node.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "util/kd_log.h"

namespace {

mxml_node_t *first_child(mxml_node_t *parent, const char *name)
{
    if (!parent)
        return nullptr;
    return mxmlFindElement(parent, parent, name, nullptr, nullptr, MXML_DESCEND_FIRST);
}

mxml_node_t *next_sibling(mxml_node_t *node, mxml_node_t *parent, const char *name)
{
    return mxmlFindElement(node, parent, name, nullptr, nullptr, MXML_NO_DESCEND);
}

const char *attr_or_empty(mxml_node_t *node, const char *name)
{
    const char *v = node ? mxmlElementGetAttr(node, name) : nullptr;
    return v ? v : "";
}

// The first child of parent named name whose "id" equals id.
mxml_node_t *child_with_id(mxml_node_t *parent, const char *name, const char *id)
{
    for (mxml_node_t *e = first_child(parent, name); e; e = next_sibling(e, parent, name)) {
        const char *eid = mxmlElementGetAttr(e, "id");
        if (eid && strcmp(eid, id) == 0)
            return e;
    }
    return nullptr;
}

// A pool's entries sorted by "id" (document order among equal ids), so that
// each subscription of a merge finds its entry in log time: a pool of a few
// thousand entries subscribed by every profile would otherwise take seconds.
// Small pools are searched in order, which is as quick there.
constexpr uint32_t kIndexFrom = 32;

struct id_slot {
    const char *id;
    uint32_t pos;
    mxml_node_t *entry;
};

struct entry_index {
    mxml_node_t *pool;
    id_slot *slots; // null: no pool, or no memory (then searched in order)
    uint32_t n;
};

bool slot_before(const id_slot &a, const id_slot &b)
{
    int c = strcmp(a.id, b.id);
    return c < 0 || (c == 0 && a.pos < b.pos);
}

entry_index index_entries(mxml_node_t *pool)
{
    entry_index ix{pool, nullptr, 0};
    uint32_t count = 0;
    for (mxml_node_t *e = first_child(pool, "entry"); e; e = next_sibling(e, pool, "entry"))
        count++;
    if (count < kIndexFrom)
        return ix;
    ix.slots = static_cast<id_slot *>(kd_malloc(count * sizeof(id_slot)));
    if (!ix.slots)
        return ix;
    uint32_t pos = 0;
    for (mxml_node_t *e = first_child(pool, "entry"); e; e = next_sibling(e, pool, "entry"), pos++)
        if (const char *id = mxmlElementGetAttr(e, "id"))
            ix.slots[ix.n++] = {id, pos, e};
    std::sort(ix.slots, ix.slots + ix.n, slot_before);
    return ix;
}

// The first entry of the pool whose "id" equals id, as child_with_id finds it.
mxml_node_t *lookup_entry(const entry_index &ix, const char *id)
{
    if (!ix.slots)
        return child_with_id(ix.pool, "entry", id);
    id_slot *end = ix.slots + ix.n;
    id_slot *s = std::lower_bound(ix.slots, end, id,
                                  [](const id_slot &a, const char *v) { return strcmp(a.id, v) < 0; });
    return s != end && strcmp(s->id, id) == 0 ? s->entry : nullptr;
}

kd_node *node_of(mxml_node_t *entry)
{
    return static_cast<kd_node *>(mxmlGetUserData(entry));
}

// The feed record for a new entry: already attached, moved from the old
// entry (its references are rebuilt), or a new empty one.
kd_node *take_feed(mxml_node_t *entry, mxml_node_t *old_entry)
{
    if (kd_node *n = node_of(entry))
        return n;
    kd_node *n = old_entry ? node_of(old_entry) : nullptr;
    if (n) {
        mxmlSetUserData(old_entry, nullptr);
        kd_free(n->refs);
        n->refs = nullptr;
        n->nrefs = 0;
    } else {
        n = static_cast<kd_node *>(kd_calloc(1, sizeof(kd_node)));
    }
    if (n)
        mxmlSetUserData(entry, n);
    return n;
}

void add_reference(kd_node *n, mxml_node_t *item)
{
    auto *refs = static_cast<mxml_node_t **>(kd_realloc(n->refs, (n->nrefs + 1) * sizeof(mxml_node_t *)));
    if (!refs) {
        KD_LOG(1, LOG_CRIT, "no memory for reference - feed will stay empty");
        return;
    }
    n->refs = refs;
    refs[n->nrefs++] = item;
}

// A running poll follows the entry's new address and interval.
void carry_poll(kd_node *n, mxml_node_t *old_entry, mxml_node_t *entry)
{
    if (n->timer <= 0)
        return;
    const char *url = attr_or_empty(entry, "url");
    if (old_entry && strcmp(attr_or_empty(old_entry, "url"), url) != 0 && n->nrefs == 1)
        kd_add_immediate_refresh(n);
    auto interval = static_cast<int32_t>(kd_extract_pollfreq(entry));
    if (interval == n->poll)
        return;
    n->poll = interval;
    KD_LOG(3, LOG_DEBUG, "restart with new poll-time %ld on: %s", static_cast<long>(interval), url);
    timeout_restartex(n->timer, static_cast<uint32_t>(interval));
}

void merge_item(mxml_node_t *item, const entry_index &pool, const entry_index &old_pool)
{
    const char *ref = mxmlElementGetAttr(item, "entry");
    if (!ref) {
        KD_LOG(2, LOG_INFO, "found stale item node without entry reference");
        return;
    }
    mxml_node_t *entry = lookup_entry(pool, ref);
    if (!entry) {
        KD_LOG(2, LOG_INFO, "found item referencing non-existing entry '%s'", ref);
        return;
    }
    mxmlSetUserData(item, entry);
    mxml_node_t *old_entry = lookup_entry(old_pool, ref);
    kd_node *n = take_feed(entry, old_entry);
    if (!n) {
        // Without a record the feed stays empty just as without the reference.
        KD_LOG(1, LOG_CRIT, "no memory for reference - feed will stay empty");
        return;
    }
    n->entry = entry;
    add_reference(n, item);
    carry_poll(n, old_entry, entry);
}

// Every subscription below profiles, at any depth, in document order.
void merge_items(mxml_node_t *profiles, mxml_node_t *pool, mxml_node_t *old_pool)
{
    entry_index ix = index_entries(pool);
    entry_index old_ix = index_entries(old_pool);
    for (mxml_node_t *it = mxmlFindElement(profiles, profiles, "item", nullptr, nullptr, MXML_DESCEND); it;
         it = mxmlFindElement(it, profiles, "item", nullptr, nullptr, MXML_DESCEND))
        merge_item(it, ix, old_ix);
    kd_free(ix.slots);
    kd_free(old_ix.slots);
}

// Feeds of the old document that no new item took over are freed.
void free_unreferenced(mxml_node_t *old_pool)
{
    for (mxml_node_t *e = first_child(old_pool, "entry"); e; e = next_sibling(e, old_pool, "entry"))
        kd_free_entry_feed(e);
}

// Existing records move to the new element with their "id", or become placeholders.
void move_profiles(kd_profile *list, mxml_node_t *profiles)
{
    for (kd_profile *p = list; p; p = p->next) {
        if (!p->profile)
            continue;
        mxml_node_t *prev = p->profile;
        p->profile = child_with_id(profiles, "profile", attr_or_empty(prev, "id"));
        if (p->profile)
            mxmlSetUserData(p->profile, p);
        kd_clients().profile_changed(prev, p->profile);
    }
}

kd_profile *find_profile(kd_profile *list, uint32_t id)
{
    for (kd_profile *p = list; p; p = p->next)
        if (p->profile_id == id)
            return p;
    return nullptr;
}

void add_profile_record(kd_profile **list, mxml_node_t *el, uint32_t id)
{
    auto *p = static_cast<kd_profile *>(kd_calloc(1, sizeof(kd_profile)));
    if (!p) {
        KD_LOG(1, LOG_CRIT, "no memory for profile structure");
        return;
    }
    p->profile = el;
    p->profile_id = id;
    mxmlSetUserData(el, p);
    p->next = *list;
    if (*list)
        (*list)->prev = p;
    *list = p;
}

// New profile elements fill placeholders or get records of their own.
void adopt_profiles(kd_profile **list, mxml_node_t *profiles)
{
    for (mxml_node_t *el = first_child(profiles, "profile"); el; el = next_sibling(el, profiles, "profile")) {
        const char *idtext = mxmlElementGetAttr(el, "id");
        if (!idtext) {
            // Staying on this element until it has an id would hang the daemon
            // for good, so it is passed over with a note instead.
            KD_LOG(2, LOG_INFO, "found profile node without id - ignored");
            continue;
        }
        auto id = static_cast<uint32_t>(strtoul(idtext, nullptr, 10));
        kd_profile *p = find_profile(*list, id);
        if (!p) {
            add_profile_record(list, el, id);
        } else if (!p->profile) {
            p->profile = el;
            mxmlSetUserData(el, p);
            kd_clients().profile_changed(nullptr, el);
        }
    }
}

} // namespace

void kd_config_merge(mxml_node_t **slot, kd_profile **list, mxml_node_t *newdoc)
{
    KD_ASSERT(slot!=((void *)0));
    KD_ASSERT(list!=((void *)0));
    mxml_node_t *old_pool = first_child(*slot, "pool");
    mxml_node_t *pool = first_child(newdoc, "pool");
    if (!pool) {
        KD_LOG(1, LOG_CRIT, "missing <pool>-node in config");
        return;
    }
    mxml_node_t *profiles = first_child(newdoc, "profiles");
    if (!profiles) {
        KD_LOG(1, LOG_CRIT, "missing <profiles>-node in config");
        return;
    }
    // Merging the running document into itself would free every record it
    // holds and then delete the document that is kept.
    if (newdoc == *slot) {
        kd_refresh_domain_timers(newdoc);
        return;
    }
    merge_items(profiles, pool, old_pool);
    free_unreferenced(old_pool);
    move_profiles(*list, profiles);
    adopt_profiles(list, profiles);
    if (*slot)
        mxmlDelete(*slot);
    *slot = newdoc;
    kd_refresh_domain_timers(newdoc);
}

void kd_free_entry_feed(mxml_node_t *entry)
{
    kd_node *n = node_of(entry);
    if (!n)
        return;
    if (n->timer > 0)
        timeout_del(n->timer);
    n->timer = 0;
    kd_polls().cancel(n);
    kdn_free_feed(n);
    mxmlSetUserData(entry, nullptr);
}
