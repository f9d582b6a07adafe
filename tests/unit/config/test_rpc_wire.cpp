// The frame codec on its own: lengths, encodings, strict XML.
#include <cstdarg>
#include <cstring>
#include <malloc.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
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

// A text whose terminator is the last byte before an inaccessible page, so a
// read past the terminator faults.
class guarded_text {
public:
    explicit guarded_text(std::string_view s)
    {
        size_t page = size_t(sysconf(_SC_PAGESIZE));
        span_ = (s.size() + 1 + page - 1) / page * page + page;
        void *m = mmap(nullptr, span_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        map_ = m == MAP_FAILED ? nullptr : static_cast<char *>(m);
        if (!map_ || mprotect(map_ + span_ - page, page, PROT_NONE) != 0)
            return;
        text_ = map_ + span_ - page - s.size() - 1;
        memcpy(text_, s.data(), s.size());
        text_[s.size()] = '\0';
    }
    ~guarded_text()
    {
        if (map_)
            munmap(map_, span_);
    }
    const char *get() const { return text_; }

private:
    char *map_ = nullptr;
    char *text_ = nullptr;
    size_t span_ = 0;
};

// 0xFE 0xFF or 0xFF 0xFE inside a text switch Mini-XML to reading UTF-16
// pairs, which read on past a terminator that falls inside a pair.
TEST(RpcWire, Utf16SwitchInsideATextNeverReadsPastIt)
{
    const std::string_view texts[] = {
        "<a>\xfe\xff\x4e\x2d\x4e",            // odd byte before the end (big-endian)
        "<a>\xff\xfe\x2d",                      // the terminator starts a pair (little-endian)
        "<a>\xfe\xff\xd8\x3d\xde",            // a surrogate pair cut short
        "<pool b=\"\xfe\xff\x4e\x2d\x4e",
        "<?xml version=\"1.0\"?><pool/><profiles>\xfe\xff\x4e",
    };
    size_t live = slab_live_count();
    for (std::string_view t : texts) {
        guarded_text g(t);
        ASSERT_NE(g.get(), nullptr);
        mxml_node_t *x = rpcw_parse_xml(g.get());
        EXPECT_EQ(x, nullptr) << "well-formed: " << t;
        if (x)
            mxmlDelete(x);
    }
    EXPECT_EQ(slab_live_count(), live);
    // A text without those bytes is read where it lies.
    guarded_text plain("<?xml version=\"1.0\"?><pool/><profiles/>");
    mxml_node_t *x = rpcw_parse_xml(plain.get());
    EXPECT_NE(x, nullptr);
    if (x)
        mxmlDelete(x);
}

// Whitespace after the root element and then a second root: Mini-XML refuses
// the text, and the whitespace node it made on the way must not be lost.
TEST(RpcWire, RefusedSecondRootLeavesNoMemoryBehind)
{
    const char *texts[] = {"<a></a>\n<!-- c -->", "<a></a>\n<", "<a/>\n<b/>", "<a></a> \n\t<?pi?>"};
    for (const char *t : texts)
        EXPECT_EQ(rpcw_parse_xml(t), nullptr) << t;
    size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 10000; i++)
        for (const char *t : texts)
            rpcw_parse_xml(t);
    // Leaked, the whitespace nodes would hold some 4 MB by now.
    EXPECT_LT(mallinfo2().uordblks, before + 65536);
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
