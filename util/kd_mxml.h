// kd_mxml: ownership of one Mini-XML tree whose owner is a single function.
// The tree is deleted when the owner goes out of scope, so no early return
// leaks it; release() hands it to a longer-lived owner. Also what a text
// needs before Mini-XML may read it.
#pragma once
#include <cstddef>
#include <cstring>
#include <mxml.h>

// Bytes 0xFE 0xFF or 0xFF 0xFE anywhere in a text switch Mini-XML's string
// reader to UTF-16, and it then reads up to three bytes past the terminator.
constexpr size_t KD_MXML_UTF16_PAD = 4;

// How many zero bytes text needs behind its terminator before it is loaded.
inline size_t kd_mxml_pad_for(const char *text)
{
    return strpbrk(text, "\xFE\xFF") ? KD_MXML_UTF16_PAD : 0;
}

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
