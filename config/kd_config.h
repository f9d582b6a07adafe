// kd_config: the configuration documents of the "rss" and "podcast" domains
// (vocabulary, domains, profile records and lookups), the configd session,
// and the merge of new documents with the poll timers.
#pragma once
#include <cstdint>
#include <mxml.h>

struct rpc_conn;
struct rpc_msg;
struct kd_client;
struct kd_item;
struct kd_node;

// Runtime record of one profile of a domain; a placeholder has no element.
struct kd_profile {
    mxml_node_t *profile;      // the "profile" element, or null for a placeholder
    kd_client **connections;   // connections using this profile, in order of addition
    uint32_t nconns;           // "#conns"
    uint32_t profile_id;
    uint8_t was_online;
    kd_profile *next;
    kd_profile *prev;
};

// The two domains: names, request handles (tags) and received bits.
inline constexpr char KD_DOMAIN_RSS[] = "rss";
inline constexpr char KD_DOMAIN_PODCAST[] = "podcast";
inline constexpr uint32_t KD_HANDLE_RSS = 1;
inline constexpr uint32_t KD_HANDLE_PODCAST = 2;

extern mxml_node_t *g_rssdomain;     // RSS document root, or null
extern mxml_node_t *g_poddomain;     // podcast document root, or null
extern kd_profile *g_rssproflist;
extern kd_profile *g_podproflist;

// --- document model and lookups ---
const char *kd_get_domainname_from_profile(const kd_profile *p);
mxml_node_t *kd_get_domain_from_node(mxml_node_t *node);
kd_profile *kd_get_profile_from_item(mxml_node_t *node);
uint32_t kd_extract_pollfreq(mxml_node_t *entry);
int kd_feed_in_use(mxml_node_t *entry);
// The root's "pool" child and the pool's "entry" children: direct children
// only, the elements that feed records hang off. Null at the end or for null.
mxml_node_t *kd_pool_of(mxml_node_t *root);
mxml_node_t *kd_first_entry(mxml_node_t *pool);
mxml_node_t *kd_next_entry(mxml_node_t *entry, mxml_node_t *pool);

// --- configd session ---
// States of the session (g_configstate, owned by config/, kd_config_state.h).
inline constexpr int32_t KD_CONFIG_NONE = -1;       // no connection
inline constexpr int32_t KD_CONFIG_CONNECTING = 0;
inline constexpr int32_t KD_CONFIG_REQUESTED = 1;   // a document was asked for
inline constexpr int32_t KD_CONFIG_RECEIVED = 2;    // the last request was answered
inline constexpr int32_t KD_CONFIG_CLOSING = 3;
// Domains whose document has arrived at least once (a set of bits).
inline constexpr uint32_t KD_RECEIVED_RSS = 1;
inline constexpr uint32_t KD_RECEIVED_PODCAST = 2;
inline constexpr uint32_t KD_RECEIVED_BOTH = KD_RECEIVED_RSS | KD_RECEIVED_PODCAST;
int32_t kd_config_state(void);
uint32_t kd_config_received(void);
rpc_conn *kd_config_init(void);
void kd_config_close(rpc_conn *conn);
void kd_save_config(mxml_node_t *root);
// Callbacks of the configd connection, run by the RPC library.
void kd_configd_closed(rpc_conn *conn, rpc_msg *msg);
void kd_configd_established(rpc_conn *conn, rpc_msg *msg);
void kd_configd_error(rpc_conn *conn, rpc_msg *msg);
void kd_configd_data(rpc_conn *conn, rpc_msg *msg);
void kd_configd_change(rpc_conn *conn, rpc_msg *msg);

// --- merge and poll timers ---
void kd_config_merge(mxml_node_t **slot, kd_profile **list, mxml_node_t *newdoc);
void kd_refresh_domain_timers(mxml_node_t *root);
void kd_refresh_timers(void);
// The internet status as the daemon sees it, asked before polls start and
// by the client service.
int kd_internet_usable(void);
void kd_unlink_profile(kd_client *client, kd_profile *profile);
int kd_config_empty(void);

// Seams for tests; kd_config_set_hooks(nullptr) puts the defaults back.
struct kd_config_hooks {
    // The device's internet status: dsldstat_internet_usable.
    int (*internet_usable)(void);
};
void kd_config_set_hooks(const kd_config_hooks *hooks);

// --- calls up ---
// config/ calls the modules above it only through the functions they
// register at start-up; until then (and after a registration with null)
// each of these calls does nothing.
// refresh/ (kd_refresh_register): a poll falls due (the callback of every
// poll timer, the feed record as param), and a poll stops or its record is
// about to be freed, so that a fetch under way never reports back.
struct kd_config_polls {
    void (*refresh)(void *feed, int timer);
    void (*cancel)(const kd_node *feed);
};
void kd_config_set_polls(const kd_config_polls *polls);
// client/ (kd_client_register): a merge replaced a profile's element (either
// may be null: the profile appeared or vanished), a profile leaves a
// connection's list (the profile's side is kd_unlink_profile's), and a
// connection's socket descriptor for log lines.
struct kd_config_clients {
    void (*profile_changed)(mxml_node_t *old_profile, mxml_node_t *new_profile);
    void (*drop_profile)(kd_client *client, kd_profile *profile);
    int (*client_fd)(const kd_client *client);
};
void kd_config_set_clients(const kd_config_clients *clients);

// --- read markers ---
// Sets the bit of `index` in the subscription's "read"; 1 when it was clear.
int kd_mark_read(mxml_node_t *item, uint32_t index);
// Brings "first" in line with "read" and the feed's current first item.
void kd_fix_readmarkers(mxml_node_t *item);
// The value "first" records for `item` standing at position 0: the hash of
// its title, whatever form the title had in the document.
uint32_t kd_first_hash(const kd_item *item);
