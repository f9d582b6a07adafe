// The cost of merges, without the network: merge_feed of a parsed feed into
// a feed record whose three subscriptions carry read marks, set against the
// parse of the same feed; and kd_config_merge of a domain document whose
// pool entries are each subscribed by ten profiles, delivered again over the
// running one (every record moves). Modes:
//   feed REPS BASE NEW   lines "parse|same|new <us>": parse of BASE, BASE
//                        merged into itself, NEW (BASE with items on top)
//                        merged into BASE; each the mean over many rounds
//   config REPS N...     lines "config <N> <us>": one merge of N entries
//   config-once N        one merge of N entries, for callgrind
#include "bench/perf_driver.h"
#include "config/kd_config.h"
#include "config/kd_config_state.h"
#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "platform/csock.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "refresh/kd_itemmerge.h"

#include <mxml.h>

namespace {

int offline(void) { return 0; }

// No poll runs in these measurements: nothing is connected and the
// internet is down, so a merge starts no timer.
void setup()
{
    csock_init();
    timeout_init();
    kd_config_hooks hooks{offline};
    kd_config_set_hooks(&hooks);
}

kd_node *parse(const std::string &doc)
{
    char *body = kd_strndup(doc.data(), doc.size());
    kd_node *feed = kdx_parse_feed(200, "http://feeds.test/a.xml", "text/xml", &body, nullptr);
    kd_free(body);
    return feed;
}

double timed_merge(mxml_node_t *entry, const std::string &doc)
{
    kd_node *parsed = parse(doc);
    double t0 = perf::now_us();
    merge_feed(entry, parsed);
    double spent = perf::now_us() - t0;
    kdn_free_feed(parsed);
    return spent;
}

double timed_parse(const std::string &doc)
{
    char *body = kd_strndup(doc.data(), doc.size());
    double t0 = perf::now_us();
    kd_node *feed = kdx_parse_feed(200, "http://feeds.test/a.xml", "text/xml", &body, nullptr);
    kdn_free_feed(feed);
    kd_free(body);
    return perf::now_us() - t0;
}

// One entry subscribed by three profiles; the feed's first fetch done and a
// few items of each profile read.
mxml_node_t *feed_entry(const std::string &base)
{
    std::string xml = "<config><pool><entry id=\"1\" url=\"http://feeds.test/a.xml\" poll=\"600\"/></pool><profiles>";
    for (int p = 1; p <= 3; p++)
        xml += "<profile id=\"" + std::to_string(p) + "\"><item entry=\"1\"/></profile>";
    xml += "</profiles></config>";
    kd_config_merge(&g_rssdomain, &g_rssproflist, mxmlLoadString(nullptr, xml.c_str(), MXML_OPAQUE_CALLBACK));
    mxml_node_t *entry = mxmlFindElement(g_rssdomain, g_rssdomain, "entry", nullptr, nullptr, MXML_DESCEND);
    timed_merge(entry, base);
    auto *n = static_cast<kd_node *>(mxmlGetUserData(entry));
    for (uint32_t i = 0; i < n->nrefs; i++)
        for (uint32_t k = i; k < 150; k += 7)
            kd_mark_read(n->refs[i], k);
    return entry;
}

int feed_mode(int reps, const std::string &base, const std::string &grown)
{
    mxml_node_t *entry = feed_entry(base);
    constexpr int rounds = 40;
    for (int r = 0; r < reps; r++) {
        double parse_us = 0, same = 0, added = 0;
        for (int i = 0; i < rounds; i++) {
            parse_us += timed_parse(base);
            same += timed_merge(entry, base);
            added += timed_merge(entry, grown); // ten new items on top
            timed_merge(entry, base);           // and back, for the next round
        }
        printf("parse %.3f\nsame %.3f\nnew %.3f\n", parse_us / rounds, same / rounds, added / rounds);
    }
    return 0;
}

std::string config_doc(int entries, int profiles)
{
    std::string xml = "<config><pool>";
    for (int e = 1; e <= entries; e++)
        xml += "<entry id=\"" + std::to_string(e) + "\" url=\"http://feeds.test/" + std::to_string(e) +
               ".xml\" name=\"Feed " + std::to_string(e) + "\" poll=\"1800\"/>";
    xml += "</pool><profiles>";
    for (int p = 1; p <= profiles; p++) {
        xml += "<profile id=\"" + std::to_string(p) + "\">";
        for (int e = 1; e <= entries; e++)
            xml += "<item entry=\"" + std::to_string(e) + "\" read=\"0f\" first=\"12345\"/>";
        xml += "</profile>";
    }
    return xml + "</profiles></config>";
}

double timed_config_merge(const std::string &xml)
{
    mxml_node_t *doc = mxmlLoadString(nullptr, xml.c_str(), MXML_OPAQUE_CALLBACK);
    double t0 = perf::now_us();
    kd_config_merge(&g_rssdomain, &g_rssproflist, doc);
    return perf::now_us() - t0;
}

int config_mode(int reps, int argc, char **argv)
{
    for (int a = 0; a < argc; a++) {
        int n = atoi(argv[a]);
        std::string xml = config_doc(n, 10);
        timed_config_merge(xml); // the running document the next ones replace
        int rounds = n >= 1000 ? 3 : 30;
        for (int r = 0; r < reps; r++) {
            double sum = 0;
            for (int i = 0; i < rounds; i++)
                sum += timed_config_merge(xml);
            printf("config %d %.3f\n", n, sum / rounds);
            fflush(stdout);
        }
    }
    return 0;
}

// One merge of n entries over the running document, counted by callgrind
// (run under valgrind --tool=callgrind --collect-atstart=no).
int config_once(int n)
{
    std::string xml = config_doc(n, 10);
    timed_config_merge(xml);
    mxml_node_t *doc = mxmlLoadString(nullptr, xml.c_str(), MXML_OPAQUE_CALLBACK);
    CALLGRIND_TOGGLE_COLLECT;
    kd_config_merge(&g_rssdomain, &g_rssproflist, doc);
    CALLGRIND_TOGGLE_COLLECT;
    return 0;
}

} // namespace

// Unused here: the parse programs' hooks.
void *perf_prepare(const std::string &) { return nullptr; }
void perf_run(void *) {}

int main(int argc, char **argv)
{
    setup();
    if (argc == 5 && strcmp(argv[1], "feed") == 0)
        return feed_mode(atoi(argv[2]), perf::read_file(argv[3]), perf::read_file(argv[4]));
    if (argc == 3 && strcmp(argv[1], "config-once") == 0)
        return config_once(atoi(argv[2]));
    if (argc >= 4 && strcmp(argv[1], "config") == 0)
        return config_mode(atoi(argv[2]), argc - 3, argv + 3);
    fprintf(stderr, "usage: %s feed REPS BASE NEW | config REPS N...\n", argv[0]);
    return 2;
}
