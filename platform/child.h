// child: the process service behind kelpd's privilege-separated workers. A
// worker is a program of its own that the daemon starts with posix_spawn:
// it gets none of the daemon's memory (and the daemon no pages to copy on
// write), its job on standard input (a pipe holding it whole), the write end
// of its result pipe as descriptor CHILD_RESULT_FD and /dev/null on 1-2,
// with every signal at its default and none blocked. The daemon reads the
// result pipe without blocking and ends the worker when it has waited
// enough; it keeps SIGCHLD ignored, so the kernel reaps every worker.
#pragma once
#include <cstddef>
#include <sys/types.h>

// The descriptor a worker writes its result to.
inline constexpr int CHILD_RESULT_FD = 3;

// The unprivileged account workers run as when the daemon runs as root.
struct child_account {
    uid_t uid;
    gid_t gid;
};

// Looks the account up in the user database; false when it is missing.
bool child_lookup_account(const char *name, child_account *out);

// The path of the program `name` in the directory of the running program,
// into buf; false when it cannot be known or does not fit.
bool child_beside_self(const char *name, char *buf, size_t size);

// Starts the program at `path` (no arguments, the daemon's environment)
// with the n bytes of `job` on its standard input (at most PIPE_BUF, which a
// pipe always holds); returns its pid, with the result pipe's read end
// (non-blocking, close-on-exec) in *rfd, or -1 with errno set. With `more`,
// the input stays open for the rest of the job: *more is its write end
// (close-on-exec), for child_send_rest.
pid_t child_spawn(const char *path, const void *job, size_t n, int *rfd, int *more = nullptr);

// Writes the rest of a job (at most PIPE_BUF bytes) to the input child_spawn
// left open, and closes it. A worker that has died meanwhile makes it
// return false, never a SIGPIPE (the daemon leaves that signal at its
// default).
bool child_send_rest(int more, const void *rest, size_t n);

// Ends a worker: kills it while it still runs (a worker that closed its
// pipe and went on is killed too) and waits until the kernel has reaped it,
// so none outlives its work. Its pid stays its own until then.
void child_end(pid_t pid);

// In a worker, first thing: when running as root, takes the account's uid
// and gid (supplementary groups dropped) and checks that root cannot be
// regained; nothing to do for a worker that is not root. 0, or an errno value.
int child_drop_privileges(const child_account *account);

// In a worker, after any change of credentials: never any new privilege
// (PR_SET_NO_NEW_PRIVS), and killed if `parent` dies; false when `parent` is
// already gone.
bool child_confine(pid_t parent);

// Writes all n bytes to a blocking descriptor; false when the reader is gone.
bool child_write_all(int fd, const void *data, size_t n);
