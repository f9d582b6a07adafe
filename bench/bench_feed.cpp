// Speed of feed parsing: kdx_parse_feed over large real-world documents of
// the corpus (RSS with HTML bodies, Atom, a podcast feed), the same 190 KB
// feed in UTF-8 and in ISO 8859-1 (the price of converting a legacy charset),
// and the HTML stripping of one long body on its own.
#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "platform/slab.h"

#include <benchmark/benchmark.h>

#include <algorithm>
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
void parse_text(benchmark::State &state, const std::string &doc)
{
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

void parse_file(benchmark::State &state, const char *name)
{
    std::string doc = corpus_file(name);
    if (doc.empty()) {
        state.SkipWithError("corpus file missing (set KELP_CORPUS)");
        return;
    }
    parse_text(state, doc);
}

void BM_ParseRssHubSpot(benchmark::State &state) { parse_file(state, "FeedReader__Rss20HubSpot.xml"); }
void BM_ParseRssCRE(benchmark::State &state) { parse_file(state, "feedjira__CRE.xml"); }
void BM_ParseAtomAdobe(benchmark::State &state) { parse_file(state, "FeedReader__AtomAdobe.xml"); }
void BM_ParseRssIndianExpress(benchmark::State &state) { parse_file(state, "FeedReader__Rss20IndianExpress.xml"); }

BENCHMARK(BM_ParseRssHubSpot);
BENCHMARK(BM_ParseRssCRE);
BENCHMARK(BM_ParseAtomAdobe);
BENCHMARK(BM_ParseRssIndianExpress);

// Bytes of text in ISO 8859-1 that takes n bytes in UTF-8 (all of it below U+0100).
size_t latin1_size(const std::string &utf8)
{
    return utf8.size() - std::count_if(utf8.begin(), utf8.end(), [](char c) { return (c & 0xFE) == 0xC2; });
}

// A French news feed of 190 KB in ISO 8859-1, as UTF-8 text with the given
// declaration; every item has accented text, entities and markup.
std::string french_feed(const char *encoding)
{
    std::string doc = std::string("<?xml version=\"1.0\" encoding=\"") + encoding +
                      "\"?><rss version=\"2.0\"><channel><title>Actualit\xC3\xA9s</title>";
    for (int i = 0; latin1_size(doc) < 190000; i++) {
        doc += "<item><title>D\xC3\xA9j\xC3\xA0 vu n\xC2\xB0" + std::to_string(i) +
               " : l'\xC3\xA9t\xC3\xA9 &amp; l'hiver</title><guid>urn:item:" + std::to_string(i) +
               "</guid><pubDate>Tue, 10 Jun 2003 04:00:00 GMT</pubDate><description>&lt;p&gt;Le "
               "gouvernement a annonc\xC3\xA9 mardi une s\xC3\xA9rie de mesures pour la r\xC3\xA9gion, "
               "dont les d\xC3\xA9tails seront pr\xC3\xA9""cis\xC3\xA9s plus tard dans la semaine par le "
               "ministre charg\xC3\xA9 du dossier.&lt;/p&gt;&lt;img src=\"/img/" + std::to_string(i) +
               ".jpg\"&gt; Lire la suite&amp;nbsp;&#8230;</description></item>";
    }
    return doc + "</channel></rss>";
}

// The same text in ISO 8859-1: every two-byte UTF-8 sequence of U+0080..U+00FF as one byte.
std::string to_latin1(const std::string &utf8)
{
    std::string out;
    for (size_t i = 0; i < utf8.size(); i++) {
        auto c = static_cast<unsigned char>(utf8[i]);
        if ((c == 0xC2 || c == 0xC3) && i + 1 < utf8.size())
            out += static_cast<char>(((c & 0x03) << 6) | (static_cast<unsigned char>(utf8[++i]) & 0x3F));
        else
            out += static_cast<char>(c);
    }
    return out;
}

void BM_Parse190kUtf8(benchmark::State &state) { parse_text(state, french_feed("UTF-8")); }
void BM_Parse190kLatin1(benchmark::State &state)
{
    parse_text(state, to_latin1(french_feed("ISO-8859-1")));
}
BENCHMARK(BM_Parse190kUtf8);
BENCHMARK(BM_Parse190kLatin1);

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
