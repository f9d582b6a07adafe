// rpc_configd: the message table of the configd interface, in the order in
// which configd defines it.
#include "platform/rpc_configd.h"

const rpc_msgdesc g_ConfigD_ParamsList[] = {
    {0x10000000, nullptr, "A{s}"},
    {0x10000001, "A{s}", nullptr},
    {0x10000002, "s", "x"},
    {0x10000003, "sx", nullptr},
    {0x20000000, "s", "v"},
    {0x10000004, "s", "x"},
    {0x10000005, "sx", nullptr},
    {0x20000001, "s", "v"},
    {0x10000006, "s", "x"},
    {0x20000002, "s", "v"},
    {0, nullptr, nullptr},
};

rpc_ifaceinfo g_ConfigD_IfaceInfo = {"configd", 1, nullptr};
