// kd_outq: the blocks a connection could not take at once. Sends never
// block the loop: a block that does not fit into the socket now waits in the
// connection's queue, in order, until the socket is writable again; a
// connection whose queue passes its cap has stopped reading and is cut off.
#pragma once
#include <cstddef>
#include <cstdint>

#include "client/kd_msg_limits.h"

struct kd_client;

// Bytes a connection may have waiting before it counts as gone.
inline constexpr uint32_t KD_OUTQ_MAX_BYTES = 256 * 1024;
// The largest block must be able to wait, or a reader merely behind would be cut off.
static_assert(KD_OUTQ_MAX_BYTES >= KD_MSG_MAX_BLOCK, "the queue must hold the largest block");

struct kd_outblock {
    kd_outblock *next;
    uint32_t len;   // the block's bytes follow the record
};

struct kd_outq {
    kd_outblock *head;
    kd_outblock *tail;
    uint32_t bytes;
};

// Sends a block or queues it behind earlier ones; 1 when it was sent or
// queued, 0 when the connection failed (logged; broken set where the peer
// is gone or the queue passed its cap).
int kd_outq_send(kd_client *client, const char *buf, size_t count);
// Sends what waits, in order, when the connection's socket is writable.
void kd_outq_drain(kd_client *client);
// Drops whatever still waits (teardown).
void kd_outq_clear(kd_outq *q);
