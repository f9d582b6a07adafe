// kd_session: login and logout, which link a connection and a profile both
// ways, the lookup of a connection's profiles, and placeholder profiles.
#include <cstring>

#include "client/kd_client.h"
#include "client/kd_command.h"
#include "client/kd_msg.h"
#include "client/kd_push.h"
#include "config/kd_config.h"
#include "platform/csock.h"
#include "platform/slab.h"
#include "platform/timeout.h"
#include "util/kd_log.h"

namespace {

// The profile list of a domain name, or null for a name that is no domain.
kd_profile **domain_list(const char *domain)
{
    if (strcmp(domain, KD_DOMAIN_RSS) == 0)
        return &g_rssproflist;
    if (strcmp(domain, KD_DOMAIN_PODCAST) == 0)
        return &g_podproflist;
    return nullptr;
}

kd_profile *first_with_id(kd_profile *list, uint32_t profile_id)
{
    for (kd_profile *p = list; p; p = p->next)
        if (p->profile_id == profile_id)
            return p;
    return nullptr;
}

// Finds or makes the domain's record for a login; 0 or the error code.
uint32_t lookup_profile(const kd_msg *m, kd_profile **out)
{
    kd_profile **list = domain_list(m->domain);
    if (!list)
        return KD_DOMAIN_NOT_FOUND;
    if (!*list && kd_config_state() != KD_CONFIG_RECEIVED)
        return KD_NO_CONFIG;
    kd_profile *p = first_with_id(*list, m->profile_id);
    if (!p)
        p = new_profile(m->profile_id, m->domain);
    if (!p) {
        KD_LOG(1, LOG_CRIT, "no memory for profile structure");
        return KD_NO_MEMORY;
    }
    *out = p;
    return KD_NO_ERROR;
}

uint32_t link_profile(kd_client *c, kd_profile *p)
{
    // Both arrays are grown before either count moves, so a failure links nothing.
    auto *cp = static_cast<kd_profile **>(kd_realloc(c->profiles, (c->nprofiles + 1) * sizeof(kd_profile *)));
    if (!cp)
        return KD_NO_MEMORY;
    c->profiles = cp;
    auto *pc = static_cast<kd_client **>(kd_realloc(p->connections, (p->nconns + 1) * sizeof(kd_client *)));
    if (!pc)
        return KD_NO_MEMORY;
    p->connections = pc;
    cp[c->nprofiles++] = p;
    pc[p->nconns++] = c;
    return KD_NO_ERROR;
}

// The session part of a login; 0 with *out set, or the error code.
uint32_t login_session(kd_client *c, const kd_msg *m, kd_profile **out)
{
    if (m->version != 2 && m->version != 3)
        return KD_VERSION_NOT_SUPPORTED;
    c->api = static_cast<int32_t>(m->version);
    if (!m->domain)
        return m->error == KD_NO_MEMORY ? KD_NO_MEMORY : KD_MISSING_DOMAIN;
    *out = find_client_profile(c, m->domain, m->profile_id);
    if (*out)
        return KD_NO_ERROR;
    uint32_t err = lookup_profile(m, out);
    if (err)
        return err;
    return link_profile(c, *out);
}


// A login while the internet is down is answered first; the status message
// follows at the next turn, and the retry wait starts unless it runs.
void tell_offline(kd_profile *p)
{
    if (kd_internet_usable())
        return;
    timeout_add(status_update, 0, p);
    kd_start_internet_retry();
}

} // namespace

void kd_cmd_login(kd_client *c, kd_msg *m)
{
    KD_LOG(2, LOG_NOTICE, "instance with api-version %d logging in for profile %d in domain %s [sd=%d]",
           static_cast<int>(m->version), static_cast<int>(m->profile_id), m->domain ? m->domain : "",
           csock_fileno(c->handle));
    kd_profile *p = nullptr;
    uint32_t err = login_session(c, m, &p);
    if (err) {
        m->error = err;
        send_response(c, m, nullptr);
        return;
    }
    // A profile known to the configuration may bring feeds into use.
    if (p->profile) {
        schedule_overviews(c, p, m->domain);
        kd_refresh_timers();
    }
    tell_offline(p);
    send_response(c, m, p);
}

void kd_cmd_logout(kd_client *c, kd_msg *m)
{
    kd_profile *p = find_client_profile(c, m->domain, m->profile_id);
    if (!p)
        m->error = KD_NOT_LOGGED_IN;
    send_response(c, m, nullptr);
    kd_unlink_profile(c, p);
    if (c->broken == 1) {
        KD_LOG(2, LOG_NOTICE, "oops, client seems to be gone already");
        kd_disconnect_client(c);
    }
}

kd_profile *find_client_profile(kd_client *client, const char *domain, uint32_t profile_id)
{
    // A request without a domain names no profile.
    if (!client || !domain)
        return nullptr;
    for (uint32_t i = 0; i < client->nprofiles; i++) {
        kd_profile *p = client->profiles[i];
        if (p && p->profile_id == profile_id && strcmp(kd_get_domainname_from_profile(p), domain) == 0)
            return p;
    }
    return nullptr;
}

kd_profile *new_profile(uint32_t profile_id, const char *domain)
{
    auto *p = static_cast<kd_profile *>(kd_calloc(1, sizeof(kd_profile)));
    if (!p)
        return nullptr;
    p->profile_id = profile_id;
    bool rss = domain && strcmp(domain, KD_DOMAIN_RSS) == 0;
    kd_profile **head = rss ? &g_rssproflist : &g_podproflist;
    p->next = *head;
    if (*head)
        (*head)->prev = p;
    *head = p;
    return p;
}
