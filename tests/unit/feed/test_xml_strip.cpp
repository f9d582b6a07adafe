// HTML stripping: entity decoding to single bytes, tag removal, inline image
// collection with offsets, and trimming, all in place.
#include "tests/unit/feed/xml_fixture.h"

namespace {

class Strip : public XmlTest {
protected:
    void SetUp() override
    {
        XmlTest::SetUp();
        item_ = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
    }
    void TearDown() override
    {
        kdn_free_item(item_);
        XmlTest::TearDown();
    }
    std::string strip(const std::string &in, kd_item *item)
    {
        std::vector<char> buf(in.begin(), in.end());
        buf.push_back('\0');
        kdx_strip_html_tags(item, buf.data());
        return std::string(buf.data());
    }
    std::string strip(const std::string &in) { return strip(in, item_); }
    kd_item *item_ = nullptr;
};

TEST_F(Strip, AmpersandEntityBecomesAmpersand)
{
    EXPECT_EQ(strip("a &amp; b"), "a & b");
    // A decoded "&" is never decoded again.
    EXPECT_EQ(strip("&amp;amp;"), "&amp;");
    EXPECT_EQ(strip("&amp;lt;b&amp;gt;"), "&lt;b&gt;");
}

TEST_F(Strip, UnknownEntityStaysAsWritten)
{
    EXPECT_EQ(strip("x &foo; y"), "x &foo; y");
    EXPECT_EQ(strip("AT&T &amp; co"), "AT&T & co");
}

TEST_F(Strip, EntityNameRunsToNextSemicolon)
{
    // "& amp" is no entity; the search goes on at the next "&".
    EXPECT_EQ(strip("a & b &amp; c"), "a & b & c");
    EXPECT_EQ(strip("a &&amp; b"), "a && b");
}

TEST_F(Strip, NoSemicolonEndsDecoding)
{
    EXPECT_EQ(strip("a &amp b"), "a &amp b");
    EXPECT_EQ(strip("x &lt; &amp"), "x"); // the decoded "<" opens a tag without end
}

TEST_F(Strip, DecimalReferences)
{
    EXPECT_EQ(strip("caf&#233;"), "caf\xE9");
    EXPECT_EQ(strip("a&#8212;b"), "a-b");
    EXPECT_EQ(strip("&#8364;5"), "\xB7""5");
    EXPECT_EQ(strip("&#65;&#66;"), "AB");
    EXPECT_EQ(strip("&#99999999999999999999;"), "\xB7");
}

TEST_F(Strip, HashWithoutDigitGoesToTheLookup)
{
    EXPECT_EQ(strip("&#;&#a1;"), "&#;&#a1;");
    // atoi reads the leading digits only.
    EXPECT_EQ(strip("&#65xyz;"), "A");
}

TEST_F(Strip, UnknownEntitySearchResumesAfterItsAmpersand)
{
    // "x&amp" is unknown; the "&" inside it then starts a known one.
    EXPECT_EQ(strip("&x&amp;;"), "&x&;");
}

TEST_F(Strip, HexadecimalReferenceStaysAsWritten)
{
    EXPECT_EQ(strip("&#x41;"), "&#x41;");
}

TEST_F(Strip, NamedEntitiesBeyondLatin1)
{
    EXPECT_EQ(strip("&eacute;&nbsp;&mdash;&hellip;"), "\xE9\xA0-\xB7");
}

TEST_F(Strip, ZeroReferenceEndsText)
{
    EXPECT_EQ(strip("abc&#0;def"), "abc");
}

TEST_F(Strip, LineBreak)
{
    EXPECT_EQ(strip("a<br>b"), "a\nb");
    EXPECT_EQ(strip("a<br/>b"), "ab");
    EXPECT_EQ(strip("a<br />b"), "ab");
    EXPECT_EQ(strip("a<BR>b"), "ab");
    EXPECT_EQ(strip("a<br >b"), "ab");
    EXPECT_EQ(strip("a<br class=\"x\">b"), "ab");
}

TEST_F(Strip, EscapedMarkupIsRemovedAsTags)
{
    EXPECT_EQ(strip("&lt;b&gt;bold&lt;/b&gt;"), "bold");
    EXPECT_EQ(strip("1 &lt; 2 and 3 &gt; 2"), "1  2");
}

TEST_F(Strip, GreaterThanInsideQuotesDoesNotEndTag)
{
    EXPECT_EQ(strip("<a title=\"x>y\">link</a>"), "link");
    EXPECT_EQ(strip("<a title='x>y'>link</a>"), "y'>link");
}

TEST_F(Strip, UnterminatedTagRemovesRest)
{
    EXPECT_EQ(strip("keep <b this is gone"), "keep");
    EXPECT_EQ(strip("keep <a href=\"x>y"), "keep");
}

TEST_F(Strip, ParagraphImageWorld)
{
    EXPECT_EQ(strip("<p>Hello</p><img src=\"/a.png\"> world  "), "Hello world");
    ASSERT_EQ(count_list(item_->images), 1);
    EXPECT_EQ(item_->images->offset, 5u);
    EXPECT_STREQ(item_->images->url, "/a.png");
    EXPECT_EQ(item_->images->type, nullptr);
}

TEST_F(Strip, LeadingWhitespaceKeptWhenImageExists)
{
    EXPECT_EQ(strip("  <img src=\"i.png\"> a \t\n"), "   a");
    ASSERT_NE(item_->images, nullptr);
    EXPECT_EQ(item_->images->offset, 2u);
}

TEST_F(Strip, TrailingTrimLeavesImageOffsetPastTheText)
{
    // The offset counts the bytes written before the tag; trailing whitespace
    // removed afterwards does not move it, so it may lie past the end.
    EXPECT_EQ(strip("Text <img src=\"a.png\"> \n"), "Text");
    ASSERT_NE(item_->images, nullptr);
    EXPECT_EQ(item_->images->offset, 5u);
}

TEST_F(Strip, LeadingWhitespaceTrimmedWithoutImages)
{
    EXPECT_EQ(strip(" \t\r\n\v\f text \v"), "text");
    EXPECT_EQ(strip("   "), "");
    EXPECT_EQ(strip(""), "");
}

TEST_F(Strip, ImagePrefixDuplicates)
{
    strip("<img src=\"x.png/big\"><img src=\"x.png\">");
    EXPECT_EQ(count_list(item_->images), 1);
    kdn_free_item(item_);
    item_ = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
    strip("<img src=\"x.png\"><img src=\"x.png/big\">");
    ASSERT_EQ(count_list(item_->images), 2);
    EXPECT_STREQ(item_->images->url, "x.png/big");
}

TEST_F(Strip, ImageSrcForms)
{
    strip("<img\tsrc= \"a.png\" alt=x><img alt=\"y\" src=b.png><img src=\"\"><imgx src=c.png>"
          "<img src=d.png/><img src=\"\"e.png\"\">");
    ASSERT_EQ(count_list(item_->images), 4);
    EXPECT_STREQ(item_->images->url, "e.png");
    EXPECT_STREQ(item_->images->next->url, "d.png/");
    EXPECT_STREQ(item_->images->next->next->url, "b.png");
    EXPECT_STREQ(item_->images->next->next->next->url, "a.png");
}

TEST_F(Strip, SrcIsOnlySearchedInsideTheImgTag)
{
    EXPECT_EQ(strip("<img alt=x>src=\"o.png\""), "src=\"o.png\"");
    EXPECT_EQ(item_->images, nullptr);
    strip("<img alt=\">\" src=\"q.png\">");
    ASSERT_NE(item_->images, nullptr);
    EXPECT_STREQ(item_->images->url, "q.png");
}

TEST_F(Strip, ImagesAlreadyHeldByTheItemCountForDuplicates)
{
    strip("<img src=\"http://h/a.png\">");
    EXPECT_EQ(strip(" <img src=\"http://h/a\"> x"), "  x");
    EXPECT_EQ(count_list(item_->images), 1);
}

TEST_F(Strip, ImgWithoutWhitespaceOrSrcGivesNoImage)
{
    EXPECT_EQ(strip("<img>a<img/>b<img alt=\"x\">c"), "abc");
    EXPECT_EQ(item_->images, nullptr);
}

TEST_F(Strip, ImageUrlLimitedTo4096)
{
    strip("<img src=\"" + std::string(5000, 'u') + "\">");
    ASSERT_NE(item_->images, nullptr);
    EXPECT_EQ(strlen(item_->images->url), 4096u);
}

TEST_F(Strip, NullItemCollectsNoImages)
{
    EXPECT_EQ(strip(" <img src=\"a.png\"> x", nullptr), "x");
}

TEST_F(Strip, OffsetsCountOutputBytes)
{
    EXPECT_EQ(strip("&amp;&amp;<b>x</b><br><img src=\"p\">y"), "&&x\ny");
    ASSERT_NE(item_->images, nullptr);
    EXPECT_EQ(item_->images->offset, 4u);
}

TEST(StripDeath, TextMustNotBeNull)
{
    EXPECT_DEATH(kdx_strip_html_tags(nullptr, nullptr), "str != \\(\\(void \\*\\)0\\)");
}

} // namespace
