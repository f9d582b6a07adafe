// Header lines, status parsing, header capture and the in-place body
// compaction with chunked decoding.
#include <gtest/gtest.h>

#include <string>

#include "http/httpcli.h"
#include "platform/slab.h"

namespace {

struct ResponseTest : ::testing::Test {
    httpcli_ctx ctx = http_default_context;
    httpcli_buffer b = {};
    http_result res = {};
    size_t live = slab_live_count();
    void TearDown() override
    {
        slab_fail_after(-1);
        kd_free(b.start);
        kd_free(res.location);
        kd_free(res.content_type);
        kd_free(res.content_encoding);
        EXPECT_EQ(slab_live_count(), live);
    }
    void load(const std::string &s)
    {
        b.len = 0;
        buffadd(&ctx, &b, s.data(), static_cast<uint32_t>(s.size()));
    }
    int strip(const std::string &s)
    {
        load(s);
        return strip_response(&ctx, &b, &res);
    }
    std::string body() const { return std::string(b.start, b.len); }
    std::string line(char **cur, int cont)
    {
        char *l = getheaderline(&ctx, &b, cur, cont);
        std::string s = l ? l : "(null)";
        kd_free(l);
        return s;
    }
};

TEST_F(ResponseTest, LinesSplitOnCrLfOnly)
{
    load("a\nb\rc\r\nd");
    char *cur = b.start;
    EXPECT_EQ(line(&cur, 1), "a\nb\rc");
    EXPECT_EQ(cur, b.start + 7);
    EXPECT_EQ(line(&cur, 1), "d");
    EXPECT_EQ(cur, b.start + b.len);
}

TEST_F(ResponseTest, FoldedLineContinuesOnlyWithContinuation)
{
    load("X: a\r\n\tb\r\n c\r\nY: d\r\n");
    char *cur = b.start;
    EXPECT_EQ(line(&cur, 1), "X: a\r\n\tb\r\n c");
    EXPECT_EQ(line(&cur, 1), "Y: d");
    cur = b.start;
    EXPECT_EQ(line(&cur, 0), "X: a");
    EXPECT_EQ(line(&cur, 0), "\tb");
}

TEST_F(ResponseTest, LineStopsAtNulAndCursorSkipsTwo)
{
    load(std::string("ab\0cd\r\n", 7));
    char *cur = b.start;
    EXPECT_EQ(line(&cur, 1), "ab");
    EXPECT_EQ(cur, b.start + 4);
}

TEST_F(ResponseTest, CursorNeverPassesTheDataEnd)
{
    load("ab\r");
    char *cur = b.start;
    EXPECT_EQ(line(&cur, 1), "ab\r");
    EXPECT_EQ(cur, b.start + 3);
    load("ab\r\n");
    cur = b.start;
    EXPECT_EQ(line(&cur, 1), "ab");
    EXPECT_EQ(cur, b.start + 4);
}

TEST_F(ResponseTest, FoldAtTheDataEndStaysInsideTheData)
{
    load("X: a\r\n ");
    char *cur = b.start;
    EXPECT_EQ(line(&cur, 1), "X: a\r\n ");
    EXPECT_EQ(cur, b.start + b.len);
    load("X: a\r\n");
    cur = b.start;
    EXPECT_EQ(line(&cur, 1), "X: a");
    EXPECT_EQ(cur, b.start + b.len);
    load("X: a\r\n\r\n");
    cur = b.start;
    EXPECT_EQ(line(&cur, 1), "X: a");
    EXPECT_EQ(cur, b.start + 6);
    EXPECT_EQ(line(&cur, 1), "");
    EXPECT_EQ(cur, b.start + b.len);
}

TEST_F(ResponseTest, NulAsLastByteLeavesCursorAtTheEnd)
{
    load(std::string("ab\0", 3));
    char *cur = b.start;
    EXPECT_EQ(line(&cur, 1), "ab");
    EXPECT_EQ(cur, b.start + b.len);
}

TEST_F(ResponseTest, CursorOutsideTheDataAsserts)
{
    load("abc");
    char *cur = b.start + b.len;
    EXPECT_DEATH(getheaderline(&ctx, &b, &cur, 1),
                 "\\*p >= b->start && \\*p < b->start\\+b->len");
}

TEST_F(ResponseTest, PlainBody)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\n\r\nhello world"), 200);
    EXPECT_EQ(body(), "hello world");
    EXPECT_EQ(b.start[b.len], '\0');
}

TEST_F(ResponseTest, BodyLargerThanHeaderMovesInNonOverlappingSteps)
{
    std::string payload;
    for (int i = 0; i < 5000; i++)
        payload += static_cast<char>('a' + i % 26);
    EXPECT_EQ(strip("HTTP/1.0 200 OK\r\n\r\n" + payload), 200);
    EXPECT_EQ(body(), payload);
}

