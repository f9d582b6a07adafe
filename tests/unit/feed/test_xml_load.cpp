// Document loading: byte-order mark, the declaration built from the HTTP
// charset, complete versus truncated downloads, title reporting and the
// behaviour when memory runs out.
#include "tests/unit/feed/xml_fixture.h"

namespace {

const std::string kBody = "<rss><channel><title>T</title><item><title>A</title></item></channel></rss>";

class Load : public XmlTest {};

TEST_F(Load, ByteOrderMarkBeforeDeclarationIsRemovedWithoutInsertion)
{
    std::string doc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" + kBody;
    p_ = parse_doc("\xEF\xBB\xBF" + doc, 200, "http://h/", "text/xml; charset=ISO-8859-1");
    EXPECT_EQ(std::string(p_.body), doc);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Load, ByteOrderMarkWithoutDeclarationGetsOne)
{
    p_ = parse_doc("\xEF\xBB\xBF" + kBody, 200, "http://h/", "text/xml");
    EXPECT_EQ(std::string(p_.body), "<?xml version=\"1.0\" ?>" + kBody);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Load, CharsetOfContentTypeGoesIntoDeclaration)
{
    p_ = parse_doc(kBody, 200, "http://h/", "text/xml; charset=ISO-8859-1");
    EXPECT_EQ(std::string(p_.body), "<?xml version=\"1.0\" encoding=\"ISO-8859-1\" ?>" + kBody);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Load, QuotedCharsetKeepsOpeningQuote)
{
    p_ = parse_doc(kBody, 200, "http://h/", "text/xml; charset=\"utf-8\"");
    EXPECT_EQ(std::string(p_.body), "<?xml version=\"1.0\" encoding=\"\"utf-8\" ?>" + kBody);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Load, NoCharsetGivesDeclarationWithoutEncoding)
{
    p_ = parse_doc(kBody, 200, "http://h/", "application/rss+xml");
    EXPECT_EQ(std::string(p_.body), "<?xml version=\"1.0\" ?>" + kBody);
}

TEST_F(Load, MissingContentTypeCountsAsEmpty)
{
    p_ = parse_doc(kBody, 200, "http://h/", nullptr);
    EXPECT_EQ(std::string(p_.body), "<?xml version=\"1.0\" ?>" + kBody);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Load, CharsetAtEndOfContentTypeIsEmpty)
{
    p_ = parse_doc(kBody, 200, "http://h/", "text/xml; charset=");
    EXPECT_EQ(std::string(p_.body), "<?xml version=\"1.0\" encoding=\"\" ?>" + kBody);
}

TEST_F(Load, CharsetSearchIsCaseSensitive)
{
    p_ = parse_doc(kBody, 200, "http://h/", "text/xml; Charset=utf-8");
    EXPECT_EQ(std::string(p_.body), "<?xml version=\"1.0\" ?>" + kBody);
}

struct charset_case {
    const char *ctype;
    const char *value;
};

class CharsetValue : public XmlTest, public ::testing::WithParamInterface<charset_case> {};

TEST_P(CharsetValue, EndsAtControlSpaceDelHighByteOrSeparator)
{
    std::string ctype = GetParam().ctype;
    std::vector<char> ct(ctype.begin(), ctype.end());
    ct.push_back('\0');
    p_.body = slab_body(kBody);
    p_.feed = kdx_parse_feed(200, "http://h/", ct.data(), &p_.body, &p_.title);
    std::string want = std::string("<?xml version=\"1.0\" encoding=\"") + GetParam().value + "\" ?>";
    EXPECT_EQ(std::string(p_.body).substr(0, want.size()), want);
    EXPECT_EQ(std::string(ct.data()), ctype); // the header value is left as it was
}

INSTANTIATE_TEST_SUITE_P(
    Load, CharsetValue,
    ::testing::Values(charset_case{"text/xml;charset=utf-8;q=1", "utf-8"},
                      charset_case{"text/xml;charset=utf-8 x", "utf-8"},
                      charset_case{"text/xml;charset=utf-8\tx", "utf-8"},
                      charset_case{"text/xml;charset=utf\x7f-8", "utf"},
                      charset_case{"text/xml;charset=ab\xE9""cd", "ab"},
                      charset_case{"text/xml;charset=a(b", "a"},
                      charset_case{"text/xml;charset=a)b", "a"},
                      charset_case{"text/xml;charset=a<b", "a"},
                      charset_case{"text/xml;charset=a>b", "a"},
                      charset_case{"text/xml;charset=a@b", "a"},
                      charset_case{"text/xml;charset=a,b", "a"},
                      charset_case{"text/xml;charset=a:b", "a"},
                      charset_case{"text/xml;charset=a\\b", "a"},
                      charset_case{"text/xml;charset=a/b", "a"},
                      charset_case{"text/xml;charset=a[b", "a"},
                      charset_case{"text/xml;charset=a]b", "a"},
                      charset_case{"text/xml;charset=a?b", "a"},
                      charset_case{"text/xml;charset=a=b", "a"},
                      charset_case{"text/xml;charset=a{b", "a"},
                      charset_case{"text/xml;charset=a}b", "a"},
                      charset_case{"text/xml;charset=a\"b", "a"},
                      charset_case{"text/xml;charset= utf-8", " utf-8"},
                      charset_case{"text/xml;charset=;x", ";x"},
                      charset_case{"text/xml;charset=\x01x y", "\x01x"},
                      charset_case{"text/xml;charset=\xE9\xE9x", "\xE9"},
                      charset_case{"text/xml;charset=\"", "\""},
                      charset_case{"text/xml;charset=a", "a"},
                      charset_case{"text/xml;charset=iso-8859-15!#$%&'*+.^_`|~x", "iso-8859-15!#$%&'*+.^_`|~x"}));

TEST_F(Load, TruncatedDownloadKeepsCompletedItems)
{
    std::string doc = rss("<item><title>One</title></item><item><title>Two</title></item>"
                          "<item><title>Thr");
    p_ = parse_doc(doc, 2);
    ASSERT_NE(p_.feed, nullptr);
    auto items = p_.items();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_STREQ(items[0]->title, "One");
    EXPECT_STREQ(items[1]->title, "Two");
    EXPECT_EQ(p_.feed->nchildren, 0u);
    ASSERT_NE(p_.title, nullptr);
    EXPECT_STREQ(p_.title, "Chan");
}

TEST_F(Load, CompleteDownloadWithXmlErrorIsRefused)
{
    std::string doc = rss("<item><title>One</title></item><item><title>Two</title></item>"
                          "<item><title>Thr");
    p_ = parse_doc(doc, 200);
    EXPECT_EQ(p_.feed, nullptr);
    // The title is reported even though the document failed to parse.
    ASSERT_NE(p_.title, nullptr);
    EXPECT_STREQ(p_.title, "Chan");
}

TEST_F(Load, OnlyStatus200CountsAsComplete)
{
    std::string doc = rss("<item><title>One</title></item><item>");
    p_ = parse_doc(doc, 302);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Load, FeedWithoutItemsGivesEmptyNode)
{
    p_ = parse_doc(rss(""));
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.feed->children, nullptr);
    EXPECT_EQ(p_.feed->nchildren, 0u);
    EXPECT_EQ(p_.feed->refs, nullptr);
    EXPECT_EQ(p_.feed->entry, nullptr);
    EXPECT_EQ(p_.feed->timer, 0);
}

