// configctl: command-line tool for configd. Prints a domain's document or
// validates and stores a new one, as a simple blocking client of the
// configd RPC.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include "configd/store.h"
#include "platform/csock.h"
#include "platform/kd_paths.h"
#include "platform/rpc_configd.h"
#include "platform/rpc_wire.h"
#include "util/kd_fd.h"
#include "util/kd_mxml.h"

static constexpr int ANSWER_TIMEOUT_S = 10;

static int fail(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("configctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return 1;
}

static int connect_configd()
{
    sockaddr_un addr;
    if (csock_sockaddr_set_unix(&addr, KD_CONFIGD_SOCKET) < 0)
        return -1;
    kd_unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd || connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0)
        return -1;
    // A configd that stopped answering must not hang a script for ever.
    timeval tv{ANSWER_TIMEOUT_S, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    return fd.release();
}

static bool send_frame(int fd, uint8_t kind, uint32_t id, uint32_t tag, ...)
{
    rpc_buf b{};
    va_list ap;
    va_start(ap, tag);
    const rpc_msgdesc *d = rpcw_find(g_ConfigD_ParamsList, id);
    bool ok = rpcw_encode(&b, kind, id, tag, rpcw_format(d, kind), ap);
    va_end(ap);
    for (size_t off = 0; ok && off < b.len;) {
        ssize_t n = send(fd, b.data + off, b.len - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        ok = n > 0;
        off += ok ? size_t(n) : 0;
    }
    rpcw_buf_free(&b);
    return ok;
}

// Reads frames until the first reply or error reply arrives; indications
// are skipped. 1 decoded, 0 otherwise.
static int await_reply(int fd, rpc_msg *m, std::string *why)
{
    rpc_buf in{};
    for (;;) {
        uint32_t len;
        int r = rpcw_frame_ready(in.data + in.off, in.len - in.off, &len);
        if (r < 0) {
            *why = "malformed answer from configd";
            break;
        }
        if (r == 0) {
            char buf[65536];
            ssize_t n = read(fd, buf, sizeof buf);
            // A socket with a time-out fails with EINTR after a stop and
            // continue (^Z, fg) even without a signal handler.
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0 || !rpcw_buf_append(&in, buf, size_t(n))) {
                bool slow = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
                *why = slow ? "no answer from configd within 10 s" : "connection to configd closed";
                break;
            }
            continue;
        }
        const uint8_t *p = in.data + in.off + RPCW_PREFIX;
        in.off += RPCW_PREFIX + len;
        if (rpcw_decode(p, len, g_ConfigD_ParamsList, m) == 1 && m->is_reply) {
            rpcw_buf_free(&in);
            return 1;
        }
        rpcw_msg_clear(m);
    }
    rpcw_buf_free(&in);
    return 0;
}

static int cmd_get(const char *domain)
{
    if (!cfg_valid_domain(domain))
        return fail("invalid domain name '%s' (allowed: 1 to 32 of a-z 0-9 _ -)", domain);
    kd_unique_fd fd(connect_configd());
    if (!fd)
        return fail("cannot connect to configd at %s: %s", KD_CONFIGD_SOCKET, strerror(errno));
    rpc_msg m{};
    std::string why;
    bool ok = send_frame(fd.get(), RPCW_REQUEST, RPC_CONFIGD_GET_CONFIG, 1, domain) &&
              await_reply(fd.get(), &m, &why);
    if (!ok)
        return fail("get %s: %s", domain, why.empty() ? "cannot send request" : why.c_str());
    int rc = 0;
    if (m.error)
        rc = fail("get %s: %s", domain, m.error);
    else if (char *text = mxmlSaveAllocString(m.x, MXML_NO_CALLBACK)) {
        size_t n = strlen(text);
        fputs(text, stdout);
        if (n && text[n - 1] != '\n')
            fputc('\n', stdout);
        free(text);
    }
    rpcw_msg_clear(&m);
    return rc;
}

static bool read_input(const char *file, std::string *text, std::string *why)
{
    FILE *f = strcmp(file, "-") ? fopen(file, "rb") : stdin;
    if (!f) {
        *why = std::string("cannot open ") + file + ": " + strerror(errno);
        return false;
    }
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0 && text->size() <= RPC_MAX_FRAME)
        text->append(buf, n);
    bool ok = !ferror(f);
    if (f != stdin)
        fclose(f);
    if (!ok)
        *why = std::string("cannot read ") + file;
    else if (text->size() > RPC_MAX_FRAME - 1024)
        *why = "document too large (limit 16 MiB)";
    else if (memchr(text->data(), 0, text->size()))
        *why = "document contains a NUL byte";
    return why->empty();
}

// Stores, then fetches back on the same connection: configd answers in
// order, so the fetch's reply proves the save went through.
static int store_remote(const char *domain, mxml_node_t *doc)
{
    kd_unique_fd fd(connect_configd());
    if (!fd)
        return fail("cannot connect to configd at %s: %s", KD_CONFIGD_SOCKET, strerror(errno));
    std::string why;
    rpc_msg m{};
    bool ok = send_frame(fd.get(), RPCW_REQUEST, RPC_CONFIGD_SAVE_CONFIG, 1, domain, doc) &&
              send_frame(fd.get(), RPCW_REQUEST, RPC_CONFIGD_GET_CONFIG, 2, domain) &&
              await_reply(fd.get(), &m, &why);
    if (!ok && why.empty())
        why = "cannot send the document";
    if (ok && m.tag == 1)
        why = m.error ? m.error : "unexpected answer";
    rpcw_msg_clear(&m);
    return why.empty() ? 0 : fail("set %s: %s", domain, why.c_str());
}

static int cmd_set(const char *domain, const char *file)
{
    if (!cfg_valid_domain(domain))
        return fail("invalid domain name '%s' (allowed: 1 to 32 of a-z 0-9 _ -)", domain);
    std::string text, why;
    if (!read_input(file, &text, &why))
        return fail("%s", why.c_str());
    kd_mxml_tree doc(cfg_parse(text.c_str(), &why));
    if (doc)
        why = cfg_check_document(doc.get());
    if (!why.empty())
        return fail("%s: %s", file, why.c_str());
    return store_remote(domain, doc.get());
}

static int usage()
{
    fprintf(stderr, "usage: configctl get DOMAIN\n       configctl set DOMAIN FILE|-\n");
    return 2;
}

int main(int argc, char **argv)
{
    mxmlSetWrapMargin(0);
    if (argc == 3 && !strcmp(argv[1], "get"))
        return cmd_get(argv[2]);
    if (argc == 4 && !strcmp(argv[1], "set"))
        return cmd_set(argv[2], argv[3]);
    return usage();
}
