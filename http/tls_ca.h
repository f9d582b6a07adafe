// The CA bundle, read when a server's chain is there to be judged: of its
// certificates only those that could have signed a certificate of that
// chain are parsed and kept, so a TLS fetch holds one or two CAs instead of
// the whole bundle. The bundle is PEM (certificates in order, other blocks
// and text between them ignored) or one DER certificate.
#pragma once
#include <mbedtls/x509_crt.h>

// 0 when `file` holds a certificate mbedTLS can parse; else the error of
// the last one that failed, or of reading the file.
int tls_ca_check(const char *file);

// Appends to `trust` every certificate of `file` whose subject names the
// issuer of a certificate of `chain`, in the bundle's order: 0, or the
// error of reading the file or of keeping a certificate.
int tls_ca_for_chain(const char *file, const mbedtls_x509_crt *chain, mbedtls_x509_crt *trust);
