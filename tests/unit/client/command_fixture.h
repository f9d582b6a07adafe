// Helpers of the command and notification tests: a configuration of two
// profiles sharing a feed, feed records filled with items by the test (the
// entries carry no url, so a poll started by a login fetches nothing), the
// timers on a clock that moves only when a test moves it, and a count of the
// domain saves.
#pragma once
#include "client/kd_push.h"
#include "tests/unit/client/msg_fixture.h"
#include "tests/unit/client/session_fixture.h"

#include <string>
#include <vector>

namespace kelp_test {

// Feed 1 ("News") subscribed by profiles 1 and 2, feed 2 ("Radio") by profile 1.
inline const char kTwoProfiles[] =
    "<config><pool><entry id=\"1\" name=\"News\"/><entry id=\"2\" name=\"Radio\"/></pool><profiles>"
    "<profile id=\"1\"><item entry=\"1\"/><item entry=\"2\"/></profile>"
    "<profile id=\"2\"><item entry=\"1\"/></profile></profiles></config>";

inline int64_t g_cmd_now_ns;
inline int64_t cmd_now(void) { return g_cmd_now_ns; }

class command_test : public session_test {
protected:
    void SetUp() override
    {
        g_cmd_now_ns = 1000000000;
        timeout_set_clock(cmd_now);
        session_test::SetUp();
        kd_internet_retry_reset();
    }

    void TearDown() override
    {
        session_test::TearDown();
        timeout_set_clock(nullptr);
        kd_internet_retry_reset();
    }

    static void advance(int64_t seconds) { g_cmd_now_ns += seconds * 1000000000; }

    void merge_rss(const char *xml) { merge(&g_rssdomain, &g_rssproflist, xml); }

    // Gives the merged feed record of an entry the items K, L, M (uids 10-12).
    kd_node *fill(const char *entry_id, std::vector<kd_item *> items)
    {
        kd_node *feed = feed_of(g_rssdomain, entry_id);
        EXPECT_NE(feed, nullptr);
        kd_item **tail = &feed->children;
        for (kd_item *it : items) {
            *tail = it;
            tail = &it->next;
            feed->nchildren++;
        }
        return feed;
    }

    kd_node *fill_klm() { return fill("1", {item(10, "K", "body K"), item(11, "L", "body L"), item(12, "M")}); }

    // A connection logged in to a profile of "rss"; the login's own pushes
    // (queued overviews, status) are read away.
    int login(int id, int api = 3)
    {
        int peer = connect_client();
        std::string a = request(peer, "login v:" + std::to_string(api) + " domain:rss profile_id:" + std::to_string(id));
        EXPECT_EQ(a.rfind("OK\tlogin\t", 0), 0u) << a;
        drain(peer);
        return peer;
    }

    // Every block waiting on the peer, after one more turn of the loop.
    std::vector<std::string> drain(int peer)
    {
        pump();
        std::vector<std::string> all;
        for (std::string a = answer(peer); !a.empty(); a = answer(peer))
            all.push_back(a);
        return all;
    }

    mxml_node_t *subscription(const char *profile_id, const char *entry_id)
    {
        mxml_node_t *p = mxmlFindElement(g_rssdomain, g_rssdomain, "profile", "id", profile_id, MXML_DESCEND);
        return p ? mxmlFindElement(p, p, "item", "entry", entry_id, MXML_DESCEND) : nullptr;
    }

    std::string read_of(const char *profile_id, const char *entry_id)
    {
        const char *v = mxmlElementGetAttr(subscription(profile_id, entry_id), "read");
        return v ? v : "(none)";
    }

    // kd_save_config writes the whole document to the log at verbosity 4.
    static size_t saves()
    {
        size_t n = 0;
        for (const auto &l : captured_log())
            n += l.text.rfind("<config>", 0) == 0;
        return n;
    }
};

} // namespace kelp_test
