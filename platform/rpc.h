// rpc: the device's message channel to configd (client side for kelpd,
// server side for configd) over a local stream socket, driven by csock.
// Owns the connections, their frame buffers and the dispatch of replies,
// indications, requests and connection events to the owner's callback table.
// Nothing is ever delivered inside rpc_send_*: every callback runs from
// csock_select(). The wire format is described in docs/rpc.md.
#pragma once
#include <cstdint>
#include <mxml.h>
#include <sys/un.h>

struct rpc_conn;

// One row of an interface's message table; an all-zero row ends it.
// Formats: "s" text, "x" XML tree, "A{s}" array of texts, "sx" text and tree,
// "v" nothing; a null format means "no such message part" (no reply sent).
struct rpc_msgdesc {
    uint32_t id;
    const char *args;
    const char *reply;
};

struct rpc_ifaceinfo {
    const char *name;
    uint32_t number;
    const rpc_msgdesc *params;   // set by rpc_addiface
};

// Connection events, delivered through the callback table like messages.
inline constexpr uint32_t RPC_EV_CLOSED = 1;
inline constexpr uint32_t RPC_EV_ESTABLISHED = 2;
inline constexpr uint32_t RPC_EV_ERROR = 0x10;

// Codes of RPC_EV_ERROR (msg->code).
inline constexpr int32_t RPC_ERR_MALFORMED = 1;   // bad frame or payload: connection closed
inline constexpr int32_t RPC_ERR_TOOBIG = 2;      // frame over RPC_MAX_FRAME: connection closed
inline constexpr int32_t RPC_ERR_TRUNCATED = 3;   // peer closed inside a frame
inline constexpr int32_t RPC_ERR_IO = 4;          // socket error
inline constexpr int32_t RPC_ERR_CONNECT = 5;     // asynchronous connect failed
inline constexpr int32_t RPC_ERR_NOMEM = 6;       // an incoming frame could not be stored

// Largest frame payload accepted or sent.
inline constexpr uint32_t RPC_MAX_FRAME = 16u * 1024 * 1024;

// One decoded message or event, valid during the callback only. A handler
// may keep the tree by taking it and clearing `x`; everything else is freed
// by the library after the callback returns.
struct rpc_msg {
    uint32_t id;       // message identifier, or the RPC_EV_* event
    uint32_t tag;      // tag of the request this replies to (0 for events)
    int32_t code;      // RPC_EV_ERROR: the RPC_ERR_* code
    int is_reply;      // 1 for a reply or error reply, 0 for a request or indication
    char *error;       // error reply: the peer's reason; otherwise null
    char *s;           // "s", and the text of "sx"
    mxml_node_t *x;    // "x", and the tree of "sx"
    char **list;       // "A{s}"
    uint32_t nlist;
};

typedef void (*rpc_handler)(rpc_conn *conn, rpc_msg *msg);

// Callback table of a connection: event or message id and handler; a zero
// row ends it. Messages without a row are dropped.
struct rpc_callback {
    uint32_t id;
    rpc_handler handler;
};

// Registers an interface and its message table; negative on failure.
int rpc_addiface(rpc_ifaceinfo *iface, const rpc_msgdesc *params, int flags, int reserved);

// Starts connecting to a local server; null when it cannot (no server
// listening, no memory). RPC_EV_ESTABLISHED follows from csock_select().
rpc_conn *rpc_connect(const struct sockaddr_un *addr, rpc_ifaceinfo *iface, const rpc_callback *cbs);

// Queues a request. Arguments follow the message's argument format: "s" a
// const char *, "x" an mxml_node_t *, "A{s}" a null-terminated
// const char *const * array, "sx" both, "v"/none nothing. 0, or -1 for an
// unknown message, a closed connection, no memory or a frame over the limit.
int rpc_send_req(rpc_conn *conn, uint32_t id, uint32_t tag, ...);

// Server side: answers a request (arguments per its reply format), refuses
// it with an error text, or sends an indication (arguments per the
// indication's argument format).
int rpc_send_reply(rpc_conn *conn, uint32_t id, uint32_t tag, ...);
int rpc_send_error(rpc_conn *conn, uint32_t id, uint32_t tag, const char *reason);
int rpc_send_ind(rpc_conn *conn, uint32_t id, ...);

// Closes after the queued frames have gone out; RPC_EV_CLOSED follows from
// csock_select(). Closing twice is harmless.
void rpc_close(rpc_conn *conn);

// True when no client connection (rpc_connect) is left.
int rpc_isempty(void);

// Server side: listens on a local path (a stale socket file is replaced);
// every accepted connection uses the interface and the callback table.
// Returns the csock handle of the listener, or -1.
int rpc_listen(const char *path, rpc_ifaceinfo *iface, const rpc_callback *cbs);
// Wraps an already connected stream socket (tests, socket pairs); `server`
// selects which side of the exchange this end plays. The connection owns fd.
rpc_conn *rpc_adopt_fd(int fd, rpc_ifaceinfo *iface, const rpc_callback *cbs, int server);
// Closes every connection immediately, without callbacks, and the listener.
void rpc_shutdown(void);

// Per-connection user pointer for servers.
void rpc_set_userdata(rpc_conn *conn, void *data);
void *rpc_get_userdata(rpc_conn *conn);
