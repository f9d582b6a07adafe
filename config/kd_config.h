// kd_config: the configuration documents of the "rss" and "podcast" domains,
// the configd session and the merge. (Being written; this is the part the
// main loop needs.)
#pragma once

struct rpc_conn;

rpc_conn *kd_config_init(void);
void kd_config_close(rpc_conn *conn);
int kd_config_empty(void);
