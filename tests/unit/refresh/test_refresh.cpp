// One poll of one entry: the fetch's settings, lastpoll and lasterror with
// their log lines, the feed title adopted as the entry's name, failed polls
// that leave the items alone, and everything released on every path.
#include "tests/unit/refresh/refresh_fixture.h"

#include "platform/charset.h"

#include <ctime>

using namespace kelp_test;

namespace {

using poll_test = refresh_test;

const std::string kFeed = rss_feed(rss_titles({"K", "L"}), "Kelp News");

TEST_F(poll_test, EntryWithoutUrlIsLeftAlone)
{
    merge_rss(doc_with("<entry id=\"7\"/>", profile("1", item("7"))));
    kd_node *n = feed_of(g_rssdomain, "7");
    n->lasterror = 404;
    n->lastpoll = 123;
    expect_threshold("missing 'url' in entry '7'", LOG_INFO, 2, [&] { poll(n); });
    EXPECT_TRUE(fetched_urls().empty());
    EXPECT_EQ(n->lasterror, 404);
    EXPECT_EQ(n->lastpoll, 123);
}

TEST_F(poll_test, FetchSettingsFollowTheVerbosity)
{
    kd_node *n = setup();
    const uint32_t debug_for[] = {0, 1, 1, 2, 3};
    for (uint32_t v = 0; v <= 4; v++) {
        verbosity = v;
        fail_with(HTTPCLI_NO_CONNECTION);
        poll(n);
        EXPECT_EQ(g_seen_ctx.debug, static_cast<int32_t>(debug_for[v])) << "verbosity " << v;
        EXPECT_EQ(g_seen_ctx.proxy, nullptr);
        EXPECT_EQ(g_seen_ctx.proxy_port, 0);
        EXPECT_FLOAT_EQ(g_seen_ctx.timeout, 3.0f);
    }
    EXPECT_EQ(fetched_urls(), std::vector<std::string>(5, kUrlA));
}

TEST_F(poll_test, LastpollIsSetAfterEveryFetch)
{
    kd_node *n = setup();
    int32_t before = static_cast<int32_t>(time(nullptr));
    fail_with(HTTPCLI_NO_CONNECTION);
    poll(n);
    EXPECT_GE(n->lastpoll, before);
    EXPECT_LE(n->lastpoll, static_cast<int32_t>(time(nullptr)));
    n->lastpoll = 0;
    serve(kFeed);
    poll(n);
    EXPECT_GE(n->lastpoll, before);
}

struct failure_case {
    int code;
    const char *line;
};

TEST_F(poll_test, FailedFetchKeepsTheItemsAndLogsWhy)
{
    kd_node *n = setup();
    serve(kFeed);
    poll(n);
    const kd_item *items = n->children;
    const failure_case cases[] = {
        {HTTPCLI_NO_CONNECTION, "no connection to server [http://feeds.test/a]"},
        {HTTPCLI_NO_MEMORY, "local memory exhausted"},
        {404, "document not found - URL changed? [http://feeds.test/a]"},
        {500, "got HTTP error 500 [http://feeds.test/a]"},
        {302, "got HTTP error 302 [http://feeds.test/a]"},
        {304, "got HTTP error 304 [http://feeds.test/a]"},
        {0, "got HTTP error 0 [http://feeds.test/a]"},
    };
    for (const auto &c : cases) {
        drain(peer1);
        fail_with(c.code);
        expect_threshold(c.line, LOG_ERR, 1, [&] { poll(n); });
        EXPECT_EQ(n->lasterror, c.code);
        EXPECT_EQ(n->children, items);
        EXPECT_EQ(titles(n), (std::vector<std::string>{"K", "L"}));
        EXPECT_TRUE(drain(peer1).empty());
        EXPECT_FALSE(log_has("HTTP OK [http://feeds.test/a]"));
    }
}

TEST_F(poll_test, SuccessLeavesTheLastFailureInPlace)
{
    kd_node *n = setup();
    fail_with(404);
    poll(n);
    EXPECT_EQ(n->lasterror, 404);
    serve(kFeed);
    poll(n);
    EXPECT_EQ(n->lasterror, 404);
    EXPECT_EQ(titles(n), (std::vector<std::string>{"K", "L"}));
}

TEST_F(poll_test, GoodFetchIsLoggedAtVerbosityThree)
{
    kd_node *n = setup();
    serve(kFeed);
    expect_threshold("HTTP OK [http://feeds.test/a]", LOG_NOTICE, 3, [&] { poll(n); });
    EXPECT_EQ(n->lasterror, 0);
    serve(kFeed, HTTPCLI_TRUNCATED);
    expect_threshold("HTTP OK [http://feeds.test/a] [truncated]", LOG_NOTICE, 3, [&] { poll(n); });
}

TEST_F(poll_test, TruncatedDocumentKeepsItsCompleteItemsAndCodeTwo)
{
    kd_node *n = setup();
    std::string cut = rss_feed(rss_titles({"K", "L", "M"}));
    cut = cut.substr(0, cut.find("<item><title>M") + 17);
    serve(cut, HTTPCLI_TRUNCATED);
    poll(n);
    EXPECT_EQ(titles(n), (std::vector<std::string>{"K", "L"}));
    EXPECT_EQ(n->lasterror, HTTPCLI_TRUNCATED);
    EXPECT_FALSE(log_has("error parsing xml - try to validate the feed"));
    // The same cut document as a complete one is broken XML.
    serve(cut);
    poll(n);
    EXPECT_EQ(n->lasterror, 4);
    EXPECT_EQ(titles(n), (std::vector<std::string>{"K", "L"}));
}

TEST_F(poll_test, BrokenDocumentIsAnXmlErrorAndKeepsTheItems)
{
    kd_node *n = setup();
    serve(kFeed);
    poll(n);
    const kd_item *items = n->children;
    serve("<rss><channel><item><title>K</title></item></chanel></rss>");
    expect_threshold("error parsing xml - try to validate the feed", LOG_ERR, 1, [&] { poll(n); });
    EXPECT_EQ(n->lasterror, 4);
    EXPECT_EQ(n->children, items);
}

TEST_F(poll_test, DocumentWithoutItemsKeepsTheItems)
{
    kd_node *n = setup();
    serve(kFeed);
    poll(n);
    const kd_item *items = n->children;
    serve(rss_feed(""));
    expect_threshold("no items found - try to check URL by hand", LOG_ERR, 1, [&] { poll(n); });
    EXPECT_EQ(n->lasterror, 5);
    EXPECT_EQ(n->children, items);
    EXPECT_EQ(n->nchildren, 2u);
}

TEST_F(poll_test, EmptyBodyHoldsNoItems)
{
    kd_node *n = setup();
    serve("");
    poll(n);
    EXPECT_EQ(n->lasterror, 5);
    EXPECT_EQ(n->children, nullptr);
}

TEST_F(poll_test, FirstGoodPollPushesTheItems)
{
    kd_node *n = setup();
    serve(kFeed);
    poll(n);
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 1}));
    EXPECT_EQ(drain(peer1), (std::vector<std::string>{overview_text(1, {{0, 0, "K"}, {1, 0, "L"}})}));
    EXPECT_EQ(drain(peer2), (std::vector<std::string>{overview_text(2, {{0, 0, "K"}, {1, 0, "L"}})}));
}

