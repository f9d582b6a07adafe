// One poll's parse as the daemon does it: kdx_parse_feed over a fresh slab
// copy of the body (the copy, as a download leaves it, is not timed), then
// the release of the items, the title and the body.
#include "bench/perf_driver.h"
#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "platform/slab.h"

void *perf_prepare(const std::string &doc) { return kd_strndup(doc.data(), doc.size()); }

void perf_run(void *input)
{
    auto *body = static_cast<char *>(input);
    char *title = nullptr;
    kd_node *feed = kdx_parse_feed(200, "http://bench.example/feed", "text/xml", &body, &title);
    kdn_free_feed(feed);
    kd_free(title);
    kd_free(body);
}

int main(int argc, char **argv) { return perf::main(argc, argv); }
