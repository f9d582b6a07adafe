// cfgproto: the message table served by the reference configd; constant
// data, owning no descriptor or record.
#include "configd/cfgproto.h"
#include "platform/rpc_configd.h"

const rpc_msgdesc g_cfg_messages[] = {
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
    {CFG_GET_GENERATION, "s", "sx"},
    {CFG_SAVE_IF, "sx", "s"},
    {0, nullptr, nullptr},
};
