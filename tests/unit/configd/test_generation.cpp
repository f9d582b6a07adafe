// The generation of a document: equal texts give equal generations, and
// any change of the text gives another one.
#include <gtest/gtest.h>
#include "configd/store.h"
#include "util/kd_mxml.h"

TEST(Generation, IsTheFnv1a64OfTheText)
{
    EXPECT_EQ(cfg_generation(""), "cbf29ce484222325");
    EXPECT_EQ(cfg_generation("a"), "af63dc4c8601ec8c");
    EXPECT_NE(cfg_generation("<pool />"), cfg_generation("<pool/>"));
}

TEST(Generation, OfATreeIsThatOfItsRendering)
{
    std::string why;
    const char text[] = "<?xml version=\"1.0\"?>\n<pool>\n  <entry id=\"1\" />\n</pool>\n<profiles />\n";
    kd_mxml_tree doc(cfg_parse(text, &why));
    ASSERT_TRUE(doc) << why;
    EXPECT_EQ(cfg_generation_of(doc.get()), cfg_generation(text));
}
