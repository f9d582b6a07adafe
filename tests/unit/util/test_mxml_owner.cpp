// kd_mxml_tree: the owned tree is deleted exactly when its owner goes. A tree
// under a parent shows its deletion: mxmlDelete unlinks it from the parent.
#include <gtest/gtest.h>

#include <mxml.h>

#include "util/kd_mxml.h"

namespace {

struct parent_fixture : ::testing::Test {
    mxml_node_t *parent = mxmlNewElement(MXML_NO_PARENT, "parent");
    ~parent_fixture() override { mxmlDelete(parent); }
};

TEST_F(parent_fixture, DeletesTheTreeAtTheEndOfItsScope)
{
    {
        kd_mxml_tree tree(mxmlNewElement(parent, "child"));
        EXPECT_TRUE(static_cast<bool>(tree));
        EXPECT_EQ(mxmlGetFirstChild(parent), tree.get());
    }
    EXPECT_EQ(mxmlGetFirstChild(parent), nullptr);
}

TEST_F(parent_fixture, ReleasedTreeStays)
{
    mxml_node_t *child = mxmlNewElement(parent, "child");
    {
        kd_mxml_tree tree(child);
        EXPECT_EQ(tree.release(), child);
        EXPECT_FALSE(static_cast<bool>(tree));
    }
    EXPECT_EQ(mxmlGetFirstChild(parent), child);
}

TEST(MxmlTree, EmptyOwnerDeletesNothing)
{
    kd_mxml_tree tree;
    EXPECT_FALSE(static_cast<bool>(tree));
    EXPECT_EQ(tree.release(), nullptr);
}

} // namespace
