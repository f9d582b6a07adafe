// docedit: the edits configctl makes to a domain document (Mini-XML tree as
// received, text kept opaque), and the checks of what a user asks to put in
// it. An edit touches only the nodes it adds or removes: every other node
// and attribute ("read", "first", names this tool does not know) is left as
// it was, so configd renders it byte for byte as before. New nodes copy the
// indentation of their neighbours. Nodes belong to the tree; nothing here
// allocates anything else.
#pragma once
#include <string>
#include <vector>
#include <mxml.h>

// Lowest poll interval the daemon honours, in seconds.
inline constexpr long DOC_MIN_POLL = 30;

// Direct element children of `parent` named `name`, in document order.
std::vector<mxml_node_t *> doc_children(mxml_node_t *parent, const char *name);
// The first direct child element of that name, or null.
mxml_node_t *doc_child(mxml_node_t *parent, const char *name);

// Lookups; null when absent. Feed ids match as text, profile ids as numbers.
mxml_node_t *doc_entry(mxml_node_t *root, const char *id);
mxml_node_t *doc_entry_by_url(mxml_node_t *root, const char *url);
mxml_node_t *doc_profile(mxml_node_t *root, const char *id);

// An attribute's value, or `dflt` when the element lacks it.
std::string doc_attr(mxml_node_t *n, const char *name, const char *dflt = "");

// The profile ids that subscribe a feed, in document order.
std::vector<std::string> doc_subscribers(mxml_node_t *root, const char *id);
// The "item" elements below a profile, in document order.
std::vector<mxml_node_t *> doc_items(mxml_node_t *profile);

// One more than the largest numeric feed id, so that new feeds sort last.
std::string doc_next_id(mxml_node_t *root);

// A new element appended among the parent's elements of the same name.
mxml_node_t *doc_append(mxml_node_t *parent, const char *name);
// Removes an element together with the indentation in front of it.
void doc_remove(mxml_node_t *node);

// Adds <entry id url name [poll]> to the pool; poll may be null.
mxml_node_t *doc_add_entry(mxml_node_t *root, const char *id, const char *url, const char *name, const char *poll);
// Removes an entry and every subscription naming it.
void doc_remove_entry(mxml_node_t *root, mxml_node_t *entry);
mxml_node_t *doc_add_profile(mxml_node_t *root, const char *id);
// Subscribes a profile to a feed; false when it was subscribed already.
bool doc_subscribe(mxml_node_t *profile, const char *id);
// Removes a profile's subscriptions of a feed; false when there were none.
bool doc_unsubscribe(mxml_node_t *profile, const char *id);

// Checks of user input: empty when acceptable, otherwise the reason.
std::string doc_check_url(const char *url);
std::string doc_check_name(const char *name);
std::string doc_check_poll(const char *poll);
std::string doc_check_profile_id(const char *id);
