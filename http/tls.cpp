// httpcli over TLS with mbedTLS: one session per exchange on the exchange's
// non-blocking socket. The server's chain is checked against the CA bundle
// (KELP_TLS_CA_FILE) and its certificate against the URL's host, which also
// goes out as SNI; TLS 1.2 at least, 1.3 where the library has it. Every wait
// for the socket is one http_wait, bounded by the context's time-out and the
// fetch's deadline.
//
// The bundle is not loaded up front: the library first checks the chain
// against an empty trust list, and the verify callback then judges it again
// against the bundle's CAs that could have signed it (http/tls_ca), the same
// verdict in a fraction of the memory.
#include "http/tls.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <strings.h>
#include <sys/socket.h>

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/net_sockets.h>
#include <mbedtls/ssl.h>
#include <mbedtls/version.h>
#include <mbedtls/x509_crt.h>
#if MBEDTLS_VERSION_NUMBER >= 0x03000000 && (defined(MBEDTLS_USE_PSA_CRYPTO) || defined(MBEDTLS_SSL_PROTO_TLS1_3))
#include <psa/crypto.h>
#define KELP_TLS_NEEDS_PSA 1
#endif

#include "http/deadline.h"
#include "http/tls_ca.h"
#include "platform/slab.h"
#include "util/kd_log.h"

#ifndef KELP_TLS_CA_FILE
#define KELP_TLS_CA_FILE "/etc/ssl/certs/ca-certificates.crt"
#endif

// The mbedTLS contexts of one session, set up and torn down together.
struct http_tls {
    mbedtls_entropy_context entropy;
    mbedtls_ctr_drbg_context drbg;
    mbedtls_x509_crt ca; // stays empty: the trust list the library sees
    mbedtls_ssl_config conf;
    mbedtls_ssl_context ssl;
    int fd;
    char server[272]; // "host:port", for the log
    char host[256];   // the name the certificate must carry

    explicit http_tls(int f) : fd(f), server(), host()
    {
        mbedtls_entropy_init(&entropy);
        mbedtls_ctr_drbg_init(&drbg);
        mbedtls_x509_crt_init(&ca);
        mbedtls_ssl_config_init(&conf);
        mbedtls_ssl_init(&ssl);
    }
    ~http_tls()
    {
        mbedtls_ssl_free(&ssl);
        mbedtls_ssl_config_free(&conf);
        mbedtls_x509_crt_free(&ca);
        mbedtls_ctr_drbg_free(&drbg);
        mbedtls_entropy_free(&entropy);
    }
    http_tls(const http_tls &) = delete;
    http_tls &operator=(const http_tls &) = delete;
};

