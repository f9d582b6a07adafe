// child: the process service behind kelpd's privilege-separated workers. A
// worker is a forked child that keeps only the write end of one pipe (and
// /dev/null on 0-2), runs one function and ends with _exit; the parent reads
// the pipe without blocking and kills the child when it has waited enough.
// The parent keeps SIGCHLD ignored, so the kernel reaps every child itself.
#pragma once
#include <sys/types.h>

// The unprivileged account workers run as when the daemon runs as root.
struct child_account {
    uid_t uid;
    gid_t gid;
};

// Looks the account up in the user database; false when it is missing.
bool child_lookup_account(const char *name, child_account *out);

// Runs fn(arg, wfd) in a new child and returns its pid, with the pipe's read
// end (non-blocking, close-on-exec) in *rfd; -1 when no pipe or process could
// be made. In the child, before fn: every other descriptor closed, the
// signal dispositions and mask back to their defaults, the child killed if
// the parent dies, and no new privileges ever (PR_SET_NO_NEW_PRIVS). fn's
// result is the child's exit status.
pid_t child_spawn(int (*fn)(void *arg, int wfd), void *arg, int *rfd);

// In the child: takes the account's uid and gid (supplementary groups
// dropped) when running as root, and checks that root cannot be regained;
// nothing to do for a process that is not root. 0, or an errno value.
int child_drop_privileges(const child_account *account);

// SIGKILL to a child; the kernel reaps it.
void child_kill(pid_t pid);

// Waits until a child that has ended or was killed is gone (with SIGCHLD
// ignored, waitpid returns once the kernel has reaped it, with ECHILD), so
// that none outlives its work. Never for a child still at work: it blocks.
void child_wait_gone(pid_t pid);

// Writes all n bytes to a blocking descriptor; false when the reader is gone.
bool child_write_all(int fd, const void *data, size_t n);
