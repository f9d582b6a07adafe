// kd_daemon: the process side of kelpd. Owns the argument scan, detaching
// into the background with the single-instance lock on the pid file, the
// signal handler and the process-wide flags it sets for the main loop.
#pragma once
#include <csignal>
#include <cstdint>

// Set by signal_handler, served and reset by main_loop.
extern volatile int32_t g_hangup;     // signal number of an unserved SIGHUP, else 0
extern volatile int32_t g_terminate;  // 1 once SIGTERM arrived; never cleared
extern volatile int32_t g_dump;       // 1 while a SIGUSR2 waits for its status dump
extern const char *cmd;               // program name handed to setpgmname

// Raises `verbosity` by one per 'v' in every argument (argv[0] included);
// returns 1 when "--create-supportdata" was met (the scan stops there).
int kd_scan_args(int argc, char **argv);

// 0 in the detached child holding the lock, -1 on failure in the child; the
// invoking parent exits with status 0 and never returns.
int32_t daemonize(void);

void signal_handler(int32_t sig);
