// Log lines of the feed parser: each message with its priority, written only
// once the verbosity reaches its threshold.
#define KELP_LOG_CAPTURE_IMPL
#include "tests/unit/feed/xml_fixture.h"
#include "tests/unit/log_capture.h"

#include "util/kd_log.h"

using namespace kelp_test;

namespace {

std::vector<log_line> &lines() { return captured_log(); }

} // namespace

namespace {

const std::string kGood = rss("<item><title>A</title></item><item><title>B</title></item>");
const std::string kBroken = rss("<item><title>A</title></item><item><title>B");
// Without a declaration, so that one is built and inserted.
const std::string kBare = "<rss><channel><item><title>A</title></item></channel></rss>";

class Log : public XmlTest {
protected:
    void SetUp() override
    {
        XmlTest::SetUp();
        lines().clear();
    }
    void TearDown() override
    {
        verbosity = 0;
        XmlTest::TearDown();
    }
    // Parses doc at verbosity v and returns the lines it logged.
    std::vector<log_line> at(uint32_t v, const std::string &doc, int status = 200)
    {
        lines().clear();
        verbosity = v;
        p_.release();
        p_ = parse_doc(doc, status);
        verbosity = 0;
        return lines();
    }
    static int count(const std::vector<log_line> &l, const std::string &text, int prio)
    {
        int n = 0;
        for (const auto &x : l)
            n += x.text == text && x.prio == prio;
        return n;
    }
    static int count_prefix(const std::vector<log_line> &l, const std::string &prefix, int prio)
    {
        int n = 0;
        for (const auto &x : l)
            n += x.text.starts_with(prefix) && x.prio == prio;
        return n;
    }
};

TEST_F(Log, XmlErrorIsAnErrorFromVerbosityOne)
{
    EXPECT_TRUE(at(0, kBroken).empty());
    auto l = at(1, kBroken);
    EXPECT_GE(count_prefix(l, "xml error: ", LOG_ERR), 1);
    EXPECT_EQ(p_.feed, nullptr);
}

TEST_F(Log, XmlErrorCarriesTheLoadersMessage)
{
    verbosity = 1;
    kdx_xml_error("Mismatched close tag");
    verbosity = 0;
    kdx_xml_error("not written");
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0].text, "xml error: Mismatched close tag");
    EXPECT_EQ(lines()[0].prio, LOG_ERR);
}

void other_error_callback(const char *) {}

TEST_F(Log, EveryParseRegistersTheErrorCallback)
{
    mxmlSetErrorCallback(other_error_callback);
    auto l = at(1, kBroken, 2);
    EXPECT_GE(count_prefix(l, "xml error: ", LOG_ERR), 1);
    ASSERT_NE(p_.feed, nullptr);
    EXPECT_EQ(p_.items().size(), 1u);
}

TEST_F(Log, FoundItemsIsADebugLineFromVerbosityThree)
{
    auto l = at(2, kGood);
    EXPECT_EQ(count_prefix(l, "[kddbg]", LOG_DEBUG), 0);
    l = at(3, kGood);
    EXPECT_EQ(count(l, "[kddbg] found 2 items in feed", LOG_DEBUG), 1);
    // A truncated download counts the items completed before the error.
    l = at(3, kBroken, 2);
    EXPECT_EQ(count(l, "[kddbg] found 1 items in feed", LOG_DEBUG), 1);
    // A refused complete document reports no count.
    l = at(4, kBroken, 200);
    EXPECT_EQ(count_prefix(l, "[kddbg]", LOG_DEBUG), 0);
}

TEST_F(Log, ItemWithoutTitleIsANoticeFromVerbosityTwo)
{
    const std::string doc = rss("<item><description>d</description></item>");
    EXPECT_TRUE(at(1, doc).empty());
    auto l = at(2, doc);
    EXPECT_EQ(count(l, "items without a title are ignored", LOG_NOTICE), 1);
    EXPECT_TRUE(p_.items().empty());
}

TEST_F(Log, TitleWithoutTextIsAWarningFromVerbosityTwo)
{
    const std::string doc = rss("<item><title><b>x</b></title></item><item><title/></item>");
    const std::string msg = "kdx_new_node_from_rss(): element contains no opaque string and no CDATA";
    EXPECT_TRUE(at(1, doc).empty());
    auto l = at(2, doc);
    EXPECT_EQ(count(l, msg, LOG_WARNING), 2);
    EXPECT_TRUE(p_.items().empty());
}

