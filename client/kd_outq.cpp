// kd_outq: a connection's queue of blocks not yet sent. A sequenced packet
// goes out whole or not at all, so a block is either sent or queued whole;
// write interest is on exactly while the queue holds something.
#include "client/kd_outq.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "client/kd_client.h"
#include "client/kd_push.h"
#include "platform/csock.h"
#include "platform/slab.h"
#include "util/kd_log.h"

namespace {

char *data_of(kd_outblock *b) { return reinterpret_cast<char *>(b + 1); }

constexpr int kTooLarge = -2;

// 1 sent, 0 would block, -1 failed (logged, broken set for a dead peer),
// kTooLarge when the socket can never take this block (logged).
int try_send(kd_client *c, const char *buf, size_t count)
{
    int fd = csock_fileno(c->handle);
    // MSG_NOSIGNAL: a vanished peer must not kill the daemon with SIGPIPE.
    ssize_t n = send(fd, buf, count, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0)
        return 1;
    int err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK)
        return 0;
    KD_LOG(1, LOG_ERR, "send failed with %d", err);
    if (err == EMSGSIZE) {
        KD_LOG(1, LOG_ERR, "message of %zu bytes is larger than the send buffer of client sd=%d - dropped",
               count, fd);
        return kTooLarge;
    }
    if (err == EPIPE || err == ECONNRESET) {
        KD_LOG(3, LOG_INFO, "connection is broken");
        c->broken = 1;
    }
    return -1;
}

// A reader that let the cap fill up is treated as gone: its next receive
// event (forced by the shutdown) tears it down like a closed peer.
int cut_off(kd_client *c)
{
    KD_LOG(1, LOG_ERR, "send failed with %d", EAGAIN);
    c->broken = 1;
    kd_outq_clear(&c->outq);
    csock_want_write(c->handle, 0);
    shutdown(csock_fileno(c->handle), SHUT_RDWR);
    return 0;
}

int enqueue(kd_client *c, const char *buf, size_t count)
{
    kd_outq *q = &c->outq;
    if (count > KD_OUTQ_MAX_BYTES - q->bytes)
        return cut_off(c);
    auto *b = static_cast<kd_outblock *>(kd_malloc(sizeof(kd_outblock) + count));
    if (!b) {
        KD_LOG(1, LOG_ERR, "send failed with %d", ENOMEM);
        return 0;
    }
    b->next = nullptr;
    b->len = static_cast<uint32_t>(count);
    memcpy(data_of(b), buf, count);
    if (q->tail)
        q->tail->next = b;
    else
        q->head = b;
    q->tail = b;
    q->bytes += b->len;
    csock_want_write(c->handle, 1);
    return 1;
}

void pop(kd_outq *q)
{
    kd_outblock *b = q->head;
    q->head = b->next;
    if (!q->head)
        q->tail = nullptr;
    q->bytes -= b->len;
    kd_free(b);
}

} // namespace

int kd_outq_send(kd_client *client, const char *buf, size_t count)
{
    KD_ASSERT(client!=((void *)0));
    if (count == 0)
        return 1;
    // The reader may have made room since the last turn of the loop.
    if (client->outq.head)
        kd_outq_drain(client);
    if (client->broken)
        return 0;
    // Behind blocks still waiting, a new one must wait too: order is kept.
    if (client->outq.head)
        return enqueue(client, buf, count);
    int r = try_send(client, buf, count);
    if (r == 0)
        return enqueue(client, buf, count);
    return r > 0 ? 1 : 0;
}

void kd_outq_drain(kd_client *c)
{
    kd_outq *q = &c->outq;
    while (q->head) {
        int r = try_send(c, data_of(q->head), q->head->len);
        if (r == 0)
            return;
        // Only this block is lost; the ones behind it still go out in order.
        if (r == kTooLarge) {
            pop(q);
            continue;
        }
        if (r < 0) {
            kd_outq_clear(q);
            break;
        }
        pop(q);
    }
    csock_want_write(c->handle, 0);
    if (!c->broken)
        kd_release_held_overviews(c);
}

void kd_outq_clear(kd_outq *q)
{
    while (q->head)
        pop(q);
}
