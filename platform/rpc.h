// rpc: the client side of the device's RPC channel to configd.
// (Being designed; the configuration work completes this header.)
#pragma once

struct rpc_conn;

// True when no RPC connection is left.
int rpc_isempty(void);
