// Feeds in legacy charsets: each fixture of tests/data/charsets must give
// exactly the items of the same feed written in UTF-8; bodies that are UTF-8
// already are never touched; lying, unknown and hostile charset names, invalid
// sequences, conversions that outgrow the download bound and exhausted memory
// end in an XML error or a truncated parse.
#include "tests/unit/feed/xml_fixture.h"

#include <fstream>
#include <sstream>

#include "http/httpcli.h"

namespace {

const char kUrl[] = "http://feeds.example:81/rss/feed.xml";

std::string fixture(const std::string &name)
{
    std::ifstream in(std::string(KELP_CHARSET_FIXTURES) + "/" + name, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The document without its first line (the declaration).
std::string without_declaration(const std::string &doc)
{
    return doc.substr(doc.find('\n') + 1);
}

std::string replace_first(std::string s, const std::string &from, const std::string &to)
{
    size_t at = s.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? s : s.replace(at, from.size(), to);
}

std::string text_or_null(const char *s)
{
    return s ? std::string(s) : std::string("(null)");
}

void expect_same_attachments(const kd_attachment *a, const kd_attachment *b, const std::string &what)
{
    for (; a && b; a = a->next, b = b->next) {
        EXPECT_EQ(text_or_null(a->type), text_or_null(b->type)) << what;
        EXPECT_EQ(text_or_null(a->url), text_or_null(b->url)) << what;
        EXPECT_EQ(a->offset, b->offset) << what;
    }
    EXPECT_EQ(a == nullptr, b == nullptr) << what << ": lists differ in length";
}

// Item by item, every field a client or configd gets (the date only where
// the feed gives one: the others are the time of parsing).
void expect_same_items(const parsed &got, const parsed &want, const std::string &what)
{
    EXPECT_EQ(text_or_null(got.title), text_or_null(want.title)) << what;
    auto g = got.items(), w = want.items();
    ASSERT_EQ(g.size(), w.size()) << what;
    for (size_t i = 0; i < g.size(); i++) {
        std::string at = what + " item " + std::to_string(i);
        EXPECT_STREQ(g[i]->title, w[i]->title) << at;
        EXPECT_EQ(g[i]->hash, w[i]->hash) << at;
        EXPECT_EQ(text_or_null(g[i]->body), text_or_null(w[i]->body)) << at;
        EXPECT_EQ(text_or_null(g[i]->guid), text_or_null(w[i]->guid)) << at;
        expect_same_attachments(g[i]->enclosures, w[i]->enclosures, at + " enclosures");
        expect_same_attachments(g[i]->images, w[i]->images, at + " images");
    }
    EXPECT_EQ(g[0]->date, w[0]->date) << what;
}

class Charset : public XmlTest {
protected:
    void TearDown() override
    {
        twin_.release();
        XmlTest::TearDown();
    }
    void parse(const std::string &doc, int status, const char *ctype)
    {
        p_.release();
        p_.body = slab_body(doc);
        p_.feed = kdx_parse_feed_charset(status, kUrl, ctype, &p_.body, &p_.title, &info_);
    }
    void parse_twin(const std::string &doc, const char *ctype = "text/xml")
    {
        twin_.release();
        twin_ = parse_doc(doc, 200, kUrl, ctype);
        ASSERT_NE(twin_.feed, nullptr);
        ASSERT_EQ(twin_.items().size(), 3u);
    }
    kdx_charset_info info_{};
    parsed twin_;
};

class Fixture : public Charset, public ::testing::WithParamInterface<const char *> {
protected:
    std::string legacy() { return fixture(std::string(GetParam()) + ".xml"); }
    std::string utf8() { return fixture(std::string(GetParam()) + ".utf8.xml"); }
};

TEST_P(Fixture, ReadsAsTheSameFeedInUtf8)
{
    std::string doc = legacy();
    ASSERT_FALSE(doc.empty()) << "fixture missing in " << KELP_CHARSET_FIXTURES;
    parse_twin(utf8());
    parse(doc, 200, "text/xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_TRUE(info_.transcoded);
    EXPECT_STREQ(info_.name, GetParam());
    EXPECT_FALSE(info_.cut || info_.invalid || info_.unknown);
    expect_same_items(p_, twin_, GetParam());
    // The converted document, declaration included, is the UTF-8 feed itself.
    EXPECT_EQ(std::string(p_.body), utf8());
}

TEST_P(Fixture, CharsetFromContentTypeWhenTheDocumentHasNoDeclaration)
{
    std::string ctype = std::string("application/rss+xml; charset=") + GetParam();
    parse_twin(without_declaration(utf8()), "text/xml; charset=UTF-8");
    parse(without_declaration(legacy()), 200, ctype.c_str());
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_TRUE(info_.transcoded);
    expect_same_items(p_, twin_, GetParam());
    EXPECT_EQ(std::string(p_.body), "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>" + without_declaration(utf8()));
}

TEST_P(Fixture, TruncatedDownloadKeepsTheItemsBeforeTheCut)
{
    std::string doc = legacy();
    std::string cut = doc.substr(0, doc.rfind("<item>") + 10);
    parse(cut, 2, "text/xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Charset, Fixture,
                         ::testing::Values("ISO-8859-1", "ISO-8859-2", "ISO-8859-15", "windows-1250",
                                           "windows-1251", "windows-1252", "KOI8-R", "EUC-KR", "GB2312",
                                           "GB18030", "Shift_JIS"),
                         [](const auto &info) {
                             std::string n = info.param;
                             for (char &c : n)
                                 c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return n;
                         });

TEST_F(Charset, EntitiesAndCharactersBeyondLatin1AsInAUtf8Feed)
{
    parse_twin(fixture("windows-1252.utf8.xml"));
    parse(fixture("windows-1252.xml"), 200, "text/xml");
    auto items = p_.items();
    ASSERT_EQ(items.size(), 3u);
    // The Euro sign stays UTF-8; a doubly encoded entity falls back to one byte.
    std::string body = items[0]->body;
    EXPECT_NE(body.find("\xE2\x82\xAC"), std::string::npos) << body;
    EXPECT_NE(body.find(" \xB7 \xE9 - \xC3\xA9 \xE2\x80\x94\nend"), std::string::npos) << body;
    EXPECT_STREQ(items[0]->enclosures->url, "http://feeds.example:81/~user/ep1.mp3");
    expect_same_items(p_, twin_, "windows-1252");
}

TEST_F(Charset, ShiftJisKeepsBackslashAndTilde)
{
    parse(fixture("Shift_JIS.xml"), 200, "text/xml");
    auto items = p_.items();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_STREQ(items[0]->enclosures->url, "http://feeds.example:81/~user/ep1.mp3");
    EXPECT_STREQ(items[1]->images->next->url, "http://cdn.example/a\\b.png");
}

TEST_F(Charset, Windows1252WhenNothingNamesACharset)
{
    parse_twin(fixture("windows-1252.utf8.xml"));
    parse(without_declaration(fixture("windows-1252.xml")), 200, "text/xml");
    EXPECT_TRUE(info_.transcoded);
    EXPECT_STREQ(info_.name, "windows-1252");
    expect_same_items(p_, twin_, "fallback");
}

TEST_F(Charset, UndeclaredFeAndFfBytesAreLeftToTheUtf16Reading)
{
    // The ISO-8859-1 feed holds the letters thorn and y-diaeresis (FE, FF).
    std::string bare = without_declaration(fixture("ISO-8859-1.xml"));
    parse(bare, 200, "text/xml");
    EXPECT_FALSE(info_.transcoded);
    EXPECT_STREQ(info_.name, "");
    EXPECT_EQ(p_.feed, nullptr);
    parse(bare, 200, "text/xml; charset=ISO-8859-1"); // named, they are read as letters
    EXPECT_TRUE(info_.transcoded);
    EXPECT_EQ(p_.items().size(), 3u);
}

TEST_F(Charset, DeclarationWinsOverContentType)
{
    parse_twin(fixture("windows-1251.utf8.xml"));
    parse(fixture("windows-1251.xml"), 200, "text/xml; charset=KOI8-R");
    EXPECT_STREQ(info_.name, "windows-1251");
    expect_same_items(p_, twin_, "declaration first");
}

TEST_F(Charset, QuotedContentTypeCharset)
{
    parse_twin(without_declaration(fixture("ISO-8859-2.utf8.xml")));
    parse(without_declaration(fixture("ISO-8859-2.xml")), 200, "text/xml; Charset=\"ISO-8859-2\"; q=1");
    EXPECT_STREQ(info_.name, "ISO-8859-2");
    expect_same_items(p_, twin_, "quoted");
}

TEST_F(Charset, SaysLatin1HoldsUtf8IsReadAsItCame)
{
    std::string doc = replace_first(fixture("ISO-8859-1.utf8.xml"), "\"UTF-8\"", "\"ISO-8859-1\"");
    parse_twin(fixture("ISO-8859-1.utf8.xml"));
    parse(doc, 200, "text/xml; charset=ISO-8859-1");
    EXPECT_EQ(std::string(p_.body), doc); // byte for byte
    EXPECT_FALSE(info_.transcoded);
    EXPECT_STREQ(info_.name, "");
    expect_same_items(p_, twin_, "lying declaration");
}

TEST_F(Charset, SaysUtf8OrAsciiHoldsLatin1IsRefusedAsBefore)
{
    for (const char *name : {"UTF-8", "utf8", "US-ASCII"}) {
        std::string doc = replace_first(fixture("ISO-8859-1.xml"), "\"ISO-8859-1\"",
                                        std::string("\"") + name + "\"");
        parse(doc, 200, "text/xml; charset=ISO-8859-1");
        EXPECT_EQ(p_.feed, nullptr) << name;
        EXPECT_EQ(std::string(p_.body), doc) << name;
        EXPECT_FALSE(info_.transcoded) << name;
    }
}

TEST_F(Charset, Utf8BodyUnderALegacyCharsetIsUntouched)
{
    std::string doc = without_declaration(fixture("KOI8-R.utf8.xml"));
    parse(doc, 200, "text/xml; charset=KOI8-R");
    // Exactly as before: the declaration carries the header's charset.
    EXPECT_EQ(std::string(p_.body), "<?xml version=\"1.0\" encoding=\"KOI8-R\" ?>" + doc);
    EXPECT_FALSE(info_.transcoded);
    EXPECT_EQ(p_.items().size(), 3u);
}

TEST_F(Charset, UnknownCharsetIsRefusedAsBefore)
{
    std::string doc = replace_first(fixture("ISO-8859-1.xml"), "\"ISO-8859-1\"", "\"X-NOPE\"");
    parse(doc, 200, "text/xml");
    EXPECT_EQ(p_.feed, nullptr);
    EXPECT_EQ(std::string(p_.body), doc);
    EXPECT_TRUE(info_.unknown);
    EXPECT_FALSE(info_.transcoded);
    EXPECT_STREQ(info_.name, "X-NOPE");
    parse(doc, 2, "text/xml");
    ASSERT_NE(p_.feed, nullptr); // a truncated download keeps what came before the error
}

TEST_F(Charset, CharsetsThatChangeMarkupAreUnknown)
{
    // Read as UTF-16 or UTF-7, the markup itself would turn into other text.
    for (const char *name : {"UTF-16", "UTF-7", "EBCDIC-US", "UCS-4"}) {
        std::string doc = replace_first(fixture("ISO-8859-1.xml"), "\"ISO-8859-1\"",
                                        std::string("\"") + name + "\"");
        parse(doc, 200, "text/xml");
        EXPECT_EQ(p_.feed, nullptr) << name;
        EXPECT_TRUE(info_.unknown) << name;
        EXPECT_EQ(std::string(p_.body), doc) << name;
    }
}

TEST_F(Charset, FourKilobyteCharsetName)
{
    std::string name(4096, 'A');
    std::string doc = replace_first(fixture("ISO-8859-1.xml"), "ISO-8859-1", name);
    parse(doc, 200, "text/xml");
    EXPECT_EQ(p_.feed, nullptr);
    EXPECT_TRUE(info_.unknown);
    EXPECT_EQ(std::string(info_.name), std::string(kdx_charset_name_max, 'A') + "...");

    std::string ctype = "text/xml; charset=" + name;
    parse(without_declaration(fixture("ISO-8859-1.xml")), 200, ctype.c_str());
    EXPECT_EQ(p_.feed, nullptr);
    EXPECT_TRUE(info_.unknown);
    // The declaration still carries the header's value, as it always did.
    EXPECT_TRUE(std::string(p_.body).starts_with("<?xml version=\"1.0\" encoding=\"" + name + "\" ?>"));
}

TEST_F(Charset, QuotesNulAndSuffixesInCharsetNames)
{
    std::string bare = without_declaration(fixture("ISO-8859-1.xml"));
    // Single quotes are not HTTP's quoting; the name then holds them.
    parse(bare, 200, "text/xml; charset='ISO-8859-1'");
    EXPECT_TRUE(info_.unknown);
    EXPECT_STREQ(info_.name, "'ISO-8859-1'");
    // A NUL byte ends the header value there.
    const char nul_ctype[] = "text/xml; charset=ISO\0-8859-1";
    parse(bare, 200, nul_ctype);
    EXPECT_TRUE(info_.unknown);
    EXPECT_STREQ(info_.name, "ISO");
    EXPECT_EQ(p_.feed, nullptr);
    // iconv's "//" suffixes would change how invalid bytes are treated.
    parse(replace_first(fixture("ISO-8859-1.xml"), "\"ISO-8859-1\"", "\"ISO-8859-1//IGNORE\""), 200,
          "text/xml");
    EXPECT_TRUE(info_.unknown);
    // Control bytes and quotes inside a declared name are shown as "?" or as they are.
    parse(replace_first(fixture("ISO-8859-1.xml"), "\"ISO-8859-1\"", "'ISO\x01\"8859'"), 200,
          "text/xml");
    EXPECT_TRUE(info_.unknown);
    EXPECT_STREQ(info_.name, "ISO?\"8859");
    // A NUL byte in the body ends the document, declaration included.
    std::string doc = fixture("ISO-8859-1.xml");
    doc[doc.find("8859")] = '\0';
    parse(doc, 200, "text/xml; charset=ISO-8859-1");
    EXPECT_EQ(p_.feed, nullptr);
}

TEST_F(Charset, OnlyTheDeclarationItselfNamesTheEncoding)
{
    std::string bare = without_declaration(fixture("ISO-8859-1.xml"));
    parse_twin(without_declaration(fixture("ISO-8859-1.utf8.xml")));
    // Another processing instruction that happens to have an encoding.
    parse("<?xml-stylesheet encoding=\"KOI8-R\" href=\"a.xsl\"?>" + bare, 200, "text/xml; charset=ISO-8859-1");
    EXPECT_STREQ(info_.name, "ISO-8859-1");
    expect_same_items(p_, twin_, "stylesheet");
    // A declaration that never ends: "encoding" further on is text.
    parse("<?xml version=\"1.0\" " + without_declaration(fixture("windows-1252.xml")) +
              "<!-- encoding=\"KOI8-R\" -->",
          200, "text/xml");
    EXPECT_STREQ(info_.name, "windows-1252");
    EXPECT_TRUE(info_.transcoded);
}

// windows-1252 leaves 0x81 undefined.
std::string with_invalid_third_item()
{
    std::string doc = fixture("windows-1252.xml");
    size_t third = doc.rfind("<item><title>") + 13;
    return doc.insert(third, "\x81");
}

TEST_F(Charset, InvalidSequenceIsAnXmlErrorThere)
{
    std::string doc = with_invalid_third_item();
    parse(doc, 200, "text/xml");
    EXPECT_EQ(p_.feed, nullptr);
    EXPECT_TRUE(info_.invalid);
    EXPECT_EQ(info_.bad_at, doc.find('\x81'));
    ASSERT_NE(p_.title, nullptr); // the title is reported as after any XML error
    // The body ends before the invalid byte, on a whole character.
    std::string body = p_.body;
    EXPECT_TRUE(body.ends_with("<item><title>")) << body;

    parse(doc, 2, "text/xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 2u);
}

TEST_F(Charset, InvalidSequenceAfterTheLastElementStillRefusesACompleteDocument)
{
    std::string doc = fixture("windows-1252.xml") + "\x81";
    parse(doc, 200, "text/xml");
    EXPECT_EQ(p_.feed, nullptr);
    parse(doc, 2, "text/xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 3u);
}

TEST_F(Charset, MultibyteSequenceBrokenOffAtTheEnd)
{
    std::string doc = fixture("EUC-KR.xml");
    size_t last = doc.rfind("<title>") + 7; // a Hangul syllable, two bytes
    ASSERT_GE(static_cast<unsigned char>(doc[last]), 0xA1);
    doc.resize(last + 1);
    parse(doc, 2, "text/xml");
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_TRUE(info_.invalid);
    EXPECT_EQ(p_.items().size(), 2u);
    parse(doc, 200, "text/xml");
    EXPECT_EQ(p_.feed, nullptr);
}

// A Latin-1 feed that fits the download bound but not once converted.
std::string latin1_beyond_the_bound(int *items)
{
    std::string doc = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><rss><channel><title>Big</title>";
    std::string text(400, '\xE9');
    for (*items = 0; doc.size() < 150000; ++*items)
        doc += "<item><title>" + std::to_string(*items) + "</title><description>" + text + "</description></item>";
    return doc + "</channel></rss>";
}

TEST_F(Charset, ConversionBeyondTheBoundIsCutLikeATruncatedDownload)
{
    int total = 0;
    std::string doc = latin1_beyond_the_bound(&total);
    ASSERT_LT(doc.size(), HTTPCLI_MAX_RESPONSE);
    parse(doc, 200, "text/xml");
    ASSERT_NE(p_.feed, nullptr); // not an error: the items before the cut count
    EXPECT_TRUE(info_.cut);
    EXPECT_TRUE(info_.transcoded);
    std::string body = p_.body;
    EXPECT_LE(body.size(), HTTPCLI_MAX_RESPONSE);
    EXPECT_GT(body.size(), HTTPCLI_MAX_RESPONSE - 16);
    EXPECT_NE(static_cast<unsigned char>(body.back()), 0xC3); // whole characters only
    auto items = p_.items();
    ASSERT_GT(items.size(), 100u);
    EXPECT_LT(items.size(), static_cast<size_t>(total));
    std::string e_acute;
    for (int i = 0; i < 400; i++)
        e_acute += "\xC3\xA9";
    EXPECT_EQ(std::string(items.back()->body), e_acute);
}

struct memory_case {
    long fail_after;
    bool converted; // the body handed back is the whole conversion, else the original
    bool parsed;
};

class CharsetMemory : public Charset, public ::testing::WithParamInterface<memory_case> {};

TEST_P(CharsetMemory, NeverLeavesAPartialBody)
{
    std::string doc = without_declaration(fixture("ISO-8859-15.xml"));
    std::string converted = without_declaration(fixture("ISO-8859-15.utf8.xml"));
    parse_twin(converted, "text/xml; charset=UTF-8");
    p_.body = slab_body(doc);
    slab_fail_after(GetParam().fail_after);
    p_.feed = kdx_parse_feed_charset(200, kUrl, "text/xml; charset=ISO-8859-15", &p_.body, &p_.title, &info_);
    slab_fail_after(-1);
    std::string body = p_.body;
    if (!GetParam().parsed) {
        EXPECT_EQ(p_.feed, nullptr);
        EXPECT_EQ(p_.title, nullptr);
        EXPECT_EQ(body, GetParam().converted ? converted : doc);
        return;
    }
    EXPECT_EQ(body, "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>" + converted);
    expect_same_items(p_, twin_, "parsed");
}

// Allocations in order: the node, the converted body, giving back its unused
// end (a failure there only keeps the larger buffer), the declaration, the
// enlarged body.
INSTANTIATE_TEST_SUITE_P(Charset, CharsetMemory,
                         ::testing::Values(memory_case{0, false, false}, memory_case{1, false, false},
                                           memory_case{2, true, true}, memory_case{3, true, false},
                                           memory_case{4, true, false}));

} // namespace
