// Domains, profile records and the lookups between elements and records:
// poll intervals, domain names, profiles of items, feeds in use.
#include "tests/unit/client/session_fixture.h"

using namespace kelp_test;

namespace {

class domain_test : public session_test {
protected:
    mxml_node_t *entry_with_poll(const char *poll)
    {
        doc = load_doc("<x/>");
        mxml_node_t *e = mxmlNewElement(doc, "entry");
        mxmlElementSetAttr(e, "id", "7");
        if (poll)
            mxmlElementSetAttr(e, "poll", poll);
        return e;
    }
    void TearDown() override
    {
        if (doc)
            mxmlDelete(doc);
        session_test::TearDown();
    }
    mxml_node_t *doc = nullptr;
};

struct poll_case {
    const char *poll;
    uint32_t want;
    const char *log;
};

class pollfreq_test : public domain_test, public ::testing::WithParamInterface<poll_case> {};

TEST_P(pollfreq_test, IntervalAndMessage)
{
    captured_log().clear();
    EXPECT_EQ(kd_extract_pollfreq(entry_with_poll(GetParam().poll)), GetParam().want);
    if (GetParam().log)
        EXPECT_TRUE(log_has_prio(GetParam().log, LOG_INFO));
    else
        EXPECT_TRUE(captured_log().empty());
}

const char kLow[] = "poll frequency too low in entry 7, DoS prevention active, using minimum (30)";

INSTANTIATE_TEST_SUITE_P(Values, pollfreq_test,
                         ::testing::Values(poll_case{"29", 30, kLow}, poll_case{"30", 30, nullptr},
                                           poll_case{"abc", 30, kLow}, poll_case{"-5", 30, kLow},
                                           poll_case{nullptr, 1200, "missing poll attribute in entry 7, using default (1200)"},
                                           poll_case{"86400", 86400, nullptr}, poll_case{"600s", 600, nullptr},
                                           poll_case{"", 30, kLow}));

TEST_F(domain_test, PollMessagesOnlyAtVerbosityThree)
{
    verbosity = 2;
    EXPECT_EQ(kd_extract_pollfreq(entry_with_poll("1")), 30u);
    EXPECT_TRUE(captured_log().empty());
}

kd_profile *record(uint32_t id, kd_profile **head)
{
    auto *p = static_cast<kd_profile *>(kd_calloc(1, sizeof(kd_profile)));
    p->profile_id = id;
    p->next = *head;
    if (*head)
        (*head)->prev = p;
    *head = p;
    return p;
}

TEST_F(domain_test, DomainNameFromAnyPlaceInItsList)
{
    kd_profile *last = record(1, &g_podproflist);
    kd_profile *mid = record(2, &g_podproflist);
    kd_profile *first = record(3, &g_podproflist);
    kd_profile *rss = record(4, &g_rssproflist);
    EXPECT_STREQ(kd_get_domainname_from_profile(mid), "podcast");
    EXPECT_STREQ(kd_get_domainname_from_profile(last), "podcast");
    EXPECT_STREQ(kd_get_domainname_from_profile(first), "podcast");
    EXPECT_STREQ(kd_get_domainname_from_profile(rss), "rss");
    kd_profile *stray = nullptr;
    record(5, &stray);
    EXPECT_STREQ(kd_get_domainname_from_profile(stray), "");
    EXPECT_STREQ(kd_get_domainname_from_profile(nullptr), "");
    free_profile_list(&stray);
}

TEST_F(domain_test, DomainOfANodeIsItsRoot)
{
    doc = load_doc("<?xml version=\"1.0\"?><pool><entry id=\"1\"/></pool><profiles/>");
    mxml_node_t *e = mxmlFindElement(doc, doc, "entry", nullptr, nullptr, MXML_DESCEND);
    EXPECT_EQ(kd_get_domain_from_node(e), doc);
    EXPECT_EQ(kd_get_domain_from_node(doc), doc);
    EXPECT_EQ(kd_get_domain_from_node(nullptr), nullptr);
}

TEST_F(domain_test, ProfileOfAnItemTheProfileItselfAndOthers)
{
    doc = load_doc("<?xml version=\"1.0\"?><pool><entry id=\"1\"/></pool>"
                   "<profiles><profile id=\"3\"><group><item entry=\"1\">text</item></group></profile></profiles>");
    mxml_node_t *prof = mxmlFindElement(doc, doc, "profile", nullptr, nullptr, MXML_DESCEND);
    mxml_node_t *item = mxmlFindElement(doc, doc, "item", nullptr, nullptr, MXML_DESCEND);
    kd_profile rec{};
    mxmlSetUserData(prof, &rec);
    EXPECT_EQ(kd_get_profile_from_item(item), &rec);
    EXPECT_EQ(kd_get_profile_from_item(mxmlGetFirstChild(item)), &rec);   // a text node below
    EXPECT_EQ(kd_get_profile_from_item(prof), &rec);
    EXPECT_EQ(kd_get_profile_from_item(mxmlFindElement(doc, doc, "entry", nullptr, nullptr, MXML_DESCEND)), nullptr);
    EXPECT_EQ(kd_get_profile_from_item(nullptr), nullptr);
}

TEST_F(domain_test, FeedInUseWhileOneSubscriberHasAClient)
{
    merge(&g_rssdomain, &g_rssproflist,
          "<?xml version=\"1.0\"?><pool><entry id=\"1\" url=\"http://feeds.test/a\"/></pool><profiles>"
          "<profile id=\"1\"><item entry=\"1\"/></profile><profile id=\"2\"><item entry=\"1\"/></profile></profiles>");
    mxml_node_t *entry = mxmlFindElement(g_rssdomain, g_rssdomain, "entry", nullptr, nullptr, MXML_DESCEND);
    ASSERT_NE(mxmlGetUserData(entry), nullptr);
    EXPECT_EQ(kd_feed_in_use(entry), 0);
    kd_profile *p1 = profile_in(g_rssproflist, 1);
    ASSERT_NE(p1, nullptr);
    kd_client client{};
    client.handle = -1;
    client.profiles = static_cast<kd_profile **>(kd_calloc(1, sizeof(kd_profile *)));
    client.profiles[0] = p1;
    client.nprofiles = 1;
    p1->connections = static_cast<kd_client **>(kd_calloc(1, sizeof(kd_client *)));
    p1->connections[0] = &client;
    p1->nconns = 1;
    EXPECT_EQ(kd_feed_in_use(entry), 1);
    g_internet_up = false;   // no poll starts for this check
    kd_unlink_profile(&client, p1);
    EXPECT_EQ(p1->nconns, 0u);
    EXPECT_EQ(kd_feed_in_use(entry), 0);
    kd_free(client.profiles);
}

using domain_death_test = domain_test;

TEST_F(domain_death_test, FeedInUseNeedsAFeedRecord)
{
    doc = load_doc("<?xml version=\"1.0\"?><pool><entry id=\"1\"/></pool><profiles/>");
    mxml_node_t *e = mxmlFindElement(doc, doc, "entry", nullptr, nullptr, MXML_DESCEND);
    EXPECT_DEATH(kd_feed_in_use(e), "node!=\\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(kd_feed_in_use(nullptr), "entry!=\\(\\(void \\*\\)0\\)");
}

} // namespace
