// kelp-feedcheck: fetches (or reads) one feed document and parses it exactly
// as a poll of kelpd would, then shows what the daemon would hold and log.
#pragma once
#include "feed/kd_node.h"

#include "feed/kd_xml.h"

// Prints the parse result: result code, content type, the charset the body was
// decoded from (when it was not read as it came), feed title, every item as
// kelpd holds it, and the one-line verdict of a poll. Returns the number of items.
int feedcheck_print_feed(int code, const char *content_type, const kdx_charset_info *charset, const char *title,
               const kd_node *feed);

// The line a poll logs for a fetch result other than 200 and 2.
void feedcheck_print_fetch_failure(int code, const char *url);
