// rpc_configd: the configd interface description shared by its clients
// (kelpd) and the reference configd: message identifiers and formats.
#pragma once
#include <cstdint>
#include "platform/rpc.h"

inline constexpr uint32_t RPC_CONFIGD_LIST_DOMAINS = 0x10000000;
inline constexpr uint32_t RPC_CONFIGD_SUBSCRIBE = 0x10000001;
inline constexpr uint32_t RPC_CONFIGD_GET_CONFIG = 0x10000002;
inline constexpr uint32_t RPC_CONFIGD_SAVE_CONFIG = 0x10000003;
inline constexpr uint32_t RPC_CONFIGD_CHANGE_IND = 0x20000000;
// Reserved by the interface: described so that frames carrying them decode.
inline constexpr uint32_t RPC_CONFIGD_RESERVED_GET_1 = 0x10000004;
inline constexpr uint32_t RPC_CONFIGD_RESERVED_SAVE_1 = 0x10000005;
inline constexpr uint32_t RPC_CONFIGD_RESERVED_IND_1 = 0x20000001;
inline constexpr uint32_t RPC_CONFIGD_RESERVED_GET_2 = 0x10000006;
inline constexpr uint32_t RPC_CONFIGD_RESERVED_IND_2 = 0x20000002;

// The rows of the configd interface's message table, in the order in which
// configd defines them, without the closing zero row: written once, here,
// for kelpd's table below and for the reference configd's larger one.
#define RPC_CONFIGD_MESSAGE_ROWS                  \
    {RPC_CONFIGD_LIST_DOMAINS, nullptr, "A{s}"},  \
    {RPC_CONFIGD_SUBSCRIBE, "A{s}", nullptr},     \
    {RPC_CONFIGD_GET_CONFIG, "s", "x"},           \
    {RPC_CONFIGD_SAVE_CONFIG, "sx", nullptr},     \
    {RPC_CONFIGD_CHANGE_IND, "s", "v"},           \
    {RPC_CONFIGD_RESERVED_GET_1, "s", "x"},       \
    {RPC_CONFIGD_RESERVED_SAVE_1, "sx", nullptr}, \
    {RPC_CONFIGD_RESERVED_IND_1, "s", "v"},       \
    {RPC_CONFIGD_RESERVED_GET_2, "s", "x"},       \
    {RPC_CONFIGD_RESERVED_IND_2, "s", "v"}

// The interface's rows and the closing zero row.
extern const rpc_msgdesc g_ConfigD_ParamsList[];
extern rpc_ifaceinfo g_ConfigD_IfaceInfo;
