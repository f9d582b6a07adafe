// Whole feed documents of tests/data/feeds, one per kind a poll meets (RSS
// 0.91 to 2.0, RSS 1.0, Atom, a podcast, broken downloads): the items exactly
// as kdx_parse_feed builds them, with their bodies, attachments and dates.
#include "tests/unit/feed/xml_fixture.h"

#include <fstream>
#include <sstream>

namespace {

const char kUrl[] = "http://feeds.example:81/path/feed.xml";

std::string feed_file(const char *name)
{
    std::ifstream in(std::string(KELP_TEST_DATA) + "/feeds/" + name, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class FeedFile : public XmlTest {
protected:
    // Parses the file as a download of kUrl; the items, empty when refused.
    std::vector<kd_item *> parse(const char *name, int status = 200)
    {
        std::string doc = feed_file(name);
        EXPECT_FALSE(doc.empty()) << name;
        before_ = time(nullptr);
        p_ = parse_doc(doc, status, kUrl, "text/xml");
        after_ = time(nullptr);
        return p_.items();
    }
    // Items without a readable pubDate are dated by the parse.
    void expect_parse_time(const kd_item *i) const
    {
        EXPECT_GE(i->date, before_);
        EXPECT_LE(i->date, after_);
    }
    time_t before_ = 0, after_ = 0;
};

TEST_F(FeedFile, Rss091WithByteOrderMarkAndDoctype)
{
    auto items = parse("rss091.xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_STREQ(p_.title, "Harbour Notes"); // not the title of the channel's image
    ASSERT_EQ(items.size(), 1u);
    EXPECT_STREQ(items[0]->title, "Tide tables");
    EXPECT_STREQ(items[0]->body, "The tide tables for\nthe week are out");
    EXPECT_EQ(items[0]->guid, nullptr); // the link is not an identity
    expect_parse_time(items[0]);
}

TEST_F(FeedFile, Rss092EnclosuresAndUntitledItem)
{
    auto items = parse("rss092.xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_STREQ(p_.title, "Village Radio");
    ASSERT_EQ(items.size(), 2u); // the item without a title is left out
    EXPECT_STREQ(items[0]->title, "Morning show");
    EXPECT_STREQ(items[0]->body, "Songs & news of the morning.");
    ASSERT_EQ(count_list(items[0]->enclosures), 1);
    EXPECT_STREQ(items[0]->enclosures->url, "http://feeds.example:81/shows/morning.mp3");
    EXPECT_STREQ(items[0]->enclosures->type, "audio/mpeg");
    EXPECT_STREQ(items[1]->title, "Evening show");
    ASSERT_EQ(count_list(items[1]->enclosures), 1);
    EXPECT_STREQ(items[1]->enclosures->url, "http://cdn.example/shows/evening.ogg");
}

TEST_F(FeedFile, Rss10ItemsBesideTheChannel)
{
    auto items = parse("rss10.xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_STREQ(p_.title, "Garden Diary");
    ASSERT_EQ(items.size(), 2u);
    EXPECT_STREQ(items[0]->title, "Beans are up");
    EXPECT_STREQ(items[0]->body, "The first beans came up after the rain.");
    expect_parse_time(items[0]); // dc:date is not read
    EXPECT_STREQ(items[1]->title, "Roses");
    EXPECT_EQ(items[1]->body, nullptr);
}

TEST_F(FeedFile, Rss20EntitiesHtmlBodiesAndDates)
{
    auto items = parse("rss20.xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_STREQ(p_.title, "Town & Country");
    ASSERT_EQ(items.size(), 3u);
    kd_item *i = items[0];
    EXPECT_STREQ(i->title, "Bridge & road works");
    EXPECT_NE(i->hash, 0u);
    EXPECT_STREQ(i->guid, "http://town.example/bridge");
    EXPECT_EQ(i->date, 1055217600); // Tue, 10 Jun 2003 04:00:00 GMT
    // &nbsp; becomes the Latin-1 byte, &#233; was UTF-8 in the document already.
    EXPECT_STREQ(i->body, "The bridge is closed\xa0until Friday. Caf\xc3\xa9 open.");
    ASSERT_EQ(count_list(i->images), 1);
    EXPECT_STREQ(i->images->url, "http://feeds.example:81/img/bridge.jpg");
    EXPECT_EQ(i->images->offset, 34u);

    i = items[1];
    EXPECT_STREQ(i->title, "Market day"); // CDATA, stripped of its markup
    EXPECT_EQ(i->hash, 0u);
    EXPECT_EQ(i->date, 1031356802); // two-digit year, no seconds: the zone's "02" reads as seconds
    EXPECT_STREQ(i->body, "Stalls open at eight.");
    ASSERT_EQ(count_list(i->images), 2); // from content:encoded, most recent first
    EXPECT_STREQ(i->images->url, "http://maps.example/m.png");
    EXPECT_STREQ(i->images->next->url, "http://feeds.example:81/img/market.png");

    i = items[2];
    EXPECT_STREQ(i->body, "Agenda: budget, parks & schools."); // doubly encoded ampersand
    expect_parse_time(i); // a numeric date is not RFC 822
}

TEST_F(FeedFile, AtomEntries)
{
    auto items = parse("atom.xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_STREQ(p_.title, "Workshop Log");
    ASSERT_EQ(items.size(), 2u); // the XHTML title holds an element, not text
    EXPECT_STREQ(items[0]->title, "New lathe");
    EXPECT_STREQ(items[0]->body, "The lathe arrived & works."); // summary before content
    EXPECT_STREQ(items[0]->guid, "urn:workshop:lathe");
    expect_parse_time(items[0]);
    EXPECT_STREQ(items[1]->title, "Tools &lt;list&gt;"); // plain titles keep their markup
    EXPECT_STREQ(items[1]->body, "Our tools");
    ASSERT_EQ(count_list(items[1]->enclosures), 1);
    EXPECT_STREQ(items[1]->enclosures->url, "http://feeds.example:81/files/tools.pdf");
    EXPECT_STREQ(items[1]->enclosures->type, "application/pdf");
}

TEST_F(FeedFile, PodcastEnclosuresAndMediaImages)
{
    auto items = parse("podcast.xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_STREQ(p_.title, "Kitchen Talk");
    ASSERT_EQ(items.size(), 2u);
    kd_item *i = items[0];
    EXPECT_EQ(i->date, 1705300200); // Mon, 15 Jan 2024 06:30:00 +0000
    // The media:content copy of the enclosure is a duplicate; thumbnails and
    // itunes:image are not attachments.
    ASSERT_EQ(count_list(i->enclosures), 1);
    EXPECT_STREQ(i->enclosures->url, "http://kitchen.example/audio/ep2.mp3");
    ASSERT_EQ(count_list(i->images), 1);
    EXPECT_STREQ(i->images->url, "http://feeds.example:81/images/ep2-large.jpg");
    EXPECT_STREQ(i->images->type, "image/*");

    i = items[1];
    EXPECT_STREQ(i->body, "Soup for winter.");
    ASSERT_EQ(count_list(i->enclosures), 2);
    EXPECT_STREQ(i->enclosures->url, "http://video.example/ep1.mp4");
    EXPECT_STREQ(i->enclosures->next->url, "http://feeds.example:81/audio/ep1.m4a");
    ASSERT_EQ(count_list(i->images), 1);
    EXPECT_STREQ(i->images->url, "http://feeds.example:81/images/ep1.png");
    EXPECT_STREQ(i->images->type, "image/png");
}

TEST_F(FeedFile, ByteOrderMarkWithoutDeclaration)
{
    auto items = parse("bom.xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_STREQ(p_.title, "No declaration");
    ASSERT_EQ(items.size(), 1u);
    EXPECT_STREQ(items[0]->title, "After the mark");
}

TEST_F(FeedFile, BrokenFeedRefusedWholeButReadWhenTruncated)
{
    parse("malformed.xml");
    EXPECT_EQ(p_.feed, nullptr);
    EXPECT_STREQ(p_.title, "Broken"); // read before the error
    p_.release();
    auto items = parse("malformed.xml", 2);
    ASSERT_NE(p_.feed, nullptr);
    ASSERT_EQ(items.size(), 2u); // the items closed before the error
    EXPECT_STREQ(items[0]->title, "First");
    EXPECT_STREQ(items[1]->title, "Second");
}

TEST_F(FeedFile, HtmlPageIsNoFeed)
{
    parse("page.html");
    EXPECT_EQ(p_.feed, nullptr);
    p_.release();
    auto items = parse("page.html", 2);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_TRUE(items.empty());
}

} // namespace
