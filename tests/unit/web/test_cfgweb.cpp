// kelp-web's subscriptions: the list the page gets from a domain document,
// the check that a feed is still as the page showed it, and the requests
// refused before configd is asked.
#include "cfgweb.h"

#include "configd/store.h"
#include "util/kd_mxml.h"

#include <gtest/gtest.h>

using namespace kweb;

namespace {

const char kDoc[] = "<?xml version=\"1.0\"?>\n<pool>\n"
                    "  <entry id=\"1\" url=\"http://feeds.test/a.xml\" name=\"Caf\xc3\xa9 <b>\" poll=\"600\" />\n"
                    "  <entry id=\"x2\" url=\"http://feeds.test/b.xml\" />\n</pool>\n<profiles>\n"
                    "  <profile id=\"01\"><item entry=\"1\" read=\"ff\" /></profile>\n"
                    "  <profile id=\"2\"><item entry=\"1\" /><item entry=\"x2\" /></profile>\n"
                    "  <profile id=\"odd\" />\n</profiles>\n";

kd_mxml_tree parse(const char *text)
{
    std::string why;
    return kd_mxml_tree(cfg_parse(text, &why));
}

std::vector<json_member> object(std::string_view text)
{
    std::vector<json_member> obj;
    EXPECT_TRUE(json_parse_object(text, &obj)) << text;
    return obj;
}

web_reply ask(std::string_view what, std::string_view json)
{
    web_reply r;
    EXPECT_TRUE(config_request(what, object(json), &r));
    return r;
}

} // namespace

TEST(cfgweb, ListGivesProfilesAndFeedsWithSubscribersAsText)
{
    kd_mxml_tree doc = parse(kDoc);
    ASSERT_TRUE(doc);
    EXPECT_EQ(config_list_json(doc.get(), "rss"),
              "{\"domain\":\"rss\",\"profiles\":[1,2],\"feeds\":["
              "{\"id\":\"1\",\"name\":\"Caf\xc3\xa9 \\u003cb\\u003e\",\"url\":\"http://feeds.test/a.xml\","
              "\"poll\":\"600\",\"profiles\":[1,2]},"
              "{\"id\":\"x2\",\"name\":\"\",\"url\":\"http://feeds.test/b.xml\",\"poll\":\"\",\"profiles\":[2]}]}");
}

TEST(cfgweb, AFeedAsThePageShowedItIsUnchanged)
{
    kd_mxml_tree doc = parse(kDoc);
    std::string why;
    EXPECT_TRUE(config_unchanged(doc.get(), object("{\"id\":\"1\",\"was_name\":\"Caf\\u00e9 <b>\","
                                                   "\"was_url\":\"http://feeds.test/a.xml\",\"was_poll\":600}"),
                                 &why));
    EXPECT_TRUE(config_unchanged(doc.get(), object("{\"id\":\"x2\",\"was_poll\":\"\"}"), &why));
}

TEST(cfgweb, AFeedChangedOrRemovedMeanwhileIsRefusedWithWords)
{
    kd_mxml_tree doc = parse(kDoc);
    std::string why;
    EXPECT_FALSE(config_unchanged(doc.get(), object("{\"id\":\"1\",\"was_name\":\"Cafe\"}"), &why));
    EXPECT_EQ(why, "someone else changed feed 1 meanwhile: reload and try again");
    EXPECT_FALSE(config_unchanged(doc.get(), object("{\"id\":\"7\",\"was_url\":\"http://x/\"}"), &why));
    EXPECT_EQ(why, "someone else removed feed 7 meanwhile: reload and try again");
}

TEST(cfgweb, BadInputIsRefusedBeforeConfigdIsAsked)
{
    // configd is not running here: these answers come before it is asked.
    web_reply r = ask("feed-add", "{\"domain\":\"rss\",\"url\":\"javascript:alert(1)\"}");
    EXPECT_EQ(r.status, 400u);
    EXPECT_EQ(r.body, "{\"error\":\"not an http or https URL: 'javascript:alert(1)'\"}");
    r = ask("feed-add", "{\"domain\":\"rss\",\"url\":\"http://feeds.test/\",\"poll\":5}");
    EXPECT_EQ(r.body, "{\"error\":\"poll interval 5 s is below the minimum of 30 s\"}");
    r = ask("feed-set", "{\"domain\":\"rss\",\"id\":\"1\",\"url\":\"ftp://feeds.test/\"}");
    EXPECT_EQ(r.status, 400u);
    r = ask("list", "{\"domain\":\"news\"}");
    EXPECT_EQ(r.body, "{\"error\":\"domain must be rss or podcast\"}");
    r = ask("profile-add", "{\"domain\":\"rss\",\"profile\":\"-1\"}");
    EXPECT_EQ(r.status, 400u);
    web_reply none;
    EXPECT_FALSE(config_request("drop-everything", object("{\"domain\":\"rss\"}"), &none));
}

TEST(cfgweb, BadOpmlIsRefusedWholeWithTheReason)
{
    web_reply r = ask("opml-import", "{\"domain\":\"rss\",\"opml\":\"<html><body/></html>\"}");
    EXPECT_EQ(r.status, 400u);
    EXPECT_EQ(r.body, "{\"error\":\"not an OPML document (no \\u003copml\\u003e element)\"}");
    r = ask("opml-import", "{\"domain\":\"rss\",\"opml\":\"<opml><body><outline xmlUrl=\\\"http://ok.test/\\\"/>"
                           "<outline xmlUrl=\\\"file:///etc/passwd\\\"/></body></opml>\"}");
    EXPECT_EQ(r.status, 400u);
    EXPECT_EQ(r.body, "{\"error\":\"outline 2: not an http or https URL: 'file:///etc/passwd'\"}");
    std::string big = "{\"domain\":\"rss\",\"opml\":\"" + std::string(kMaxOpmlBytes + 1, ' ') + "\"}";
    r = ask("opml-import", big);
    EXPECT_EQ(r.status, 413u);
    EXPECT_EQ(r.body, "{\"error\":\"the OPML file is larger than 1 MiB\"}");
}
