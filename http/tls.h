// httpcli transport for https:// URLs: the few calls the exchange makes to
// run over TLS instead of the bare socket. Built with KELP_TLS the session is
// mbedTLS (http/tls.cpp); without it (http/tls_none.cpp) no URL asks for TLS
// and every scheme is fetched with plain HTTP on port 80, as always.
#pragma once
#include <cstddef>
#include <cstdint>

#include "http/httpcli.h"

// One TLS session over a connected socket (the socket stays the caller's).
struct http_tls;

// What a finished handshake negotiated, or why it failed (error non-null):
// what the hooks' tls_observer is told (httpcli.h).
struct http_tls_report {
    const char *server;  // "host:port"
    const char *version; // "TLSv1.2", ...
    const char *cipher;
    const char *subject; // the peer certificate's subject
    const char *error;
};

// True for https when TLS is built in: the scheme a URL must keep in a
// redirect target, and whose default port is 443.
bool http_is_tls_scheme(const char *scheme);

// Port of a URL that names none: 443 for https when TLS is built in, else 80.
int32_t http_default_port(const char *scheme);

// True when this exchange runs over TLS: an https URL fetched directly (a
// proxy gets the absolute-form request over plain HTTP as before).
bool http_tls_wanted(const httpcli_ctx *ctx, const http_uri *uri);

// Handshake on the socket whose non-blocking connect is under way, with the
// server's certificate chain and host name verified. 0 with *out set, or
// HTTPCLI_NO_CONNECTION (a TLS failure's reason logged at the
// connection-error verbosity) or HTTPCLI_NO_MEMORY.
int http_tls_open(const httpcli_ctx *ctx, int fd, const http_uri *uri, http_tls **out);

// Ends the session (no close_notify: the connection is closed next anyway).
void http_tls_close(http_tls *t);

// Sends all n bytes; false when the peer fails or a wait runs out.
bool http_tls_send(const httpcli_ctx *ctx, http_tls *t, const char *data, uint32_t n);

// Reads up to n bytes of application data: a positive count, or 0 when the
// body has ended (the peer closed, a wait ran out, or the session failed).
size_t http_tls_recv(const httpcli_ctx *ctx, http_tls *t, char *buf, size_t n);

// Waits until fd is readable or writable within the context's time-out;
// shared by the plain and the TLS transport.
bool http_wait(const httpcli_ctx *ctx, int fd, bool writable);
