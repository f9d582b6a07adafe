// Read marks as bytes: the hex text of a bitfield, its bytes after a shift
// and fnv_hash values, each pinned to a constant worked out by hand, so that
// a target whose byte order or word size changed any of them fails here
// (make cross runs these on 32- and 64-bit, little- and big-endian targets).
#include <gtest/gtest.h>

#include <string>

#include "platform/slab.h"
#include "util/bitfield.h"

namespace {

std::string hex(const bitfield &f)
{
    char *s = nullptr;
    bf_to_string(&s, &f);
    std::string out = s ? s : "(null)";
    slab_cbcontext_free(s, SLAB_TAG);
    return out;
}

struct BitfieldBytes : ::testing::Test {
    bitfield f;
    void SetUp() override { bf_init(&f); }
    void TearDown() override { bf_free(&f); }
};

// Marks on both sides of every 8-, 16-, 32- and 64-bit boundary land in the
// bytes a byte-wise layout gives, whatever the machine's word.
TEST_F(BitfieldBytes, MarksAcrossWordBoundariesGiveTheseBytes)
{
    for (uint32_t n : {0u, 7u, 8u, 15u, 31u, 32u, 63u, 64u})
        bf_set(&f, n);
    ASSERT_EQ(f.len, 9u);
    const uint8_t want[] = {0x81, 0x81, 0x00, 0x80, 0x01, 0x00, 0x00, 0x80, 0x01};
    for (uint32_t i = 0; i < f.len; i++)
        EXPECT_EQ(f.bits[i], want[i]) << "byte " << i;
    EXPECT_EQ(hex(f), "818100800100008001");
    EXPECT_EQ(bf_count(&f), 8);
}

TEST_F(BitfieldBytes, HexTextReadsByteZeroFirst)
{
    bf_from_string(&f, "0123456789abcdef");
    ASSERT_EQ(f.len, 8u);
    EXPECT_EQ(f.bits[0], 0x01);
    EXPECT_EQ(f.bits[3], 0x67);
    EXPECT_EQ(f.bits[7], 0xef);
    EXPECT_EQ(bf_isset(&f, 0), 1u);
    EXPECT_EQ(bf_isset(&f, 9), 2u);   // byte 1 is 0x23
    EXPECT_EQ(bf_isset(&f, 31), 0u);  // byte 3 is 0x67
    EXPECT_EQ(bf_isset(&f, 30), 64u);
    EXPECT_EQ(bf_isset(&f, 63), 128u); // byte 7 is 0xef
    EXPECT_EQ(bf_count(&f), 32);
    EXPECT_EQ(hex(f), "0123456789abcdef");
}

TEST_F(BitfieldBytes, ShiftCarriesOverThe32BitBoundary)
{
    bf_from_string(&f, "ffffffff");
    bf_shift(&f, 3, 40);
    EXPECT_EQ(f.len, 6u);
    EXPECT_EQ(hex(f), "f8ffffff0700");
}

TEST_F(BitfieldBytes, ShiftByBytesAndBitsOverALongArray)
{
    bf_from_string(&f, "0123456789abcdef");
    bf_shift(&f, 13, 70);
    EXPECT_EQ(f.len, 9u);
    EXPECT_EQ(hex(f), "202060a4e82c71b539");
}

TEST_F(BitfieldBytes, ShiftMovesTopBitsIntoTheNextByte)
{
    bf_from_string(&f, "80000000800000");
    bf_shift(&f, 1, 60);
    EXPECT_EQ(hex(f), "0001000000010000");
}

// Bytes above 0x7f are taken unsigned (char is signed on x86 and unsigned on
// ARM), and every product wraps at 32 bits also where long has 64.
TEST(FnvHashBytes, PinnedValues)
{
    EXPECT_EQ(fnv_hash("Hello, World"), 1356814416u);
    EXPECT_EQ(fnv_hash("News & more"), 0x609ce8aau);
    EXPECT_EQ(fnv_hash("Caf\xe9 cr\xe8me br\xfbl\xe9" "e"), 4006372715u);
    EXPECT_EQ(fnv_hash("The quick brown fox jumps over the lazy dog"), 0x89074759u);
    EXPECT_EQ(fnv_hash("Item 0"), 2923671373u);
    EXPECT_EQ(fnv_hash(std::string(4096, 'x').c_str()), 0xd1428000u);
}

} // namespace
