// kd_mxml: ownership of one Mini-XML tree whose owner is a single function.
// The tree is deleted when the owner goes out of scope, so no early return
// leaks it; release() hands it to a longer-lived owner.
#pragma once
#include <mxml.h>

struct kd_mxml_tree {
    mxml_node_t *root = nullptr;

    kd_mxml_tree() = default;
    explicit kd_mxml_tree(mxml_node_t *tree) : root(tree) {}
    kd_mxml_tree(const kd_mxml_tree &) = delete;
    kd_mxml_tree &operator=(const kd_mxml_tree &) = delete;
    ~kd_mxml_tree()
    {
        if (root)
            mxmlDelete(root);
    }

    mxml_node_t *get() const { return root; }
    explicit operator bool() const { return root != nullptr; }

    // The tree leaves this owner whole; nothing is left behind.
    mxml_node_t *release()
    {
        mxml_node_t *t = root;
        root = nullptr;
        return t;
    }
};
