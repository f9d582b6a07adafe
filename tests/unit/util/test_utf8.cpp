// kd_utf8: a kelpd text field that is valid UTF-8 is shown as UTF-8, any
// other is read as ISO 8859-1; the validity check is strict.
#include <gtest/gtest.h>
#include <string>
#include "util/kd_utf8.h"

namespace {

// The test texts, spelled as bytes so that the source's encoding is moot.
const std::string kCafe = "Caf\xc3\xa9 \xe2\x80\x94 \xe2\x80\x9c" "best coffee\xe2\x80\x9d \xe2\x80\xa6 3 \xe2\x82\xac";
const std::string kEmoji = "Rain \xf0\x9f\x8c\xa7 and sun \xe2\x98\x80";
const std::string kCjk = "\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e\xe3\x81\xae\xe3\x83\x8b\xe3\x83\xa5\xe3\x83\xbc\xe3\x82\xb9";

}  // namespace

TEST(WireText, Utf8BeyondLatin1StaysAsItIs)
{
    EXPECT_EQ(kd_wire_text(kCafe), kCafe);
    EXPECT_EQ(kd_wire_text(kEmoji), kEmoji);
    EXPECT_EQ(kd_wire_text(kCjk), kCjk);
}

TEST(WireText, AsciiAndEmptyStayAsTheyAre)
{
    EXPECT_EQ(kd_wire_text(""), "");
    EXPECT_EQ(kd_wire_text("Plain <b>text</b>\ttab"), "Plain <b>text</b>\ttab");
}

TEST(WireText, Latin1IsConvertedToUtf8)
{
    // A feed name as kelpd sends it: converted to ISO 8859-1.
    EXPECT_EQ(kd_wire_text("Caf\xe9 Radio"), "Caf\xc3\xa9 Radio");
    EXPECT_EQ(kd_wire_text("Gr\xfc\xdf" "e \xa3 \xff"), "Gr\xc3\xbc\xc3\x9f" "e \xc2\xa3 \xc3\xbf");
    // A name whose characters beyond Latin-1 became "." on the way.
    EXPECT_EQ(kd_wire_text("Caf\xe9 . \"best\" . 3 ."), "Caf\xc3\xa9 . \"best\" . 3 .");
}

TEST(WireText, OneBadSequenceMakesTheWholeFieldLatin1)
{
    // Valid UTF-8 followed by a lone Latin-1 byte: the field is Latin-1.
    EXPECT_EQ(kd_wire_text("\xc3\xa9 \xe9"), "\xc3\x83\xc2\xa9 \xc3\xa9");
}

TEST(WireText, InvalidSequencesAreNotUtf8)
{
    EXPECT_FALSE(kd_utf8_valid("\xc0\xaf"));          // overlong '/'
    EXPECT_FALSE(kd_utf8_valid("\xe0\x80\xaf"));      // overlong, three bytes
    EXPECT_FALSE(kd_utf8_valid("\xed\xa0\x80"));      // a surrogate
    EXPECT_FALSE(kd_utf8_valid("\xf4\x90\x80\x80"));  // beyond U+10FFFF
    EXPECT_FALSE(kd_utf8_valid("\xe2\x82"));          // cut short
    EXPECT_FALSE(kd_utf8_valid("\x80"));              // a lone continuation byte
    EXPECT_FALSE(kd_utf8_valid("\xfe\xff"));
    EXPECT_TRUE(kd_utf8_valid("\xf4\x8f\xbf\xbf"));   // U+10FFFF itself
    EXPECT_EQ(kd_wire_text("\xed\xa0\x80"), "\xc3\xad\xc2\xa0\xc2\x80");
}

TEST(WireText, CharReportsLengthAndCodePoint)
{
    uint32_t cp = 0;
    auto bytes = [](const char *s) { return reinterpret_cast<const unsigned char *>(s); };
    EXPECT_EQ(kd_utf8_char(bytes("A"), 1, &cp), 1u);
    EXPECT_EQ(cp, 0x41u);
    EXPECT_EQ(kd_utf8_char(bytes("\xe2\x82\xac"), 3, &cp), 3u);
    EXPECT_EQ(cp, 0x20acu);
    EXPECT_EQ(kd_utf8_char(bytes("\xf0\x9f\x8c\xa7"), 4, &cp), 4u);
    EXPECT_EQ(cp, 0x1f327u);
    EXPECT_EQ(kd_utf8_char(bytes("\xe2\x82\xac"), 2, &cp), 0u);
    EXPECT_EQ(kd_utf8_char(bytes(""), 0, &cp), 0u);
}
