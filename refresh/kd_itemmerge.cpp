// kd_itemmerge: merges freshly parsed items into a feed record. An item keeps
// its uid while kdn_compare finds it in the old list; read marks follow only
// unchanged items to their new positions, so a changed item reads as unread.
// On the first fetch after a (re)start the saved marks are kept as a block,
// shifted by the position of the item that stood first when they were saved.
// Owns nothing between polls: the marks live in the subscriptions' "read" and
// "first" attributes, which a merge that rewrote them saves to configd.
#include "refresh/kd_itemmerge.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "platform/slab.h"
#include "refresh/kd_interweb.h"
#include "util/bitfield.h"
#include "util/kd_log.h"
#include "util/kd_text.h"

namespace {

// One subscription during a merge: its marks before the poll (normal polls
// only) and its attributes as they were, to tell whether the merge changed them.
struct sub_state {
    bitfield old;
    char *read;
    char *first;
    bool known;   // read and first were copied (no memory failure)
};

struct merge_run {
    kd_node *feed;
    sub_state *subs;     // nrefs entries (at least one allocated), or null
    uint32_t counter;    // old items skipped by the last parsed item's search
    int16_t newcount;
    bool first_fetch;
    uint32_t nitems;     // parsed items
};

kd_node *feed_record(mxml_node_t *entry)
{
    auto *feed = static_cast<kd_node *>(mxmlGetUserData(entry));
    if (feed)
        return feed;
    feed = static_cast<kd_node *>(kd_calloc(1, sizeof(kd_node)));
    if (!feed)
        return nullptr;
    feed->entry = entry;
    mxmlSetUserData(entry, feed);
    return feed;
}

// A copy of an attribute; false only when memory ran out.
bool copy_attr(mxml_node_t *el, const char *name, char **out)
{
    const char *v = mxmlElementGetAttr(el, name);
    *out = v ? kd_strdup(v) : nullptr;
    return !v || *out;
}

// Notes every subscription's attributes; on a normal poll also takes the
// marks out of "read", which the matches then rebuild.
sub_state *take_subscriptions(kd_node *feed, bool first_fetch)
{
    uint32_t n = feed->nrefs ? feed->nrefs : 1;
    auto *subs = static_cast<sub_state *>(kd_calloc(n, sizeof(sub_state)));
    if (!subs)
        return nullptr;
    for (uint32_t i = 0; i < feed->nrefs; i++) {
        mxml_node_t *ref = feed->refs[i];
        bf_init(&subs[i].old);
        bool r = copy_attr(ref, "read", &subs[i].read);
        subs[i].known = copy_attr(ref, "first", &subs[i].first) && r;
        if (first_fetch)
            continue;
        bf_from_string(&subs[i].old, mxmlElementGetAttr(ref, "read"));
        mxmlElementDeleteAttr(ref, "read");
    }
    return subs;
}

void release_subscriptions(sub_state *subs, uint32_t n)
{
    if (!subs)
        return;
    for (uint32_t i = 0; i < n; i++) {
        bf_free(&subs[i].old);
        kd_free(subs[i].read);
        kd_free(subs[i].first);
    }
    kd_free(subs);
}

// The old item that `item` is, searched from the head; *pos counts the old
// items passed over (all of them when there is no match).
const kd_item *find_old(const kd_item *old, const kd_item *item, uint32_t *pos, uint32_t *result)
{
    *pos = 0;
    for (; old; old = old->next, (*pos)++) {
        *result = kdn_compare(old, item);
        if (*result != 2)
            return old;
    }
    return nullptr;
}

void carry_marks(merge_run &run, uint32_t from, uint32_t to)
{
    for (uint32_t i = 0; i < run.feed->nrefs; i++)
        if (bf_isset(&run.subs[i].old, from))
            kd_mark_read(run.feed->refs[i], to);
}

void new_item(merge_run &run, kd_item *item)
{
    item->uid = run.feed->nextuid++;
    run.newcount++;
    KD_LOG(4, LOG_DEBUG, "[kddbg] new item: %s", item->title);
}

void match_items(merge_run &run, kd_item *items)
{
    uint32_t j = 0;
    for (kd_item *it = items; it; it = it->next, j++) {
        uint32_t result = 2;
        const kd_item *old = find_old(run.feed->children, it, &run.counter, &result);
        if (!old) {
            new_item(run, it);
            continue;
        }
        it->uid = old->uid;
        if (result == 0)
            carry_marks(run, run.counter, j);
        else
            KD_LOG(4, LOG_DEBUG, "[kddbg] updated item: %s", it->title);
    }
}

void number_all(merge_run &run, kd_item *items)
{
    for (kd_item *it = items; it; it = it->next) {
        it->uid = run.feed->nextuid++;
        run.newcount++;
    }
}

uint32_t count_items(const kd_item *it)
{
    uint32_t n = 0;
    for (; it; it = it->next)
        n++;
    return n;
}

// The saved hash of the former first item; false when absent or not a number.
bool saved_first(mxml_node_t *ref, uint32_t *hash)
{
    const char *text = mxmlElementGetAttr(ref, "first");
    if (!text || *text < '0' || *text > '9')
        return false;
    char *end = nullptr;
    errno = 0;
    unsigned long v = strtoul(text, &end, 10);
    if (errno || *end || v > UINT32_MAX)
        return false;
    *hash = static_cast<uint32_t>(v);
    return true;
}

// The hash of a title as clients are sent it: sending turns its tabs into
// spaces for good, so "first" is mostly written after that, while a fresh
// parse still has the tabs.
uint32_t sent_title_hash(const char *title)
{
    char sent[kdx_copy_limit + 1];
    size_t n = strnlen(title, sizeof sent);
    if (n == sizeof sent)
        return fnv_hash(title); // longer than any stored title: never sent
    memcpy(sent, title, n + 1);
    return fnv_hash(tab2space(sent));
}

// Whether "first" (hash) names this item, whether the title was sent before
// "first" was written or not.
bool is_former_first(const kd_item *it, uint32_t hash)
{
    if (kd_first_hash(it) == hash)
        return true;
    return it->title && strchr(it->title, '\t') && sent_title_hash(it->title) == hash;
}

// Position of the item that "first" names, or false when it is gone. The
// title is hashed here, not taken from the item's hash: that one is 0 for a
// title written as CDATA, while "first" always holds the title's hash, so the
// item would never be found again and every saved mark of such a feed would
// be lost with each restart.
bool find_former_first(const kd_node *feed, uint32_t hash, uint32_t *q)
{
    *q = 0;
    for (const kd_item *it = feed->children; it; it = it->next, (*q)++)
        if (is_former_first(it, hash))
            return true;
    return false;
}

// First fetch: the saved marks move down by as many items as appeared above
// the former first item; without that item they mean nothing any more.
void shift_saved_marks(mxml_node_t *ref, const kd_node *feed, bitfield *work)
{
    uint32_t hash = 0;
    uint32_t q = 0;
    bool found = saved_first(ref, &hash) && find_former_first(feed, hash, &q);
    if (found) {
        KD_LOG(4, LOG_DEBUG, "read flags matching at item %d [Hash: %lu]", static_cast<int>(q),
               static_cast<unsigned long>(hash));
        bf_shift(work, q, feed->nchildren);
    } else {
        bf_free(work);
    }
    char *text = nullptr;
    bf_to_string(&text, work);
    // Without memory for the text the marks stay as they were saved.
    if (text && *text)
        mxmlElementSetAttr(ref, "read", text);
    else if (text || bf_is_empty(work))
        mxmlElementDeleteAttr(ref, "read");
    kd_free(text);
}

bool same_text(const char *a, const char *b)
{
    return (!a && !b) || (a && b && strcmp(a, b) == 0);
}

// Rewrites one subscription's marks for the new item list and tells its
// clients when their view changed; true when "read" or "first" changed.
bool settle(merge_run &run, uint32_t i)
{
    mxml_node_t *ref = run.feed->refs[i];
    const sub_state *s = run.subs ? &run.subs[i] : nullptr;
    bitfield work;
    bf_init(&work);
    bf_from_string(&work, mxmlElementGetAttr(ref, "read"));
    if (run.first_fetch)
        shift_saved_marks(ref, run.feed, &work);
    kd_fix_readmarkers(ref);
    bool tell = run.newcount > 0 || (!run.first_fetch && bf_count(&s->old) != bf_count(&work)) ||
                run.counter > run.nitems;
    if (tell)
        kd_refresh_told().send_overview(ref, nullptr);
    bf_free(&work);
    if (!s || !s->known)
        return true;
    return !same_text(s->read, mxmlElementGetAttr(ref, "read")) ||
           !same_text(s->first, mxmlElementGetAttr(ref, "first"));
}

} // namespace