TEST_F(ResponseTest, BinaryBodyWithNulKept)
{
    std::string payload("a\0b\r\n\0", 6);
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\n\r\n" + payload), 200);
    EXPECT_EQ(body(), payload);
}

TEST_F(ResponseTest, NotHttpIsNoConnection)
{
    EXPECT_EQ(strip("http/1.1 200 OK\r\n\r\nx"), 1);
    EXPECT_EQ(strip("ICY 200 OK\r\n\r\nx"), 1);
}

TEST_F(ResponseTest, StatusLineWithoutBlank)
{
    EXPECT_EQ(strip("HTTP/1.1\r\nLocation: /x\r\n\r\nbody"), 1);
    EXPECT_EQ(res.location, nullptr);
}

TEST_F(ResponseTest, StatusWithoutDigitsIsZero)
{
    EXPECT_EQ(strip("HTTP/1.1 abc\r\n\r\nbody"), 0);
    EXPECT_EQ(body(), "body");
}

TEST_F(ResponseTest, DigitsMustFollowTheFirstBlank)
{
    EXPECT_EQ(strip("HTTP/1.1  200 OK\r\n\r\nx"), 0);
    EXPECT_EQ(strip("HTTP/1.1\t200 OK\r\n\r\nx"), 0);
    EXPECT_EQ(strip("HTTP/1.1\t200\r\n\r\nx"), 1);
    EXPECT_EQ(strip("HTTP/ 404\r\n\r\nx"), 404);
    EXPECT_EQ(strip("HTTP/1.1 2xx\r\n\r\nx"), 2);
    EXPECT_EQ(body(), "x");
}

TEST_F(ResponseTest, StatusLineAloneGivesEmptyBody)
{
    EXPECT_EQ(strip("HTTP/1.1 200"), 200);
    EXPECT_EQ(b.len, 0u);
    EXPECT_EQ(b.start[0], '\0');
}

TEST_F(ResponseTest, HugeStatusDoesNotOverflow)
{
    EXPECT_GT(strip("HTTP/1.1 99999999999999999999 X\r\n\r\n"), 0);
}

TEST_F(ResponseTest, BareLfResponseIsOneLongStatusLine)
{
    EXPECT_EQ(strip("HTTP/1.1 302 Found\nLocation: /x\nContent-Type: a\n\nbody"), 302);
    EXPECT_EQ(res.location, nullptr);
    EXPECT_EQ(res.content_type, nullptr);
    EXPECT_EQ(body(), "");
}

TEST_F(ResponseTest, HeadersCaseInsensitiveLastWins)
{
    EXPECT_EQ(strip("HTTP/1.1 301 Moved\r\nlocation:   /a\r\nLOCATION:\t/b\r\n"
                    "content-type: text/xml; charset=utf-8\r\nContent-Encoding: gzip\r\n"
                    "X-Other: y\r\n\r\nB"), 301);
    EXPECT_STREQ(res.location, "/b");
    EXPECT_STREQ(res.content_type, "text/xml; charset=utf-8");
    EXPECT_STREQ(res.content_encoding, "gzip");
    EXPECT_EQ(body(), "B");
}

TEST_F(ResponseTest, ValueStartsAfterAnyWhiteSpace)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nContent-Type:\f\v\t text/xml \r\nLocation:/x\r\n\r\n"), 200);
    EXPECT_STREQ(res.content_type, "text/xml ");
    EXPECT_STREQ(res.location, "/x");
}

TEST_F(ResponseTest, FoldedHeaderValueKeepsFolding)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nContent-Type: text/xml;\r\n charset=utf-8\r\n\r\nB"), 200);
    EXPECT_STREQ(res.content_type, "text/xml;\r\n charset=utf-8");
    EXPECT_EQ(body(), "B");
}

TEST_F(ResponseTest, OldResultFieldsAreReplaced)
{
    res.location = kd_strdup("old");
    res.content_encoding = kd_strdup("old");
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nContent-Type: a\r\n\r\n"), 200);
    EXPECT_EQ(res.location, nullptr);
    EXPECT_EQ(res.content_encoding, nullptr);
    EXPECT_STREQ(res.content_type, "a");
}

TEST_F(ResponseTest, HeadersWithoutEndGiveEmptyBody)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nContent-Type: a\r\nX: never ending"), 200);
    EXPECT_STREQ(res.content_type, "a");
    EXPECT_EQ(b.len, 0u);
    EXPECT_EQ(b.start[0], '\0');
}

