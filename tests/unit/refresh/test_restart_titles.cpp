// Read marks across a restart for every form in which feeds write item
// titles: plain text, CDATA, CDATA with markup that the stripping removes,
// entities, and titles in legacy charsets. The marks one daemon saved come
// back on the next daemon's first fetch at the same items, move down when
// new items appeared on top, and are dropped when the item that stood first
// is gone.
#include "tests/unit/refresh/restart_fixture.h"

using namespace kelp_test;

namespace {

// One way of writing titles. '@' in the patterns stands for the story number.
struct title_form {
    const char *name;
    const char *declaration;
    const char *written;  // what stands between <title> and </title>
    const char *parsed;   // the item's title after parsing, before it is sent
};

const title_form kForms[] = {
    {"Plain", "<?xml version=\"1.0\"?>", "Story @", "Story @"},
    // Clients are sent the title with its tabs turned into spaces, for good.
    {"PlainWithTabs", "<?xml version=\"1.0\"?>", "\n\t\tStory @\n\t", "\n\t\tStory @\n\t"},
    {"Cdata", "<?xml version=\"1.0\"?>", "<![CDATA[Story @]]>", "Story @"},
    {"CdataWithMarkup", "<?xml version=\"1.0\"?>",
     "<![CDATA[<b>Story</b> <a href=\"/s/@\">@</a> &amp; more<br>]]>", "Story @ & more"},
    {"Entities", "<?xml version=\"1.0\"?>", "Fish &amp; Chips &lt;@&gt; caf&#233;",
     "Fish & Chips <@> caf\xC3\xA9"},
    {"CdataWithEntities", "<?xml version=\"1.0\"?>", "<![CDATA[Caf&eacute; &mdash; story @]]>",
     "Caf\xE9 - story @"},
    // "Novost" in Cyrillic, read as UTF-8 after the conversion.
    {"LegacyCharset", "<?xml version=\"1.0\" encoding=\"KOI8-R\"?>", "\xEE\xCF\xD7\xCF\xD3\xD4\xD8 @",
     "\xD0\x9D\xD0\xBE\xD0\xB2\xD0\xBE\xD1\x81\xD1\x82\xD1\x8C @"},
    {"LegacyCharsetCdata", "<?xml version=\"1.0\" encoding=\"windows-1251\"?>",
     "<![CDATA[<b>\xCD\xEE\xE2\xEE\xF1\xF2\xFC</b> @]]>",
     "\xD0\x9D\xD0\xBE\xD0\xB2\xD0\xBE\xD1\x81\xD1\x82\xD1\x8C @"},
};

// Names the form in test output.
void PrintTo(const title_form &f, std::ostream *os) { *os << f.name; }

std::string with_number(const char *pattern, int story)
{
    std::string s = pattern;
    for (size_t at = s.find('@'); at != std::string::npos; at = s.find('@', at + 1))
        s.replace(at, 1, std::to_string(story));
    return s;
}

// The feed of the given stories in document order, each with a guid.
std::string feed_of_stories(const title_form &f, std::initializer_list<int> stories)
{
    std::string items;
    for (int k : stories)
        items += "<item><title>" + with_number(f.written, k) + "</title><guid>g" + std::to_string(k) +
                 "</guid></item>";
    return std::string(f.declaration) + "<rss version=\"2.0\"><channel><title>Feed</title>" + items +
           "</channel></rss>";
}

// The titles as clients have been sent them.
std::vector<std::string> titles_of_stories(const title_form &f, std::initializer_list<int> stories)
{
    std::vector<std::string> v;
    for (int k : stories)
        v.push_back(as_sent(with_number(f.parsed, k)));
    return v;
}

// The "state:" values of the last overview among the messages.
std::vector<std::string> overview_states(const std::vector<std::string> &messages)
{
    std::vector<std::string> states;
    if (messages.empty())
        return states;
    std::stringstream ss(messages.back());
    for (std::string field; std::getline(ss, field, '\t');)
        if (field.rfind("state:", 0) == 0)
            states.push_back(field.substr(6));
    return states;
}

class title_form_test : public restart_test, public ::testing::WithParamInterface<title_form> {
protected:
    const title_form &form() const { return GetParam(); }
    std::string doc(std::initializer_list<int> stories) const { return feed_of_stories(form(), stories); }
    std::string fresh(int story) const { return with_number(form().parsed, story); }
    std::string title(int story) const { return as_sent(fresh(story)); }