TEST_F(poll_test, NameEqualToTheUrlBecomesTheFeedTitle)
{
    kd_node *n = setup(" name=\"http://feeds.test/a\"");
    serve(kFeed);
    captured_log().clear();
    poll(n);
    EXPECT_EQ(attr(entry_el("1"), "name"), "Kelp News");
    EXPECT_TRUE(log_has_prio("setting feed title to 'Kelp News'", LOG_NOTICE));
    auto saved = saves();
    ASSERT_GE(saved.size(), 1u);
    EXPECT_NE(saved[0].find("name=\"Kelp News\""), std::string::npos) << saved[0];
    // A fresh feed list, then the overviews, for every subscribing profile.
    auto got = drain(peer1);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got[0], "OK\taccounts\tdomain:rss\tprofile_id:1\tname:Kelp News\tfeed_id:1");
    EXPECT_NE(std::find(got.begin(), got.end(), overview_text(1, {{0, 0, "K"}, {1, 0, "L"}})), got.end());
    got = drain(peer2);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got[0], "OK\taccounts\tdomain:rss\tprofile_id:2\tname:Kelp News\tfeed_id:1");
    EXPECT_EQ(n->lasterror, 0);
}

TEST_F(poll_test, MissingOrEmptyNameBecomesTheFeedTitle)
{
    for (const char *attrs : {"", " name=\"\""}) {
        kd_node *n = setup(attrs);
        serve(kFeed);
        poll(n);
        EXPECT_EQ(attr(entry_el("1"), "name"), "Kelp News") << attrs;
        TearDown();
        SetUp();
    }
}

