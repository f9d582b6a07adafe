// Speed of feed parsing: kdx_parse_feed over large real-world documents of
// the corpus (RSS with HTML bodies, Atom, a podcast feed), and the HTML
// stripping of one long body on its own.
#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "platform/slab.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace {

// A file of the real-world corpus ($KELP_CORPUS, else the configured path).
std::string corpus_file(const char *name)
{
    const char *env = getenv("KELP_CORPUS");
    std::string root = env && *env ? env : KELP_CORPUS_DEFAULT;
    std::ifstream in(root + "/feeds/" + name, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// One poll's parse: a fresh slab copy of the body each time, as a download gives.
void parse_file(benchmark::State &state, const char *name)
{
    std::string doc = corpus_file(name);
    if (doc.empty()) {
        state.SkipWithError("corpus file missing (set KELP_CORPUS)");
        return;
    }
    int64_t items = 0;
    for (auto _ : state) {
        char *body = kd_strndup(doc.data(), doc.size());
        char *title = nullptr;
        kd_node *feed = kdx_parse_feed(200, "http://bench.example/feed", "text/xml", &body, &title);
        for (kd_item *i = feed ? feed->children : nullptr; i; i = i->next)
            items++;
        kdn_free_feed(feed);
        kd_free(title);
        kd_free(body);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * doc.size()));
    state.counters["items"] = benchmark::Counter(static_cast<double>(items), benchmark::Counter::kAvgIterations);
}

void BM_ParseRssHubSpot(benchmark::State &state) { parse_file(state, "FeedReader__Rss20HubSpot.xml"); }
void BM_ParseRssCRE(benchmark::State &state) { parse_file(state, "feedjira__CRE.xml"); }
void BM_ParseAtomAdobe(benchmark::State &state) { parse_file(state, "FeedReader__AtomAdobe.xml"); }
void BM_ParseRssIndianExpress(benchmark::State &state) { parse_file(state, "FeedReader__Rss20IndianExpress.xml"); }

BENCHMARK(BM_ParseRssHubSpot);
BENCHMARK(BM_ParseRssCRE);
BENCHMARK(BM_ParseAtomAdobe);
BENCHMARK(BM_ParseRssIndianExpress);

// The stripping of a 4096-byte body full of entities, tags and images.
void BM_StripHtml4k(benchmark::State &state)
{
    std::string html;
    while (html.size() < 4000)
        html += "<p>Caf&eacute; &amp; more&#8212;<img src=\"/i.png\"> text<br>";
    html.resize(4096);
    std::string buf;
    for (auto _ : state) {
        auto *item = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
        buf = html;
        kdx_strip_html_tags(item, buf.data());
        benchmark::DoNotOptimize(buf.data());
        kdn_free_item(item);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * html.size()));
}
BENCHMARK(BM_StripHtml4k);

} // namespace

BENCHMARK_MAIN();
