// rpc_configd: the message table of the configd interface, in the order in
// which configd defines it.
#include "platform/rpc_configd.h"

const rpc_msgdesc g_ConfigD_ParamsList[] = {
    {RPC_CONFIGD_LIST_DOMAINS, nullptr, "A{s}"},
    {RPC_CONFIGD_SUBSCRIBE, "A{s}", nullptr},
    {RPC_CONFIGD_GET_CONFIG, "s", "x"},
    {RPC_CONFIGD_SAVE_CONFIG, "sx", nullptr},
    {RPC_CONFIGD_CHANGE_IND, "s", "v"},
    {RPC_CONFIGD_RESERVED_GET_1, "s", "x"},
    {RPC_CONFIGD_RESERVED_SAVE_1, "sx", nullptr},
    {RPC_CONFIGD_RESERVED_IND_1, "s", "v"},
    {RPC_CONFIGD_RESERVED_GET_2, "s", "x"},
    {RPC_CONFIGD_RESERVED_IND_2, "s", "v"},
    {0, nullptr, nullptr},
};

rpc_ifaceinfo g_ConfigD_IfaceInfo = {"configd", 1, nullptr};
