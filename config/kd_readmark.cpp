// kd_readmark: the read state of one subscription as the configuration keeps
// it. "read" holds the bitfield of read item positions in hexadecimal, "first"
// the title hash of the item that stood at position 0 when "read" was written,
// so that a later fetch can tell how far the positions have moved.
#include <cstdio>

#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "platform/slab.h"
#include "util/bitfield.h"
#include "util/kd_log.h"

namespace {

// The first item of the subscription's feed, or null while it has none.
const kd_item *first_item_of(mxml_node_t *item)
{
    auto *entry = static_cast<mxml_node_t *>(mxmlGetUserData(item));
    auto *feed = entry ? static_cast<kd_node *>(mxmlGetUserData(entry)) : nullptr;
    return feed ? feed->children : nullptr;
}

} // namespace

int kd_mark_read(mxml_node_t *item, uint32_t index)
{
    KD_ASSERT(item!=((void *)0));
    bitfield marks;
    bf_init(&marks);
    bf_from_string(&marks, mxmlElementGetAttr(item, "read"));
    int was_clear = bf_isset(&marks, index) == 0;
    bf_set(&marks, index);
    char *text = nullptr;
    bf_to_string(&text, &marks);
    if (text)
        mxmlElementSetAttr(item, "read", text);
    kd_free(text);
    bf_free(&marks);
    kd_fix_readmarkers(item);
    return was_clear ? 1 : 0;
}

void kd_fix_readmarkers(mxml_node_t *item)
{
    KD_ASSERT(item!=((void *)0));
    const kd_item *first = first_item_of(item);
    if (!first)
        return;
    const char *read = mxmlElementGetAttr(item, "read");
    if (!read || !*read) {
        mxmlElementDeleteAttr(item, "first");
        return;
    }
    char hash[16];
    snprintf(hash, sizeof hash, "%lu", static_cast<unsigned long>(kd_first_hash(first)));
    mxmlElementSetAttr(item, "first", hash);
}

uint32_t kd_first_hash(const kd_item *item)
{
    return fnv_hash(item->title ? item->title : "");
}
