// Chunk sizes and statuses at the ends of 31-, 32- and 64-bit numbers,
// pinned to constants written out here, so that a target where long or
// size_t is 32 bits wide reads them exactly as a 64-bit one does (make
// cross runs these on 32- and 64-bit targets).
#include <gtest/gtest.h>

#include <string>

#include "http/httpcli.h"
#include "platform/slab.h"

namespace {

struct WordSize : ::testing::Test {
    httpcli_ctx ctx = http_default_context;
    httpcli_buffer b = {};
    http_result res = {};
    void TearDown() override
    {
        kd_free(b.start);
        kd_free(res.location);
        kd_free(res.content_type);
        kd_free(res.content_encoding);
    }
    uint32_t chunk_size(const std::string &line)
    {
        b.len = 0;
        buffadd(&ctx, &b, line.data(), static_cast<uint32_t>(line.size()));
        char *cur = b.start;
        return read_chunk_size(&ctx, &b, &cur);
    }
};

TEST_F(WordSize, ChunkSizesAroundThe32BitEnds)
{
    EXPECT_EQ(chunk_size("7fffffff\r\n"), 0x7fffffffu);
    EXPECT_EQ(chunk_size("80000000\r\n"), 0x80000000u);
    EXPECT_EQ(chunk_size("FFFFFFFF\r\n"), 0xffffffffu);
    // Past 32 bits the size saturates instead of wrapping to a small one.
    EXPECT_EQ(chunk_size("100000005\r\n"), 0xffffffffu);
    EXPECT_EQ(chunk_size("10000000000000005\r\n"), 0xffffffffu);
    EXPECT_EQ(chunk_size("00000000000000000000000000000a\r\n"), 10u);
}

TEST_F(WordSize, ChunkOfSize2To32Plus3IsNotThreeBytes)
{
    std::string r = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n100000003\r\nabcdef\r\n0\r\n\r\n";
    b.len = 0;
    buffadd(&ctx, &b, r.data(), static_cast<uint32_t>(r.size()));
    EXPECT_EQ(strip_response(&ctx, &b, &res), 200);
    // The chunk runs to the data end: a wrapped size would have cut it after "abc".
    EXPECT_EQ(std::string(b.start, b.len), "abcdef\r\n0\r\n\r\n");
}

TEST_F(WordSize, StatusOfNineDigitsStaysPositive)
{
    std::string r = "HTTP/1.1 2147483648 Big\r\n\r\nx";
    b.len = 0;
    buffadd(&ctx, &b, r.data(), static_cast<uint32_t>(r.size()));
    EXPECT_EQ(strip_response(&ctx, &b, &res), 214748364);
}

} // namespace
