// kd_merge: internals shared by the merge and the poll-timer code.
#pragma once

struct kd_node;

// Queues a one-shot refresh of a feed at the next turn of the loop; it is
// dropped when the record no longer hangs off an entry by then.
void kd_add_immediate_refresh(kd_node *feed);
