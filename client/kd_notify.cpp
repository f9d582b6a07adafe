// kd_notify: the messages the daemon pushes to logged-in connections without
// being asked: overviews of subscriptions, fresh feed lists, and the internet
// status with the retry timer that waits for the internet to come back.
// Owns the overviews queued for one connection until the next turn of the
// loop, so that a connection torn down meanwhile never receives them, and
// holds them back while that connection's socket is still full, so that a
// login to many large feeds never overruns a reader that is merely behind.
#include "client/kd_notify.h"

#include <cstring>
#include <initializer_list>

#include "client/kd_client.h"
#include "client/kd_msg.h"
#include "client/kd_push.h"
#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "refresh/kd_interweb.h"
#include "util/kd_log.h"

namespace {

constexpr int32_t KD_RETRY_FIRST = 30;
constexpr int32_t KD_RETRY_MAX = 600;

// An overview waiting for the next turn of the loop; listed so that a
// connection's teardown can drop its own.
struct queued_overview {
    kd_client *client;
    kd_overview_desc desc;
    int timer;
    queued_overview *next;
};

// What the pushes hold between turns of the loop.
struct push_state {
    // Overviews waiting for their timer, newest first.
    queued_overview *queued;
    // Overviews whose connection still had blocks waiting, in the order
    // their timers fired; released when that connection's queue has drained.
    queued_overview *held;
    queued_overview **held_tail;
    // The internet-retry timer (0 when none is pending) and its wait in seconds.
    int32_t retry_timer;
    int32_t retry_wait;
};

push_state g_push = {nullptr, nullptr, &g_push.held, 0, 0};

void unlist(queued_overview *q)
{
    for (queued_overview **pp = &g_push.queued; *pp; pp = &(*pp)->next) {
        if (*pp == q) {
            *pp = q->next;
            return;
        }
    }
}

mxml_node_t *next_subscription(mxml_node_t *node, mxml_node_t *top)
{
    return mxmlFindElement(node, top, "item", "entry", nullptr, MXML_DESCEND);
}

// A subscription whose feed has items: the only ones worth an overview at login.
bool has_items(mxml_node_t *item)
{
    auto *entry = static_cast<mxml_node_t *>(mxmlGetUserData(item));
    auto *feed = entry ? static_cast<kd_node *>(mxmlGetUserData(entry)) : nullptr;
    return feed && feed->children;
}

// The profile and subscription may have gone with a new document since the
// overview was queued; only pointer comparisons are made until both are found.
bool still_subscribed(kd_client *c, kd_profile *p, mxml_node_t *item)
{
    bool linked = false;
    for (uint32_t i = 0; i < c->nprofiles && !linked; i++)
        linked = c->profiles[i] == p;
    if (!linked || !p->profile)
        return false;
    for (mxml_node_t *n = next_subscription(p->profile, p->profile); n; n = next_subscription(n, p->profile))
        if (n == item)
            return true;
    return false;
}

void overview_timer(void *param, int);

void hold(queued_overview *q)
{
    q->timer = 0;
    q->next = nullptr;
    *g_push.held_tail = q;
    g_push.held_tail = &q->next;
}

// Takes out of the held list every overview of one connection (all of them
// when client is null), in order; the rest keep theirs.
queued_overview *take_held(kd_client *client)
{
    queued_overview *taken = nullptr, **tail = &taken;
    g_push.held_tail = &g_push.held;
    for (queued_overview *q = g_push.held, *next; q; q = next) {
        next = q->next;
        q->next = nullptr;
        if (client && q->client != client) {
            *g_push.held_tail = q;
            g_push.held_tail = &q->next;
            continue;
        }
        *tail = q;
        tail = &q->next;
    }
    *g_push.held_tail = nullptr;
    return taken;
}

void arm(queued_overview *q)
{
    q->timer = timeout_add(overview_timer, 0, q);
    if (q->timer <= 0) {
        kd_free(q);
        return;
    }
    q->next = g_push.queued;
    g_push.queued = q;
}

void overview_timer(void *param, int)
{
    auto *q = static_cast<queued_overview *>(param);
    unlist(q);
    if (!still_subscribed(q->client, q->desc.profile, q->desc.subscription)) {
        kd_free(q);
        return;
    }
    // Built now, it would only wait behind the blocks already queued.
    if (q->client->outq.head) {
        hold(q);
        return;
    }
    send_request(q->client, KD_CMD_OVERVIEW, &q->desc);
    kd_free(q);
}

void queue_overview(kd_client *c, kd_profile *p, mxml_node_t *item, const char *domain)
{
    auto *q = static_cast<queued_overview *>(kd_calloc(1, sizeof(queued_overview)));
    if (!q)
        return;
    q->client = c;
    q->desc = {item, p, domain};
    arm(q);
}

// An unasked answer ("accounts" or "status") built on the stack; the domain
// is a copy, as in a parsed request.
kd_msg unasked(uint32_t cmd, const kd_profile *p)
{
    kd_msg m{};
    m.cmd = cmd;
    m.domain = kd_strdup(kd_get_domainname_from_profile(p));
    m.profile_id = p->profile_id;
    return m;
}

const char *entry_attr(mxml_node_t *item, const char *name)
{
    auto *entry = item ? static_cast<mxml_node_t *>(mxmlGetUserData(item)) : nullptr;
    const char *v = entry ? mxmlElementGetAttr(entry, name) : nullptr;
    return v ? v : "";
}

// Same feeds, same names, same order: the clients' view did not change.
bool subscriptions_differ(mxml_node_t *old_profile, mxml_node_t *new_profile)
{
    mxml_node_t *a = next_subscription(old_profile, old_profile);
    mxml_node_t *b = next_subscription(new_profile, new_profile);
    for (; a && b; a = next_subscription(a, old_profile), b = next_subscription(b, new_profile)) {
        if (strcmp(entry_attr(a, "name"), entry_attr(b, "name")) != 0)
            return true;
        if (strcmp(entry_attr(a, "id"), entry_attr(b, "id")) != 0)
            return true;
    }
    return a || b;
}

bool profile_listed(const kd_profile *p)
{
    for (kd_profile *l : {g_rssproflist, g_podproflist})
        for (; l; l = l->next)
            if (l == p)
                return true;
    return false;
}

void status_to_unaware(kd_profile *list)
{
    for (kd_profile *p = list; p; p = p->next)
        if (!p->was_online && p->nconns > 0)
            status_update(p, 0);
}

} // namespace

