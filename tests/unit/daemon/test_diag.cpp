// The per-record lines of the status dump.
#include "config/kd_config.h"
#include "daemon/kd_diag.h"
#include "feed/kd_node.h"

#include <gtest/gtest.h>
#include <string>

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