void merge_feed(mxml_node_t *entry, kd_node *parsed)
{
    KD_ASSERT(entry != ((void *)0));
    kd_node *feed = feed_record(entry);
    if (!feed) {
        KD_LOG(1, LOG_ERR, "internal memory exhausted (create job feed node)");
        kdn_free_children(parsed);
        return;
    }
    merge_run run{};
    run.feed = feed;
    run.first_fetch = feed->children == nullptr;
    run.subs = take_subscriptions(feed, run.first_fetch);
    if (!run.subs && !run.first_fetch) {
        KD_LOG(1, LOG_ERR, "internal memory exhausted (unread bitfields)");
        kdn_free_children(parsed);
        return;
    }
    kd_item *items = parsed ? parsed->children : nullptr;
    run.nitems = count_items(items);
    if (run.first_fetch)
        number_all(run, items);
    else
        match_items(run, items);
    KD_LOG(4, LOG_DEBUG, "[kddbg] %d items are new", static_cast<int>(run.newcount));
    kdn_free_children(feed);
    feed->children = items;
    feed->nchildren = run.nitems;
    if (parsed)
        parsed->children = nullptr;
    bool changed = false;
    for (uint32_t i = 0; i < feed->nrefs; i++)
        changed = settle(run, i) || changed;
    release_subscriptions(run.subs, feed->nrefs);
    if (changed)
        kd_save_config(kd_get_domain_from_node(entry));
}
