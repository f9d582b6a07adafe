// ctlrpc: the blocking client of configd that configctl and kelp-web share.
// One connection per call, owned by a kd_unique_fd; every received tree is
// handed to the caller as a kd_mxml_tree. Each wait for an answer is
// bounded by g_ctl_timeout.
#pragma once
#include <functional>
#include <string>
#include <mxml.h>
#include "util/kd_mxml.h"

// Seconds to wait for configd's answer (configctl's --timeout).
extern int g_ctl_timeout;

// Prints "configctl: " and the message as one line on stderr; returns 1.
int ctl_fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// The domain's document (for the caller's kd_mxml_tree) and its generation;
// null with the reason in *why.
mxml_node_t *ctl_fetch(const char *domain, std::string *generation, std::string *why);

// Stores a document unconditionally and waits until configd confirms it.
bool ctl_store(const char *domain, mxml_node_t *doc, std::string *why);

// A change made to a fetched document: true when it is to be stored, false
// with the reason in *why when the request cannot be served (nothing is
// stored then). Text put in *out is printed once the change is stored.
using ctl_edit = std::function<bool(mxml_node_t *doc, std::string *out, std::string *why)>;

// How one read-modify-write ended.
enum class ctl_result {
    stored,      // stored (or nothing to change); *out holds the edit's text
    refused,     // the edit refused the request
    unreachable, // no connection to configd
    failed,      // configd refused the save or did not answer
    busy,        // the document kept changing while it was edited
};

// One read-modify-write of a domain: fetch, edit, store on condition that
// nobody stored the domain meanwhile; repeated a few times when someone
// did, the edit applied to the new document each time. Prints nothing; the
// reason of any other result than `stored` is in *why.
ctl_result ctl_apply(const char *domain, const ctl_edit &edit, std::string *out, std::string *why);

// ctl_apply for configctl: prints the edit's text, or one line on stderr
// naming `what`, and returns the exit status (0 stored, 1 otherwise).
int ctl_update(const char *what, const char *domain, const ctl_edit &edit);
