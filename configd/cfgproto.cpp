// cfgproto: the message table served by the reference configd; constant
// data, owning no descriptor or record.
#include "configd/cfgproto.h"

const rpc_msgdesc g_cfg_messages[] = {
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
    {CFG_GET_GENERATION, "s", "sx"},
    {CFG_SAVE_IF, "sx", "s"},
    {0, nullptr, nullptr},
};
