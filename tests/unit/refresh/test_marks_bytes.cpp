// Saved read marks whose "first" hash is above 2^31, written out here as
// decimal text: a restart places them where a 64-bit host does also on a
// target where long is 32 bits wide (make cross runs these there).
#include "tests/unit/refresh/refresh_fixture.h"

using namespace kelp_test;

namespace {

using marks_bytes_test = refresh_test;

// fnv_hash("Item 0") is 2923671373 and fnv_hash("Item 9") 2923671364, both
// above 2^31; "Item 9" arrives on top, so "Item 0" moved down by one.
TEST_F(marks_bytes_test, HighFirstHashPlacesTheSavedMarks)
{
    setup(" name=\"A\"", " read=\"03\" first=\"2923671373\"");
    merge_doc(rss_feed(rss_titles({"Item 9", "Item 0", "Item 1"})));
    EXPECT_EQ(attr(sub(1), "read"), "06");
    EXPECT_EQ(attr(sub(1), "first"), "2923671364");
}

// 2^32 + 2923671373 is no 32-bit hash: the marks cannot be placed.
TEST_F(marks_bytes_test, FirstHashBeyond32BitsIsNoHash)
{
    setup(" name=\"A\"", " read=\"03\" first=\"7218638669\"");
    merge_doc(rss_feed(rss_titles({"Item 9", "Item 0", "Item 1"})));
    EXPECT_EQ(attr(sub(1), "read"), "(none)");
    EXPECT_EQ(attr(sub(1), "first"), "(none)");
}

} // namespace
