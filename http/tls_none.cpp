// httpcli without TLS (built with KELP_TLS off): no URL asks for TLS, and a
// URL without a port goes to port 80 whatever its scheme.
#include "http/tls.h"

bool http_is_tls_scheme(const char *) { return false; }

int32_t http_default_port(const char *) { return 80; }

bool http_tls_wanted(const httpcli_ctx *, const http_uri *) { return false; }

int http_tls_open(const httpcli_ctx *, int, const http_uri *, http_tls **) { return HTTPCLI_NO_CONNECTION; }

void http_tls_close(http_tls *) {}

bool http_tls_send(const httpcli_ctx *, http_tls *, const char *, uint32_t) { return false; }

size_t http_tls_recv(const httpcli_ctx *, http_tls *, char *, size_t) { return 0; }