TEST_F(ResponseTest, ChunkedHello)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"), 200);
    EXPECT_EQ(body(), "hello");
    EXPECT_EQ(b.len, 5u);
    EXPECT_EQ(b.start[5], '\0');
}

TEST_F(ResponseTest, FoldedTransferEncodingValue)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding:\r\n chunked\r\n\r\n2\r\nok\r\n0\r\n"), 200);
    EXPECT_EQ(body(), "ok");
}

TEST_F(ResponseTest, EmptyLineBeforeFirstChunkSkippedOnce)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n\r\n5\r\nhello\r\n0\r\n"), 200);
    EXPECT_EQ(body(), "hello");
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n\r\n\r\n5\r\nhello"), 200);
    EXPECT_EQ(b.len, 0u);
}

TEST_F(ResponseTest, ChunkExtensionIgnored)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\ntransfer-encoding: Chunked\r\n\r\n5;ext=1\r\nhello\r\n0\r\n\r\n"), 200);
    EXPECT_EQ(body(), "hello");
}

TEST_F(ResponseTest, ManyChunksHexSizesAndTrailers)
{
    std::string r = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    std::string want;
    for (int i = 1; i <= 40; i++) {
        std::string piece(static_cast<size_t>(i), static_cast<char>('A' + i % 26));
        char hex[16];
        snprintf(hex, sizeof hex, "%x", i);
        r += std::string(hex) + "\r\n" + piece + "\r\n";
        want += piece;
    }
    r += "1A\r\n" + std::string(26, 'z') + "\r\n";
    want += std::string(26, 'z');
    r += "0\r\nTrailer: x\r\n\r\n";
    EXPECT_EQ(strip(r), 200);
    EXPECT_EQ(body(), want);
}

TEST_F(ResponseTest, ChunkedOtherCodingIsPlain)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n5\r\nhello\r\n0\r\n"), 200);
    EXPECT_EQ(body(), "5\r\nhello\r\n0\r\n");
}

TEST_F(ResponseTest, ChunkAnnouncingMoreThanReceivedIsClipped)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n10\r\nhalf"), 200);
    EXPECT_EQ(body(), "abchalf");
}

TEST_F(ResponseTest, AbsurdChunkSizeIsClipped)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nffffffffffffffffffffff\r\ndata"), 200);
    EXPECT_EQ(body(), "data");
}

TEST_F(ResponseTest, ChunkedHeaderBlockEndingAtDataEndGivesEmptyBody)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"), 200);
    EXPECT_EQ(b.len, 0u);
    EXPECT_EQ(b.start[0], '\0');
}

TEST_F(ResponseTest, UnreadableChunkLineEndsBody)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\nzz\r\nmore"), 200);
    EXPECT_EQ(body(), "ab");
}

TEST_F(ResponseTest, ChunkWithoutFinalZeroEndsAtData)
{
    EXPECT_EQ(strip("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n"), 200);
    EXPECT_EQ(body(), "ab");
}

TEST_F(ResponseTest, ReadChunkSizeSkipsOneEmptyLine)
{
    load("\r\n1f;x\r\n");
    char *cur = b.start;
    EXPECT_EQ(read_chunk_size(&ctx, &b, &cur), 0x1fu);
    load("\r\n\r\n5\r\n");
    cur = b.start;
    EXPECT_EQ(read_chunk_size(&ctx, &b, &cur), 0u);
    cur = b.start + b.len;
    EXPECT_EQ(read_chunk_size(&ctx, &b, &cur), 0u);
}

TEST_F(ResponseTest, NoResultRecordPassedLeavesNothingBehind)
{
    load("HTTP/1.1 200 OK\r\nLocation: /x\r\nContent-Type: y\r\n\r\nbody");
    EXPECT_EQ(strip_response(&ctx, &b, nullptr), 200);
    EXPECT_EQ(body(), "body");
}

TEST_F(ResponseTest, EmptyBufferIsNoConnection)
{
    EXPECT_EQ(strip_response(&ctx, &b, &res), 1);
}

TEST_F(ResponseTest, FailedAllocationWhileParsingIsNoMemory)
{
    const std::string r = "HTTP/1.1 200 OK\r\nLocation: /x\r\nContent-Type: y\r\n\r\nbody";
    int failures = 0;
    for (long k = 0; k < 12; k++) {
        load(r);
        slab_fail_after(k);
        int rc = strip_response(&ctx, &b, &res);
        slab_fail_after(-1);
        if (rc == 3) {
            failures++;
        } else {
            EXPECT_EQ(rc, 200);
        }
    }
    EXPECT_GT(failures, 0);
}

} // namespace
