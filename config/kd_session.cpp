// Interim configd session: no connection until the RPC transport exists.
#include "config/kd_config.h"

mxml_node_t *g_rssdomain;
mxml_node_t *g_poddomain;
kd_profile *g_rssproflist;
kd_profile *g_podproflist;
int32_t g_configstate = -1;
uint32_t g_receiveddomains;

rpc_conn *kd_config_init(void) { return nullptr; }
void kd_config_close(rpc_conn *) {}
