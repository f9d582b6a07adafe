// kelp-web's kelpd on demand. kelpd ends by itself when its last client
// has gone, so a page may find it not running: the keeper then starts it
// (the kelpd installed beside kelp-web, else the one on PATH, or --kelpd)
// and probes its control socket until it answers or a bounded wait has
// passed. After a failure or an end of kelpd it waits before the next try,
// each pause longer than the one before, so that a kelpd which ends at
// once (no configd, nothing subscribed) is not started in a tight loop.
// The keeper holds no connection itself: the sessions do. Nothing here
// knows about sessions or HTTP; the loop glue is in ondemand.cpp.
#pragma once
#include "util/kd_fd.h"

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace kweb {

// How long a started kelpd may take to answer on its control socket.
inline constexpr int kStartMs = 10000;
// Probes of the control socket while kelpd starts.
inline constexpr int kProbeMs = 100;
// Pauses before the next start: the first, the longest, and how long kelpd
// must have served for the pauses to start again from the first.
inline constexpr int kFirstPauseMs = 500;
inline constexpr int kLongestPauseMs = 30000;
inline constexpr int kSteadyMs = 60000;

enum class keeper_phase {
    idle,      // nothing under way: connect, or start kelpd when that fails
    starting,  // kelpd started, its socket not yet answering
    pausing,   // waiting before the next try
};

struct kelpd_keeper {
    std::string program;   // --kelpd; empty: beside kelp-web, else on PATH
    std::string ctl_path;  // kelpd's control socket
    keeper_phase phase = keeper_phase::idle;
    pid_t launcher = -1;   // kelpd's first process (it forks and exits)
    kd_unique_fd out;      // the launcher's standard output
    std::string said;      // what it printed
    pid_t daemon = -1;     // the daemon's pid, once printed
    int64_t deadline = 0;  // starting: give up then; pausing: try again then
    int64_t next_probe = 0;
    int pause_ms = kFirstPauseMs;  // the next pause
    int64_t served_since = -1;     // when kelpd last answered, -1 before
    std::string why;               // the last failure, for the pages
};

// Milliseconds on the monotonic clock.
int64_t mono_ms();

// The kelpd to start: `given` when not empty; else "kelpd" in the directory
// of `self` (kelp-web's own program) when executable; else the first
// executable "kelpd" of the PATH list `path`. False with the reason.
bool keeper_find_program(const std::string &given, const std::string &self, const char *path, std::string *out,
                         std::string *why);

// A connected descriptor on kelpd's control socket, or -1.
int keeper_connect(const kelpd_keeper *k);

// Starts kelpd (phase starting). False, with k->why, when it cannot even
// be run; the caller then pauses.
bool keeper_start(kelpd_keeper *k, int64_t now);
// While starting: reads what the launcher printed and reaps it. Returns
// false with k->why once the start has failed (the launcher failed, the
// daemon ended at once, or kStartMs passed); the caller then pauses.
bool keeper_check_start(kelpd_keeper *k, int64_t now);
// kelpd answered: phase idle, the pauses start from the first again after
// kSteadyMs of service.
void keeper_served(kelpd_keeper *k, int64_t now);
// Waits before the next try (phase pausing); returns the pause in ms.
int keeper_pause(kelpd_keeper *k, int64_t now);
// kelpd's connection ended: pause, unless a pause or a start is under way
// already. Returns the ms until the next try.
int keeper_lost(kelpd_keeper *k, int64_t now);
// Reaps a launcher that is done; called on every turn of the loop.
void keeper_reap(kelpd_keeper *k);
// Milliseconds until the keeper has something to do, or -1 for nothing.
int keeper_wait_ms(const kelpd_keeper *k, int64_t now);

} // namespace kweb
