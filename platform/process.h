// Process services: program name registration and crash reports.
#pragma once

void setpgmname(const char *name);
const char *getpgmname(void);
// Installs handlers for SIGSEGV, SIGBUS, SIGFPE and SIGABRT that write a
// backtrace to syslog and then let the signal end the process.
void crashdump_init(const char *argv0);
