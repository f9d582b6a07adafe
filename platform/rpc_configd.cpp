// rpc_configd: the message table of the configd interface, in the order in
// which configd defines them.
#include "platform/rpc_configd.h"

const rpc_msgdesc g_ConfigD_ParamsList[] = {
    RPC_CONFIGD_MESSAGE_ROWS,
    {0, nullptr, nullptr},
};

rpc_ifaceinfo g_ConfigD_IfaceInfo = {"configd", 1, nullptr};
