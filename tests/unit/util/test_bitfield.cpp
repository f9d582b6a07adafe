// Read marks: bit layout, growth, shifting after new items, the hexadecimal
// form kept in the configuration, and the title hash.
#include <gtest/gtest.h>

#include <string>

#include "platform/slab.h"
#include "util/bitfield.h"

namespace {

class Bitfield : public ::testing::Test {
protected:
    void SetUp() override
    {
        base_ = slab_live_count();
        bf_init(&f_);
    }
    void TearDown() override
    {
        bf_free(&f_);
        slab_fail_after(-1);
        EXPECT_EQ(slab_live_count(), base_);
    }
    std::string str(const bitfield &f)
    {
        char *s = nullptr;
        bf_to_string(&s, &f);
        EXPECT_NE(s, nullptr);
        std::string r = s ? s : "";
        slab_cbcontext_free(s, SLAB_TAG);
        return r;
    }
    size_t base_ = 0;
    bitfield f_;
};

TEST_F(Bitfield, InitIsEmpty)
{
    EXPECT_EQ(f_.bits, nullptr);
    EXPECT_EQ(f_.len, 0u);
    EXPECT_EQ(bf_is_empty(&f_), 1);
    EXPECT_EQ(bf_count(&f_), 0);
    EXPECT_EQ(str(f_), "");
}

TEST_F(Bitfield, SetAtNineOnEmptyGrowsToTwoBytes)
{
    bf_set(&f_, 9);
    EXPECT_EQ(f_.len, 2u);
    EXPECT_EQ(str(f_), "0002");
    EXPECT_NE(bf_isset(&f_, 9), 0u);
    EXPECT_EQ(bf_isset(&f_, 8), 0u);
}

TEST_F(Bitfield, IssetReturnsMaskedByte)
{
    bf_from_string(&f_, "08");
    EXPECT_EQ(bf_isset(&f_, 3), 8u);
    EXPECT_EQ(bf_isset(&f_, 2), 0u);
}

TEST_F(Bitfield, IssetBeyondEndIsClear)
{
    bf_set(&f_, 0);
    EXPECT_EQ(bf_isset(&f_, 8), 0u);
    EXPECT_EQ(bf_isset(&f_, 4000000000u), 0u);
    EXPECT_EQ(bf_isset(&f_, 0), 1u);
}

TEST_F(Bitfield, SetWithinRangeDoesNotGrow)
{
    bf_set(&f_, 15);
    bf_set(&f_, 1);
    EXPECT_EQ(f_.len, 2u);
    EXPECT_EQ(str(f_), "0280");
}

TEST_F(Bitfield, SetGrowsToExactlyTheNeededByte)
{
    bf_set(&f_, 0);
    bf_set(&f_, 40);
    EXPECT_EQ(f_.len, 6u);
    EXPECT_EQ(str(f_), "010000000001");
}

TEST_F(Bitfield, SetWithoutMemoryChangesNothing)
{
    bf_set(&f_, 0);
    slab_fail_after(0);
    bf_set(&f_, 20);
    EXPECT_EQ(f_.len, 1u);
    EXPECT_EQ(str(f_), "01");
}

TEST_F(Bitfield, ClearNeverGrows)
{
    bf_clear(&f_, 20);
    EXPECT_EQ(f_.bits, nullptr);
    bf_from_string(&f_, "ff");
    bf_clear(&f_, 2);
    bf_clear(&f_, 9);
    EXPECT_EQ(f_.len, 1u);
    EXPECT_EQ(str(f_), "fb");
}

TEST_F(Bitfield, IsEmptyScansBytes)
{
    bf_from_string(&f_, "000000");
    EXPECT_EQ(bf_is_empty(&f_), 1);
    bf_set(&f_, 23);
    EXPECT_EQ(bf_is_empty(&f_), 0);
}

TEST_F(Bitfield, CountIsPopulationCount)
{
    bf_from_string(&f_, "ff0155a0");
    EXPECT_EQ(bf_count(&f_), 8 + 1 + 4 + 2);
}

TEST_F(Bitfield, GrowKeepsMarksAndZeroFills)
{
    bf_from_string(&f_, "a5");
    EXPECT_EQ(bf_grow(&f_, 3), 1);
    EXPECT_EQ(str(f_), "a50000");
}

TEST_F(Bitfield, GrowWithoutMemoryLeavesBitfieldUnchanged)
{
    bf_from_string(&f_, "a5");
    uint8_t *old = f_.bits;
    slab_fail_after(0);
    EXPECT_EQ(bf_grow(&f_, 4), 0);
    EXPECT_EQ(f_.bits, old);
    EXPECT_EQ(str(f_), "a5");
}

TEST_F(Bitfield, FreeOnEmptyOrNullChangesNothing)
{
    bf_free(nullptr);
    bf_free(&f_);
    EXPECT_EQ(f_.bits, nullptr);
    EXPECT_EQ(f_.len, 0u);
}

TEST_F(Bitfield, FromStringMarksItems)
{
    bf_from_string(&f_, "0902");
    EXPECT_EQ(f_.len, 2u);
    for (uint32_t n = 0; n < 16; n++)
        EXPECT_EQ(bf_isset(&f_, n) != 0, n == 0 || n == 3 || n == 9) << n;
}

TEST_F(Bitfield, FromStringIgnoresOddLastDigit)
{
    bf_from_string(&f_, "090");
    EXPECT_EQ(f_.len, 1u);
    EXPECT_EQ(str(f_), "09");
}

TEST_F(Bitfield, FromStringNullOrEmptyGivesEmpty)
{
    bf_from_string(&f_, "ff");
    bf_from_string(&f_, nullptr);
    EXPECT_EQ(f_.bits, nullptr);
    EXPECT_EQ(f_.len, 0u);
    bf_from_string(&f_, "ff");
    bf_from_string(&f_, "");
    EXPECT_EQ(f_.bits, nullptr);
    bf_from_string(&f_, "0");
    EXPECT_EQ(f_.len, 0u);
}

TEST_F(Bitfield, FromStringAcceptsUppercaseAndStoresZeroForNonHexPair)
{
    bf_from_string(&f_, "FFzz0g10");
    EXPECT_EQ(str(f_), "ff000010");
}

TEST_F(Bitfield, FromStringWithoutMemoryStaysEmpty)
{
    slab_fail_after(0);
    bf_from_string(&f_, "0902");
    EXPECT_EQ(f_.bits, nullptr);
    EXPECT_EQ(f_.len, 0u);
}

TEST_F(Bitfield, ToStringWithoutMemoryLeavesPointerNull)
{
    bf_set(&f_, 3);
    char *s = nullptr;
    slab_fail_after(0);
    bf_to_string(&s, &f_);
    EXPECT_EQ(s, nullptr);
}

TEST_F(Bitfield, ToStringOfMarksZeroThreeNine)
{
    bf_set(&f_, 0);
    bf_set(&f_, 3);
    bf_set(&f_, 9);
    EXPECT_EQ(str(f_), "0902");
}

TEST_F(Bitfield, ShiftByOneWithCountFive)
{
    bf_from_string(&f_, "01");
    bf_shift(&f_, 1, 5);
    EXPECT_EQ(str(f_), "02");
    EXPECT_NE(bf_isset(&f_, 1), 0u);
}

TEST_F(Bitfield, ShiftCutsMarksBeyondCount)
{
    bf_from_string(&f_, "01");
    bf_shift(&f_, 3, 2);
    EXPECT_EQ(str(f_), "00");
}

TEST_F(Bitfield, ShiftByWholeByteKeepsLowByteAndDoesNotCut)
{
    bf_from_string(&f_, "ff");
    bf_shift(&f_, 8, 10);
    EXPECT_EQ(f_.len, 2u);
    EXPECT_EQ(str(f_), "ffff");
}

TEST_F(Bitfield, ShiftByZeroOnlyGrows)
{
    bf_from_string(&f_, "81");
    bf_shift(&f_, 0, 16);
    EXPECT_EQ(str(f_), "810000");
}

TEST_F(Bitfield, ShiftOnEmptyDoesNothing)
{
    bf_shift(&f_, 3, 100);
    EXPECT_EQ(f_.bits, nullptr);
    EXPECT_EQ(f_.len, 0u);
    bf_shift(nullptr, 3, 100);
}

TEST_F(Bitfield, ShiftCarriesAcrossBytes)
{
    bf_from_string(&f_, "8001");
    bf_shift(&f_, 3, 20);
    // bit 7 -> 10, bit 8 -> 11; array grown to 3 bytes, cut at 20 bits.
    EXPECT_EQ(str(f_), "000c00");
}

TEST_F(Bitfield, ShiftByMoreThanAByteMovesBytesThenBits)
{
    bf_from_string(&f_, "0100");
    bf_shift(&f_, 9, 15);
    // byte 0 moves to byte 1 (byte 0 keeps 01), then every bit moves by one.
    EXPECT_EQ(str(f_), "0202");
}

TEST_F(Bitfield, ShiftDoesNotShrinkLongerArray)
{
    bf_from_string(&f_, "010101");
    bf_shift(&f_, 1, 3);
    EXPECT_EQ(f_.len, 3u);
    EXPECT_EQ(str(f_), "020202");
}

TEST_F(Bitfield, ShiftWithCountMultipleOfEightClearsLastByte)
{
    bf_from_string(&f_, "ff");
    bf_shift(&f_, 1, 8);
    EXPECT_EQ(f_.len, 2u);
    EXPECT_EQ(str(f_), "fe00");
}

TEST_F(Bitfield, ShiftFartherThanTheArrayLeavesBytes)
{
    bf_from_string(&f_, "0102");
    bf_shift(&f_, 24, 8);
    EXPECT_EQ(str(f_), "0102");
}

TEST_F(Bitfield, ShiftWithoutMemoryChangesNothing)
{
    bf_from_string(&f_, "01");
    slab_fail_after(0);
    bf_shift(&f_, 1, 30);
    EXPECT_EQ(str(f_), "01");
}

TEST_F(Bitfield, CopyDuplicatesBytes)
{
    bf_from_string(&f_, "0902");
    bitfield d;
    bf_init(&d);
    bf_copy(&d, &f_);
    EXPECT_NE(d.bits, f_.bits);
    EXPECT_EQ(str(d), "0902");
    bf_free(&d);
    bf_copy(nullptr, &f_);
}

TEST_F(Bitfield, CopyDoesNotReleaseTheDestinationsArray)
{
    bf_from_string(&f_, "01");
    bitfield d;
    bf_init(&d);
    bf_from_string(&d, "ffff");
    uint8_t *held = d.bits;
    size_t live = slab_live_count();
    bf_copy(&d, &f_);
    EXPECT_EQ(slab_live_count(), live + 1);
    EXPECT_EQ(d.len, 1u);
    EXPECT_EQ(str(d), "01");
    EXPECT_EQ(held[0], 0xff); // still the other owner's, untouched
    slab_cbcontext_free(held, SLAB_TAG);
    bf_free(&d);
}

TEST_F(Bitfield, CopyWithoutDestinationAllocatesNothing)
{
    bf_from_string(&f_, "0902");
    size_t live = slab_live_count();
    bf_copy(nullptr, &f_);
    EXPECT_EQ(slab_live_count(), live);
}

TEST_F(Bitfield, ShiftBySeveralBytesLeavesLowBytes)
{
    bf_from_string(&f_, "0102");
    bf_shift(&f_, 16, 20);
    // Grown to 3 bytes; bytes 0 and 1 move up by two, only one fits.
    EXPECT_EQ(str(f_), "010201");
}

TEST(BitfieldDeath, FromStringNeedsBitfield)
{
    EXPECT_DEATH(bf_from_string(nullptr, "01"), "f != \\(\\(void \\*\\)0\\)");
}

TEST(BitfieldDeath, ToStringAssertsInOrder)
{
    bitfield f;
    bf_init(&f);
    char *s = nullptr;
    char x = 0;
    char *used = &x;
    EXPECT_DEATH(bf_to_string(nullptr, nullptr), "str != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(bf_to_string(&used, nullptr), "\\*str == \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(bf_to_string(&s, nullptr), "f != \\(\\(void \\*\\)0\\)");
}

TEST(FnvHash, KnownValues)
{
    EXPECT_EQ(fnv_hash(""), 0u);
    EXPECT_EQ(fnv_hash("a"), 97u);
    EXPECT_EQ(fnv_hash("ab"), 1627429073u);
    EXPECT_EQ(fnv_hash("ab"), 0x610098D1u);
}

TEST(FnvHash, BytesAreUnsigned)
{
    // 0xE9 must enter as 233, not as a negative char.
    EXPECT_EQ(fnv_hash("\xE9"), 233u);
    EXPECT_EQ(fnv_hash("a\xE9"), (97u * 16777619u) ^ 233u);
}

} // namespace
