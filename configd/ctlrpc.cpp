// ctlrpc: the blocking client of configd (configctl, kelp-web): frames out,
// the first reply back, and the read-modify-write loop with conditional
// saves.
// Descriptors are held by kd_unique_fd and trees by kd_mxml_tree only.
#include "configd/ctlrpc.h"
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include "configd/cfgproto.h"
#include "configd/store.h"
#include "platform/csock.h"
#include "platform/kd_paths.h"
#include "platform/rpc_configd.h"
#include "platform/rpc_wire.h"
#include "util/kd_fd.h"

int g_ctl_timeout = 10;

namespace {

// Attempts of one read-modify-write before giving up on a busy domain.
constexpr int UPDATE_ATTEMPTS = 10;

} // namespace

int ctl_fail(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("configctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return 1;
}

namespace {

kd_unique_fd connect_configd(std::string *why)
{
    sockaddr_un addr;
    kd_unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (csock_sockaddr_set_unix(&addr, KD_CONFIGD_SOCKET) < 0 || !fd ||
        connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        *why = std::string("cannot connect to configd at ") + KD_CONFIGD_SOCKET + ": " + strerror(errno);
        return kd_unique_fd();
    }
    // A configd that stopped answering must not hang a script for ever.
    timeval tv{g_ctl_timeout, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    return fd;
}

bool send_frame(int fd, uint32_t id, uint32_t tag, ...)
{
    rpc_buf b{};
    va_list ap;
    va_start(ap, tag);
    const rpc_msgdesc *d = rpcw_find(g_cfg_messages, id);
    bool ok = rpcw_encode(&b, RPCW_REQUEST, id, tag, rpcw_format(d, RPCW_REQUEST), ap);
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

// More bytes from configd; false with the reason when none will come.
bool read_more(int fd, rpc_buf *in, std::string *why)
{
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        // A socket with a time-out fails with EINTR after a stop and
        // continue (^Z, fg) even without a signal handler.
        if (n < 0 && errno == EINTR)
            continue;
        if (n > 0 && rpcw_buf_append(in, buf, size_t(n)))
            return true;
        bool slow = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        *why = slow ? "no answer from configd within " + std::to_string(g_ctl_timeout) + " s"
                    : "connection to configd closed";
        return false;
    }
}

// Reads frames until the first reply or error reply arrives; indications
// are skipped. False with the reason in *why otherwise.
bool await_reply(int fd, rpc_msg *m, std::string *why)
{
    rpc_buf in{};
    bool got = false;
    while (!got) {
        uint32_t len;
        int r = rpcw_frame_ready(in.data + in.off, in.len - in.off, &len);
        if (r < 0)
            *why = "malformed answer from configd";
        if (r < 0 || (r == 0 && !read_more(fd, &in, why)))
            break;
        if (r == 0)
            continue;
        const uint8_t *p = in.data + in.off + RPCW_PREFIX;
        in.off += RPCW_PREFIX + len;
        got = rpcw_decode(p, len, g_cfg_messages, m) == 1 && m->is_reply;
        if (!got)
            rpcw_msg_clear(m);
    }
    rpcw_buf_free(&in);
    return got;
}

// Sends one request and waits for its answer; an error reply's reason
// lands in *why.
bool exchange(int fd, rpc_msg *m, std::string *why, uint32_t id, const char *s, mxml_node_t *x)
{
    bool sent = x ? send_frame(fd, id, 1, s, x) : send_frame(fd, id, 1, s);
    if (!sent) {
        *why = "cannot send the request";
        return false;
    }
    if (!await_reply(fd, m, why))
        return false;
    if (m->error)
        *why = m->error;
    return !m->error;
}

// The tree leaves the message for the caller's owner.
mxml_node_t *fetch_on(int fd, const char *domain, std::string *gen, std::string *why)
{
    rpc_msg m{};
    mxml_node_t *doc = nullptr;
    if (exchange(fd, &m, why, CFG_GET_GENERATION, domain, nullptr)) {
        *gen = m.s;
        doc = m.x;
        m.x = nullptr;
    }
    rpcw_msg_clear(&m);
    return doc;
}

} // namespace

mxml_node_t *ctl_fetch(const char *domain, std::string *generation, std::string *why)
{
    kd_unique_fd fd = connect_configd(why);
    return fd ? fetch_on(fd.get(), domain, generation, why) : nullptr;
}

// Stores, then fetches back on the same connection: configd answers in
// order, so the fetch's reply proves the save went through.
bool ctl_store(const char *domain, mxml_node_t *doc, std::string *why)
{
    kd_unique_fd fd = connect_configd(why);
    if (!fd)
        return false;
    rpc_msg m{};
    bool ok = send_frame(fd.get(), RPC_CONFIGD_SAVE_CONFIG, 1, domain, doc) &&
              send_frame(fd.get(), RPC_CONFIGD_GET_CONFIG, 2, domain) && await_reply(fd.get(), &m, why);
    if (!ok && why->empty())
        *why = "cannot send the document";
    if (ok && m.tag == 1)
        *why = m.error ? m.error : "unexpected answer";
    rpcw_msg_clear(&m);
    return why->empty();
}

namespace {

// A short pause of random length, so that two editors who keep colliding
// fall out of step.
void back_off(int attempt)
{
    timespec ts{0, long(1 + rand() % (5 * (attempt + 1))) * 1000000L};
    nanosleep(&ts, nullptr);
}

// One attempt: 1 stored, 0 conflict (try again), -1 refused by the edit,
// -2 failed.
int update_once(int fd, const char *domain, const ctl_edit &edit, std::string *out, std::string *why)
{
    std::string gen;
    kd_mxml_tree doc(fetch_on(fd, domain, &gen, why));
    if (!doc)
        return -2;
    if (!edit(doc.get(), out, why))
        return -1;
    // Nothing changed: nothing to store, and nobody to tell.
    if (cfg_generation_of(doc.get()) == gen)
        return 1;
    std::string arg = std::string(domain) + " " + gen;
    rpc_msg m{};
    bool ok = exchange(fd, &m, why, CFG_SAVE_IF, arg.c_str(), doc.get());
    rpcw_msg_clear(&m);
    if (ok)
        return 1;
    return why->rfind(CFG_CONFLICT, 0) == 0 ? 0 : -2;
}

} // namespace

ctl_result ctl_apply(const char *domain, const ctl_edit &edit, std::string *out, std::string *why)
{
    kd_unique_fd fd = connect_configd(why);
    if (!fd)
        return ctl_result::unreachable;
    srand(unsigned(getpid() ^ time(nullptr)));
    for (int attempt = 0; attempt < UPDATE_ATTEMPTS; attempt++) {
        out->clear();
        why->clear();
        int r = update_once(fd.get(), domain, edit, out, why);
        if (r != 0)
            return r > 0 ? ctl_result::stored : r == -1 ? ctl_result::refused : ctl_result::failed;
        back_off(attempt);
    }
    *why = "the document kept changing while it was edited (" + std::to_string(UPDATE_ATTEMPTS) + " attempts)";
    return ctl_result::busy;
}

int ctl_update(const char *what, const char *domain, const ctl_edit &edit)
{
    if (!cfg_valid_domain(domain))
        return ctl_fail("invalid domain name '%s' (allowed: 1 to 32 of a-z 0-9 _ -)", domain);
    std::string out, why;
    ctl_result r = ctl_apply(domain, edit, &out, &why);
    if (r == ctl_result::stored) {
        fputs(out.c_str(), stdout);
        return 0;
    }
    if (r == ctl_result::unreachable)
        return ctl_fail("%s", why.c_str());
    return ctl_fail("%s %s: %s", what, domain, why.c_str());
}
