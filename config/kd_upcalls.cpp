// kd_upcalls: the functions the modules above config/ registered at start-up,
// the only way config/ calls up: refresh/'s polls and client/'s connections.
// Until they are registered each call does nothing, so config/ runs (and is
// tested) without them.
#include "config/kd_config.h"
#include "config/kd_merge.h"

namespace {

void no_refresh(void *, int) {}
void no_cancel(const kd_node *) {}
void no_profile_change(mxml_node_t *, mxml_node_t *) {}
void no_drop(kd_client *, kd_profile *) {}
int no_fd(const kd_client *) { return -1; }

constexpr kd_config_polls kNoPolls{no_refresh, no_cancel};
constexpr kd_config_clients kNoClients{no_profile_change, no_drop, no_fd};

// What config/ calls up to, one record per module above.
struct upcall_state {
    kd_config_polls polls;
    kd_config_clients clients;
};

upcall_state g_upcalls{kNoPolls, kNoClients};

} // namespace

void kd_config_set_polls(const kd_config_polls *polls)
{
    g_upcalls.polls = polls ? *polls : kNoPolls;
}

void kd_config_set_clients(const kd_config_clients *clients)
{
    g_upcalls.clients = clients ? *clients : kNoClients;
}

const kd_config_polls &kd_polls(void)
{
    return g_upcalls.polls;
}

const kd_config_clients &kd_clients(void)
{
    return g_upcalls.clients;
}