void kd_client_register(void)
{
    constexpr kd_config_clients for_config{kd_check_profupdate, kd_client_drop_profile, kd_client_fd};
    constexpr kd_refresh_clients for_refresh{kd_send_overview, kd_entry_updated};
    kd_config_set_clients(&for_config);
    kd_refresh_set_clients(&for_refresh);
}

void kd_send_overview(mxml_node_t *subscription, kd_client *except)
{
    kd_profile *p = kd_get_profile_from_item(subscription);
    if (!p)
        return;
    kd_overview_desc desc{subscription, p, kd_get_domainname_from_profile(p)};
    for (uint32_t i = 0; i < p->nconns; i++)
        if (p->connections[i] != except)
            send_request(p->connections[i], KD_CMD_OVERVIEW, &desc);
}

void schedule_overviews(kd_client *client, kd_profile *profile, const char *domain)
{
    if (!profile->profile)
        return;
    const char *name = strcmp(domain, KD_DOMAIN_RSS) == 0 ? KD_DOMAIN_RSS : KD_DOMAIN_PODCAST;
    mxml_node_t *top = profile->profile;
    for (mxml_node_t *n = next_subscription(top, top); n; n = next_subscription(n, top))
        if (has_items(n))
            queue_overview(client, profile, n, name);
}

