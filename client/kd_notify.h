// kd_notify: what the modules below client/ ask of the client service. They
// never include client/: kd_client_register hands these functions to
// config/ and refresh/ at start-up, and they call up through them. Every
// push goes to the connections of a profile in the order they logged in,
// each with its own API version.
#pragma once
#include <mxml.h>

struct kd_client;
struct kd_profile;

// Registers the functions below with config/ (kd_config_set_clients) and
// refresh/ (kd_refresh_set_clients). Called once at start-up.
void kd_client_register(void);

// Pushes the overview of one subscription ("item" element) to every
// connection of its profile except `except` (null: to all of them).
void kd_send_overview(mxml_node_t *subscription, kd_client *except);
// After an entry's "name" changed: a fresh feed list and fresh overviews for
// every profile that subscribes it.
void kd_entry_updated(mxml_node_t *entry);
// After a merge replaced a profile's element (either may be null: the
// profile appeared or vanished); tells its clients when the subscriptions
// changed. Called before the old document is deleted.
void kd_check_profupdate(mxml_node_t *old_profile, mxml_node_t *new_profile);

// Takes a profile out of a connection's list (the first equal entry; later
// ones move down). The profile's side is the caller's: kd_unlink_profile.
void kd_client_drop_profile(kd_client *client, kd_profile *profile);
// A connection's socket descriptor, for log lines (-1 when it has none).
int kd_client_fd(const kd_client *client);
