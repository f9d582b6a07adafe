// kd_node: the feed record of one configuration entry, its items and their
// attachments, with the release functions and the item comparison on which
// the merge of a fresh download decides new, updated or unchanged.
#pragma once
#include <cstdint>
#include <ctime>
#include <mxml.h>

struct kd_attachment {
    char *type;          // MIME type, "image/*" for medium-only images, null for inline images
    char *url;           // made absolute after parsing when it began with "/"
    uint32_t offset;     // inline image: position in the stripped text
    kd_attachment *next;
};

struct kd_item {
    char *title;             // never null in a linked item
    char *body;              // plain text, or null
    kd_attachment *enclosures; // most recently added first
    kd_attachment *images;     // most recently added first
    char *guid;
    int32_t date;            // seconds since the epoch
    uint32_t uid;            // stable id shown to clients, set by the merge
    uint32_t hash;           // fnv_hash of a plain-text title, 0 for CDATA titles
    kd_item *next;
};

struct kd_node {
    mxml_node_t *entry;      // the configuration "entry" element (not owned)
    mxml_node_t **refs;      // subscribing profile "item" elements (array owned)
    uint32_t nrefs;
    kd_item *children;       // items in document order
    uint32_t nchildren;
    uint32_t nextuid;
    int32_t timer;           // poll timer id, 0 when not polled
    int32_t poll;            // poll interval in seconds
    int32_t lasterror;       // outcome of the last refresh
    int32_t lastpoll;        // when the last fetch started
};

void free_attachement(kd_attachment *a);
void kdn_free_item(kd_item *item);
void kdn_free_children(kd_node *feed);
void kdn_free_feed(kd_node *feed);
// 0: same item unchanged, 1: same item updated, 2: a different item.
uint32_t kdn_compare(const kd_item *old, const kd_item *newitem);
