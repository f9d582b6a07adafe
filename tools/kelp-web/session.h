// kelp-web's browser sessions: each one owns a control connection to kelpd
// (logged in to one domain and profile) while kelpd runs, and the queue of
// Server-Sent Events not yet taken by the browser's event stream. A session
// outlives kelpd: it waits for a control connection (ondemand.cpp gives it
// one) and logs in again. Memory is bounded: a session whose queue passes
// kMaxQueueBytes is dropped, and kelpd messages larger than kMaxPacket are
// refused. The HTTP side is reached only through the table's wake hook, so
// sessions can be driven without a server.
#pragma once
#include "client/kd_msg_limits.h"
#include "util/kd_fd.h"

#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kweb {

inline constexpr size_t kMaxQueueBytes = 4u << 20;
inline constexpr size_t kMaxPacket = 512u << 10;
static_assert(kMaxPacket >= KD_MSG_MAX_BLOCK, "every message kelpd builds must be taken");
inline constexpr size_t kMaxSessions = 16;
// A session whose page never opens its event stream is given up after this.
inline constexpr int kAttachSeconds = 30;
// A login refused because kelpd has no configuration yet is sent again after this.
inline constexpr int kReloginMs = 250;

enum class link {
    waiting, // no control connection: kelpd is not there (yet)
    login,   // the login is sent, its answer not yet here
    live,    // logged in: the page's requests go up
};

struct session {
    std::string token;
    std::string domain;
    uint32_t profile = 0;
    kd_unique_fd ctl;
    link state = link::waiting;
    int64_t relogin_at = 0;         // when a refused login is sent again; 0: not
    std::deque<std::string> queue;  // whole SSE events, oldest first
    size_t queued = 0;              // bytes in queue not yet taken
    size_t front_taken = 0;         // bytes of queue.front() already taken
    void *stream = nullptr;         // the event stream while one is attached
    bool dead = false;              // end the stream now, send nothing more
    time_t born = 0;
};

struct session_table {
    std::vector<std::unique_ptr<session>> all;
    // Called with the stream when it has something to do again; a stream
    // that is not waiting ignores it.
    void (*wake)(void *stream) = nullptr;
    size_t max_packet = kMaxPacket;
};

enum class open_result { ok, too_many, no_token };

// A connected SOCK_SEQPACKET descriptor to kelpd's control socket, or -1.
int ctl_connect(const char *path);

// Makes a session (waiting for its control connection).
open_result session_open(session_table *t, std::string_view domain, uint32_t profile, time_t now, session **out);
// Gives a waiting session its control connection and sends the login;
// false (the descriptor closed, the session still waiting) when it cannot.
bool session_attach(session *s, kd_unique_fd ctl);
session *session_find(session_table *t, std::string_view token);

// Sends one request packet; false when the connection is gone.
bool session_send(session *s, std::string_view request);
// Queues one event's JSON as SSE data; past the cap the session is killed.
bool session_push(session_table *t, session *s, std::string_view json);
// Queues an SSE comment that keeps proxies and the browser's socket awake.
void session_keepalive(session_table *t, session *s);
// Reads one packet from kelpd and queues it as an event; the answer to the
// login makes the session live, unless it says that kelpd has no
// configuration yet (the login is then sent again at relogin_at). Returns
// false when kelpd has closed the connection: the session is waiting again.
bool session_receive(session_table *t, session *s, int64_t now_ms);
// Sends the logins that are due again.
void session_relogin(session_table *t, int64_t now_ms);

// Copies up to max queued bytes into buf; returns how many.
size_t session_take(session *s, char *buf, size_t max);

// Closes the control connection; the stream, if any, ends at once.
void session_kill(session_table *t, session *s);
// The browser's stream has ended: the session is removed.
void session_stream_ended(session_table *t, std::string_view token);
// Removes the sessions that never got a stream within kAttachSeconds, and
// dead ones without a stream.
void session_expire(session_table *t, time_t now);

} // namespace kweb
