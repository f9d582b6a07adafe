// Helpers of the session and merge tests: a capture of the daemon's syslog
// lines, client connections over SOCK_SEQPACKET socket pairs served by the
// real multiplexer, configuration documents merged as configd delivers them,
// and the release of every profile and document between tests.
#pragma once
#include "client/kd_client.h"
#include "client/kd_msg.h"
#include "client/kd_notify.h"
#include "config/kd_config.h"
#include "config/kd_config_state.h"
#include "feed/kd_node.h"
#include "http/httpcli.h"
#include "platform/csock.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "refresh/kd_fetch.h"
#include "refresh/kd_interweb.h"
#include "util/kd_log.h"
#include "tests/unit/log_capture.h"

#include <gtest/gtest.h>
#include <mxml.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace kelp_test {

inline bool g_internet_up = true;
inline int fake_internet(void) { return g_internet_up ? 1 : 0; }

// The internet status the configuration sees from now on.
inline void use_internet(int (*usable)(void))
{
    kd_config_hooks hooks{usable};
    kd_config_set_hooks(&hooks);
}

// The URL of every poll's fetch since the test began.
inline std::vector<std::string> &fetched_urls()
{
    static std::vector<std::string> urls;
    return urls;
}

// Polls in unit tests reach no network: each fetch is noted and finds no server.
inline int unreachable_fetch(httpcli_ctx *, const char *url, httpcli_buffer *, http_result *)
{
    fetched_urls().push_back(url ? url : "");
    return HTTPCLI_NO_CONNECTION;
}

// Polls of these tests fetch on the loop itself, through `fetch`.
inline void fetch_inline(int (*fetch)(httpcli_ctx *, const char *, httpcli_buffer *, http_result *))
{
    kd_fetch_hooks hooks = kd_fetch_default_hooks();
    hooks.fetch = fetch;
    hooks.inline_fetch = true;
    kd_fetch_set_hooks(&hooks);
}

inline void noop_timer(void *, int) {}

// One turn of the loop: whatever is readable now, and the timers due now.
inline void pump()
{
    timeout_add(noop_timer, 0, nullptr, 0);
    csock_select();
}

inline mxml_node_t *load_doc(const char *xml)
{
    return mxmlLoadString(nullptr, xml, MXML_OPAQUE_CALLBACK);
}

inline void free_profile_list(kd_profile **head)
{
    while (kd_profile *p = *head) {
        *head = p->next;
        kd_free(p->connections);
        kd_free(p);
    }
}

inline void free_domain(mxml_node_t **slot)
{
    if (!*slot)
        return;
    mxml_node_t *pool = mxmlFindElement(*slot, *slot, "pool", nullptr, nullptr, MXML_DESCEND_FIRST);
    for (mxml_node_t *e = mxmlFindElement(pool, pool, "entry", nullptr, nullptr, MXML_DESCEND_FIRST); e;
         e = mxmlFindElement(e, pool, "entry", nullptr, nullptr, MXML_NO_DESCEND)) {
        auto *n = static_cast<kd_node *>(mxmlGetUserData(e));
        if (n && n->timer > 0)
            timeout_del(n->timer);
        kdn_free_feed(n);
        mxmlSetUserData(e, nullptr);
    }
    mxmlDelete(*slot);
    *slot = nullptr;
}

inline kd_node *feed_of(mxml_node_t *root, const char *id)
{
    mxml_node_t *e = mxmlFindElement(root, root, "entry", "id", id, MXML_DESCEND);
    return e ? static_cast<kd_node *>(mxmlGetUserData(e)) : nullptr;
}

inline kd_profile *profile_in(kd_profile *list, uint32_t id)
{
    for (; list; list = list->next)
        if (list->profile_id == id)
            return list;
    return nullptr;
}

// Fresh multiplexer, timers, configuration state and log for every test;
// at the end every record must be gone again.
class session_test : public ::testing::Test {
protected:
    kd_client *head = nullptr;
    size_t baseline = 0;
    std::vector<int> peers;

    void SetUp() override
    {
        ASSERT_EQ(csock_init(), 0);
        ASSERT_EQ(timeout_init(), 0);
        verbosity = 4;
        g_internet_up = true;
        use_internet(fake_internet);
        kd_refresh_register();
        kd_client_register();
        fetch_inline(unreachable_fetch);
        fetched_urls().clear();
        g_configstate = 2;
        kd_config_set_received(3);
        captured_log().clear();
        baseline = slab_live_count();
    }

    void TearDown() override
    {
        slab_fail_after(-1);
        kd_fetch_cancel_all();
        while (head)
            kd_disconnect_client(head);
        for (int p : peers)
            close(p);
        free_profile_list(&g_rssproflist);
        free_profile_list(&g_podproflist);
        free_domain(&g_rssdomain);
        free_domain(&g_poddomain);
        timeout_exit();
        csock_exit();
        EXPECT_EQ(slab_live_count(), baseline);
        kd_config_set_hooks(nullptr);
        g_configstate = -1;
        kd_config_set_received(0);
        verbosity = 0;
    }

    // A new connection; returns the client's end of the pair.
    int connect_client()
    {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
        EXPECT_EQ(kd_new_connection(sv[0], &head), 0);
        peers.push_back(sv[1]);
        return sv[1];
    }

    void hang_up(int peer)
    {
        for (auto &p : peers)
            if (p == peer)
                p = -1;
        close(peer);
    }

    kd_client *client_at(size_t n)
    {
        kd_client *c = head;
        while (c && n-- > 0)
            c = c->next;
        return c;
    }

    static void send_raw(int peer, const void *data, size_t len)
    {
        ASSERT_EQ(send(peer, data, len, 0), static_cast<ssize_t>(len));
    }

    // The text of the next block the daemon sent, "" when there is none.
    static std::string answer(int peer)
    {
        char buf[65536];
        ssize_t n = recv(peer, buf, sizeof buf, MSG_DONTWAIT);
        if (n <= 0)
            return "";
        return std::string(buf, strnlen(buf, static_cast<size_t>(n)));
    }

    // Sends one request, serves it, and returns the answer text.
    std::string request(int peer, const std::string &text)
    {
        send_raw(peer, text.data(), text.size());
        pump();
        return answer(peer);
    }

    void merge(mxml_node_t **slot, kd_profile **list, const char *xml)
    {
        mxml_node_t *doc = load_doc(xml);
        ASSERT_NE(doc, nullptr);
        kd_config_merge(slot, list, doc);
        ASSERT_EQ(*slot, doc);
    }
};

} // namespace kelp_test
