// Hostile documents: whatever a feed server sends, the parse ends without a
// crash, without a leak, and with only well-formed items.
#include "tests/unit/feed/xml_fixture.h"

namespace {

class Hostile : public XmlTest {
protected:
    void expect_sane(const parsed &p)
    {
        for (kd_item *i : p.items()) {
            ASSERT_NE(i->title, nullptr);
            EXPECT_LE(strlen(i->title), 4096u);
            if (i->body) {
                EXPECT_LE(strlen(i->body), 4096u);
            }
        }
    }
};

TEST_F(Hostile, DeepNesting)
{
    std::string deep;
    for (int i = 0; i < 100000; i++)
        deep += "<a>";
    for (int i = 0; i < 100000; i++)
        deep += "</a>";
    p_ = parse_doc(rss("<item><title>A</title>" + deep + "</item><item><title>B</title></item>"));
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 2u);
}

TEST_F(Hostile, DeeplyNestedItems)
{
    std::string doc;
    for (int i = 0; i < 2000; i++)
        doc += "<item><title>t</title>";
    for (int i = 0; i < 2000; i++)
        doc += "</item>";
    p_ = parse_doc(rss(doc));
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 2000u);
    expect_sane(p_);
}

TEST_F(Hostile, MegabyteTextRuns)
{
    std::string mb(1 << 20, 'x');
    p_ = parse_doc(rss("<item><title>" + mb + "</title><description>" + mb + "</description>"
                       "<guid>" + mb + "</guid><content:encoded><![CDATA[" + mb +
                       "]]></content:encoded></item>", mb));
    ASSERT_NE(p_.feed, nullptr);
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(strlen(items[0]->title), 4096u);
    EXPECT_EQ(strlen(items[0]->body), 4096u);
    EXPECT_EQ(strlen(items[0]->guid), 4096u);
    EXPECT_EQ(strlen(p_.title), 4096u);
}

