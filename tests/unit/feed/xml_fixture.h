// Shared helpers for the feed parsing tests: a body in slab memory, a parse
// that keeps the title, and a fixture that checks the allocator balance.
#pragma once
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "platform/slab.h"

struct parsed {
    kd_node *feed = nullptr;
    char *title = nullptr;
    char *body = nullptr;
    std::vector<kd_item *> items() const
    {
        std::vector<kd_item *> v;
        for (kd_item *i = feed ? feed->children : nullptr; i; i = i->next)
            v.push_back(i);
        return v;
    }
    void release()
    {
        kdn_free_feed(feed);
        slab_cbcontext_free(title, SLAB_TAG);
        slab_cbcontext_free(body, SLAB_TAG);
        feed = nullptr;
        title = body = nullptr;
    }
};

inline char *slab_body(const std::string &doc)
{
    auto *b = static_cast<char *>(slab_dmalloc(doc.size() + 1, SLAB_TAG));
    memcpy(b, doc.data(), doc.size());
    b[doc.size()] = '\0';
    return b;
}

inline parsed parse_doc(const std::string &doc, int status = 200,
                        const char *url = "http://example.com:8080/feeds/rss.xml",
                        const char *ctype = "text/xml")
{
    parsed p;
    p.body = slab_body(doc);
    p.feed = kdx_parse_feed(status, url, ctype, &p.body, &p.title);
    return p;
}

inline std::string rss(const std::string &items, const std::string &channel_title = "Chan")
{
    return "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>" + channel_title +
           "</title>" + items + "</channel></rss>";
}

inline int count_list(const kd_attachment *a)
{
    int n = 0;
    for (; a; a = a->next)
        n++;
    return n;
}

class XmlTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1); // dates are read as local time; CTest sets the same
        tzset();
        base_ = slab_live_count();
    }
    void TearDown() override
    {
        p_.release();
        slab_fail_after(-1);
        EXPECT_EQ(slab_live_count(), base_);
    }
    parsed p_;
    size_t base_ = 0;
};
