// rpc_wire: the frame codec of the configd RPC, shared by the event-driven
// connections (rpc.cpp) and the simple blocking client of configctl. Owns the
// growable frame buffers; see docs/rpc.md for the byte layout.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include "platform/rpc.h"

// Frame kinds (first payload byte).
inline constexpr uint8_t RPCW_REQUEST = 1;
inline constexpr uint8_t RPCW_REPLY = 2;
inline constexpr uint8_t RPCW_INDICATION = 3;
inline constexpr uint8_t RPCW_ERROR_REPLY = 4;

inline constexpr size_t RPCW_PREFIX = 4;   // length prefix
inline constexpr size_t RPCW_HEADER = 9;   // kind, id, tag

// Growable byte buffer on the slab allocator; `off` marks bytes consumed.
struct rpc_buf {
    uint8_t *data;
    size_t len;
    size_t cap;
    size_t off;
};

void rpcw_buf_free(rpc_buf *b);
// Makes room for n more bytes; 0 on no memory.
int rpcw_buf_reserve(rpc_buf *b, size_t n);
// Appends n bytes; 0 on no memory.
int rpcw_buf_append(rpc_buf *b, const void *p, size_t n);
// Drops consumed bytes from the front.
void rpcw_buf_compact(rpc_buf *b);

// Appends one whole frame; the arguments follow `fmt` as for rpc_send_req.
// 1 on success; 0 on no memory, a frame over the limit or a bad argument
// (a null text or tree), leaving the buffer as it was.
int rpcw_encode(rpc_buf *out, uint8_t kind, uint32_t id, uint32_t tag, const char *fmt, va_list ap);

// Examines buffered bytes: 0 when a frame is incomplete, 1 when one is
// complete (*paylen set), -RPC_ERR_TOOBIG or -RPC_ERR_MALFORMED for a length
// that can never be valid.
int rpcw_frame_ready(const uint8_t *p, size_t n, uint32_t *paylen);

// Message table row for an id, or null.
const rpc_msgdesc *rpcw_find(const rpc_msgdesc *table, uint32_t id);

// Decodes one payload. 1: decoded into *out; 0: a well-formed frame for an
// id the table lacks (to be dropped); -1: malformed (bad kind, overrun,
// trailing bytes, a NUL inside a text); -2: well framed but an XML text does
// not parse (id, tag and is_reply are still set).
int rpcw_decode(const uint8_t *payload, uint32_t len, const rpc_msgdesc *table, rpc_msg *out);

// The message format that a frame kind carries for a table row.
const char *rpcw_format(const rpc_msgdesc *d, uint8_t kind);

// Parses XML text into a whole tree (opaque text nodes); null when it is not
// well-formed, elements left open at the end included.
mxml_node_t *rpcw_parse_xml(const char *text);

// Frees what a decoded message still holds and zeroes it.
void rpcw_msg_clear(rpc_msg *m);
