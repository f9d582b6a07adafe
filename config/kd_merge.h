// kd_merge: internals shared by the merge, the poll-timer code and the
// configd session.
#pragma once
#include "config/kd_config.h"

// What the modules above registered (kd_config_set_polls and _clients).
const kd_config_polls &kd_polls(void);
const kd_config_clients &kd_clients(void);

// Queues a one-shot refresh of a feed at the next turn of the loop; it is
// dropped when the record no longer hangs off an entry by then.
void kd_add_immediate_refresh(kd_node *feed);

// Frees the feed record hanging off a pool entry, its poll timer stopped and
// its fetch cancelled first, so that neither calls back on the freed record.
void kd_free_entry_feed(mxml_node_t *entry);
