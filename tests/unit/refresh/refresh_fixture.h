// Helpers of the refresh and item-merge tests: a scripted fetch in place of
// the HTTP client, feed documents built from items, the configuration of one
// feed subscribed by two profiles with a client logged in to each, and the
// saves to configd read from their debug lines.
#pragma once
#include "tests/unit/config/merge_fixture.h"

#include "feed/kd_xml.h"
#include "http/httpcli.h"
#include "refresh/kd_interweb.h"
#include "refresh/kd_itemmerge.h"
#include "util/bitfield.h"

#include <string>
#include <vector>

namespace kelp_test {

// What the next fetch answers; without a body the buffer stays empty.
struct scripted_answer {
    int code = HTTPCLI_NO_CONNECTION;
    std::string body;
    bool has_body = false;
    std::string content_type = "application/rss+xml";
};

inline scripted_answer g_answer;
inline httpcli_ctx g_seen_ctx;

inline int scripted_fetch(httpcli_ctx *ctx, const char *url, httpcli_buffer *resp, http_result *res)
{
    fetched_urls().push_back(url);
    g_seen_ctx = *ctx;
    if (g_answer.has_body) {
        resp->start = kd_strdup(g_answer.body.c_str());
        resp->len = static_cast<uint32_t>(g_answer.body.size());
        resp->size = resp->len + 1;
    }
    res->content_type = kd_strdup(g_answer.content_type.c_str());
    if (g_answer.code >= 300 && g_answer.code < 400)
        res->location = kd_strdup("http://feeds.test/elsewhere");
    return g_answer.code;
}

inline std::string rss_item(const std::string &title, const std::string &guid = "")
{
    std::string g = guid.empty() ? "" : "<guid>" + guid + "</guid>";
    return "<item><title>" + title + "</title>" + g + "</item>";
}

// Items given by title only (no guid): they compare by title.
inline std::string rss_titles(std::initializer_list<const char *> titles)
{
    std::string s;
    for (const char *t : titles)
        s += rss_item(t);
    return s;
}

inline std::string rss_feed(const std::string &items, const std::string &title = "Feed Title")
{
    return "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>" + title + "</title>" + items +
           "</channel></rss>";
}

inline std::string hash_text(const char *title) { return std::to_string(fnv_hash(title)); }

class refresh_test : public merge_test {
protected:
    int peer1 = -1, peer2 = -1;

    void SetUp() override
    {
        merge_test::SetUp();
        fetch_inline(scripted_fetch);
        g_answer = scripted_answer{};
    }

    void TearDown() override
    {
        merge_test::TearDown();
        fetch_inline(unreachable_fetch);
    }

    // Feed 1 (kUrlA) with the given entry attributes, subscribed by profile
    // 1 and profile 2 with the given subscription attributes; a client logged
    // in to each, the poll's first refresh done (nothing reachable) and every
    // message so far read.
    kd_node *setup(const std::string &entry_attrs = " name=\"A\"", const std::string &sub1 = "",
                   const std::string &sub2 = "")
    {
        merge_rss(doc_with("<entry id=\"1\" url=\"" + std::string(kUrlA) + "\" poll=\"600\"" + entry_attrs + "/>",
                           profile("1", "<item entry=\"1\"" + sub1 + "/>") +
                               profile("2", "<item entry=\"1\"" + sub2 + "/>")));
        peer1 = login("rss", 1);
        peer2 = login("rss", 2);
        pump();
        drain(peer1);
        drain(peer2);
        kd_node *n = feed_of(g_rssdomain, "1");
        n->lasterror = 0;
        n->lastpoll = 0;
        fetched_urls().clear();
        captured_log().clear();
        return n;
    }

    mxml_node_t *sub(int profile_id)
    {
        mxml_node_t *p = profile_el(std::to_string(profile_id).c_str());
        return mxmlFindElement(p, p, "item", nullptr, nullptr, MXML_DESCEND);
    }

    static std::string attr(mxml_node_t *el, const char *name)
    {
        const char *v = mxmlElementGetAttr(el, name);
        return v ? v : "(none)";
    }

    // Every message waiting for a client, in order.
    static std::vector<std::string> drain(int peer)
    {
        std::vector<std::string> out;
        for (std::string a = answer(peer); !a.empty(); a = answer(peer))
            out.push_back(a);
        return out;
    }

    static void serve(const std::string &body, int code = 200)
    {
        g_answer = scripted_answer{};
        g_answer.code = code;
        g_answer.body = body;
        g_answer.has_body = true;
    }

    static void fail_with(int code)
    {
        g_answer = scripted_answer{};
        g_answer.code = code;
    }

    void poll(kd_node *n) { kd_refresh_entry(n, 0); }

    // One merge of a document, as the refresh makes it after a good fetch.
    void merge_doc(const std::string &body)
    {
        char *text = kd_strdup(body.c_str());
        kd_node *parsed = kdx_parse_feed(200, kUrlA, "application/rss+xml", &text, nullptr);
        kd_free(text);
        ASSERT_NE(parsed, nullptr);
        ASSERT_NE(parsed->children, nullptr);
        merge_feed(entry_el("1"), parsed);
        kdn_free_feed(parsed);
    }

    static std::vector<uint32_t> uids(const kd_node *n)
    {
        std::vector<uint32_t> v;
        for (const kd_item *it = n->children; it; it = it->next)
            v.push_back(it->uid);
        return v;
    }

    static std::vector<std::string> titles(const kd_node *n)
    {
        std::vector<std::string> v;
        for (const kd_item *it = n->children; it; it = it->next)
            v.push_back(it->title);
        return v;
    }

    // Saves to configd show as the document's debug line (verbosity 4).
    static std::vector<std::string> saves()
    {
        std::vector<std::string> v;
        for (const auto &l : captured_log())
            if (l.prio == LOG_DEBUG && l.text.rfind("<config>", 0) == 0)
                v.push_back(l.text);
        return v;
    }
};

} // namespace kelp_test

namespace kelp_test {

struct ov_item {
    uint32_t uid;
    int state;   // 1 read, 0 unread (no attachments in these feeds)
    const char *subject;
};

// The overview of feed 1 that a client of `profile_id` gets (API 3).
inline std::string overview_text(int profile_id, std::initializer_list<ov_item> items)
{
    int unread = 0;
    std::string list;
    for (const auto &i : items) {
        unread += (i.state & 1) == 0;
        list += "\tuid:" + std::to_string(i.uid) + "\tstate:" + std::to_string(i.state) + "\tsubject:" + i.subject;
    }
    return "overview\tdomain:rss\tprofile_id:" + std::to_string(profile_id) + "\tfeed_id:1\tnumber:" +
           std::to_string(items.size()) + "\tnumber_new:" + std::to_string(unread) + list;
}

} // namespace kelp_test
