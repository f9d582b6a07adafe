// csock: the event multiplexer of the device library, over epoll. Handles are
// positive integers. Callbacks run from csock_select() on the one thread; a
// callback may close any handle, its own included: a handle closed during a
// dispatch round gets no further callbacks in that round, and its close
// callback runs exactly once, after the callback that closed it has returned.
//
// Signals: csock_select() waits with every signal unblocked (epoll_pwait), so
// a program blocks the signals it handles and they are delivered only while it
// sleeps here; a signal pending before the wait ends it at once, and one
// pending when the wait returns at once anyway (busy handles, a due timer)
// is let in before csock_select() returns.
#pragma once
#include <cstddef>
#include <cstdint>
#include <sys/un.h>

typedef void (*csock_cb)(int handle, void *ctx);
// Accept callback: gets the new connection's descriptor; a non-zero result
// refuses it and csock closes the descriptor.
typedef int (*csock_accept_cb)(int fd, void *ctx);

int csock_init(void);
void csock_exit(void);

// Puts fd into listening state (small backlog, non-blocking) and accepts on
// readability. When an accept fails for lack of descriptors or memory the
// listener rests for a second (one LOG_ERR line) instead of spinning.
int csock_add_listenfd(int fd, const char *name, csock_accept_cb acceptcb, csock_cb closecb, void *ctx);

// readcb: readable, or hang-up/error (so that the owner's read sees it);
// writecb: writable (only while write interest is on, see csock_want_write);
// exceptcb: urgent data; errcb: hang-up or error, after readcb;
// closecb: once, when the handle is closed with csock_close.
int csock_add_fd(int fd, const char *name, csock_cb readcb, csock_cb writecb, csock_cb exceptcb,
                 csock_cb errcb, csock_cb closecb, void *ctx);

// Write interest; on by default when a writecb was given.
void csock_want_write(int handle, int on);

// Blocks until at least one event, a due timer or a signal; dispatches each
// ready handle and each due timer once. Returns the number of callbacks run,
// or -1 on an unexpected wait failure.
int csock_select(void);

// Unregisters the handle and runs its close callback; the descriptor itself
// is the owner's to close.
void csock_close(int handle, int flags);
// Unregisters the handle without any callback.
void csock_fastclose(int handle);
// Descriptor of a handle, -1 for an unknown one.
int csock_fileno(int handle);

// Fills a local socket address; returns the address length, or -1 when the
// path does not fit.
int csock_sockaddr_set_unix(struct sockaddr_un *addr, const char *path);

// Lets a connected local packet socket send packets of up to `packet` bytes:
// a packet larger than the send buffer fails with EMSGSIZE, so the buffer is
// raised (SO_SNDBUFFORCE where the process may, SO_SNDBUF otherwise). Returns
// the largest packet the socket takes afterwards, -1 when it cannot be read.
int csock_fit_packets(int fd, uint32_t packet);

// Details callers rely on:
// - csock_close() called from inside any callback (socket or timer) defers the
//   close callback until that callback has returned; called outside
//   csock_select() it runs the close callback before returning. Either way the
//   handle is unknown at once (csock_fileno() gives -1, further closes do
//   nothing) and gets no more callbacks.
// - A hang-up or error runs readcb (if given), then errcb; a handle without a
//   readcb stops being watched after its hang-up so the loop does not spin.
//   Readability is watched only with a readcb, urgent data only with an
//   exceptcb: data nobody reads never ends a wait.
// - A handle whose descriptor its owner closed before csock_close, the number
//   since registered again as a new handle, leaves the new registration alone.
// - csock_select() returns 0 after a signal when no due timer ran; timers run
//   after the socket callbacks of the same wake-up.
// - csock_exit() frees every record without callbacks; csock can be used again
//   afterwards.

// Number of registered handles, for tests and diagnostics.
size_t csock_count(void);