void kd_drop_queued_overviews(kd_client *client)
{
    queued_overview **pp = &g_push.queued;
    while (queued_overview *q = *pp) {
        if (q->client != client) {
            pp = &q->next;
            continue;
        }
        *pp = q->next;
        timeout_del(q->timer);
        kd_free(q);
    }
    for (queued_overview *q = take_held(client), *next; q; q = next) {
        next = q->next;
        kd_free(q);
    }
}

void kd_release_held_overviews(kd_client *client)
{
    for (queued_overview *q = take_held(client), *next; q; q = next) {
        next = q->next;
        arm(q);
    }
}

void new_client_view(kd_profile *p)
{
    KD_ASSERT(p!=((void *)0));
    kd_msg m = unasked(KD_CMD_ACCOUNTS, p);
    for (uint32_t i = 0; i < p->nconns; i++) {
        send_response(p->connections[i], &m, p);
        if (p->profile && m.domain)
            schedule_overviews(p->connections[i], p, m.domain);
    }
    kd_free(m.domain);
}

void kd_entry_updated(mxml_node_t *entry)
{
    auto *feed = entry ? static_cast<kd_node *>(mxmlGetUserData(entry)) : nullptr;
    if (!feed)
        return;
    for (uint32_t i = 0; i < feed->nrefs; i++)
        if (kd_profile *p = kd_get_profile_from_item(feed->refs[i]))
            new_client_view(p);
}

void kd_check_profupdate(mxml_node_t *old_profile, mxml_node_t *new_profile)
{
    mxml_node_t *chosen = nullptr;
    if (old_profile && new_profile)
        chosen = subscriptions_differ(old_profile, new_profile) ? new_profile : nullptr;
    else
        chosen = old_profile ? old_profile : new_profile;
    auto *p = chosen ? static_cast<kd_profile *>(mxmlGetUserData(chosen)) : nullptr;
    if (p)
        new_client_view(p);
}

void status_update(void *param, int)
{
    KD_ASSERT(param!=((void *)0));
    auto *p = static_cast<kd_profile *>(param);
    // A status queued at login must not reach a record freed since.
    if (!profile_listed(p))
        return;
    kd_msg m = unasked(KD_CMD_STATUS, p);
    if (!kd_internet_usable())
        m.error = KD_NO_INTERNET;
    for (uint32_t i = 0; i < p->nconns; i++)
        send_response(p->connections[i], &m, p);
    kd_free(m.domain);
}

void kd_start_internet_retry(void)
{
    if (g_push.retry_timer > 0)
        return;
    g_push.retry_wait = KD_RETRY_FIRST;
    g_push.retry_timer = timeout_add(internet_retry, static_cast<uint32_t>(g_push.retry_wait), nullptr);
}

void internet_retry(void *, int)
{
    if (!kd_internet_usable()) {
        g_push.retry_wait = g_push.retry_wait * 2 > KD_RETRY_MAX ? KD_RETRY_MAX : g_push.retry_wait * 2;
        KD_LOG(2, LOG_NOTICE, "still no internet - waiting another %d seconds",
               static_cast<int>(g_push.retry_wait));
        g_push.retry_timer = timeout_add(internet_retry, static_cast<uint32_t>(g_push.retry_wait), nullptr);
        return;
    }
    g_push.retry_timer = 0;
    KD_LOG(2, LOG_NOTICE, "the internet is back, hooray!");
    status_to_unaware(g_rssproflist);
    status_to_unaware(g_podproflist);
    kd_refresh_timers();
}

int32_t kd_internet_retry_timer(void)
{
    return g_push.retry_timer;
}

int32_t kd_internet_retry_wait(void)
{
    return g_push.retry_wait;
}

void kd_internet_retry_reset(void)
{
    g_push.retry_timer = 0;
    g_push.retry_wait = 0;
}
