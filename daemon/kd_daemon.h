// kd_daemon: the process side of kelpd. Owns the argument scan, detaching
// into the background with the single-instance lock on the pid file, the
// signal handler and the process-wide flags it sets for the main loop.
#pragma once
#include <csignal>
#include <cstdint>

// Set by signal_handler, served and reset by main_loop.
extern volatile sig_atomic_t g_hangup;     // signal number of an unserved SIGHUP, else 0
extern volatile sig_atomic_t g_terminate;  // 1 once SIGTERM arrived; never cleared
extern volatile sig_atomic_t g_dump;       // 1 while a SIGUSR2 waits for its status dump
extern const char *cmd;               // program name handed to setpgmname

// Raises `verbosity` by one per 'v' in every argument (argv[0] included);
// returns 1 when "--create-supportdata" was met (the scan stops there).
int kd_scan_args(int argc, char **argv);

// 0 in the detached child holding the lock, -1 on failure in the child; the
// invoking parent exits with status 0 and never returns.
int32_t daemonize(void);

// Only sets flags: the served signal's own flag, and the one that has the
// loop write its "received ... signal" line.
void signal_handler(int32_t sig);

// The loop's side: the "received ... signal" line of each signal that has
// arrived since the last call.
void kd_log_received_signals(void);
