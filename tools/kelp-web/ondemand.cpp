// kelp-web's sessions and the keeper: sessions waiting for kelpd get a
// control connection as soon as it answers, starting it when it does not.
// Their pages are told that kelpd is being started, or that it is not
// there, why, and when the next try comes; a session then waits, its page
// showing nothing it could click, until kelpd is back and it is logged in
// again. Nothing waits: no connection is held, so kelpd ends as it does.
#include "server.h"

#include "wire.h"

#include <syslog.h>

namespace kweb {

namespace {

std::vector<session *> waiting(session_table *t)
{
    std::vector<session *> out;
    for (auto &s : t->all)
        if (!s->dead && s->state == link::waiting)
            out.push_back(s.get());
    return out;
}

// Pushing may drop a session (its queue full): the list is taken first.
void tell_waiting(session_table *t, const std::string &json)
{
    for (session *s : waiting(t))
        session_push(t, s, json);
}

std::string down_event(const std::string &why, int retry_ms)
{
    std::string json = "{\"type\":\"kelpd\",\"state\":\"down\",\"text\":";
    json_append_string(&json, why);
    return json + ",\"retry\":" + std::to_string((retry_ms + 999) / 1000) + "}";
}

// Connects every waiting session; false when kelpd does not answer.
bool attach_waiting(web_server *srv, int64_t now)
{
    bool any = false;
    for (session *s : waiting(&srv->sessions)) {
        kd_unique_fd fd(keeper_connect(&srv->keeper));
        if (!fd)
            break;
        any = true;
        session_attach(s, std::move(fd));
    }
    if (any)
        keeper_served(&srv->keeper, now);
    return any;
}

// kelpd answers but no page waits for it any more: one connection that
// ends at once, so that kelpd, which ends when its last client has gone,
// does not idle for nobody.
bool let_go(web_server *srv, int64_t now)
{
    kd_unique_fd fd(keeper_connect(&srv->keeper));
    if (!fd)
        return false;
    syslog(LOG_INFO, "kelpd answers, but no page waits for it any more");
    keeper_served(&srv->keeper, now);
    return true;
}

void fail(web_server *srv, int64_t now)
{
    int ms = keeper_pause(&srv->keeper, now);
    syslog(LOG_NOTICE, "kelpd could not be started: %s; next try in %d ms", srv->keeper.why.c_str(), ms);
    tell_waiting(&srv->sessions, down_event(srv->keeper.why, ms));
}

void try_now(web_server *srv, int64_t now)
{
    if (attach_waiting(srv, now))
        return;
    if (!keeper_start(&srv->keeper, now)) {
        fail(srv, now);
        return;
    }
    tell_waiting(&srv->sessions, "{\"type\":\"kelpd\",\"state\":\"starting\"}");
}

void probe(web_server *srv, int64_t now)
{
    kelpd_keeper *k = &srv->keeper;
    if (now < k->next_probe)
        return;
    k->next_probe = now + kProbeMs;
    bool answered = waiting(&srv->sessions).empty() ? let_go(srv, now) : attach_waiting(srv, now);
    if (answered)
        syslog(LOG_INFO, "kelpd answers on %s", k->ctl_path.c_str());
    else if (!keeper_check_start(k, now))
        fail(srv, now);
}

} // namespace

void ondemand_turn(web_server *srv, int64_t now)
{
    kelpd_keeper *k = &srv->keeper;
    keeper_reap(k);
    session_relogin(&srv->sessions, now);
    if (k->phase == keeper_phase::starting) {
        probe(srv, now);
        return;
    }
    if (k->phase == keeper_phase::pausing) {
        if (now < k->deadline)
            return;
        k->phase = keeper_phase::idle;
    }
    if (!waiting(&srv->sessions).empty())
        try_now(srv, now);
}

void ondemand_lost(web_server *srv, session *s, int64_t now)
{
    bool was_idle = srv->keeper.phase == keeper_phase::idle;
    int ms = keeper_lost(&srv->keeper, now);
    if (was_idle)
        syslog(LOG_NOTICE, "kelpd has gone; next try in %d ms", ms);
    session_push(&srv->sessions, s, down_event(srv->keeper.why, ms));
}

void ondemand_kick(web_server *srv, int64_t now)
{
    if (srv->keeper.phase == keeper_phase::pausing)
        srv->keeper.deadline = now;
}

int ondemand_wait_ms(web_server *srv, int64_t now)
{
    int ms = keeper_wait_ms(&srv->keeper, now);
    for (auto &s : srv->sessions.all) {
        if (s->relogin_at == 0)
            continue;
        int due = static_cast<int>(std::max<int64_t>(s->relogin_at - now, 0));
        ms = ms < 0 ? due : std::min(ms, due);
    }
    return ms;
}

} // namespace kweb
