// slab accounting: live counts and bytes per tag, realloc, strndup limits,
// injected failures and calloc overflow.
#include "platform/slab.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>

namespace {

class Slab : public ::testing::Test {
protected:
    void SetUp() override
    {
        count_ = slab_live_count();
        bytes_ = slab_live_bytes();
    }
    void TearDown() override
    {
        slab_fail_after(-1);
        EXPECT_EQ(slab_live_count(), count_);
        EXPECT_EQ(slab_live_bytes(), bytes_);
    }
    size_t count_ = 0, bytes_ = 0;
};

TEST_F(Slab, CountsLiveBlocksAndBytes)
{
    void *a = kd_malloc(10);
    void *b = kd_calloc(4, 8);
    EXPECT_EQ(slab_live_count(), count_ + 2);
    EXPECT_EQ(slab_live_bytes(), bytes_ + 42);
    EXPECT_EQ(slab_live_count_for("test_slab.cpp"), 2u);
    kd_free(a);
    EXPECT_EQ(slab_live_count(), count_ + 1);
    EXPECT_EQ(slab_live_bytes(), bytes_ + 32);
    kd_free(b);
    EXPECT_EQ(slab_live_count_for("test_slab.cpp"), 0u);
}

TEST_F(Slab, CallocZeroFillsAndAligns)
{
    auto *p = static_cast<unsigned char *>(kd_calloc(3, 33));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
    for (int i = 0; i < 99; i++)
        EXPECT_EQ(p[i], 0);
    kd_free(p);
}

TEST_F(Slab, FreeOfNullIsNothing)
{
    kd_free(nullptr);
}

TEST_F(Slab, ReallocKeepsContentAndMovesTheAccount)
{
    auto *p = static_cast<char *>(kd_malloc(4));
    memcpy(p, "abc", 4);
    p = static_cast<char *>(kd_realloc(p, 1000));
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p, "abc");
    EXPECT_EQ(slab_live_count(), count_ + 1);
    EXPECT_EQ(slab_live_bytes(), bytes_ + 1000);
    p = static_cast<char *>(kd_realloc(p, 2));
    EXPECT_EQ(slab_live_bytes(), bytes_ + 2);
    kd_free(p);
}

TEST_F(Slab, ReallocOfNullAllocates)
{
    void *p = kd_realloc(nullptr, 16);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(slab_live_count(), count_ + 1);
    kd_free(p);
}

TEST_F(Slab, FailedReallocLeavesTheOldBlock)
{
    auto *p = static_cast<char *>(kd_malloc(8));
    memcpy(p, "keep", 5);
    slab_fail_after(0);
    EXPECT_EQ(kd_realloc(p, 64), nullptr);
    EXPECT_STREQ(p, "keep");
    EXPECT_EQ(slab_live_bytes(), bytes_ + 8);
    kd_free(p);
}

TEST_F(Slab, StrdupAndStrndupLimits)
{
    char *a = kd_strdup("feed");
    EXPECT_STREQ(a, "feed");
    EXPECT_EQ(slab_live_bytes(), bytes_ + 5);
    char *b = kd_strndup("abcdef", 3);
    EXPECT_STREQ(b, "abc");
    char *c = kd_strndup("ab", 10); // shorter than the limit: no over-read
    EXPECT_STREQ(c, "ab");
    EXPECT_EQ(slab_live_bytes(), bytes_ + 5 + 4 + 3);
    char unterminated[4] = {'w', 'x', 'y', 'z'};
    char *d = kd_strndup(unterminated, 4);
    EXPECT_STREQ(d, "wxyz");
    char *e = kd_strndup("abc", 0);
    EXPECT_STREQ(e, "");
    EXPECT_EQ(kd_strdup(nullptr), nullptr);
    EXPECT_EQ(kd_strndup(nullptr, 3), nullptr);
    for (char *s : {a, b, c, d, e})
        kd_free(s);
}

TEST_F(Slab, FailAfterCountsSuccessfulAllocations)
{
    slab_fail_after(2);
    void *a = kd_malloc(1);
    void *b = kd_strdup("x");
    void *c = kd_calloc(1, 1);
    void *d = kd_malloc(1); // injection is one-shot
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(c, nullptr);
    EXPECT_NE(d, nullptr);
    EXPECT_EQ(slab_live_count(), count_ + 3);
    for (void *p : {a, b, d})
        kd_free(p);
}

TEST_F(Slab, NegativeFailAfterSwitchesInjectionOff)
{
    slab_fail_after(0);
    slab_fail_after(-1);
    void *p = kd_malloc(1);
    EXPECT_NE(p, nullptr);
    kd_free(p);
}

TEST_F(Slab, CallocOverflowFailsWithoutAllocating)
{
    EXPECT_EQ(kd_calloc(SIZE_MAX / 2, 3), nullptr);
    EXPECT_EQ(kd_malloc(SIZE_MAX - 4), nullptr);
    EXPECT_EQ(slab_live_count(), count_);
}

TEST_F(Slab, ZeroSizedBlocksAreAccounted)
{
    void *p = kd_malloc(0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(slab_live_count(), count_ + 1);
    kd_free(p);
}

TEST_F(Slab, DumpDoesNotDisturbAccounting)
{
    void *p = kd_malloc(3);
    slab_dump_for_debug("test");
    EXPECT_EQ(slab_live_count(), count_ + 1);
    kd_free(p);
}

TEST_F(Slab, DoubleFreeAborts)
{
    EXPECT_DEATH(
        {
            void *p = kd_malloc(4);
            kd_free(p);
            kd_free(p);
        },
        "");
}

} // namespace
