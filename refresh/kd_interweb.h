// kd_interweb: one poll of one feed entry, run by its poll timers: fetch,
// outcome in the record's lasterror, parse, the feed title as the entry's
// name while it has none of its own, and the merge of the items.
#pragma once
#include <cstdint>

struct httpcli_ctx;
struct httpcli_buffer;
struct http_result;

// The fetch of a poll: httpcli_get by default; unit tests substitute their own.
extern int (*kd_refresh_fetch)(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp,
                               http_result *res);

// Timer callback of every poll timer; param is the entry's feed record.
void kd_refresh_entry(void *param, int id);
