// Item extraction: titles, bodies, attachments, guids, dates and the feed
// title, as the SAX callback builds them from RSS and Atom elements.
#include "tests/unit/feed/xml_fixture.h"

#include "util/bitfield.h"

namespace {

class Item : public XmlTest {
protected:
    kd_item *only(const std::string &item_xml, const char *url = "http://example.com:8080/feeds/rss.xml")
    {
        p_ = parse_doc(rss(item_xml), 200, url);
        EXPECT_NE(p_.feed, nullptr);
        auto items = p_.items();
        EXPECT_EQ(items.size(), 1u);
        return items.empty() ? nullptr : items[0];
    }
};

TEST_F(Item, PlainTitleIsCopiedAndHashed)
{
    kd_item *i = only("<item><title>News &amp; more</title></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->title, "News & more");
    EXPECT_EQ(i->hash, fnv_hash("News & more"));
    EXPECT_EQ(i->uid, 0u);
    EXPECT_EQ(i->body, nullptr);
    EXPECT_EQ(i->guid, nullptr);
}

TEST_F(Item, PlainTitleKeepsMarkupAndWhitespace)
{
    kd_item *i = only("<item><title> a &lt;b&gt; </title></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->title, " a <b> ");
}

// The record keeps only the stripped text of a body, not the size of the
// markup it came from (plain and CDATA bodies alike).
TEST_F(Item, StrippedBodyHoldsOnlyItsText)
{
    std::string markup;
    for (int i = 0; i < 20; i++)
        markup += "&lt;p class=&quot;lead&quot;&gt;word&lt;/p&gt;";
    for (const std::string &body : {markup, "<![CDATA[<p>" + std::string(300, 'x') + "</p><hr/><hr/><hr/><hr/><hr/>"
                                                 "<hr/><hr/><hr/><hr/><hr/><hr/><hr/><hr/>]]>"}) {
        p_.release();
        kd_item *i = only("<item><title>T</title><description>" + body + "</description></item>");
        ASSERT_NE(i, nullptr);
        size_t text = strlen(i->body);
        EXPECT_EQ(text, body == markup ? 80u : 300u);
        size_t with_body = slab_live_bytes();
        kd_free(i->body);
        i->body = nullptr;
        EXPECT_EQ(with_body - slab_live_bytes(), text + 1);
    }
}

TEST_F(Item, CdataTitleIsStrippedAndHasHashZero)
{
    kd_item *i = only("<item><title><![CDATA[ <b>Bold</b> &amp; more ]]></title></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->title, "Bold & more");
    EXPECT_EQ(i->hash, 0u);
}

TEST_F(Item, CdataTitleEndingInBracketsIsCutBeforeStripping)
{
    kd_item *i = only("<item><title><![CDATA[x]]]]></title></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->title, "x");
}

TEST_F(Item, CdataTitleIsCutOnlyBeforeStripping)
{
    // "]]" that only the stripping brings to the end stays in a title.
    kd_item *i = only("<item><title><![CDATA[a]]<b>]]></title></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->title, "a]]");
}

TEST_F(Item, CdataTitleImageGoesToImages)
{
    kd_item *i = only("<item><title><![CDATA[<img src=\"/t.png\">T]]></title></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->title, "T");
    ASSERT_NE(i->images, nullptr);
    EXPECT_STREQ(i->images->url, "http://example.com:8080/t.png");
}

TEST_F(Item, ItemWithoutTitleIsIgnored)
{
    p_ = parse_doc(rss("<item><description>d</description></item><item><title>B</title></item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_STREQ(items[0]->title, "B");
}

TEST_F(Item, TitleWithoutTextOrHoldingElementsIsIgnored)
{
    p_ = parse_doc(rss("<item><title></title></item><item><title/></item>"
                       "<item><title><b>x</b></title></item><item><title>ok</title></item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_STREQ(items[0]->title, "ok");
}

TEST_F(Item, TitleIsLimitedTo4096Bytes)
{
    kd_item *i = only("<item><title>" + std::string(5000, 'x') + "</title></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(strlen(i->title), 4096u);
}

TEST_F(Item, ItemsKeepDocumentOrder)
{
    p_ = parse_doc(rss("<item><title>1</title></item><item><title>2</title></item>"
                       "<item><title>3</title></item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_STREQ(items[0]->title, "1");
    EXPECT_STREQ(items[2]->title, "3");
    EXPECT_EQ(items[2]->next, nullptr);
}

// Each item's elements are freed once the item is built; what comes after
// (the channel title, an enclosing item's own children) is still found.
TEST_F(Item, ChannelTitleAfterTheItemsIsTheFeedTitle)
{
    p_ = parse_doc("<rss><channel><item><title>1</title></item><item><title>2</title></item>"
                   "<title>Late</title></channel></rss>");
    ASSERT_EQ(p_.items().size(), 2u);
    EXPECT_STREQ(p_.items()[1]->title, "2");
    EXPECT_STREQ(p_.title, "Late");
}

TEST_F(Item, ItemInsideAnItemLeavesTheOuterItemsChildren)
{
    p_ = parse_doc(rss("<item><item><title>in</title></item><title>out</title>"
                       "<enclosure url=\"http://h/a.mp3\" type=\"audio/mpeg\"/></item>"));
    auto items = p_.items();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_STREQ(items[0]->title, "in");
    EXPECT_STREQ(items[1]->title, "out");
    ASSERT_EQ(count_list(items[1]->enclosures), 1);
    EXPECT_STREQ(items[1]->enclosures->url, "http://h/a.mp3");
}

// An item that is the whole document stays the loader's tree: the parse
// succeeds with that one item.
TEST_F(Item, ItemAsTheRootElementIsParsed)
{
    p_ = parse_doc("<?xml version=\"1.0\"?><item><title>alone</title></item>");
    ASSERT_NE(p_.feed, nullptr);
    ASSERT_EQ(p_.items().size(), 1u);
    EXPECT_STREQ(p_.items()[0]->title, "alone");
}

TEST_F(Item, BodyFromDescriptionIsStripped)
{
    kd_item *i = only("<item><title>t</title><description>&lt;p&gt;Hi&lt;/p&gt;&lt;br&gt;there "
                      "</description><summary>s</summary></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->body, "Hi\nthere");
}

TEST_F(Item, DoublyEncodedAmpersandInBodyEndsAsOne)
{
    kd_item *i = only("<item><title>t</title><description>Tom &amp;amp; Jerry &amp;nosuch;</description></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->body, "Tom & Jerry &nosuch;");
}

TEST_F(Item, BodyTakesSummaryThenContent)
{
    kd_item *i = only("<item><title>t</title><content>c</content><summary>s</summary></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->body, "s");
    p_.release();
    i = only("<item><title>t</title><content>c</content></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->body, "c");
}

TEST_F(Item, EmptyDescriptionEndsBodySearch)
{
    kd_item *i = only("<item><title>t</title><description></description><summary>s</summary></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(i->body, nullptr);
}

TEST_F(Item, CdataBodyIsStrippedThenCut)
{
    kd_item *i = only("<item><title>t</title><description><![CDATA[<p>a &amp; b</p>]]]]>"
                      "</description></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->body, "a & b");
}

TEST_F(Item, CdataBodyIsCutAfterStripping)
{
    // The trailing tag and space are stripped first, so "]]" then ends the body.
    kd_item *i = only("<item><title>t</title><description><![CDATA[a]]<b> ]]></description></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->body, "a");
}

TEST_F(Item, CdataBodyWithImageKeepsLeadingSpace)
{
    kd_item *i = only("<item><title>t</title><description><![CDATA[ <img src=\"http://h/i\">x]]>"
                      "</description></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->body, " x");
    ASSERT_NE(i->images, nullptr);
    EXPECT_EQ(i->images->offset, 1u);
}

TEST_F(Item, BodyIsLimitedTo4096Bytes)
{
    kd_item *i = only("<item><title>t</title><description>" + std::string(9000, 'b') +
                      "</description></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(strlen(i->body), 4096u);
}

TEST_F(Item, InlineImageOffsetAndAbsoluteUrl)
{
    kd_item *i = only("<item><title>t</title><description>&lt;p&gt;Hello&lt;/p&gt;"
                      "&lt;img src=\"/a.png\"&gt; world  </description></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->body, "Hello world");
    ASSERT_EQ(count_list(i->images), 1);
    EXPECT_EQ(i->images->offset, 5u);
    EXPECT_EQ(i->images->type, nullptr);
    EXPECT_STREQ(i->images->url, "http://example.com:8080/a.png");
}

TEST_F(Item, EnclosuresByType)
{
    kd_item *i = only("<item><title>t</title>"
                      "<enclosure url=\"http://h/p.jpg\" type=\"image/jpeg\"/>"
                      "<enclosure url=\"http://h/a.mp3\" type=\"audio/mpeg\" length=\"9\"/>"
                      "<media:content url=\"http://h/m\" medium=\"image\" type=\"application/foo\"/>"
                      "</item>");
    ASSERT_NE(i, nullptr);
    ASSERT_EQ(count_list(i->enclosures), 1);
    EXPECT_STREQ(i->enclosures->url, "http://h/a.mp3");
    EXPECT_STREQ(i->enclosures->type, "audio/mpeg");
    EXPECT_EQ(i->enclosures->offset, 0u);
    ASSERT_EQ(count_list(i->images), 2);
    // Most recently added first: the media:content came after the enclosures.
    EXPECT_STREQ(i->images->url, "http://h/m");
    EXPECT_STREQ(i->images->type, "image/*");
    EXPECT_STREQ(i->images->next->url, "http://h/p.jpg");
    EXPECT_STREQ(i->images->next->type, "image/jpeg");
}

TEST_F(Item, ShortImageTypeOrMediumIsNotAnImage)
{
    kd_item *i = only("<item><title>t</title><enclosure url=\"http://h/1\" type=\"image\"/>"
                      "<media:content url=\"http://h/2\" medium=\"imag\"/></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(count_list(i->images), 0);
    ASSERT_EQ(count_list(i->enclosures), 2);
    EXPECT_STREQ(i->enclosures->next->type, "image");
    EXPECT_EQ(i->enclosures->type, nullptr);
}

TEST_F(Item, EnclosureWithoutUrlAttributeIsSkipped)
{
    kd_item *i = only("<item><title>t</title><enclosure type=\"audio/mpeg\"/></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(i->enclosures, nullptr);
}

TEST_F(Item, DuplicateEnclosureUrlIsSkipped)
{
    kd_item *i = only("<item><title>t</title><enclosure url=\"http://h/a.mp3\" type=\"audio/mpeg\"/>"
                      "<media:content url=\"http://h/a.mp3\" type=\"audio/mpeg\"/>"
                      "<enclosure url=\"http://h/a.mp3x\" type=\"audio/mpeg\"/></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(count_list(i->enclosures), 2);
}

TEST_F(Item, AttachmentDuplicatesNeedTheExactUrlInTheSameList)
{
    kd_item *i = only("<item><title>t</title>"
                      "<enclosure url=\"http://h/x.png/big\" type=\"image/png\"/>"
                      "<enclosure url=\"http://h/x.png\" type=\"image/png\"/>"
                      "<enclosure url=\"http://h/x.png\" type=\"audio/x\"/>"
                      "<media:content url=\"http://h/x.png\" medium=\"image\"/></item>");
    ASSERT_NE(i, nullptr);
    // Unlike inline images, attachments are only duplicates of an equal URL,
    // and only within the list they go to.
    EXPECT_EQ(count_list(i->images), 2);
    EXPECT_STREQ(i->images->url, "http://h/x.png");
    EXPECT_STREQ(i->images->type, "image/png");
    ASSERT_EQ(count_list(i->enclosures), 1);
    EXPECT_STREQ(i->enclosures->url, "http://h/x.png");
}

TEST_F(Item, SearchFindsLaterSiblingsAfterMatchWithoutChildren)
{
    kd_item *i = only("<item><title>t</title><enclosure url=\"http://h/1\"/><guid>g</guid>"
                      "<enclosure url=\"http://h/2\"/><enclosure url=\"http://h/3\"/></item>");
    ASSERT_NE(i, nullptr);
    ASSERT_EQ(count_list(i->enclosures), 3);
    EXPECT_STREQ(i->enclosures->url, "http://h/3");
    EXPECT_STREQ(i->enclosures->next->next->url, "http://h/1");
}

TEST_F(Item, OnlyDirectChildrenAreAttachments)
{
    kd_item *i = only("<item><title>t</title><media:group><media:content url=\"http://h/g\"/>"
                      "</media:group><link rel=\"alternate\" href=\"http://h/page\"/></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(i->enclosures, nullptr);
    EXPECT_EQ(i->images, nullptr);
}

TEST_F(Item, SearchAfterMatchWithChildrenStaysAmongItsChildren)
{
    kd_item *i = only("<item><title>t</title>"
                      "<media:content url=\"http://h/1\"><media:title>x</media:title></media:content>"
                      "<media:content url=\"http://h/2\"/></item>");
    ASSERT_NE(i, nullptr);
    ASSERT_EQ(count_list(i->enclosures), 1);
    EXPECT_STREQ(i->enclosures->url, "http://h/1");
}

TEST_F(Item, AtomEntry)
{
    time_t before = time(nullptr);
    p_ = parse_doc("<feed xmlns=\"http://www.w3.org/2005/Atom\"><title>Atom feed</title>"
                   "<entry><title>E</title><summary>S</summary><id>urn:1</id>"
                   "<link href=\"http://h/page\"/>"
                   "<link rel=\"enclosure\" href=\"/e.ogg\" type=\"audio/ogg\"/>"
                   "<updated>2003-12-13T18:30:02Z</updated></entry></feed>",
                   200, "http://example.org/atom");
    time_t after = time(nullptr);
    ASSERT_NE(p_.feed, nullptr);
    ASSERT_STREQ(p_.title, "Atom feed");
    auto items = p_.items();
    ASSERT_EQ(items.size(), 1u);
    kd_item *i = items[0];
    EXPECT_STREQ(i->title, "E");
    EXPECT_STREQ(i->body, "S");
    EXPECT_STREQ(i->guid, "urn:1");
    ASSERT_EQ(count_list(i->enclosures), 1);
    EXPECT_STREQ(i->enclosures->url, "http://example.org/e.ogg");
    EXPECT_STREQ(i->enclosures->type, "audio/ogg");
    EXPECT_EQ(i->images, nullptr);
    // Atom has no pubDate: the date is the time of parsing.
    EXPECT_GE(i->date, before);
    EXPECT_LE(i->date, after);
}

TEST_F(Item, AtomEnclosureLinkWithoutHrefHasNoUrl)
{
    kd_item *i = only("<item><title>t</title><link rel=\"enclosure\" type=\"audio/ogg\"/>"
                      "<link rel=\"enclosure\"/></item>");
    ASSERT_NE(i, nullptr);
    ASSERT_EQ(count_list(i->enclosures), 2);
    EXPECT_EQ(i->enclosures->url, nullptr);
    EXPECT_EQ(i->enclosures->next->url, nullptr);
    EXPECT_STREQ(i->enclosures->next->type, "audio/ogg");
}

TEST_F(Item, ContentEncodedCdataImagesAreCollected)
{
    kd_item *i = only("<item><title>t</title><description>d</description>"
                      "<content:encoded><![CDATA[<p>x</p><img src=\"http://h/c.png\">]]></content:encoded>"
                      "</item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->body, "d");
    ASSERT_EQ(count_list(i->images), 1);
    EXPECT_STREQ(i->images->url, "http://h/c.png");
    EXPECT_EQ(i->images->offset, 1u); // position in the discarded text "x"
}

TEST_F(Item, ContentEncodedPlainTextIsNotLookedAt)
{
    kd_item *i = only("<item><title>t</title>"
                      "<content:encoded>&lt;img src=\"http://h/c.png\"&gt;</content:encoded></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(i->images, nullptr);
}

TEST_F(Item, GuidThenId)
{
    kd_item *i = only("<item><title>t</title><id>i</id><guid isPermaLink=\"false\">g</guid></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->guid, "g");
    p_.release();
    i = only("<item><title>t</title><id>i</id></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->guid, "i");
}

TEST_F(Item, GuidWithoutPlainTextMeansNoGuid)
{
    kd_item *i = only("<item><title>t</title><guid><![CDATA[g]]></guid><id>i</id></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(i->guid, nullptr);
}

TEST_F(Item, EmptyGuidEndsTheSearchWithoutId)
{
    kd_item *i = only("<item><title>t</title><guid></guid><id>i</id></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(i->guid, nullptr);
}

TEST_F(Item, PubDateIsLocalTime)
{
    kd_item *i = only("<item><title>t</title><pubDate>Tue, 10 Jun 2003 04:00:00 GMT</pubDate></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(i->date, 1055217600);
}

TEST_F(Item, UnreadablePubDateIsParseTime)
{
    time_t before = time(nullptr);
    kd_item *i = only("<item><title>t</title><pubDate>2003-06-10T04:00:00Z</pubDate></item>");
    time_t after = time(nullptr);
    ASSERT_NE(i, nullptr);
    EXPECT_GE(i->date, before);
    EXPECT_LE(i->date, after);
}

TEST_F(Item, RelativeUrlsGetSchemeHostAndPort)
{
    kd_item *i = only("<item><title>t</title><enclosure url=\"/a.mp3\" type=\"audio/mpeg\"/>"
                      "<enclosure url=\"b.mp3\" type=\"audio/mpeg\"/></item>",
                      "http://example.com:8080/feeds/rss.xml");
    ASSERT_NE(i, nullptr);
    ASSERT_EQ(count_list(i->enclosures), 2);
    EXPECT_STREQ(i->enclosures->url, "b.mp3");
    EXPECT_STREQ(i->enclosures->next->url, "http://example.com:8080/a.mp3");
}

TEST_F(Item, FeedUrlWithoutPathIsWholeBase)
{
    kd_item *i = only("<item><title>t</title><enclosure url=\"/a\"/></item>", "http://h.example");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->enclosures->url, "http://h.example/a");
}

TEST_F(Item, OtherSchemeGivesOnlySchemeAsBase)
{
    kd_item *i = only("<item><title>t</title><enclosure url=\"/a\"/></item>", "https://h/feed");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->enclosures->url, "https:/a");
}

TEST_F(Item, ImagesAreMadeAbsoluteToo)
{
    kd_item *i = only("<item><title>t</title><enclosure url=\"/p.jpg\" type=\"image/jpeg\"/>"
                      "<enclosure url=\"/s.mp3\" type=\"audio/mpeg\"/></item>",
                      "http://u:p@h:81");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->images->url, "http://u:p@h:81/p.jpg");
    EXPECT_STREQ(i->enclosures->url, "http://u:p@h:81/s.mp3");
}

TEST_F(Item, UppercaseSchemeIsNotHttp)
{
    kd_item *i = only("<item><title>t</title><enclosure url=\"/a\"/></item>", "HTTP://h/feed");
    ASSERT_NE(i, nullptr);
    EXPECT_STREQ(i->enclosures->url, "HTTP:/a");
}

TEST_F(Item, FeedTitleIsFirstPlainChannelTitle)
{
    p_ = parse_doc("<rss><channel><title><![CDATA[C]]></title><item><title>I</title></item>"
                   "<title>Second</title><title>Third</title></channel></rss>");
    ASSERT_NE(p_.title, nullptr);
    EXPECT_STREQ(p_.title, "Second");
}

TEST_F(Item, ItemTitleIsNotFeedTitle)
{
    p_ = parse_doc("<rss><channel><item><title>I</title></item><image><title>Img</title></image>"
                   "</channel></rss>");
    EXPECT_EQ(p_.title, nullptr);
}

TEST_F(Item, RdfItemsBesideChannel)
{
    p_ = parse_doc("<rdf:RDF><channel><title>R</title></channel><item><title>1</title></item>"
                   "<item><title>2</title></item></rdf:RDF>");
    EXPECT_STREQ(p_.title, "R");
    EXPECT_EQ(p_.items().size(), 2u);
}

TEST_F(Item, ItemLinkIsNotKept)
{
    kd_item *i = only("<item><title>t</title><link>http://h/page</link></item>");
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(i->enclosures, nullptr);
    EXPECT_EQ(i->images, nullptr);
}

} // namespace
