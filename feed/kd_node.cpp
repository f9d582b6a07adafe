// kd_node: release of feed records, items and attachments, and the item
// comparison by guid and title that the merge of a fresh download relies on.
#include "feed/kd_node.h"

#include <cstring>

#include "platform/slab.h"
#include "util/kd_log.h"

void free_attachement(kd_attachment *a)
{
    if (!a)
        return;
    kd_free(a->type);
    kd_free(a->url);
    kd_free(a);
}

namespace {

void free_attachment_list(kd_attachment *a)
{
    while (a) {
        kd_attachment *next = a->next;
        free_attachement(a);
        a = next;
    }
}

} // namespace

void kdn_free_item(kd_item *item)
{
    if (!item)
        return;
    kd_free(item->title);
    item->title = nullptr;
    kd_free(item->body);
    item->body = nullptr;
    kd_free(item->guid);
    item->guid = nullptr;
    free_attachment_list(item->enclosures);
    free_attachment_list(item->images);
    kd_free(item);
}

void kdn_free_children(kd_node *feed)
{
    if (!feed)
        return;
    kd_item *item = feed->children;
    while (item) {
        kd_item *next = item->next;
        kdn_free_item(item);
        item = next;
    }
    feed->nchildren = 0;
    feed->children = nullptr;
}

void kdn_free_feed(kd_node *feed)
{
    if (!feed)
        return;
    kdn_free_children(feed);
    kd_free(feed->refs);
    kd_free(feed);
}

namespace {

bool has_guid(const kd_item *item)
{
    return item->guid && item->guid[0];
}

} // namespace

uint32_t kdn_compare(const kd_item *old, const kd_item *newitem)
{
    KD_ASSERT(newitem!=((void *)0));
    if (!old)
        return 2;
    bool guid_matched = false;
    if (has_guid(newitem)) {
        if (!has_guid(old) || strcmp(old->guid, newitem->guid) != 0)
            return 2;
        guid_matched = true;
    } else if (has_guid(old)) {
        return 2;
    }
    const char *o = old->title ? old->title : "";
    const char *n = newitem->title ? newitem->title : "";
    while (*o && *n && *o == *n) {
        o++;
        n++;
    }
    if (!*o && !*n)
        return 0;
    // An old title that is a proper prefix of the new one is an update even
    // without a matching guid: feeds append to titles when they correct them.
    if (!*o)
        return 1;
    return guid_matched ? 1 : 2;
}
