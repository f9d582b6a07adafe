// kd_itemmerge: the second half of a poll. Replaces a feed's items by the
// freshly parsed ones, keeps item uids stable, moves every subscriber's read
// marks ("read", "first") to the items' new positions, and tells the clients
// whose view changed.
#pragma once
#include <mxml.h>

struct kd_node;

// Merges the items of `parsed` (a temporary node of kdx_parse_feed with at
// least one item) into the feed record of `entry`, creating the record when
// the entry has none. The items move into the record; the container stays
// with the caller, who releases it with kdn_free_feed. When memory runs out
// before anything changed, the parsed items are released and the record is
// left as it was. A merge that rewrote "read" or "first" of a subscription
// saves the entry's domain to configd once.
void merge_feed(mxml_node_t *entry, kd_node *parsed);
