// Helpers of the merge and poll-timer tests: configuration documents built
// from entries, profiles and items, merged as configd delivers them, with the
// timers on a clock that moves only when a test moves it.
#pragma once
#include "tests/unit/client/session_fixture.h"

#include <string>

namespace kelp_test {

inline const char kUrlA[] = "http://feeds.test/a";

inline std::string doc_with(const std::string &pool, const std::string &profiles)
{
    return "<config><pool>" + pool + "</pool><profiles>" + profiles + "</profiles></config>";
}

inline std::string entry(const char *id, const char *url, const char *poll = nullptr)
{
    std::string e = std::string("<entry id=\"") + id + "\" url=\"" + url + "\"";
    if (poll)
        e += std::string(" poll=\"") + poll + "\"";
    return e + "/>";
}

inline std::string profile(const char *id, const std::string &items)
{
    return std::string("<profile id=\"") + id + "\">" + items + "</profile>";
}

inline std::string item(const char *ref) { return std::string("<item entry=\"") + ref + "\"/>"; }

// Entry 1 (kUrlA, polled every 1200 s) subscribed by profile 1, entry 2 by profile 2.
inline const std::string kBase = doc_with(entry("1", kUrlA, "1200") + entry("2", "http://feeds.test/b"),
                                          profile("1", item("1")) + profile("2", item("2")));

inline int64_t g_fake_now_ns;
inline int64_t fake_now(void) { return g_fake_now_ns; }

class merge_test : public session_test {
protected:
    void SetUp() override
    {
        g_fake_now_ns = 1000000000;
        timeout_set_clock(fake_now);
        session_test::SetUp();
    }

    void TearDown() override
    {
        session_test::TearDown();
        timeout_set_clock(nullptr);
    }

    static void advance(int64_t seconds) { g_fake_now_ns += seconds * 1000000000; }

    void merge_rss(const std::string &xml) { merge(&g_rssdomain, &g_rssproflist, xml.c_str()); }

    int login(const char *domain, int id)
    {
        int peer = connect_client();
        EXPECT_EQ(login_on(peer, domain, id).rfind("OK\tlogin\t", 0), 0u);
        return peer;
    }

    std::string login_on(int peer, const char *domain, int id)
    {
        return request(peer, std::string("login v:3 domain:") + domain + " profile_id:" + std::to_string(id));
    }

    // The base configuration with feed 1 polled for a client of profile 1,
    // its immediate first refresh done.
    kd_node *polled_feed()
    {
        merge_rss(kBase);
        login("rss", 1);
        pump();
        return feed_of(g_rssdomain, "1");
    }

    mxml_node_t *entry_el(const char *id)
    {
        return mxmlFindElement(g_rssdomain, g_rssdomain, "entry", "id", id, MXML_DESCEND);
    }

    mxml_node_t *profile_el(const char *id)
    {
        return mxmlFindElement(g_rssdomain, g_rssdomain, "profile", "id", id, MXML_DESCEND);
    }

    // The message is written at the threshold and above, never below it.
    template <typename F> void expect_threshold(const std::string &text, int prio, int threshold, F action)
    {
        captured_log().clear();
        verbosity = threshold - 1;
        action();
        EXPECT_FALSE(log_has(text)) << text << " below verbosity " << threshold;
        verbosity = threshold;
        action();
        EXPECT_TRUE(log_has_prio(text, prio)) << text << " at verbosity " << threshold;
        verbosity = 4;
    }
};

} // namespace kelp_test
