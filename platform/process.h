// Process services: program name registration and crash reports.
#pragma once

void setpgmname(const char *name);
const char *getpgmname(void);
// Installs handlers for SIGSEGV, SIGBUS, SIGFPE and SIGABRT that write a
// backtrace to syslog and then let the signal end the process.
// The handlers run on an alternate signal stack, log "crash: signal N" and
// one LOG_CRIT line per frame, and re-raise the signal. In AddressSanitizer
// builds nothing is installed (the sanitizer reports crashes itself).
// Sets the program name from argv0 when none was set before.
void crashdump_init(const char *argv0);
// Also writes the crash report lines to fd (-1: syslog only). For tests.
void crashdump_set_echo_fd(int fd);
