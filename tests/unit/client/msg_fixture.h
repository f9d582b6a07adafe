// Helpers of the codec tests: real configuration trees with their pool
// entries linked as the merge links them, real feed records, and a check of
// the outgoing block's framing.
#pragma once
#include "client/kd_msg.h"
#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "platform/slab.h"

#include <gtest/gtest.h>
#include <mxml.h>

#include <cstring>
#include <string>
#include <vector>

namespace kelp_test {

// A configuration document whose subscriptions point at their pool entries.
struct config_tree {
    mxml_node_t *root = nullptr;

    explicit config_tree(const char *xml)
    {
        root = mxmlLoadString(nullptr, xml, MXML_OPAQUE_CALLBACK);
        link_items();
    }
    ~config_tree()
    {
        for (mxml_node_t *e = first("entry"); e; e = next(e, "entry"))
            kdn_free_feed(static_cast<kd_node *>(mxmlGetUserData(e)));
        mxmlDelete(root);
    }
    config_tree(const config_tree &) = delete;
    config_tree &operator=(const config_tree &) = delete;

    mxml_node_t *first(const char *name) const
    {
        return mxmlFindElement(root, root, name, nullptr, nullptr, MXML_DESCEND);
    }
    mxml_node_t *next(mxml_node_t *from, const char *name) const
    {
        return mxmlFindElement(from, root, name, nullptr, nullptr, MXML_DESCEND);
    }
    mxml_node_t *entry(const char *id) const
    {
        return mxmlFindElement(root, root, "entry", "id", id, MXML_DESCEND);
    }
    mxml_node_t *profile(const char *id) const
    {
        return mxmlFindElement(root, root, "profile", "id", id, MXML_DESCEND);
    }
    // The n-th subscription (from 0) of a profile element.
    mxml_node_t *subscription(mxml_node_t *prof, int n) const
    {
        mxml_node_t *it = mxmlFindElement(prof, prof, "item", nullptr, nullptr, MXML_DESCEND);
        while (it && n-- > 0)
            it = mxmlFindElement(it, prof, "item", nullptr, nullptr, MXML_DESCEND);
        return it;
    }

private:
    void link_items()
    {
        for (mxml_node_t *it = first("item"); it; it = next(it, "item")) {
            const char *id = mxmlElementGetAttr(it, "entry");
            mxml_node_t *e = id ? entry(id) : nullptr;
            if (e)
                mxmlSetUserData(it, e);
        }
    }
};

inline kd_attachment *attachment(const char *url, uint32_t offset, kd_attachment *next = nullptr)
{
    auto *a = static_cast<kd_attachment *>(kd_calloc(1, sizeof(kd_attachment)));
    a->url = url ? kd_strdup(url) : nullptr;
    a->offset = offset;
    a->next = next;
    return a;
}

inline kd_item *item(uint32_t uid, const char *title, const char *body = nullptr)
{
    auto *it = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
    it->uid = uid;
    it->title = title ? kd_strdup(title) : nullptr;
    it->body = body ? kd_strdup(body) : nullptr;
    return it;
}

// A feed record holding the items in the given order, hung off its entry.
inline kd_node *attach_feed(mxml_node_t *entry, std::vector<kd_item *> items)
{
    auto *feed = static_cast<kd_node *>(kd_calloc(1, sizeof(kd_node)));
    feed->entry = entry;
    kd_item **tail = &feed->children;
    for (kd_item *it : items) {
        *tail = it;
        tail = &it->next;
        feed->nchildren++;
    }
    mxmlSetUserData(entry, feed);
    return feed;
}

inline kd_profile make_profile(mxml_node_t *element, uint32_t id)
{
    kd_profile p{};
    p.profile = element;
    p.profile_id = id;
    return p;
}

// Tabs shown as vertical bars, as the protocol documentation writes them.
inline std::string bars(std::string s)
{
    for (char &c : s)
        if (c == '\t')
            c = '|';
    return s;
}

// Takes a built block apart: checks its framing and returns the text.
inline std::string frame_text(char *buf, uint32_t size)
{
    EXPECT_NE(buf, nullptr);
    if (!buf)
        return {};
    std::string text(buf);
    uint32_t want = 32;
    while (want < text.size() + 2)
        want *= 2;
    EXPECT_EQ(size, want) << "capacity for " << text.size() << " characters";
    for (uint32_t i = static_cast<uint32_t>(text.size()); i < size; i++)
        EXPECT_EQ(buf[i], '\0') << "padding byte " << i;
    kd_free(buf);
    return text;
}

inline std::string response(const kd_msg &req, int api, const void *object)
{
    char *buf = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(kd_msg_response(&buf, &size, &req, api, object), 1);
    return frame_text(buf, size);
}

inline std::string overview(int api, const kd_overview_desc *desc)
{
    char *buf = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(kd_msg_request(&buf, &size, KD_CMD_OVERVIEW, api, desc), 1);
    return frame_text(buf, size);
}

} // namespace kelp_test
