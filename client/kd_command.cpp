// kd_command: the dispatch of a parsed request to its command, and the
// commands that read the configuration and the feeds: accounts, status, and
// the item requests (body, enclosure, image), which also mark the item read
// in every profile that subscribes its feed. Login and logout are the
// sessions' (kd_session.cpp).
#include <cstdio>

#include "client/kd_client.h"
#include "client/kd_command.h"
#include "client/kd_msg.h"
#include "client/kd_push.h"
#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "util/kd_log.h"

namespace {

void handle_accounts(kd_client *c, kd_msg *m)
{
    kd_profile *p = find_client_profile(c, m->domain, m->profile_id);
    if (!p)
        m->error = KD_NOT_LOGGED_IN;
    send_response(c, m, p);
}

// A status request names no profile, so it finds one only in a lookup that
// matches a missing domain; the answer then reports the internet.
void handle_status(kd_client *c, kd_msg *m)
{
    kd_profile *p = find_client_profile(c, nullptr, 0);
    if (!p)
        m->error = KD_NOT_LOGGED_IN;
    else if (!kd_internet_usable())
        m->error = KD_NO_INTERNET;
    send_response(c, m, p);
}

// The profile's subscription of a feed id, anywhere below its element.
mxml_node_t *find_profile_item(kd_profile *p, uint32_t feed_id)
{
    if (!p->profile)
        return nullptr;
    char id[32];
    snprintf(id, sizeof id, "%d", static_cast<int>(feed_id));
    return mxmlFindElement(p->profile, p->profile, "item", "entry", id, MXML_DESCEND);
}

kd_node *feed_of(mxml_node_t *subscription)
{
    auto *entry = static_cast<mxml_node_t *>(mxmlGetUserData(subscription));
    return entry ? static_cast<kd_node *>(mxmlGetUserData(entry)) : nullptr;
}

kd_item *item_with_uid(kd_node *feed, uint32_t uid, uint32_t *index)
{
    uint32_t i = 0;
    for (kd_item *it = feed->children; it; it = it->next, i++) {
        if (it->uid == uid) {
            *index = i;
            return it;
        }
    }
    return nullptr;
}

// Marks the item in the requester's subscription and in every other one of
// the feed; the domain is saved once when any of them changed.
bool mark_item(kd_profile *p, mxml_node_t *sub, kd_node *feed, uint32_t index)
{
    bool changed = kd_mark_read(sub, index) != 0;
    for (uint32_t i = 0; i < feed->nrefs; i++)
        if (feed->refs[i] != sub && kd_mark_read(feed->refs[i], index))
            changed = true;
    if (changed)
        kd_save_config(kd_get_domain_from_node(p->profile));
    return changed;
}

// The requester's other connections learn of a new mark; every other
// subscriber of the feed gets its overview either way.
void notify_readers(kd_client *c, mxml_node_t *sub, kd_node *feed, bool changed)
{
    if (changed)
        kd_send_overview(sub, c);
    for (uint32_t i = 0; i < feed->nrefs; i++)
        if (feed->refs[i] != sub)
            kd_send_overview(feed->refs[i], nullptr);
}

void handle_item(kd_client *c, kd_msg *m)
{
    if (m->error) {
        send_response(c, m, nullptr);
        return;
    }
    kd_profile *p = find_client_profile(c, m->domain, m->profile_id);
    mxml_node_t *sub = p ? find_profile_item(p, m->feed_id) : nullptr;
    if (!p)
        m->error = KD_NOT_LOGGED_IN;
    if (!sub) {
        send_response(c, m, nullptr);
        return;
    }
    kd_node *feed = feed_of(sub);
    if (!feed) {
        m->error = KD_FEED_NOT_FOUND;
        send_response(c, m, nullptr);
        return;
    }
    uint32_t index = 0;
    kd_item *item = item_with_uid(feed, m->uid, &index);
    bool changed = false;
    if (item) {
        changed = mark_item(p, sub, feed, index);
    } else {
        m->error = KD_UID_NOT_FOUND;
    }
    send_response(c, m, item);
    notify_readers(c, sub, feed, changed);
}

void handle_unknown(kd_client *, kd_msg *m)
{
    KD_LOG(2, LOG_NOTICE, "unhandled command %d", static_cast<int>(m->cmd));
}

struct command {
    uint32_t cmd;
    void (*handle)(kd_client *, kd_msg *);
};

constexpr command kCommands[] = {
    {KD_CMD_LOGIN, kd_cmd_login},         {KD_CMD_LOGOUT, kd_cmd_logout}, {KD_CMD_ACCOUNTS, handle_accounts},
    {KD_CMD_STATUS, handle_status},       {KD_CMD_BODY, handle_item},     {KD_CMD_ENCLOSURE, handle_item},
    {KD_CMD_IMAGE, handle_item},
};

} // namespace

void kd_handle_request(kd_client *client, kd_msg *req)
{
    KD_ASSERT(client!=((void *)0));
    KD_ASSERT(req!=((void *)0));
    for (const command &cmd : kCommands) {
        if (cmd.cmd == req->cmd) {
            cmd.handle(client, req);
            return;
        }
    }
    handle_unknown(client, req);
}
