// kd_client: the connection records of local clients on the control socket.
// Owns the doubly linked client list entries (the head is the main loop's),
// receiving one request per packet, sending whole blocks, and tearing a
// connection down so that no profile keeps a pointer to a freed record.
// A connection's socket belongs to its record from kd_new_connection on and
// is closed in one place, kd_disconnect_client.
#include "client/kd_client.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/kd_msg.h"
#include "client/kd_msg_limits.h"
#include "client/kd_push.h"
#include "config/kd_config.h"
#include "platform/csock.h"
#include "platform/slab.h"
#include "util/kd_log.h"

namespace {

constexpr size_t KD_MAX_REQUEST = 8192;

// Callback context of one connection: where the list head lives, and the record.
struct client_ctx {
    kd_client **head;
    kd_client *client;
};

void client_error_cb(int, void *) {}

void client_writable(int, void *ctx)
{
    kd_outq_drain(static_cast<client_ctx *>(ctx)->client);
}

// A zero-length packet and an orderly close both read as 0 bytes on a
// sequenced-packet socket; only the hang-up tells them apart.
bool peer_hung_up(int fd)
{
    pollfd p{fd, POLLIN | POLLRDHUP, 0};
    if (poll(&p, 1, 0) <= 0)
        return false;
    return (p.revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) != 0;
}

bool expected_recv_errno(int err)
{
    return err == EAGAIN || err == EPIPE || err == ENETRESET || err == ECONNABORTED ||
           err == ECONNRESET || err == ESHUTDOWN;
}

// A packet larger than the socket's send buffer is refused outright, so the
// buffer must take the largest block the daemon builds.
void fit_largest_block(int fd)
{
    int fits = csock_fit_packets(fd, KD_MSG_MAX_BLOCK);
    if (fits >= 0 && static_cast<uint32_t>(fits) >= KD_MSG_MAX_BLOCK)
        return;
    KD_LOG(1, LOG_WARNING, "client sd=%d takes messages of up to %d bytes only, not %u: longer ones are dropped",
           fd, fits, KD_MSG_MAX_BLOCK);
}

void free_msg(kd_msg *msg)
{
    if (!msg)
        return;
    kd_free(msg->domain);
    kd_free(msg);
}

// Reads one packet into msg; returns msg when a request was parsed, else
// frees it and returns null (broken is set when the peer is gone).
kd_msg *receive_request(kd_client *c, kd_msg *msg)
{
    char buf[KD_MAX_REQUEST];
    int fd = csock_fileno(c->handle);
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n > 0) {
        kd_msg_parse(msg, buf, static_cast<size_t>(n));
        return msg;
    }
    // An empty packet from a live peer is no request, and no reason to drop
    // its sessions; an orderly close also shows the hang-up.
    if (n == 0 && !peer_hung_up(fd)) {
        KD_LOG(4, LOG_DEBUG, "received empty request - ignored");
    } else if (n == 0) {
        KD_LOG(4, LOG_DEBUG, "received 0 bytes");
        c->broken = 1;
    } else {
        int err = errno;
        KD_LOG(1, LOG_ERR, "recv failed with %d", err);
        if (!expected_recv_errno(err))
            KD_LOG(1, LOG_ERR, "recv failed with %d", err);
        c->broken = 1;
    }
    free_msg(msg);
    return nullptr;
}

// Takes every profile link out of both sides (stops if a link cannot be
// removed) and drops what still waits to be sent to the connection.
void detach_profiles(kd_client *c)
{
    kd_drop_queued_overviews(c);
    kd_outq_clear(&c->outq);
    while (c->nprofiles > 0) {
        uint32_t before = c->nprofiles;
        kd_unlink_profile(c, c->profiles[0]);
        if (c->nprofiles >= before)
            break;
    }
    kd_free(c->profiles);
    c->profiles = nullptr;
    c->nprofiles = 0;
}

// Sends a built block whole and frees it; a block that could not be built
// is dropped with the caller's log line.
int send_built(kd_client *client, int built, char *buf, uint32_t size, const char *failure)
{
    if (!built) {
        kd_free(buf);
        KD_LOG(1, LOG_ERR, "%s", failure);
        return 0;
    }
    int ok = client_send(client, buf, size);
    kd_free(buf);
    return ok;
}

} // namespace

