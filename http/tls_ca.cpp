// The CA bundle walked one certificate at a time: the file is mapped for
// the walk (page cache, nothing copied), each PEM block decoded into one
// reused buffer and parsed on its own, and only the wanted ones kept.
#include "http/tls_ca.h"

#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mbedtls/base64.h>
#include <mbedtls/error.h>
#include <mbedtls/pem.h>

#include "platform/slab.h"
#include "util/kd_fd.h"

namespace {

constexpr std::string_view PEM_BEGIN = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view PEM_END = "-----END CERTIFICATE-----";

// The bundle's bytes for one walk, and the buffer its blocks decode into.
struct bundle {
    const char *data = nullptr;
    size_t size = 0;
    std::string_view rest; // what the walk has not reached
    bool der = false;      // no PEM block: the file is one DER certificate
    unsigned char *buf = nullptr;
    size_t cap = 0;

    bundle() = default;
    bundle(const bundle &) = delete;
    bundle &operator=(const bundle &) = delete;
    ~bundle()
    {
        if (data)
            munmap(const_cast<char *>(data), size);
        kd_free(buf);
    }
};

int open_bundle(const char *file, bundle *b)
{
    kd_unique_fd fd(open(file, O_RDONLY | O_CLOEXEC));
    struct stat st;
    void *p = MAP_FAILED;
    if (fd && fstat(fd.get(), &st) == 0 && st.st_size > 0)
        p = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd.get(), 0);
    if (p == MAP_FAILED)
        return MBEDTLS_ERR_X509_FILE_IO_ERROR;
    b->data = static_cast<const char *>(p);
    b->size = static_cast<size_t>(st.st_size);
    b->rest = {b->data, b->size};
    b->der = b->rest.find(PEM_BEGIN) == std::string_view::npos;
    return 0;
}

// Decodes one block's base64 into the bundle's buffer.
int decode(bundle *b, std::string_view text, size_t *len)
{
    auto src = reinterpret_cast<const unsigned char *>(text.data());
    size_t need = 0;
    int ret = mbedtls_base64_decode(nullptr, 0, &need, src, text.size());
    if (ret != MBEDTLS_ERR_BASE64_BUFFER_TOO_SMALL)
        return ret ? ret : MBEDTLS_ERR_X509_INVALID_FORMAT; // an empty block too
    if (need > b->cap) {
        kd_free(b->buf);
        b->cap = 0;
        if (!(b->buf = static_cast<unsigned char *>(kd_malloc(need))))
            return MBEDTLS_ERR_X509_ALLOC_FAILED;
        b->cap = need;
    }
    return mbedtls_base64_decode(b->buf, b->cap, len, src, text.size());
}

// The next certificate's DER: 1 with *der and *len set, 0 at the end, or a
// negative error for a block that cannot be decoded (the walk goes on).
int next_der(bundle *b, const unsigned char **der, size_t *len)
{
    if (b->der) {
        b->der = false;
        b->rest = {};
        *der = reinterpret_cast<const unsigned char *>(b->data);
        *len = b->size;
        return 1;
    }
    size_t begin = b->rest.find(PEM_BEGIN);
    if (begin == std::string_view::npos)
        return 0;
    b->rest.remove_prefix(begin + PEM_BEGIN.size());
    size_t end = b->rest.find(PEM_END);
    if (end == std::string_view::npos) {
        b->rest = {};
        return MBEDTLS_ERR_PEM_INVALID_DATA; // cut off: the last block
    }
    std::string_view text{b->rest.data(), end};
    b->rest.remove_prefix(end + PEM_END.size());
    int ret = decode(b, text, len);
    *der = b->buf;
    return ret ? ret : 1;
}

// Whether mbedTLS could take a and b for one name. It compares the same
// attributes with their text compared exactly or ignoring case; this test
// errs on the side of "the same", which costs at most one CA more kept.
bool same_name(const mbedtls_x509_name *a, const mbedtls_x509_name *b)
{
    for (; a && b; a = a->next, b = b->next) {
        if (a->oid.len != b->oid.len || a->val.len != b->val.len)
            return false;
        if (a->oid.len && memcmp(a->oid.p, b->oid.p, a->oid.len) != 0)
            return false;
        auto text = [](const mbedtls_x509_buf &v) { return reinterpret_cast<const char *>(v.p); };
        if (a->val.len && strncasecmp(text(a->val), text(b->val), a->val.len) != 0)
            return false;
    }
    return !a && !b;
}

bool signs_some(const mbedtls_x509_crt *ca, const mbedtls_x509_crt *chain)
{
    for (const mbedtls_x509_crt *c = chain; c && c->raw.len; c = c->next)
        if (same_name(&ca->subject, &c->issuer))
            return true;
    return false;
}

// A parsed certificate of the bundle, freed when the next one comes.
struct one_cert {
    mbedtls_x509_crt crt;
    one_cert() { mbedtls_x509_crt_init(&crt); }
    ~one_cert() { mbedtls_x509_crt_free(&crt); }
    one_cert(const one_cert &) = delete;
    one_cert &operator=(const one_cert &) = delete;
    int parse(const unsigned char *der, size_t len)
    {
        mbedtls_x509_crt_free(&crt);
        mbedtls_x509_crt_init(&crt);
        return mbedtls_x509_crt_parse_der(&crt, der, len);
    }
};

// Parses the bundle's certificates one at a time and hands each that the
// library can use to visit(crt, der, len), which answers 0 to go on, 1 to
// stop or an error. Returns that 1 or error, else 0; *last is the error of
// the last certificate that could not be used. Running out of memory ends
// the walk: a certificate left out then could be the one wanted.
template <class Visit> int each_cert(const char *file, int *last, Visit visit)
{
    bundle b;
    int ret = open_bundle(file, &b);
    if (ret)
        return ret;
    one_cert c;
    const unsigned char *der;
    size_t len;
    while ((ret = next_der(&b, &der, &len)) != 0) {
        if (ret > 0)
            ret = c.parse(der, len);
        if (ret == MBEDTLS_ERR_X509_ALLOC_FAILED)
            return ret;
        if (ret != 0)
            *last = ret; // skipped, as when the whole bundle is loaded
        else if ((ret = visit(c.crt, der, len)) != 0)
            return ret;
    }
    return 0;
}

} // namespace

int tls_ca_check(const char *file)
{
    int last = MBEDTLS_ERR_X509_INVALID_FORMAT; // a bundle without a block
    int ret = each_cert(file, &last, [](const mbedtls_x509_crt &, const unsigned char *, size_t) { return 1; });
    if (ret == 1)
        return 0;
    return ret ? ret : last;
}

int tls_ca_for_chain(const char *file, const mbedtls_x509_crt *chain, mbedtls_x509_crt *trust)
{
    int last = 0;
    return each_cert(file, &last, [&](const mbedtls_x509_crt &ca, const unsigned char *der, size_t len) {
        return signs_some(&ca, chain) ? mbedtls_x509_crt_parse_der(trust, der, len) : 0;
    });
}