TEST_F(Hostile, MegabyteOfWhitespaceAndTags)
{
    std::string junk;
    while (junk.size() < (1u << 20))
        junk += " <b>\t<br>\n";
    p_ = parse_doc(rss("<item><title>t</title><description><![CDATA[" + junk +
                       "]]></description><content:encoded><![CDATA[" + junk + "<img src=\"/z\">" +
                       "]]></content:encoded></item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    ASSERT_NE(items[0]->images, nullptr);
    EXPECT_STREQ(items[0]->images->url, "http://example.com:8080/z");
    EXPECT_STREQ(items[0]->body, ""); // the line breaks are whitespace too
}

TEST_F(Hostile, EntityStorms)
{
    std::string storm;
    for (int i = 0; i < 100000; i++)
        storm += "&amp;amp;&lt;&#233;&#8364;&#x41;&unknown;";
    p_ = parse_doc(rss("<item><title><![CDATA[" + std::string(200000, '&') + ";]]></title>"
                       "<description>" + storm + "</description></item>"));
    // "&unknown;" is no entity Mini-XML knows: the document is refused.
    EXPECT_EQ(p_.feed, nullptr);
    p_.release();
    storm.clear();
    for (int i = 0; i < 100000; i++)
        storm += "&amp;amp;&amp;#233;&amp;#8364;&amp;#x41;&amp;unknown;";
    p_ = parse_doc(rss("<item><title><![CDATA[" + std::string(200000, '&') + ";]]></title>"
                       "<description>" + storm + "</description></item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(std::string(items[0]->title), std::string(4096, '&'));
    // Mini-XML decodes one level; each 33-byte unit then shrinks to 18 bytes.
    // The 4096-byte copy holds 124 whole units.
    std::string want;
    for (int i = 0; i < 124; i++)
        want += "&\xE9\xB7&#x41;&unknown;";
    EXPECT_EQ(std::string(items[0]->body).substr(0, want.size()), want);
}

TEST_F(Hostile, UnknownEntityRefusesCompleteDocument)
{
    p_ = parse_doc(rss("<item><title>a</title></item><item><title>&bogus;</title></item>"), 200);
    EXPECT_EQ(p_.feed, nullptr);
    p_.release();
    p_ = parse_doc(rss("<item><title>a</title></item><item><title>&bogus;</title></item>"), 2);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Hostile, UnterminatedCdata)
{
    std::string doc = rss("<item><title>a</title></item><item><title><![CDATA[never ends");
    p_ = parse_doc(doc, 200);
    EXPECT_EQ(p_.feed, nullptr);
    p_.release();
    p_ = parse_doc(doc, 2);
    ASSERT_NE(p_.feed, nullptr);
    ASSERT_EQ(p_.items().size(), 1u);
    EXPECT_STREQ(p_.items()[0]->title, "a");
}

TEST_F(Hostile, NulByteEndsTheDocument)
{
    std::string doc = rss("<item><title>a</title></item><item><title>b") + std::string(1, '\0') +
                      "</title></item></channel></rss>";
    p_ = parse_doc(doc, 200);
    EXPECT_EQ(p_.feed, nullptr);
    p_.release();
    p_ = parse_doc(doc, 2);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Hostile, InvalidUtf8)
{
    std::string doc = rss("<item><title>ok</title></item><item><title>caf\xE9 \xC3\x28 \xFF\xFE</title></item>");
    p_ = parse_doc(doc, 200, "http://h/", "text/xml; charset=UTF-8");
    EXPECT_EQ(p_.feed, nullptr); // Mini-XML reads UTF-8 only
    p_.release();
    p_ = parse_doc(doc, 2, "http://h/", "text/xml; charset=UTF-8");
    ASSERT_NE(p_.feed, nullptr);
    ASSERT_EQ(p_.items().size(), 1u);
    EXPECT_STREQ(p_.items()[0]->title, "ok");
}

TEST_F(Hostile, InvalidUtf8InLatin1IsRead)
{
    std::string doc = rss("<item><title>ok</title></item><item><title>caf\xE9 \xC3\x28 \xFF\xFE</title></item>");
    p_ = parse_doc(doc, 200, "http://h/", "text/xml; charset=ISO-8859-1");
    ASSERT_NE(p_.feed, nullptr);
    ASSERT_EQ(p_.items().size(), 2u);
    EXPECT_STREQ(p_.items()[1]->title, "caf\xC3\xA9 \xC3\x83( \xC3\xBF\xC3\xBE");
}

TEST_F(Hostile, ValidUtf8StaysBytes)
{
    p_ = parse_doc(rss("<item><title>caf\xC3\xA9</title></item>"));
    ASSERT_EQ(p_.items().size(), 1u);
    EXPECT_STREQ(p_.items()[0]->title, "caf\xC3\xA9");
}

TEST_F(Hostile, TitleContainingElements)
{
    p_ = parse_doc(rss("<item><title><b>bold</b> rest</title></item>"
                       "<item><title>lead <b>bold</b></title></item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_STREQ(items[0]->title, "lead ");
}

TEST_F(Hostile, AttributesWithoutValues)
{
    std::string doc = rss("<item><title>a</title></item>"
                          "<item><title>b</title><enclosure url type/></item>");
    p_ = parse_doc(doc, 200);
    EXPECT_EQ(p_.feed, nullptr);
    p_.release();
    p_ = parse_doc(doc, 2);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Hostile, EmptyAttributeValues)
{
    p_ = parse_doc(rss("<item><title>a</title><enclosure url=\"\" type=\"\"/>"
                       "<media:content url=\"/\" medium=\"\"/><link rel=\"enclosure\" href=\"\"/></item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    // The two empty URLs are one and the same enclosure.
    EXPECT_EQ(count_list(items[0]->enclosures), 2);
    EXPECT_STREQ(items[0]->enclosures->url, "http://example.com:8080/");
}

TEST_F(Hostile, ManyInlineImages)
{
    std::string html;
    for (int i = 0; i < 3000; i++)
        html += "<img src=\"/i" + std::to_string(i) + ".png\">x";
    p_ = parse_doc(rss("<item><title>t</title><content:encoded><![CDATA[" + html +
                       "]]></content:encoded></item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    // Every one is kept, however many: the list's head is the last one.
    EXPECT_EQ(count_list(items[0]->images), 3000);
    EXPECT_EQ(items[0]->images->offset, 2999u);
}

TEST_F(Hostile, ManyEnclosuresAndMediaImagesAreAllKept)
{
    std::string xml;
    for (int i = 0; i < 600; i++)
        xml += "<enclosure url=\"/e" + std::to_string(i) + ".mp3\"/><media:content url=\"/m" +
               std::to_string(i) + "\" medium=\"image\"/>";
    p_ = parse_doc(rss("<item><title>t</title>" + xml + "</item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(count_list(items[0]->enclosures), 600);
    EXPECT_EQ(count_list(items[0]->images), 600);
}

// n attributes a0="0" ... on one element.
std::string attributes(size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; i++)
        s += " a" + std::to_string(i) + "=\"" + std::to_string(i % 10) + "\"";
    return s;
}

// An attribute storm costs time (the XML library compares each new
// attribute with the earlier ones) but is read like any element.
TEST_F(Hostile, ElementWithThousandsOfAttributesIsRead)
{
    p_ = parse_doc(rss("<item><title>a</title></item><item><title>b</title><enclosure" + attributes(3000) +
                       " url=\"/x\"/></item>"));
    ASSERT_NE(p_.feed, nullptr);
    ASSERT_EQ(p_.items().size(), 2u);
    const kd_item *b = p_.items()[0]->enclosures ? p_.items()[0] : p_.items()[1];
    ASSERT_NE(b->enclosures, nullptr);
    EXPECT_STREQ(b->enclosures->url, "http://example.com:8080/x");
}

TEST_F(Hostile, TextAndSecondRootAfterInsertedDeclarationAreTolerated)
{
    // The inserted declaration becomes the document's parent node, under
    // which Mini-XML accepts stray text and further elements.
    p_ = parse_doc("garbage<rss><channel><item><title>a</title></item></channel></rss><x/>", 200);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Hostile, Utf16SwitchNeverReadsPastTheBody)
{
    // FF FE makes Mini-XML read UTF-16 pairs, up to bytes behind the
    // terminator. Here the caller's buffer holds a UTF-16 item there, left
    // over from an earlier use; it must never be seen.
    std::string doc = "<?xml version=\"1.0\"?>\xFF\xFE<";
    std::string hidden;
    for (char c : std::string("item><title>GHOST</title></item>"))
        hidden += std::string(1, c) + std::string(1, '\0');
    hidden += std::string(8, '\0');
    for (int status : {200, 2}) {
        p_.body = static_cast<char *>(slab_dmalloc(doc.size() + 1 + hidden.size(), SLAB_TAG));
        memcpy(p_.body, doc.c_str(), doc.size() + 1);
        memcpy(p_.body + doc.size() + 1, hidden.data(), hidden.size());
        p_.feed = kdx_parse_feed(status, "http://h/", "text/xml", &p_.body, &p_.title);
        EXPECT_EQ(p_.items().size(), 0u) << status;
        EXPECT_EQ(std::string(p_.body), doc);
        p_.release();
    }
}

TEST_F(Hostile, Utf16BigEndianSwitchWithoutDeclaration)
{
    std::string doc = "<rss><channel><item><title>a</title></item>\xFE\xFF\x01";
    p_ = parse_doc(doc, 2);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

} // namespace
