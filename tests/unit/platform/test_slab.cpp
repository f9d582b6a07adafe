// slab accounting: live counts and bytes per tag, realloc, strndup limits,
// injected failures and calloc overflow.
#include "platform/slab.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <syslog.h>
#include <unistd.h>
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
    // As malloc's blocks: 16 bytes on x86_64, 8 on 32-bit ARM.
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignof(std::max_align_t), 0u);
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

TEST_F(Slab, ReallocMovesTheAccountToTheReallocatingTag)
{
    void *p = slab_dmalloc(4, "grower_a.cpp", 10);
    EXPECT_EQ(slab_live_count_for("grower_a.cpp"), 1u);
    p = slab_drealloc(p, 40, "grower_b.cpp", 20);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(slab_live_count_for("grower_a.cpp"), 0u);
    EXPECT_EQ(slab_live_count_for("grower_b.cpp"), 1u);
    EXPECT_EQ(slab_live_bytes(), bytes_ + 40);
    slab_cbcontext_free(p, "grower_b.cpp", 30);
    EXPECT_EQ(slab_live_count_for("grower_b.cpp"), 0u);
}

TEST_F(Slab, EveryBlockIsAlignedForAnyType)
{
    constexpr size_t kAlign = alignof(std::max_align_t);
    void *a = kd_malloc(1);
    void *b = kd_realloc(kd_malloc(3), 333);
    char *c = kd_strndup("odd", 3);
    for (void *p : {a, b, static_cast<void *>(c)}) {
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % kAlign, 0u);
        kd_free(p);
    }
}

TEST_F(Slab, ReallocBeyondAnySizeFailsAndKeepsTheBlock)
{
    auto *p = static_cast<char *>(kd_malloc(6));
    memcpy(p, "still", 6);
    EXPECT_EQ(kd_realloc(p, SIZE_MAX), nullptr);
    EXPECT_EQ(kd_realloc(p, SIZE_MAX - 8), nullptr);
    EXPECT_STREQ(p, "still");
    EXPECT_EQ(slab_live_count(), count_ + 1);
    EXPECT_EQ(slab_live_bytes(), bytes_ + 6);
    kd_free(p);
}

TEST_F(Slab, StrndupStopsAtTheTerminatorOfAShortHeapString)
{
    // The limit is far beyond the buffer: only up to the terminator may be read.
    char *src = new char[3]{'a', 'b', '\0'};
    char *d = kd_strndup(src, 4096);
    EXPECT_STREQ(d, "ab");
    EXPECT_EQ(slab_live_bytes(), bytes_ + 3);
    kd_free(d);
    delete[] src;
}

TEST_F(Slab, StrndupReadsNoMoreThanTheLimit)
{
    char *src = new char[5]{'a', 'b', 'c', 'd', 'e'}; // no terminator at all
    char *d = kd_strndup(src, 5);
    EXPECT_STREQ(d, "abcde");
    kd_free(d);
    delete[] src;
}

// The dump as syslog writes it, caught through the copy syslog makes on
// standard error; only for death-test children, which may rewire stderr.
std::string captured_dump()
{
    int p[2];
    if (pipe(p) != 0 || dup2(p[1], 2) < 0)
        exit(3);
    close(p[1]);
    openlog("slabdump", LOG_PERROR, LOG_USER);
    slab_dump_for_debug("kelpd");
    closelog();
    close(2);
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof(buf))) > 0)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

TEST_F(Slab, DumpWritesCountAndBytesOfEveryLiveTagToSyslog)
{
    EXPECT_EXIT(
        {
            void *kept = slab_dmalloc(3, "dumped.cpp", 77);
            void *gone = slab_dmalloc(5, "freed.cpp", 88);
            slab_cbcontext_free(gone, "freed.cpp", 89);
            std::string text = captured_dump();
            (void)kept;
            bool head = text.find("slab statistics of kelpd: ") != std::string::npos;
            bool line = text.find("dumped.cpp:77 count=1 bytes=3\n") != std::string::npos;
            bool idle = text.find("freed.cpp") == std::string::npos; // nothing live: not listed
            exit(head && line && idle ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
