// kd_interweb: one poll of one feed entry, run by its poll timers: the
// fetch (started here, run in a child by refresh/kd_fetch), then on the loop
// the outcome in the record's lasterror, parse, the feed title as the
// entry's name while it has none of its own, and the merge of the items.
#pragma once

// Timer callback of every poll timer; param is the entry's feed record.
void kd_refresh_entry(void *param, int id);
