// kd_mainloop: the daemon's single event loop. Owns the control socket, the
// client list head and the configd connection for the loop's lifetime, and
// the rule that decides after each wake-up whether there is work left.
#pragma once
#include <cstdint>

struct kd_client;

// 0 after an orderly end, -2 when the control socket could not be set up.
int32_t main_loop(void);

// Close callback of the listener; ctx is the address of the client list head.
void listener_closed(int handle, void *ctx);

// Loop step 7: true when the loop goes on waiting, false for the shutdown step.
bool kd_loop_continue(bool terminate, bool had_clients, bool have_clients, bool config_empty);

// What the shutdown step reports (at verbosity 2): the reason text, or null.
const char *kd_shutdown_reason(bool terminate, bool had_clients, bool have_clients);

// SIGHUP cycles the log level 0..4.
uint32_t kd_next_verbosity(uint32_t v);

// Disconnects every client of the list; each disconnect may free its record.
void kd_disconnect_all(kd_client **head);
