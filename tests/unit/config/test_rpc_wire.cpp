// The frame codec on its own: lengths, encodings, strict XML.
#include <cstdarg>
#include <string>
#include <gtest/gtest.h>
#include "platform/rpc_configd.h"
#include "platform/rpc_wire.h"
#include "platform/slab.h"

namespace {

int encode(rpc_buf *b, uint8_t kind, uint32_t id, uint32_t tag, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = rpcw_encode(b, kind, id, tag, fmt, ap);
    va_end(ap);
    return r;
}

TEST(RpcWire, TextFrameLayoutIsBigEndianLengthKindIdTagText)
{
    rpc_buf b{};
    ASSERT_EQ(encode(&b, RPCW_REQUEST, 0x10000002, 2, "s", "rss"), 1);
    std::string got(reinterpret_cast<char *>(b.data), b.len);
    EXPECT_EQ(got, std::string("\0\0\0\x10\x01\x10\0\0\x02\0\0\0\x02\0\0\0\x03rss", 20));
    rpcw_buf_free(&b);
}

TEST(RpcWire, FrameReadyNeedsTheWholeFrameAndRejectsBadLengths)
{
    uint32_t len = 0;
    const uint8_t part[] = {0, 0, 0, 9, 1, 2};
    EXPECT_EQ(rpcw_frame_ready(part, 3, &len), 0);
    EXPECT_EQ(rpcw_frame_ready(part, sizeof part, &len), 0);
    const uint8_t small[] = {0, 0, 0, 8};
    EXPECT_EQ(rpcw_frame_ready(small, 4, &len), -RPC_ERR_MALFORMED);
    const uint8_t big[] = {1, 0, 0, 1};
    EXPECT_EQ(rpcw_frame_ready(big, 4, &len), -RPC_ERR_TOOBIG);
    const uint8_t limit[] = {1, 0, 0, 0};
    EXPECT_EQ(rpcw_frame_ready(limit, 4, &len), 0);   // exactly 16 MiB is allowed
}

TEST(RpcWire, ListRoundTripAndNoLeaks)
{
    size_t live = slab_live_count();
    rpc_buf b{};
    static const char *const names[] = {"a", "", "bc", nullptr};
    ASSERT_EQ(encode(&b, RPCW_REQUEST, 0x10000001, 0, "A{s}", names), 1);
    rpc_msg m;
    ASSERT_EQ(rpcw_decode(b.data + 4, uint32_t(b.len - 4), g_ConfigD_ParamsList, &m), 1);
    ASSERT_EQ(m.nlist, 3u);
    EXPECT_STREQ(m.list[2], "bc");
    EXPECT_STREQ(m.list[1], "");
    rpcw_msg_clear(&m);
    rpcw_buf_free(&b);
    EXPECT_EQ(slab_live_count(), live);
}

TEST(RpcWire, NullArgumentsAreRefusedAndLeaveTheBuffer)
{
    rpc_buf b{};
    ASSERT_EQ(encode(&b, RPCW_REQUEST, 0x10000002, 1, "s", "x"), 1);
    size_t len = b.len;
    EXPECT_EQ(encode(&b, RPCW_REQUEST, 0x10000002, 1, "s", static_cast<const char *>(nullptr)), 0);
    EXPECT_EQ(encode(&b, RPCW_REQUEST, 0x10000003, 1, "sx", "rss", static_cast<mxml_node_t *>(nullptr)), 0);
    EXPECT_EQ(b.len, len);
    rpcw_buf_free(&b);
}

TEST(RpcWire, StrictXml)
{
    for (const char *bad : {"<a>", "<a><b/>", "<?xml version=\"1.0\"?><pool/><profiles>", "", "x", "<a></b>"}) {
        mxml_node_t *x = rpcw_parse_xml(bad);
        EXPECT_EQ(x, nullptr) << bad;
        if (x)
            mxmlDelete(x);
    }
    mxml_node_t *x = rpcw_parse_xml("<?xml version=\"1.0\"?>\n<pool> <entry id=\"1\"/> </pool>\n<profiles/>");
    ASSERT_NE(x, nullptr);
    char *t = mxmlSaveAllocString(x, MXML_NO_CALLBACK);
    EXPECT_STREQ(t, "<?xml version=\"1.0\"?>\n<pool> <entry id=\"1\" /> </pool>\n<profiles />\n");
    free(t);
    mxmlDelete(x);
}

TEST(RpcWire, UnknownIdIsWellFormedButUnknown)
{
    const uint8_t p[] = {3, 0x2f, 0, 0, 0, 0, 0, 0, 0, 'z'};
    rpc_msg m;
    EXPECT_EQ(rpcw_decode(p, sizeof p, g_ConfigD_ParamsList, &m), 0);
    EXPECT_EQ(m.id, 0x2f000000u);
}

TEST(RpcWire, BrokenXmlInARequestIsReportedApart)
{
    rpc_buf b{};
    std::string body = std::string("\0\0\0\x03rss\0\0\0\x03<a>", 14);
    uint8_t hdr[] = {1, 0x10, 0, 0, 3, 0, 0, 0, 7};
    rpcw_buf_append(&b, hdr, sizeof hdr);
    rpcw_buf_append(&b, body.data(), body.size());
    rpc_msg m;
    EXPECT_EQ(rpcw_decode(b.data, uint32_t(b.len), g_ConfigD_ParamsList, &m), -2);
    EXPECT_EQ(m.tag, 7u);
    EXPECT_EQ(m.s, nullptr);
    rpcw_buf_free(&b);
}

} // namespace