int kd_new_connection(int fd, void *ctx)
{
    KD_ASSERT(ctx!=((void *)0));
    KD_LOG(2, LOG_NOTICE, "new client connected");
    auto *c = static_cast<kd_client *>(kd_calloc(1, sizeof(kd_client)));
    auto *cc = c ? static_cast<client_ctx *>(kd_calloc(1, sizeof(client_ctx))) : nullptr;
    int h = -1;
    if (cc) {
        cc->head = static_cast<kd_client **>(ctx);
        cc->client = c;
        h = csock_add_fd(fd, "client", client_request, client_writable, nullptr, client_error_cb, client_closed, cc);
    }
    if (h <= 0) {
        kd_free(cc);
        kd_free(c);
        KD_LOG(1, LOG_ERR, "unable to register new client");
        return -2;
    }
    c->handle = h;
    csock_want_write(h, 0); // only while blocks wait
    fit_largest_block(fd);
    kd_client **head = cc->head;
    c->next = *head;
    if (*head)
        (*head)->prev = c;
    *head = c;
    return 0;
}

void client_request(int, void *ctx)
{
    KD_ASSERT(ctx!=((void *)0));
    kd_client *c = static_cast<client_ctx *>(ctx)->client;
    auto *msg = static_cast<kd_msg *>(kd_calloc(1, sizeof(kd_msg)));
    if (msg)
        msg = receive_request(c, msg);
    if (c->broken == 1) {
        // The teardown may have freed the record, and a dead peer has nobody
        // to answer, so the request is dropped.
        KD_LOG(2, LOG_NOTICE, "client gone");
        kd_disconnect_client(c);
    } else if (msg) {
        kd_handle_request(c, msg);
    }
    free_msg(msg);
}

void kd_disconnect_client(kd_client *client)
{
    if (!client)
        return;
    detach_profiles(client);
    int h = client->handle;
    if (h <= 0)
        return;
    // Cleared first: the close callback may free the record inside csock_close.
    client->handle = 0;
    int fd = csock_fileno(h);
    if (fd >= 0)
        close(fd);
    csock_close(h, 0);
}

void client_closed(int, void *ctx)
{
    KD_LOG(4, LOG_DEBUG, "client connection closed");
    if (!ctx)
        return;
    auto *cc = static_cast<client_ctx *>(ctx);
    kd_client *c = cc->client;
    // A close the daemon did not start (the multiplexer's shutdown) must not
    // leave profiles pointing at the freed record.
    detach_profiles(c);
    if (c->prev)
        c->prev->next = c->next;
    if (c->next)
        c->next->prev = c->prev;
    if (*cc->head == c)
        *cc->head = c->next;
    kd_free(c);
    kd_free(cc);
}

void kd_client_drop_profile(kd_client *client, kd_profile *profile)
{
    for (uint32_t i = 0; i < client->nprofiles; i++) {
        if (client->profiles[i] != profile)
            continue;
        for (uint32_t j = i + 1; j < client->nprofiles; j++)
            client->profiles[j - 1] = client->profiles[j];
        client->nprofiles--;
        return;
    }
}

int kd_client_fd(const kd_client *client)
{
    return client ? csock_fileno(client->handle) : -1;
}

void kd_trace_client(kd_client *client)
{
    if (!client)
        return;
    syslog(LOG_DEBUG, "client connection on sd=%d [API=%d]", csock_fileno(client->handle), client->api);
    for (uint32_t i = 0; i < client->nprofiles; i++) {
        kd_profile *p = client->profiles[i];
        if (!p)
            continue;
        const char *dom = kd_get_domainname_from_profile(p);
        if (p->profile) {
            const char *id = mxmlElementGetAttr(p->profile, "id");
            syslog(LOG_DEBUG, "  [%s] profile %s", dom, id ? id : "");
        } else {
            syslog(LOG_DEBUG, "  [%s] profile %d [placeholder]", dom, static_cast<int>(p->profile_id));
        }
    }
}

// Never blocks: what the socket cannot take now waits in the connection's
// queue (kd_outq), so one client that stops reading cannot stall the loop.
int client_send(kd_client *client, const char *buf, size_t count)
{
    KD_ASSERT(client!=((void *)0));
    return kd_outq_send(client, buf, count);
}

int send_response(kd_client *client, kd_msg *req, const void *object)
{
    char *buf = nullptr;
    uint32_t size = 0;
    int built = kd_msg_response(&buf, &size, req, client->api, object);
    return send_built(client, built, buf, size, "unable to prepare response");
}

int send_request(kd_client *client, uint32_t cmd, const void *descriptor)
{
    char *buf = nullptr;
    uint32_t size = 0;
    auto *desc = static_cast<const kd_overview_desc *>(descriptor);
    int built = kd_msg_request(&buf, &size, cmd, client->api, desc);
    return send_built(client, built, buf, size, "unable to prepare request - too much data");
}