TEST_F(poll_test, UserGivenNameIsKept)
{
    kd_node *n = setup(" name=\"My news\"");
    serve(kFeed);
    poll(n);
    EXPECT_EQ(attr(entry_el("1"), "name"), "My news");
    EXPECT_FALSE(log_has("setting feed title to 'Kelp News'"));
    EXPECT_TRUE(saves().empty());
    // The items' overviews and nothing else: no new feed list.
    EXPECT_EQ(drain(peer1), (std::vector<std::string>{overview_text(1, {{0, 0, "K"}, {1, 0, "L"}})}));
    EXPECT_EQ(drain(peer2), (std::vector<std::string>{overview_text(2, {{0, 0, "K"}, {1, 0, "L"}})}));
}

TEST_F(poll_test, TitleIsTakenEvenWhenTheDocumentIsBroken)
{
    kd_node *n = setup(" name=\"http://feeds.test/a\"");
    serve("<rss><channel><title>Half</title><item><title>K</title></itm></channel></rss>");
    poll(n);
    EXPECT_EQ(n->lasterror, 4);
    EXPECT_EQ(attr(entry_el("1"), "name"), "Half");
    EXPECT_EQ(saves().size(), 1u);
}

TEST_F(poll_test, TitleIsStoredInUtf8)
{
    kd_node *n = setup("");
    serve(rss_feed(rss_titles({"K"}), "Caf&#233;"));
    char *text = kd_strdup(g_answer.body.c_str());
    char *title = nullptr;
    kd_node *parsed = kdx_parse_feed(200, kUrlA, nullptr, &text, &title);
    ASSERT_NE(title, nullptr);
    std::string parsed_title = title;
    char *utf8 = ConvertStringFromISO8859_1ToUTF8_WithAlloc(title);
    std::string expected = utf8 ? utf8 : "?";
    kd_free(utf8);
    kd_free(title);
    kd_free(text);
    kdn_free_feed(parsed);
    poll(n);
    EXPECT_EQ(attr(entry_el("1"), "name"), expected);
    EXPECT_TRUE(log_has("setting feed title to '" + parsed_title + "'"));
}

TEST_F(poll_test, TitleThatCannotBeConvertedLeavesTheName)
{
    // Fail each allocation in turn until the conversion is the one that fails.
    bool seen = false;
    for (long k = 0; k < 400 && !seen; k++) {
        kd_node *n = setup(" name=\"http://feeds.test/a\"");
        serve(kFeed);
        slab_fail_after(k);
        poll(n);
        slab_fail_after(-1);
        seen = log_has("setting feed title to 'Kelp News'") && log_has_prio("error converting string to UTF-8", LOG_ERR);
        if (seen) {
            EXPECT_EQ(attr(entry_el("1"), "name"), "http://feeds.test/a");
            EXPECT_TRUE(saves().empty());
        }
        TearDown();
        SetUp();
    }
    EXPECT_TRUE(seen);
}

TEST_F(poll_test, TitleMessagesNeedTheirVerbosity)
{
    kd_node *n = setup(" name=\"http://feeds.test/a\"");
    expect_threshold("setting feed title to 'Kelp News'", LOG_NOTICE, 2, [&] {
        mxmlElementSetAttr(entry_el("1"), "name", kUrlA);
        serve(kFeed);
        poll(n);
    });
}

TEST_F(poll_test, RunsFromThePollTimers)
{
    merge_rss(doc_with(entry("1", kUrlA, "600"), profile("1", item("1"))));
    serve(kFeed);
    int peer = login("rss", 1);
    pump();
    kd_node *n = feed_of(g_rssdomain, "1");
    EXPECT_EQ(fetched_urls().size(), 1u); // the immediate first refresh
    EXPECT_EQ(titles(n), (std::vector<std::string>{"K", "L"}));
    drain(peer);
    serve(rss_feed(rss_titles({"X", "K", "L"})));
    advance(600);
    pump();
    EXPECT_EQ(fetched_urls().size(), 2u);
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{2, 0, 1}));
    EXPECT_EQ(drain(peer), (std::vector<std::string>{overview_text(1, {{2, 0, "X"}, {0, 0, "K"}, {1, 0, "L"}})}));
}

TEST_F(poll_test, NullRecordIsAProgrammingError)
{
    EXPECT_DEATH(kd_refresh_entry(nullptr, 0), "param!=\\(\\(void \\*\\)0\\)");
}

} // namespace