    // One daemon's life: stories 1 to 4 fetched, profile 1 reads stories 2
    // and 4, profile 2 story 1 (the first item itself); what configd keeps.
    saved_marks read_some()
    {
        kd_node *n = setup();
        merge_doc(doc({1, 2, 3, 4}));
        EXPECT_EQ(titles(n), titles_of_stories(form(), {1, 2, 3, 4})) << "the titles parse as intended";
        kd_mark_read(sub(1), 1);
        kd_mark_read(sub(1), 3);
        kd_mark_read(sub(2), 0);
        return saved();
    }

    // The former first item, story 1, was found at position q.
    void expect_found_at(int q)
    {
        std::string hash = hash_text(title(1).c_str());
        EXPECT_TRUE(log_has_prio("read flags matching at item " + std::to_string(q) + " [Hash: " + hash + "]",
                                 LOG_DEBUG));
    }

    // Stories 2 and 4 read by profile 1, story 1 by profile 2, wherever they stand.
    void expect_stories_read(const kd_node *n)
    {
        EXPECT_EQ(read_titles(n, 1), (std::vector<std::string>{title(2), title(4)}));
        EXPECT_EQ(read_titles(n, 2), (std::vector<std::string>{title(1)}));
    }

    // "first" of both profiles names the story now on top.
    void expect_first_names(int story)
    {
        for (int p : {1, 2})
            EXPECT_TRUE(names_title(attr(sub(p), "first"), fresh(story))) << attr(sub(p), "first");
    }

    // The titles of the items a profile has read, in list order.
    std::vector<std::string> read_titles(const kd_node *n, int profile_id)
    {
        std::set<uint32_t> marks = read_positions(profile_id);
        std::vector<std::string> v;
        uint32_t j = 0;
        for (const kd_item *it = n->children; it; it = it->next, j++)
            if (marks.count(j))
                v.push_back(it->title);
        return v;
    }
};

TEST_P(title_form_test, MarksAreSavedWithTheHashOfTheFirstTitle)
{
    saved_marks m = read_some();
    EXPECT_EQ(m.read[0], "0a");
    EXPECT_EQ(m.read[1], "01");
    EXPECT_EQ(m.first[0], hash_text(title(1).c_str()));
    EXPECT_EQ(m.first[1], hash_text(title(1).c_str()));
}

TEST_P(title_form_test, RestartFindsTheMarksAtTheirItems)
{
    saved_marks m = read_some();
    kd_node *n = restart(m);
    merge_doc(doc({1, 2, 3, 4}));
    expect_found_at(0);
    expect_stories_read(n);
    EXPECT_EQ(attr(sub(1), "read"), "0a");
    EXPECT_EQ(attr(sub(2), "read"), "01");
    expect_first_names(1);
    EXPECT_EQ(overview_states(drain(peer1)), (std::vector<std::string>{"0", "1", "0", "1"}));
    EXPECT_EQ(overview_states(drain(peer2)), (std::vector<std::string>{"1", "0", "0", "0"}));
    // The marks are where configd has them. Only a title with tabs is saved
    // again: "first" is rewritten before the title is sent, so with its tabs.
    EXPECT_EQ(saves().size(), fresh(1) == title(1) ? 0u : 1u);
}

TEST_P(title_form_test, NewItemsOnTopShiftTheMarks)
{
    kd_node *n = restart(read_some());
    merge_doc(doc({5, 6, 1, 2, 3, 4}));
    expect_found_at(2);
    expect_stories_read(n);
    EXPECT_EQ(attr(sub(1), "read"), "28");
    EXPECT_EQ(attr(sub(2), "read"), "04");
    expect_first_names(5);
    EXPECT_EQ(overview_states(drain(peer1)), (std::vector<std::string>{"0", "0", "0", "1", "0", "1"}));
    auto saved_docs = saves();
    ASSERT_EQ(saved_docs.size(), 1u);
    EXPECT_NE(saved_docs[0].find("read=\"28\""), std::string::npos) << saved_docs[0];
}

TEST_P(title_form_test, FormerFirstItemGoneDropsTheMarks)
{
    kd_node *n = restart(read_some());
    merge_doc(doc({5, 2, 3, 4}));
    EXPECT_EQ(n->nchildren, 4u);
    EXPECT_FALSE(log_has("read flags matching"));
    for (int p : {1, 2}) {
        EXPECT_EQ(attr(sub(p), "read"), "(none)");
        EXPECT_EQ(attr(sub(p), "first"), "(none)");
    }
    EXPECT_EQ(overview_states(drain(peer1)), (std::vector<std::string>{"0", "0", "0", "0"}));
    EXPECT_EQ(saves().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Forms, title_form_test, ::testing::ValuesIn(kForms),
                         [](const ::testing::TestParamInfo<title_form> &info) { return info.param.name; });

} // namespace
