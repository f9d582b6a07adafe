// Speed of the client codec: parsing typical requests, and building the
// overview of a 100-item feed and the login answer of a ten-feed profile.
#include "client/kd_msg.h"
#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "platform/slab.h"

#include <benchmark/benchmark.h>
#include <mxml.h>

#include <cstring>
#include <string>

namespace {

void parse_one(benchmark::State &state, const std::string &req)
{
    for (auto _ : state) {
        kd_msg msg{};
        kd_msg_parse(&msg, req.data(), req.size());
        benchmark::DoNotOptimize(msg.uid);
        kd_free(msg.domain);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * req.size()));
}

void BM_ParseLogin(benchmark::State &state)
{
    parse_one(state, "login\tv:3\tdomain:rss\tprofile_id:1");
}
BENCHMARK(BM_ParseLogin);

void BM_ParseBody(benchmark::State &state)
{
    parse_one(state, "body\tdomain:podcast\tprofile_id:12\tfeed_id:4711\tuid:123456");
}
BENCHMARK(BM_ParseBody);

void BM_ParseUnknown(benchmark::State &state)
{
    parse_one(state, std::string(8192, 'x'));
}
BENCHMARK(BM_ParseUnknown);

// A domain with ten feeds, the first of which has 100 items, subscribed by
// profile 1 with about half of the items read.
struct fixture {
    mxml_node_t *root = nullptr;
    mxml_node_t *entry = nullptr;
    kd_profile prof{};
    kd_overview_desc desc{};

    fixture()
    {
        std::string xml = "<rss><pool>";
        for (int i = 1; i <= 10; i++)
            xml += "<entry id=\"" + std::to_string(i) + "\" url=\"http://feeds.test/" + std::to_string(i) +
                   "\" name=\"Feed number " + std::to_string(i) + "\"/>";
        xml += "</pool><profiles><profile id=\"1\">";
        for (int i = 1; i <= 10; i++)
            xml += "<item entry=\"" + std::to_string(i) + "\"" + (i == 1 ? " read=\"" + std::string(26, '5') + "\"" : "") + "/>";
        xml += "</profile></profiles></rss>";
        root = mxmlLoadString(nullptr, xml.c_str(), MXML_OPAQUE_CALLBACK);
        link();
        entry = mxmlFindElement(root, root, "entry", "id", "1", MXML_DESCEND);
        mxmlSetUserData(entry, make_feed());
        prof.profile = mxmlFindElement(root, root, "profile", nullptr, nullptr, MXML_DESCEND);
        prof.profile_id = 1;
        desc = {mxmlFindElement(prof.profile, prof.profile, "item", nullptr, nullptr, MXML_DESCEND), &prof, "rss"};
    }
    ~fixture()
    {
        kdn_free_feed(static_cast<kd_node *>(mxmlGetUserData(entry)));
        mxmlDelete(root);
    }

    void link()
    {
        for (mxml_node_t *it = mxmlFindElement(root, root, "item", nullptr, nullptr, MXML_DESCEND); it;
             it = mxmlFindElement(it, root, "item", nullptr, nullptr, MXML_DESCEND))
            mxmlSetUserData(it, mxmlFindElement(root, root, "entry", "id", mxmlElementGetAttr(it, "entry"), MXML_DESCEND));
    }

    kd_node *make_feed()
    {
        auto *feed = static_cast<kd_node *>(kd_calloc(1, sizeof(kd_node)));
        kd_item **tail = &feed->children;
        for (uint32_t i = 0; i < 100; i++) {
            auto *it = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
            it->uid = i + 1;
            it->title = kd_strdup(("Headline of the item number " + std::to_string(i) + " of this feed").c_str());
            *tail = it;
            tail = &it->next;
            feed->nchildren++;
        }
        return feed;
    }
};

void BM_Overview100Items(benchmark::State &state)
{
    fixture f;
    uint32_t bytes = 0;
    for (auto _ : state) {
        char *buf = nullptr;
        uint32_t size = 0;
        benchmark::DoNotOptimize(kd_msg_request(&buf, &size, KD_CMD_OVERVIEW, 3, &f.desc));
        bytes = size;
        kd_free(buf);
    }
    state.counters["block_bytes"] = bytes;
}
BENCHMARK(BM_Overview100Items);

void BM_LoginAnswerTenFeeds(benchmark::State &state)
{
    fixture f;
    kd_msg req{};
    req.cmd = KD_CMD_LOGIN;
    req.domain = const_cast<char *>("rss");
    req.profile_id = 1;
    for (auto _ : state) {
        char *buf = nullptr;
        uint32_t size = 0;
        benchmark::DoNotOptimize(kd_msg_response(&buf, &size, &req, 3, &f.prof));
        kd_free(buf);
    }
}
BENCHMARK(BM_LoginAnswerTenFeeds);

} // namespace

BENCHMARK_MAIN();
