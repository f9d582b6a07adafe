// feededit: what a user asks of a domain's feeds and profiles (configctl's
// commands, kelp-web's page), as edits of a fetched document. Each edit
// checks the document first and changes nothing when it refuses, with the
// reason in *why; it is meant to run inside ctl_apply's read-modify-write,
// so it sees the document as configd holds it at that moment. Nodes belong
// to the document (docedit.h).
#pragma once
#include <string>
#include <vector>
#include <mxml.h>

// The checks of a feed's URL, name and poll interval (each may be null, for
// "not given"); empty when all pass.
std::string fe_check_feed(const char *url, const char *name, const char *poll);

// Adds a feed with the next free id (put in *id), named after its URL when
// no name is given, and subscribes it to every profile listed. Refused for
// an unknown profile or a URL the pool holds already.
bool fe_add_feed(mxml_node_t *doc, const char *url, const char *name, const char *poll,
                 const std::vector<const char *> &profiles, std::string *id, std::string *why);
// Sets the attributes given (non-null) of feed `id`. Refused for an unknown
// feed or a URL that another feed has.
bool fe_set_feed(mxml_node_t *doc, const char *id, const char *url, const char *name, const char *poll,
                 std::string *why);
// Removes a feed and every subscription of it.
bool fe_remove_feed(mxml_node_t *doc, const char *id, std::string *why);

// Subscribes (or unsubscribes) a profile to every feed listed; every id
// must name a feed of the pool. A subscription that exists stays as it is.
bool fe_subscribe(mxml_node_t *doc, const char *profile, const std::vector<const char *> &ids, bool subscribe,
                  std::string *why);

bool fe_add_profile(mxml_node_t *doc, const char *id, std::string *why);
bool fe_remove_profile(mxml_node_t *doc, const char *id, std::string *why);

// The feed of that id, or null with "no feed ID" in *why.
mxml_node_t *fe_find_feed(mxml_node_t *doc, const char *id, std::string *why);