TEST_F(Load, NoTitleGivesNullTitle)
{
    p_ = parse_doc("<rss><channel><item><title>x</title></item></channel></rss>");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.title, nullptr);
}

TEST_F(Load, TitleOutMayBeNull)
{
    p_.body = slab_body(rss("<item><title>x</title></item>"));
    p_.feed = kdx_parse_feed(200, "http://h/", "text/xml", &p_.body, nullptr);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Load, EmptyBodyGivesNoItems)
{
    // Only the inserted declaration remains, which is a well-formed nothing.
    p_ = parse_doc("", 200);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.feed->children, nullptr);
    EXPECT_EQ(p_.title, nullptr);
}

TEST_F(Load, HtmlPageWithUnclosedTagIsRefused)
{
    p_ = parse_doc("<html><body><p>Moved<br></p></body></html>", 200);
    EXPECT_EQ(p_.feed, nullptr);
}

// Allocations before the loader runs, in order: the node, the declaration,
// the enlarged body. Each failure leaves the title and the body as they were.
class LoadNoMemory : public XmlTest, public ::testing::WithParamInterface<long> {};

TEST_P(LoadNoMemory, LeavesTitleAndBodyUntouched)
{
    char sentinel = 0;
    p_.body = slab_body(kBody);
    p_.title = &sentinel;
    slab_fail_after(GetParam());
    p_.feed = kdx_parse_feed(200, "http://h/", "text/xml", &p_.body, &p_.title);
    EXPECT_EQ(p_.feed, nullptr);
    EXPECT_EQ(p_.title, &sentinel);
    EXPECT_EQ(std::string(p_.body), kBody);
    p_.title = nullptr;
}

INSTANTIATE_TEST_SUITE_P(Load, LoadNoMemory, ::testing::Values(0L, 1L, 2L));

TEST_F(Load, EveryLaterAllocationFailureIsSurvived)
{
    // Each allocation of a rich parse fails once in turn: whatever is lost,
    // nothing leaks and nothing crashes.
    std::string doc = rss("<item><title>A</title><description>&lt;img src=\"/i.png\"&gt;b</description>"
                          "<enclosure url=\"/a.mp3\" type=\"audio/mpeg\"/><guid>g</guid></item>"
                          "<item><title><![CDATA[<b>B</b>]]></title></item>");
    for (long n = 0; n < 40; n++) {
        parsed p;
        p.body = slab_body(doc);
        slab_fail_after(n);
        p.feed = kdx_parse_feed(200, "http://h/x", "text/xml", &p.body, &p.title);
        slab_fail_after(-1);
        for (kd_item *i : p.items())
            EXPECT_NE(i->title, nullptr);
        p.release();
        EXPECT_EQ(slab_live_count(), base_) << n;
    }
}

} // namespace
