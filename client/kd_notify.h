// kd_notify: what the rest of the daemon tells the clients. The configuration
// merge, the poll timers and the feed refresh include only this header from
// client/; every push goes to the connections of a profile in the order they
// logged in, each with its own API version.
#pragma once
#include <mxml.h>

struct kd_client;
struct kd_profile;

// Pushes the overview of one subscription ("item" element) to every
// connection of its profile except `except` (null: to all of them).
void kd_send_overview(mxml_node_t *subscription, kd_client *except);
// After an entry's "name" changed: a fresh feed list and fresh overviews for
// every profile that subscribes it.
void kd_entry_updated(mxml_node_t *entry);
// After a merge replaced a profile's element (either may be null: the
// profile appeared or vanished); tells its clients when the subscriptions
// changed. Called before the old document is deleted.
void kd_check_profupdate(mxml_node_t *old_profile, mxml_node_t *new_profile);

// The internet status as the daemon sees it: dsldstat_internet_usable by
// default; unit tests substitute their own.
extern int (*kd_internet_usable)(void);
