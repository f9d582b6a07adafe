// kd_push: the client service's own side of the notifications (kd_notify.h
// is what the rest of the daemon sees): queued overviews at login, fresh
// views of a profile, the internet status and its retry timer.
#pragma once
#include <cstdint>
#include <mxml.h>

struct kd_client;
struct kd_profile;

// Queues, for the next turn of the loop, one overview per subscription of
// the profile whose feed has items, for one connection.
void schedule_overviews(kd_client *client, kd_profile *profile, const char *domain);
// Drops the overviews still queued or held for a connection that is going away.
void kd_drop_queued_overviews(kd_client *client);
// A connection's queue has drained: its held overviews go out at the next
// turn of the loop, in the order they were held.
void kd_release_held_overviews(kd_client *client);
// The feed list and all overviews of a profile, again, to all its connections.
void new_client_view(kd_profile *p);
// Timer callback and direct call: the internet status to every connection
// of the profile (param).
void status_update(void *param, int id);
// Timer callback: waits for the internet, 30 s doubling up to 600 s.
void internet_retry(void *param, int id);
// Starts the retry wait at 30 s unless one is pending.
void kd_start_internet_retry(void);
// The retry wait as it stands: its timer (0 when none is pending) and its
// wait in seconds.
int32_t kd_internet_retry_timer(void);
int32_t kd_internet_retry_wait(void);
// Forgets the retry wait, as when the timers it ran on have gone (tests).
void kd_internet_retry_reset(void);
