// The growable buffer: its growth steps, the append helpers and what is left
// after a growth that fails.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "http/httpcli.h"
#include "platform/slab.h"

namespace {

std::string text(const httpcli_buffer &b) { return std::string(b.start, b.len); }

struct BufferTest : ::testing::Test {
    httpcli_ctx ctx = http_default_context;
    httpcli_buffer b = {};
    size_t live = slab_live_count();
    void TearDown() override
    {
        slab_fail_after(-1);
        kd_free(b.start);
        EXPECT_EQ(slab_live_count(), live);
    }
};

TEST_F(BufferTest, DefaultContextAndGlobals)
{
    EXPECT_EQ(http_default_context.proxy, nullptr);
    EXPECT_EQ(http_default_context.proxy_port, 8080);
    EXPECT_EQ(http_default_context.debug, 2);
    EXPECT_FLOAT_EQ(http_default_context.timeout, 2.0f);
    EXPECT_STREQ(http_extra_headers, "User-Agent: Lumora FeedReader\r\n");
    EXPECT_STREQ(http_line_end, "\r\n");
}

TEST_F(BufferTest, FirstSmallAppendAllocates256)
{
    EXPECT_EQ(buffadd(&ctx, &b, "0123456789", 10), 10u);
    EXPECT_EQ(b.size, 256u);
    EXPECT_EQ(slab_live_bytes() >= 256u, true);
    EXPECT_EQ(text(b), "0123456789");
}

TEST_F(BufferTest, LargeFirstAppendAllocatesNominalPlusCount)
{
    std::string big(3000, 'x');
    EXPECT_EQ(buffadd(&ctx, &b, big.data(), 3000), 3000u);
    EXPECT_EQ(b.size, 128u + 3000u);
    EXPECT_EQ(text(b), big);
}

TEST_F(BufferTest, SmallAppendsDoubleThenGrowByStep)
{
    std::vector<uint32_t> sizes;
    for (int i = 0; i < 7000; i++) {
        buffadd(&ctx, &b, "y", 1);
        if (sizes.empty() || sizes.back() != b.size)
            sizes.push_back(b.size);
    }
    EXPECT_EQ(sizes, (std::vector<uint32_t>{256, 512, 1024, 2048, 4096, 6144, 8192}));
    EXPECT_EQ(b.len, 7000u);
}

TEST_F(BufferTest, LenStaysBelowSize)
{
    // Exactly filling the free space is not allowed: one byte must remain.
    buffadd(&ctx, &b, "a", 1);
    std::string fill(254, 'b');
    buffadd(&ctx, &b, fill.data(), 254);
    EXPECT_EQ(b.len, 255u);
    EXPECT_EQ(b.size, 256u);
    buffadd(&ctx, &b, "c", 1);
    EXPECT_EQ(b.len, 256u);
    EXPECT_EQ(b.size, 512u);
}

TEST_F(BufferTest, AppendOfAtLeastOneStepGrowsByTheCount)
{
    buffadd(&ctx, &b, "a", 1);
    std::string big(2048, 'z');
    buffadd(&ctx, &b, big.data(), 2048);
    EXPECT_EQ(b.size, 256u + 2048u);
    EXPECT_EQ(b.len, 2049u);
}

TEST_F(BufferTest, AppendHelpers)
{
    buffadd_str(&ctx, &b, "");
    EXPECT_EQ(b.len, 0u);
    buffadd_word(&ctx, &b, "GET");
    buffadd_word(&ctx, &b, "");
    buffadd_line(&ctx, &b, "x");
    buffadd_line(&ctx, &b, "");
    buffadd_str(&ctx, &b, "s");
    EXPECT_EQ(text(b), "GET  x\r\n\r\ns");
}

TEST_F(BufferTest, IntegersInDecimal)
{
    buffadd_int(&ctx, &b, 0);
    buffadd_word(&ctx, &b, "");
    buffadd_int(&ctx, &b, -5);
    buffadd_word(&ctx, &b, "");
    buffadd_int(&ctx, &b, 8080);
    buffadd_word(&ctx, &b, "");
    buffadd_int(&ctx, &b, INT32_MIN);
    buffadd_word(&ctx, &b, "");
    buffadd_int_line(&ctx, &b, INT32_MAX);
    EXPECT_EQ(text(b), "0 -5 8080 -2147483648 2147483647\r\n");
}

TEST_F(BufferTest, LineEndIsTakenFromTheGlobal)
{
    const char *saved = http_line_end;
    http_line_end = "\n";
    buffadd_line(&ctx, &b, "a");
    buffadd_int_line(&ctx, &b, 7);
    http_line_end = saved;
    EXPECT_EQ(text(b), "a\n7\n");
}

TEST_F(BufferTest, FailedGrowthReleasesTheData)
{
    buffadd(&ctx, &b, "abc", 3);
    std::string more(300, 'm');
    slab_fail_after(0);
    EXPECT_EQ(buffadd(&ctx, &b, more.data(), 300), 3u);
    EXPECT_EQ(b.start, nullptr);
    EXPECT_EQ(b.len, 3u);
    EXPECT_EQ(b.size, 512u);
    // Further appends do not resurrect a buffer whose beginning is lost.
    EXPECT_EQ(buffadd(&ctx, &b, "d", 1), 3u);
    EXPECT_EQ(b.start, nullptr);
}

TEST_F(BufferTest, FailedFirstAllocation)
{
    slab_fail_after(0);
    buffadd_str(&ctx, &b, "hello");
    EXPECT_EQ(b.start, nullptr);
    EXPECT_EQ(b.len, 0u);
    EXPECT_EQ(b.size, 256u);
}

TEST_F(BufferTest, EmptyAppendToEmptyBufferStillAllocates)
{
    // Zero free bytes is not "strictly more than zero": the buffer grows.
    EXPECT_EQ(buffadd(&ctx, &b, "", 0), 0u);
    EXPECT_EQ(b.size, 256u);
    EXPECT_NE(b.start, nullptr);
    EXPECT_EQ(buffadd(&ctx, &b, "", 0), 0u);
    EXPECT_EQ(b.size, 256u);
}

TEST_F(BufferTest, FailedLargeFirstAllocationKeepsTheAttemptedSize)
{
    std::string big(3000, 'x');
    slab_fail_after(0);
    EXPECT_EQ(buffadd(&ctx, &b, big.data(), 3000), 0u);
    EXPECT_EQ(b.start, nullptr);
    EXPECT_EQ(b.size, 128u + 3000u);
    EXPECT_EQ(b.len, 0u);
}

TEST_F(BufferTest, FailedGrowthInTheLinearRangeKeepsTheAttemptedSize)
{
    std::string fill(4000, 'f');
    buffadd(&ctx, &b, fill.data(), 4000);
    EXPECT_EQ(b.size, 128u + 4000u);
    std::string more(200, 'm');
    slab_fail_after(0);
    EXPECT_EQ(buffadd(&ctx, &b, more.data(), 200), 4000u);
    EXPECT_EQ(b.size, 128u + 4000u + 2048u);
    EXPECT_EQ(b.len, 4000u);
    EXPECT_EQ(b.start, nullptr);
    slab_fail_after(-1);
    EXPECT_EQ(buffadd_str(&ctx, &b, "late"), 4000u);
    EXPECT_EQ(b.start, nullptr);
}

TEST(BufferDeath, EmptyTextWithNullContextAsserts)
{
    httpcli_buffer b = {};
    EXPECT_DEATH(buffadd_str(nullptr, &b, ""), "ctx!=\\(\\(void \\*\\)0\\)");
}

TEST(BufferDeath, NullContextAsserts)
{
    httpcli_buffer b = {};
    EXPECT_DEATH(buffadd(nullptr, &b, "x", 1), "ctx!=\\(\\(void \\*\\)0\\)");
}

} // namespace