TEST_F(Log, UnknownCharsetIsNamedBesideTheLoadersMessage)
{
    const std::string doc = "<?xml version=\"1.0\" encoding=\"X-NOPE\"?>" +
                            rss("<item><title>caf\xE9</title></item>").substr(21);
    EXPECT_TRUE(at(0, doc).empty());
    auto l = at(1, doc);
    EXPECT_EQ(count(l, "xml error: unknown charset \"X-NOPE\"", LOG_ERR), 1);
    EXPECT_GE(count_prefix(l, "xml error: ", LOG_ERR), 2); // and the loader's own
    EXPECT_EQ(p_.feed, nullptr);
}

TEST_F(Log, InvalidSequenceIsAnXmlErrorFromVerbosityOne)
{
    // 0x81 is undefined in windows-1252, the charset of undeclared non-UTF-8 bytes.
    const std::string doc = "<rss><channel><item><title>caf\xE9</title></item><item><title>\x81</title></item></channel></rss>";
    EXPECT_TRUE(at(0, doc).empty());
    auto l = at(1, doc);
    EXPECT_EQ(count(l, "xml error: invalid windows-1252 sequence at byte 59", LOG_ERR), 1);
    EXPECT_EQ(p_.feed, nullptr);
}

TEST_F(Log, ConversionIsADebugLineFromVerbosityThree)
{
    const std::string doc = "<rss><channel><item><title>caf\xE9</title></item></channel></rss>";
    EXPECT_EQ(count_prefix(at(2, doc), "[kddbg] body converted", LOG_DEBUG), 0);
    auto l = at(3, doc);
    EXPECT_EQ(count(l, "[kddbg] body converted from windows-1252 to UTF-8 (62 to 63 bytes)", LOG_DEBUG), 1);
    ASSERT_EQ(p_.items().size(), 1u);
    EXPECT_STREQ(p_.items()[0]->title, "caf\xC3\xA9");
}

TEST_F(Log, ConvertedBodyWithoutMemoryIsCriticalFromVerbosityOne)
{
    lines().clear();
    verbosity = 1;
    p_.body = slab_body("<rss><channel><item><title>caf\xE9</title></item></channel></rss>");
    slab_fail_after(1); // the node is allocated first
    p_.feed = kdx_parse_feed(200, "http://h/", "text/xml", &p_.body, &p_.title);
    slab_fail_after(-1);
    verbosity = 0;
    EXPECT_EQ(p_.feed, nullptr);
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0].text, "local memory exhausted (converting body)");
    EXPECT_EQ(lines()[0].prio, LOG_CRIT);
}

struct memory_case {
    long fail_after;
    const char *message;
};

class LogMemory : public Log, public ::testing::WithParamInterface<memory_case> {};

TEST_P(LogMemory, ExhaustedMemoryIsCriticalFromVerbosityOne)
{
    for (uint32_t v : {0u, 1u}) {
        lines().clear();
        verbosity = v;
        p_.release();
        p_.body = slab_body(kBare);
        slab_fail_after(GetParam().fail_after);
        p_.feed = kdx_parse_feed(200, "http://h/", "text/xml", &p_.body, &p_.title);
        slab_fail_after(-1);
        verbosity = 0;
        EXPECT_EQ(p_.feed, nullptr);
        EXPECT_EQ(p_.title, nullptr);
        if (v == 0) {
            EXPECT_TRUE(lines().empty());
            continue;
        }
        ASSERT_EQ(lines().size(), 1u);
        EXPECT_EQ(lines()[0].text, GetParam().message);
        EXPECT_EQ(lines()[0].prio, LOG_CRIT);
    }
}

// Allocations in order: the node, the declaration, the enlarged body.
INSTANTIATE_TEST_SUITE_P(Log, LogMemory,
                         ::testing::Values(memory_case{0, "local memory exhausted (temporary feed node)"},
                                           memory_case{1, "local memory exhausted (XML declaration)"},
                                           memory_case{2, "local memory exhausted (enlarging body)"}));

} // namespace
