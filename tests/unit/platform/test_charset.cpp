// Latin-1 <-> UTF-8 conversion: round trips, fallback for wide characters and
// for every kind of invalid UTF-8.
#include "platform/charset.h"
#include "platform/slab.h"

#include <gtest/gtest.h>
#include <cstring>
#include <string>
#include <utility>

namespace {

std::string to_latin1(std::string utf8, char fallback = '?')
{
    EXPECT_EQ(ConvertStringFromUTF8ToISO8859_1_With_Fallback(utf8.data(), fallback), 1);
    return std::string(utf8.c_str());
}

std::string to_utf8(const std::string &latin1)
{
    char *u = ConvertStringFromISO8859_1ToUTF8_WithAlloc(latin1.c_str());
    EXPECT_NE(u, nullptr);
    std::string s = u ? u : "";
    kd_free(u);
    return s;
}

TEST(Charset, EveryLatin1ByteRoundTrips)
{
    std::string all;
    for (int c = 1; c < 256; c++)
        all.push_back(static_cast<char>(c));
    std::string utf8 = to_utf8(all);
    EXPECT_EQ(utf8.size(), 127u + 2 * 128u);
    EXPECT_EQ(to_latin1(utf8), all);
}

TEST(Charset, EachLatin1ByteOnItsOwn)
{
    for (int c = 1; c < 256; c++) {
        std::string one(1, static_cast<char>(c));
        std::string utf8 = to_utf8(one);
        ASSERT_EQ(utf8.size(), c < 0x80 ? 1u : 2u) << c;
        if (c >= 0x80) {
            EXPECT_EQ(static_cast<unsigned char>(utf8[0]), 0xC0 | (c >> 6)) << c;
            EXPECT_EQ(static_cast<unsigned char>(utf8[1]), 0x80 | (c & 0x3F)) << c;
        }
        EXPECT_EQ(to_latin1(utf8), one) << c;
    }
}

TEST(Charset, KnownEncodings)
{
    EXPECT_EQ(to_utf8("Caf\xE9"), "Caf\xC3\xA9");
    EXPECT_EQ(to_utf8("\xFF\xA0"), "\xC3\xBF\xC2\xA0");
    EXPECT_EQ(to_utf8(""), "");
}

TEST(Charset, Utf8CopyIsSlabAllocated)
{
    size_t before = slab_live_count();
    char *u = ConvertStringFromISO8859_1ToUTF8_WithAlloc("abc");
    EXPECT_EQ(slab_live_count(), before + 1);
    kd_free(u);
    EXPECT_EQ(slab_live_count(), before);
}

TEST(Charset, NullAndNoMemory)
{
    EXPECT_EQ(ConvertStringFromISO8859_1ToUTF8_WithAlloc(nullptr), nullptr);
    EXPECT_EQ(ConvertStringFromUTF8ToISO8859_1_With_Fallback(nullptr, '.'), 0);
    slab_fail_after(0);
    EXPECT_EQ(ConvertStringFromISO8859_1ToUTF8_WithAlloc("x"), nullptr);
    slab_fail_after(-1);
}

TEST(Charset, CharactersBeyondLatin1BecomeOneFallbackEach)
{
    EXPECT_EQ(to_latin1("\xC4\x80", '.'), ".");                  // U+0100
    EXPECT_EQ(to_latin1("5 \xE2\x82\xAC", '.'), "5 .");          // euro sign
    EXPECT_EQ(to_latin1("a\xF0\x9F\x98\x80z", '.'), "a.z");      // emoji, four bytes
    EXPECT_EQ(to_latin1("\xEF\xBF\xBF\xC3\xA9", '.'), ".\xE9");  // U+FFFF then e-acute
    EXPECT_EQ(to_latin1("\xC3\xBF", '.'), "\xFF");               // U+00FF still fits
}

TEST(Charset, StrayAndInvalidBytes)
{
    EXPECT_EQ(to_latin1("a\x80z"), "a?z");
    EXPECT_EQ(to_latin1("\x80\xBF"), "??");  // each stray continuation byte
    EXPECT_EQ(to_latin1("\xFE\xFF"), "??");
}

TEST(Charset, TruncatedSequences)
{
    EXPECT_EQ(to_latin1("abc\xC3"), "abc?");       // at the end of the text
    EXPECT_EQ(to_latin1("\xE2\x82" "A"), "?A");    // cut short by an ASCII byte
    EXPECT_EQ(to_latin1("\xF0\x9F\x98"), "?");
    EXPECT_EQ(to_latin1("\xC3\xC3\xA9"), "?\xE9"); // a new lead byte ends the old one
}

TEST(Charset, OverlongSurrogateAndOutOfRange)
{
    EXPECT_EQ(to_latin1("\xC0\xAF"), "?");           // overlong '/'
    EXPECT_EQ(to_latin1("\xC1\xBF"), "?");
    EXPECT_EQ(to_latin1("\xE0\x80\xAF"), "?");       // overlong in three bytes
    EXPECT_EQ(to_latin1("\xF0\x80\x80\xAF"), "?");   // and in four
    EXPECT_EQ(to_latin1("\xED\xA0\x80x"), "?x");     // UTF-16 surrogate
    EXPECT_EQ(to_latin1("\xF4\x90\x80\x80"), "?");   // above U+10FFFF
    EXPECT_EQ(to_latin1("\xF8\x88\x80\x80\x80"), "?"); // old five-byte form
}

TEST(Charset, ConversionIsInPlaceAndNeverLonger)
{
    char buf[] = "R\xC3\xA9sum\xC3\xA9 \xE2\x80\x94 ok";
    ASSERT_EQ(ConvertStringFromUTF8ToISO8859_1_With_Fallback(buf, '-'), 1);
    EXPECT_STREQ(buf, "R\xE9sum\xE9 - ok");
}

TEST(Charset, BoundariesOfTheTwoByteRange)
{
    EXPECT_EQ(to_latin1("\xC2\x80"), "\x80");          // U+0080, the first two-byte one
    EXPECT_EQ(to_latin1("\xC2\x7F"), "?\x7F");         // the second byte is no continuation
    EXPECT_EQ(to_latin1("\xC3\xA9\xA9"), "\xE9?");     // one continuation too many
    EXPECT_EQ(to_latin1(""), "");
}

TEST(Charset, LeadBytesBeyondTheCodeSpace)
{
    EXPECT_EQ(to_latin1("\xF4\x8F\xBF\xBF" "a"), "?a");  // U+10FFFF, valid but not Latin-1
    EXPECT_EQ(to_latin1("\xF5\x80\x80\x80" "b"), "?b");
    EXPECT_EQ(to_latin1("\xF7\xBF\xBF\xBF" "c"), "?c");
    EXPECT_EQ(to_latin1("\xFC\x84\x80\x80\x80\x80" "d"), "?d"); // old six-byte form
}

TEST(Charset, FallbackMayItselfBeALatin1Byte)
{
    EXPECT_EQ(to_latin1("x\xE2\x82\xACy", '\xB7'), "x\xB7y");
}

TEST(Charset, TruncatedSequenceAtTheEndOfAnExactBufferIsNotReadBeyond)
{
    // Heap buffers of exactly the text's size: the decoder must stop at the terminator.
    const std::pair<const char *, const char *> cases[] = {
        {"\xF0\x9F\x98", "?"}, {"\xFC\x84\x80", "?"}, {"\xC3", "?"}, {"ab\xE2\x82", "ab?"}};
    for (const auto &[text, expected] : cases) {
        size_t n = strlen(text) + 1;
        char *buf = new char[n];
        memcpy(buf, text, n);
        ASSERT_EQ(ConvertStringFromUTF8ToISO8859_1_With_Fallback(buf, '?'), 1);
        EXPECT_STREQ(buf, expected);
        delete[] buf;
    }
}

} // namespace
