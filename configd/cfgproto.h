// cfgproto: the messages that the reference configd serves beyond the
// configd interface kelpd knows: a fetch that tells the document's
// generation and a save that is refused when the document changed since
// that generation (docs/rpc.md). Only configd and its editors (configctl,
// kelp-web through ctlrpc) use them.
#pragma once
#include <cstdint>
#include "platform/rpc.h"

// Argument "s" (domain), reply "sx" (generation, document).
inline constexpr uint32_t CFG_GET_GENERATION = 0x10000100;
// Argument "sx" ("DOMAIN GENERATION", document), reply "s" (new generation).
inline constexpr uint32_t CFG_SAVE_IF = 0x10000101;

// Every refusal of CFG_SAVE_IF because the document changed starts with this.
inline constexpr const char CFG_CONFLICT[] = "conflict: ";

// The configd interface's messages followed by the two above; ended by a
// zero row.
extern const rpc_msgdesc g_cfg_messages[];