namespace {

// Owns a session until it is handed to the exchange.
struct tls_holder {
    http_tls *t;
    ~tls_holder() { http_tls_close(t); }
    http_tls *release()
    {
        http_tls *r = t;
        t = nullptr;
        return r;
    }
};

// Socket calls for mbedTLS: a call that would block asks for a wait, any
// other failure (a signal included, as on the plain path) ends the session.
int bio_send(void *p, const unsigned char *buf, size_t len)
{
    ssize_t n = send(*static_cast<int *>(p), buf, std::min(len, size_t{INT_MAX}), MSG_NOSIGNAL);
    if (n >= 0)
        return static_cast<int>(n);
    return errno == EAGAIN || errno == EWOULDBLOCK ? MBEDTLS_ERR_SSL_WANT_WRITE : MBEDTLS_ERR_NET_SEND_FAILED;
}

int bio_recv(void *p, unsigned char *buf, size_t len)
{
    ssize_t n = recv(*static_cast<int *>(p), buf, std::min(len, size_t{INT_MAX}), 0);
    if (n >= 0)
        return static_cast<int>(n);
    return errno == EAGAIN || errno == EWOULDBLOCK ? MBEDTLS_ERR_SSL_WANT_READ : MBEDTLS_ERR_NET_RECV_FAILED;
}

// Logs why the session could not be had and tells the observer.
int fail(const http_tls *t, const char *reason)
{
    KD_LOG(1, LOG_ERR, "TLS with %s failed: %s", t->server, reason);
    if (auto observer = httpcli_current_hooks().tls_observer) {
        http_tls_report r = {t->server, nullptr, nullptr, nullptr, reason};
        observer(&r);
    }
    return HTTPCLI_NO_CONNECTION;
}

int fail_code(const http_tls *t, const char *what, int ret)
{
    char text[160];
    mbedtls_strerror(ret, text, sizeof text);
    char reason[256];
    snprintf(reason, sizeof reason, "%s: %s", what, text);
    return fail(t, reason);
}

// The verification flags as one line, the library's reasons joined by "; ".
int fail_verify(const http_tls *t)
{
    char info[512];
    if (mbedtls_x509_crt_verify_info(info, sizeof info, "", mbedtls_ssl_get_verify_result(&t->ssl)) <= 0)
        snprintf(info, sizeof info, "unknown reason\n");
    char joined[600] = "";
    size_t at = 0;
    for (char *line = strtok(info, "\n"); line && at < sizeof joined; line = strtok(nullptr, "\n"))
        at += static_cast<size_t>(snprintf(joined + at, sizeof joined - at, "%s%s", at ? "; " : "", line));
    char reason[640];
    snprintf(reason, sizeof reason, "certificate not accepted: %s", joined);
    return fail(t, reason);
}

// Called by the library for each certificate of the chain it built against
// the empty trust list, the leaf last. The leaf's call replaces the verdict
// with one against the bundle's CAs for this chain (host name, dates and
// key sizes included); the others' flags are dropped, as that verdict
// covers them.
int verify_with_bundle(void *p, mbedtls_x509_crt *crt, int depth, uint32_t *flags)
{
    if (depth > 0) {
        *flags = 0;
        return 0;
    }
    const auto *t = static_cast<const http_tls *>(p);
    mbedtls_x509_crt trust;
    mbedtls_x509_crt_init(&trust);
    uint32_t verdict = 0;
    int ret = tls_ca_for_chain(KELP_TLS_CA_FILE, crt, &trust);
    if (ret == 0)
        ret = mbedtls_x509_crt_verify_with_profile(crt, &trust, nullptr, &mbedtls_x509_crt_profile_default,
                                                   t->host, &verdict, nullptr, nullptr);
    mbedtls_x509_crt_free(&trust);
    if (ret == MBEDTLS_ERR_X509_CERT_VERIFY_FAILED)
        ret = 0;
    *flags = verdict;
    return ret;
}

// Random source, CA bundle and client settings; 0 or the failing call's code.
int configure(http_tls *t, const char **what)
{
    static const unsigned char personal[] = "kelp httpcli";
    int ret;
    if ((ret = mbedtls_ctr_drbg_seed(&t->drbg, mbedtls_entropy_func, &t->entropy, personal, sizeof personal)))
        return *what = "random source", ret;
    // A bundle with nothing usable fails every server: say so before
    // connecting. Certificates the library cannot use are skipped.
    if ((ret = tls_ca_check(KELP_TLS_CA_FILE)))
        return *what = "CA certificates in " KELP_TLS_CA_FILE, ret;
    if ((ret = mbedtls_ssl_config_defaults(&t->conf, MBEDTLS_SSL_IS_CLIENT, MBEDTLS_SSL_TRANSPORT_STREAM,
                                           MBEDTLS_SSL_PRESET_DEFAULT)))
        return *what = "settings", ret;
#if MBEDTLS_VERSION_NUMBER >= 0x03000000
    mbedtls_ssl_conf_min_tls_version(&t->conf, MBEDTLS_SSL_VERSION_TLS1_2);
#else
    mbedtls_ssl_conf_min_version(&t->conf, MBEDTLS_SSL_MAJOR_VERSION_3, MBEDTLS_SSL_MINOR_VERSION_3);
#endif
    mbedtls_ssl_conf_authmode(&t->conf, MBEDTLS_SSL_VERIFY_REQUIRED);
    mbedtls_ssl_conf_ca_chain(&t->conf, &t->ca, nullptr);
    mbedtls_ssl_conf_verify(&t->conf, verify_with_bundle, t);
    mbedtls_ssl_conf_rng(&t->conf, mbedtls_ctr_drbg_random, &t->drbg);
    return 0;
}

// The session on the socket, with the host as SNI and as the name to verify.
int start_session(http_tls *t, const char *host, const char **what)
{
    int ret;
    if ((ret = mbedtls_ssl_setup(&t->ssl, &t->conf)))
        return *what = "session", ret;
    if ((ret = mbedtls_ssl_set_hostname(&t->ssl, host)))
        return *what = "host name", ret;
    mbedtls_ssl_set_bio(&t->ssl, &t->fd, bio_send, bio_recv, nullptr);
    return 0;
}

// Waits in the direction mbedTLS asked for; false when it asked for none
// of them or the wait ran out.
bool wait_as_asked(const httpcli_ctx *ctx, const http_tls *t, int ret)
{
    if (ret == MBEDTLS_ERR_SSL_WANT_READ)
        return http_wait(ctx, t->fd, false);
    if (ret == MBEDTLS_ERR_SSL_WANT_WRITE)
        return http_wait(ctx, t->fd, true);
    return false;
}

// The TCP connect under way has finished without a pending error.
bool connected(const httpcli_ctx *ctx, int fd)
{
    int err = 0;
    socklen_t errlen = sizeof err;
    return http_wait(ctx, fd, true) && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &errlen) == 0 && !err;
}

