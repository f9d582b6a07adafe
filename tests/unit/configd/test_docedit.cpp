// docedit: edits keep every node they do not add or remove, new elements
// copy their neighbours' indentation, and user input is checked.
#include <gtest/gtest.h>
#include <cstdlib>
#include <string>
#include "configd/docedit.h"
#include "configd/store.h"
#include "util/kd_mxml.h"

namespace {

std::string render(mxml_node_t *doc)
{
    char *t = mxmlSaveAllocString(doc, MXML_NO_CALLBACK);
    std::string s = t ? t : "";
    free(t);
    return s;
}

mxml_node_t *parse(const char *text)
{
    mxmlSetWrapMargin(0);
    std::string why;
    return cfg_parse(text, &why);
}

struct Doc {
    kd_mxml_tree tree;
    explicit Doc(const char *text) : tree(parse(text)) {}
    mxml_node_t *get() const { return tree.get(); }
};

const char PRETTY[] = "<?xml version=\"1.0\"?>\n<pool>\n  <entry id=\"1\" url=\"http://a/\" name=\"A\" x=\"y\" />\n"
                      "  <entry id=\"zz\" />\n  <entry id=\"9\" />\n</pool>\n<profiles>\n"
                      "  <profile id=\"01\">\n    <item entry=\"1\" read=\"ff\" first=\"7\" />\n"
                      "    <group><item entry=\"9\" /></group>\n  </profile>\n</profiles>\n";

}  // namespace

TEST(DocEdit, AppendCopiesTheIndentationOfTheLastSibling)
{
    Doc d(PRETTY);
    ASSERT_TRUE(d.get());
    doc_add_entry(d.get(), "10", "http://b/", "B", "60");
    std::string want = PRETTY;
    want.replace(want.find("  <entry id=\"9\" />\n") + 19, 0,
                 "  <entry id=\"10\" url=\"http://b/\" name=\"B\" poll=\"60\" />\n");
    EXPECT_EQ(render(d.get()), want);
}

TEST(DocEdit, RemoveTakesTheIndentationAlong)
{
    Doc d(PRETTY);
    doc_remove(doc_entry(d.get(), "zz"));
    std::string want = PRETTY;
    want.erase(want.find("  <entry id=\"zz\" />\n"), 20);
    EXPECT_EQ(render(d.get()), want);
}

TEST(DocEdit, RemovingAnEntryRemovesItsSubscriptionsAtAnyDepth)
{
    Doc d(PRETTY);
    doc_remove_entry(d.get(), doc_entry(d.get(), "9"));
    std::string r = render(d.get());
    EXPECT_EQ(r.find("entry id=\"9\""), std::string::npos);
    EXPECT_NE(r.find("<group />"), std::string::npos);
    EXPECT_NE(r.find("<item entry=\"1\" read=\"ff\" first=\"7\" />"), std::string::npos);
}

TEST(DocEdit, NextIdSkipsTextIds)
{
    Doc d(PRETTY);
    EXPECT_EQ(doc_next_id(d.get()), "10");
    Doc empty("<?xml version=\"1.0\"?><pool /><profiles />");
    EXPECT_EQ(doc_next_id(empty.get()), "1");
}

TEST(DocEdit, ProfilesMatchByNumberAndSubscriptionsByText)
{
    Doc d(PRETTY);
    mxml_node_t *p = doc_profile(d.get(), "1");
    ASSERT_TRUE(p);
    EXPECT_EQ(doc_profile(d.get(), "2"), nullptr);
    EXPECT_FALSE(doc_subscribe(p, "9"));   // nested item counts
    EXPECT_TRUE(doc_subscribe(p, "zz"));
    EXPECT_EQ(doc_subscribers(d.get(), "zz"), std::vector<std::string>{"01"});
    EXPECT_TRUE(doc_unsubscribe(p, "zz"));
    EXPECT_FALSE(doc_unsubscribe(p, "zz"));
    EXPECT_EQ(render(d.get()), PRETTY);
}

TEST(DocEdit, FirstChildOfAnEmptyElement)
{
    Doc d("<?xml version=\"1.0\"?><pool /><profiles />");
    doc_add_profile(d.get(), "3");
    doc_subscribe(doc_profile(d.get(), "3"), "1");
    EXPECT_EQ(render(d.get()), "<?xml version=\"1.0\"?><pool /><profiles><profile id=\"3\"><item entry=\"1\" />"
                               "</profile></profiles>\n");
}

TEST(DocEdit, UrlChecks)
{
    EXPECT_EQ(doc_check_url("http://feeds.test/a.xml"), "");
    EXPECT_EQ(doc_check_url("HTTPS://feeds.test:8080/a?b=c#d"), "");
    for (const char *bad : {"ftp://x/", "http:/x", "//x/", "http://", "http:///x", "http://:80/", "http://x/a b",
                            "http://x/\x7f", "file:///etc/passwd", ""})
        EXPECT_NE(doc_check_url(bad), "") << bad;
    EXPECT_NE(doc_check_url(("http://x/" + std::string(5000, 'a')).c_str()), "");
}

TEST(DocEdit, NameChecks)
{
    EXPECT_EQ(doc_check_name("Wetter f\xc3\xbcr M\xc3\xbcnchen \xf0\x9f\x8e\xa7"), "");
    EXPECT_EQ(doc_check_name("a\tb"), "name contains a control character");
    EXPECT_EQ(doc_check_name("a\xc2\x85"), "name contains a control character");   // U+0085
    EXPECT_EQ(doc_check_name("a\x7f"), "name contains a control character");
    EXPECT_EQ(doc_check_name("\xc3"), "name is not valid UTF-8");
    EXPECT_EQ(doc_check_name("\xc0\xaf"), "name is not valid UTF-8");         // overlong
    EXPECT_EQ(doc_check_name("\xed\xa0\x80"), "name is not valid UTF-8");     // surrogate
    EXPECT_EQ(doc_check_name(""), "empty name");
}

TEST(DocEdit, PollChecks)
{
    EXPECT_EQ(doc_check_poll("30"), "");
    EXPECT_EQ(doc_check_poll("2147483647"), "");
    EXPECT_EQ(doc_check_poll("29"), "poll interval 29 s is below the minimum of 30 s");
    EXPECT_NE(doc_check_poll("2147483648"), "");
    for (const char *bad : {"", "-30", "+30", "30s", " 30", "99999999999"})
        EXPECT_NE(doc_check_poll(bad), "") << bad;
}

TEST(DocEdit, ProfileIdChecks)
{
    EXPECT_EQ(doc_check_profile_id("0"), "");
    EXPECT_EQ(doc_check_profile_id("4294967295"), "");
    for (const char *bad : {"4294967296", "-1", "1a", ""})
        EXPECT_NE(doc_check_profile_id(bad), "") << bad;
}
