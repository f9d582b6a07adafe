// One poll's parse as the daemon does it: kdx_parse_feed over a fresh slab
// copy of the body (the copy, as a download leaves it, is not timed), then
// the release of the items, the title and the body. Also tells how much text
// the records keep of a set of documents (mode "text").
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

namespace {

size_t len(const char *s) { return s ? strlen(s) : 0; }

size_t url_bytes(const kd_attachment *a)
{
    size_t n = 0;
    for (; a; a = a->next)
        n += len(a->url);
    return n;
}

// "text URL FILE...": the items of the documents and the bytes of text the
// feed records keep of them (titles, bodies, guids, attachment URLs), parsed
// as a poll of URL would parse them, the floor of the daemon's memory; and
// the slab bytes the parsed records hold.
int text_mode(const char *url, int n, char **files)
{
    size_t items = 0, bytes = 0, held = 0;
    size_t held_before = slab_live_bytes();
    for (int f = 0; f < n; f++) {
        std::string doc = perf::read_file(files[f]);
        char *body = kd_strndup(doc.data(), doc.size());
        kd_node *feed = kdx_parse_feed(200, url, "text/xml", &body, nullptr);
        kd_free(body);
        held = slab_live_bytes() > held_before ? held + slab_live_bytes() - held_before : held;
        for (const kd_item *it = feed ? feed->children : nullptr; it; it = it->next, items++)
            bytes += len(it->title) + len(it->body) + len(it->guid) + url_bytes(it->enclosures) +
                     url_bytes(it->images);
        kdn_free_feed(feed);
    }
    printf("%zu %zu %zu\n", items, bytes, held);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 4 && strcmp(argv[1], "text") == 0)
        return text_mode(argv[2], argc - 3, argv + 3);
    return perf::main(argc, argv);
}