void report_success(const http_tls *t, void (*observer)(const http_tls_report *))
{
    char subject[256] = "";
    const mbedtls_x509_crt *peer = mbedtls_ssl_get_peer_cert(&t->ssl);
    if (peer && mbedtls_x509_dn_gets(subject, sizeof subject, &peer->subject) < 0)
        subject[0] = '\0';
    http_tls_report r = {t->server, mbedtls_ssl_get_version(&t->ssl), mbedtls_ssl_get_ciphersuite(&t->ssl),
                         subject, nullptr};
    observer(&r);
}

// Runs the handshake to its end: 0, or HTTPCLI_NO_CONNECTION with the
// reason logged.
int handshake(const httpcli_ctx *ctx, http_tls *t)
{
    for (;;) {
        int ret = mbedtls_ssl_handshake(&t->ssl);
        if (ret == 0)
            break;
        if (ret == MBEDTLS_ERR_X509_CERT_VERIFY_FAILED)
            return fail_verify(t);
        if (ret != MBEDTLS_ERR_SSL_WANT_READ && ret != MBEDTLS_ERR_SSL_WANT_WRITE)
            return fail_code(t, "handshake", ret);
        if (!wait_as_asked(ctx, t, ret))
            return fail(t, http_fetch_expired() ? "handshake: the fetch's deadline passed"
                                                : "handshake: no answer within the time-out");
    }
    if (auto observer = httpcli_current_hooks().tls_observer)
        report_success(t, observer);
    return 0;
}

} // namespace

bool http_is_tls_scheme(const char *scheme) { return scheme && strcasecmp(scheme, "https") == 0; }

int32_t http_default_port(const char *scheme) { return http_is_tls_scheme(scheme) ? 443 : 80; }

bool http_tls_wanted(const httpcli_ctx *ctx, const http_uri *uri)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(uri!=((void *)0));
    return http_is_tls_scheme(uri->scheme) && !(ctx->proxy && *ctx->proxy);
}

int http_tls_open(const httpcli_ctx *ctx, int fd, const http_uri *uri, http_tls **out)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_ASSERT(uri!=((void *)0));
    KD_ASSERT(out!=((void *)0));
#ifdef KELP_TLS_NEEDS_PSA
    if (psa_crypto_init() != PSA_SUCCESS)
        return HTTPCLI_NO_CONNECTION;
#endif
    void *mem = kd_malloc(sizeof(http_tls));
    if (!mem)
        return HTTPCLI_NO_MEMORY;
    tls_holder h{new (mem) http_tls(fd)};
    snprintf(h.t->server, sizeof h.t->server, "%.255s:%d", uri->host, uri->port);
    snprintf(h.t->host, sizeof h.t->host, "%s", uri->host);
    const char *what = "";
    int ret = configure(h.t, &what);
    if (!ret)
        ret = start_session(h.t, uri->host, &what);
    if (ret)
        return fail_code(h.t, what, ret);
    // A refused or unreachable port is no TLS matter: it stays unlogged, as
    // it is for plain HTTP.
    if (!connected(ctx, fd))
        return HTTPCLI_NO_CONNECTION;
    int rc = handshake(ctx, h.t);
    if (rc == 0)
        *out = h.release();
    return rc;
}

void http_tls_close(http_tls *t)
{
    if (!t)
        return;
    t->~http_tls();
    kd_free(t);
}

bool http_tls_send(const httpcli_ctx *ctx, http_tls *t, const char *data, uint32_t n)
{
    KD_ASSERT(t!=((void *)0));
    uint32_t sent = 0;
    while (sent < n) {
        int ret = mbedtls_ssl_write(&t->ssl, reinterpret_cast<const unsigned char *>(data) + sent, n - sent);
        if (ret > 0)
            sent += static_cast<uint32_t>(ret);
        else if (!wait_as_asked(ctx, t, ret))
            return false;
    }
    return true;
}

size_t http_tls_recv(const httpcli_ctx *ctx, http_tls *t, char *buf, size_t n)
{
    KD_ASSERT(t!=((void *)0));
    for (;;) {
        int ret = mbedtls_ssl_read(&t->ssl, reinterpret_cast<unsigned char *>(buf), n);
        if (ret > 0)
            return static_cast<size_t>(ret);
#ifdef MBEDTLS_ERR_SSL_RECEIVED_NEW_SESSION_TICKET
        if (ret == MBEDTLS_ERR_SSL_RECEIVED_NEW_SESSION_TICKET)
            continue; // TLS 1.3 sends tickets after the handshake; not data
#endif
        // 0, close_notify, a plain end of the connection, a broken record or
        // a wait that ran out: the body is what has arrived.
        if (!wait_as_asked(ctx, t, ret))
            return 0;
    }
}
