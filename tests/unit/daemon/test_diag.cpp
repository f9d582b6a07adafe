// The per-record lines of the status dump.
#include "config/kd_config.h"
#include "daemon/kd_diag.h"
#include "feed/kd_node.h"

#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <vector>

namespace {

std::string trace(int indent, mxml_node_t *el)
{
    char buf[1024] = "";
    FILE *f = fmemopen(buf, sizeof(buf), "w");
    kd_trace_userdata(indent, el, f);
    fclose(f);
    return buf;
}

} // namespace

TEST(TraceUserdata, EntryRecordWithoutTimer)
{
    mxml_node_t *entry = mxmlNewElement(MXML_NO_PARENT, "entry");
    kd_node n {};
    n.nrefs = 2;
    n.nchildren = 5;
    n.nextuid = 7;
    n.poll = 3600;
    n.lasterror = -3;
    mxmlSetUserData(entry, &n);
    EXPECT_EQ(trace(2, entry), "  [#refs=2 #children=5 nextuid=7 poll=3600 lasterror=-3 due=0]\n");
    mxmlDelete(entry);
}

TEST(TraceUserdata, DueCountsDownFromLastPoll)
{
    mxml_node_t *entry = mxmlNewElement(MXML_NO_PARENT, "entry");
    kd_node n {};
    n.timer = 4;
    n.poll = 600;
    n.lastpoll = static_cast<int32_t>(time(nullptr)) - 100;
    mxmlSetUserData(entry, &n);
    std::string line = trace(0, entry);
    // A second may pass between the stamp and the trace.
    EXPECT_TRUE(line.find("due=500]") != std::string::npos || line.find("due=499]") != std::string::npos) << line;
    mxmlDelete(entry);
}

TEST(TraceUserdata, ProfileRecord)
{
    mxml_node_t *el = mxmlNewElement(MXML_NO_PARENT, "profile");
    kd_profile p {};
    p.nconns = 3;
    p.was_online = 1;
    mxmlSetUserData(el, &p);
    EXPECT_EQ(trace(1, el), " [#conns=3 was_online=1]\n");
    mxmlDelete(el);
}

TEST(TraceUserdata, OtherElementsAndMissingRecordsProduceNothing)
{
    mxml_node_t *item = mxmlNewElement(MXML_NO_PARENT, "item");
    int dummy = 0;
    mxmlSetUserData(item, &dummy);
    EXPECT_EQ(trace(2, item), "");
    mxml_node_t *entry = mxmlNewElement(MXML_NO_PARENT, "entry");
    EXPECT_EQ(trace(2, entry), "");
    mxmlDelete(item);
    mxmlDelete(entry);
}

TEST(TraceUserdata, LineIsCutAt256Bytes)
{
    mxml_node_t *el = mxmlNewElement(MXML_NO_PARENT, "profile");
    kd_profile p {};
    mxmlSetUserData(el, &p);
    std::string line = trace(1000, el);
    EXPECT_EQ(line.size(), 257u);
    EXPECT_EQ(line.back(), '\n');
    mxmlDelete(el);
}

TEST(TraceUserdataDeath, NullElementAsserts)
{
    EXPECT_DEATH(kd_trace_userdata(0, nullptr, stdout), "element!=\\(\\(void \\*\\)0\\)");
}

namespace {

// The listing goes to syslog; LOG_PERROR copies each message to stderr.
std::vector<std::string> trace_xml(mxml_node_t *node)
{
    openlog("kd", LOG_PERROR, LOG_USER);
    testing::internal::CaptureStderr();
    kd_trace_xml(1, node);
    std::string out = testing::internal::GetCapturedStderr();
    closelog();
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < out.size()) {
        size_t end = out.find('\n', pos);
        std::string line = out.substr(pos, end - pos);
        if (line.rfind("kd: ", 0) == 0)
            line = line.substr(4);
        lines.push_back(line);
        pos = end == std::string::npos ? out.size() : end + 1;
    }
    return lines;
}

} // namespace

TEST(TraceXml, ElementsWithAttributesAndRecordsTextDropped)
{
    mxml_node_t *root = mxmlLoadString(nullptr,
        "<pool><entry id=\"1\" name=\"A\">some text</entry><entry id=\"2\"/></pool>", MXML_OPAQUE_CALLBACK);
    ASSERT_NE(root, nullptr);
    mxml_node_t *e1 = mxmlFindElement(root, root, "entry", nullptr, nullptr, MXML_DESCEND);
    kd_node n {};
    n.nrefs = 1;
    mxmlSetUserData(e1, &n);
    std::vector<std::string> want = {
        " <pool>",
        "  <entry id=\"1\" name=\"A\">",
        "  [#refs=1 #children=0 nextuid=0 poll=0 lasterror=0 due=0]",
        "  </entry>",
        "  <entry id=\"2\" />",
        " </pool>",
    };
    EXPECT_EQ(trace_xml(root), want);
    mxmlDelete(root);
}

TEST(TraceXml, MissingNodeProducesNothing)
{
    EXPECT_EQ(trace_xml(nullptr), std::vector<std::string> {});
}

TEST(TraceXml, LonelyTextNodeIsNeverLogged)
{
    mxml_node_t *text = mxmlNewOpaque(MXML_NO_PARENT, "just text");
    EXPECT_EQ(trace_xml(text), std::vector<std::string> {});
    mxmlDelete(text);
}

TEST(TraceXml, LongAttributeLineIsCut)
{
    std::string value(400, 'x');
    mxml_node_t *el = mxmlNewElement(MXML_NO_PARENT, "entry");
    mxmlElementSetAttr(el, "url", value.c_str());
    std::vector<std::string> got = trace_xml(el);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].size(), 256u);
    EXPECT_EQ(got[0].rfind(" <entry url=\"xxx", 0), 0u);
    mxmlDelete(el);
}
