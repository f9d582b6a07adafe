// One parsed item's fields pinned to constants written out here (title
// bytes, hash, date, guid, body, attachments), and the dates at the ends of
// a 32-bit time, so that a target whose byte order, char signedness or
// time_t/long width changed any of them fails here (make cross runs these on
// 32- and 64-bit, little- and big-endian targets).
#include "tests/unit/feed/xml_fixture.h"

namespace {

using ItemBytes = XmlTest;

TEST_F(ItemBytes, RssItemFields)
{
    p_ = parse_doc(rss("<item><title>Episode 42: Big-endian gateways</title>"
                       "<description>&lt;p&gt;Bytes &amp;amp; words&lt;/p&gt;</description>"
                       "<guid>urn:kelp:42</guid>"
                       "<pubDate>Tue, 10 Jun 2003 04:00:00 GMT</pubDate>"
                       "<enclosure url=\"/media/42.mp3\" type=\"audio/mpeg\" length=\"4294967295\"/>"
                       "</item>"));
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_STREQ(p_.title, "Chan");
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    const kd_item *i = items[0];
    EXPECT_STREQ(i->title, "Episode 42: Big-endian gateways");
    EXPECT_EQ(i->hash, 962412704u);
    EXPECT_STREQ(i->body, "Bytes & words");
    EXPECT_STREQ(i->guid, "urn:kelp:42");
    EXPECT_EQ(i->date, 1055217600);
    EXPECT_EQ(i->uid, 0u);
    ASSERT_NE(i->enclosures, nullptr);
    EXPECT_STREQ(i->enclosures->url, "http://example.com:8080/media/42.mp3");
    EXPECT_STREQ(i->enclosures->type, "audio/mpeg");
    EXPECT_EQ(i->enclosures->offset, 0u);
    EXPECT_EQ(i->enclosures->next, nullptr);
    EXPECT_EQ(i->images, nullptr);
}

// A Latin-1 title arrives as UTF-8 (the body is converted before parsing);
// its bytes above 0x7f hash unsigned.
TEST_F(ItemBytes, Latin1TitleBytesAndHash)
{
    p_ = parse_doc("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><rss version=\"2.0\"><channel>"
                   "<title>c</title><item><title>Caf\xe9 cr\xe8me br\xfbl\xe9" "e</title></item></channel></rss>",
                   200, "http://example.com/f", "text/xml; charset=ISO-8859-1");
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_STREQ(items[0]->title, "Caf\xc3\xa9 cr\xc3\xa8me br\xc3\xbbl\xc3\xa9" "e");
    EXPECT_EQ(items[0]->hash, 3903945469u);
}

// The last and first seconds a signed 32-bit time holds; one past either
// end is unreadable wherever time_t is wider.
TEST_F(ItemBytes, DatesAtTheEndsOfA32BitTime)
{
    EXPECT_EQ(kdx_parse_date("Tue, 19 Jan 2038 03:14:07 GMT"), 2147483647);
    EXPECT_EQ(kdx_parse_date("Tue, 19 Jan 2038 03:14:08 GMT"), -1);
    EXPECT_EQ(kdx_parse_date("Fri, 13 Dec 1901 20:45:52 GMT"), INT32_MIN);
    EXPECT_EQ(kdx_parse_date("Fri, 13 Dec 1901 20:45:51 GMT"), -1);
    EXPECT_EQ(kdx_parse_date("Thu, 29 Feb 2024 23:59:59 GMT"), 1709251199);
}

} // namespace
