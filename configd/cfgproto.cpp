// cfgproto: the message table served by the reference configd; constant
// data, owning no descriptor or record.
#include "configd/cfgproto.h"
#include "platform/rpc_configd.h"

const rpc_msgdesc g_cfg_messages[] = {
    RPC_CONFIGD_MESSAGE_ROWS,
    {CFG_GET_GENERATION, "s", "sx"},
    {CFG_SAVE_IF, "sx", "s"},
    {0, nullptr, nullptr},
};
