// The configd frames as bytes: whole frames pinned to constants written
// out here, and constant frames decoded to pinned fields, so that a target
// whose byte order or word size changed the wire fails here (make cross runs
// these on 32- and 64-bit, little- and big-endian targets).
#include <cstdarg>
#include <string>
#include <gtest/gtest.h>
#include "platform/rpc_configd.h"
#include "platform/rpc_wire.h"

namespace {

std::string encoded(uint8_t kind, uint32_t id, uint32_t tag, const char *fmt, ...)
{
    rpc_buf b{};
    va_list ap;
    va_start(ap, fmt);
    int ok = rpcw_encode(&b, kind, id, tag, fmt, ap);
    va_end(ap);
    std::string out = ok ? std::string(reinterpret_cast<char *>(b.data), b.len) : "(failed)";
    rpcw_buf_free(&b);
    return out;
}

std::string bytes(std::initializer_list<int> v)
{
    std::string s;
    for (int c : v)
        s += static_cast<char>(c);
    return s;
}

TEST(RpcBytes, SubscribeFrame)
{
    const char *domains[] = {"rss", "podcast", nullptr};
    std::string want = bytes({0x00, 0x00, 0x00, 0x1f,                     // payload length 31
                              0x01,                                       // request
                              0x10, 0x00, 0x00, 0x01,                     // subscribe
                              0x81, 0x02, 0x03, 0x04,                     // tag
                              0x00, 0x00, 0x00, 0x02,                     // two texts
                              0x00, 0x00, 0x00, 0x03, 'r', 's', 's',
                              0x00, 0x00, 0x00, 0x07, 'p', 'o', 'd', 'c', 'a', 's', 't'});
    EXPECT_EQ(encoded(RPCW_REQUEST, 0x10000001, 0x81020304, "A{s}", domains), want);
}

// Mini-XML ends the rendered text with a newline after the root element.
TEST(RpcBytes, SaveFrameCarriesTheTreeAsText)
{
    mxml_node_t *doc = rpcw_parse_xml("<config><pool /></config>");
    ASSERT_NE(doc, nullptr);
    std::string want = bytes({0x00, 0x00, 0x00, 0x32, 0x01, 0x10, 0x00, 0x00, 0x03, 0xff, 0xff, 0xff, 0xfe,
                              0x00, 0x00, 0x00, 0x07, 'p', 'o', 'd', 'c', 'a', 's', 't',
                              0x00, 0x00, 0x00, 0x1a}) + "<config><pool /></config>\n";
    EXPECT_EQ(encoded(RPCW_REQUEST, 0x10000003, 0xfffffffe, "sx", "podcast", doc), want);
    mxmlDelete(doc);
}

TEST(RpcBytes, LengthPrefixIsReadBigEndian)
{
    uint32_t len = 0;
    const uint8_t thirteen[] = {0x00, 0x00, 0x00, 0x0d, 3, 0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(rpcw_frame_ready(thirteen, sizeof thirteen, &len), 1);
    EXPECT_EQ(len, 13u);
    // 16 MiB exactly is allowed (and incomplete here), one byte more is not.
    const uint8_t limit[] = {0x01, 0x00, 0x00, 0x00};
    EXPECT_EQ(rpcw_frame_ready(limit, sizeof limit, &len), 0);
    const uint8_t over[] = {0x01, 0x00, 0x00, 0x01};
    EXPECT_EQ(rpcw_frame_ready(over, sizeof over, &len), -RPC_ERR_TOOBIG);
    // Read the other way round, these would be 0x09000000 and 0x08000000:
    // too big, where they are a header alone (incomplete) and too short.
    const uint8_t nine[] = {0x00, 0x00, 0x00, 0x09};
    EXPECT_EQ(rpcw_frame_ready(nine, sizeof nine, &len), 0);
    const uint8_t eight[] = {0x00, 0x00, 0x00, 0x08};
    EXPECT_EQ(rpcw_frame_ready(eight, sizeof eight, &len), -RPC_ERR_MALFORMED);
}

// A decoded payload, released after each test.
struct RpcDecoded : ::testing::Test {
    rpc_msg m{};
    int decode(const std::string &payload)
    {
        return rpcw_decode(reinterpret_cast<const uint8_t *>(payload.data()), uint32_t(payload.size()),
                           g_ConfigD_ParamsList, &m);
    }
    void TearDown() override { rpcw_msg_clear(&m); }
};

TEST_F(RpcDecoded, IndicationDecodesToTheseFields)
{
    ASSERT_EQ(decode(bytes({0x03, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03}) + "rss"), 1);
    EXPECT_EQ(m.id, 0x20000000u);
    EXPECT_EQ(m.tag, 0u);
    EXPECT_EQ(m.is_reply, 0);
    EXPECT_STREQ(m.s, "rss");
}

TEST_F(RpcDecoded, ReplyWithHighTagDecodesToTheseFields)
{
    std::string doc = "<?xml version=\"1.0\"?><pool /><profiles />";
    ASSERT_EQ(doc.size(), 0x29u);
    ASSERT_EQ(decode(bytes({0x02, 0x10, 0x00, 0x00, 0x02, 0x80, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x29}) + doc), 1);
    EXPECT_EQ(m.id, 0x10000002u);
    EXPECT_EQ(m.tag, 0x80000001u);
    EXPECT_EQ(m.is_reply, 1);
    ASSERT_NE(m.x, nullptr);
    EXPECT_NE(mxmlFindElement(m.x, m.x, "pool", nullptr, nullptr, MXML_DESCEND_FIRST), nullptr);
}

TEST_F(RpcDecoded, ErrorReplyCarriesTheReason)
{
    ASSERT_EQ(decode(bytes({0x04, 0x10, 0x00, 0x00, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04}) + "busy"), 1);
    EXPECT_EQ(m.id, 0x10000003u);
    EXPECT_EQ(m.tag, 0x00010000u);
    EXPECT_EQ(m.is_reply, 1);
    EXPECT_STREQ(m.error, "busy");
}

} // namespace
