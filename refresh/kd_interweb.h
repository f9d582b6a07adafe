// kd_interweb: one poll of one feed entry, run by its poll timers: the
// fetch (started here, run in a child by refresh/kd_fetch), then on the loop
// the outcome in the record's lasterror, parse, the feed title as the
// entry's name while it has none of its own, and the merge of the items.
// Owns what a poll tells the clients (registered by client/).
#pragma once
#include <mxml.h>

struct kd_client;

// Timer callback of every poll timer; param is the entry's feed record.
void kd_refresh_entry(void *param, int id);

// Registers refresh/'s polls with config/ (kd_config_set_polls): the poll
// timers' callback and the cancel of a fetch. Called once at start-up.
void kd_refresh_register(void);

// What a poll tells the clients, registered by client/ at start-up
// (kd_client_register); until then, and after null, nobody is told.
struct kd_refresh_clients {
    // The overview of one subscription to every connection of its profile
    // but `except` (null: to all of them).
    void (*send_overview)(mxml_node_t *subscription, kd_client *except);
    // An entry's "name" changed: fresh feed lists and overviews for every
    // profile that subscribes it.
    void (*entry_updated)(mxml_node_t *entry);
};
void kd_refresh_set_clients(const kd_refresh_clients *clients);
// What refresh/'s own files call (the item merge tells of changed views).
const kd_refresh_clients &kd_refresh_told(void);
