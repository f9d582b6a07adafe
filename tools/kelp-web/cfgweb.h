// kelp-web's subscriptions: the page's requests to list and edit a domain's
// feeds and profiles, served through configd with configctl's own
// read-modify-write, conditional saves and edits (configd/ctlrpc.h,
// configd/feededit.h, configd/opml.h), so that no concurrent change, a
// second page's, configctl's or kelpd's read marks, is lost. The page also
// says what it showed (was_name, was_url, was_poll): a feed that someone
// else changed or removed since is refused with words, not overwritten.
// configd is asked synchronously, each answer awaited kConfigdSeconds at
// most. Texts from configd are passed on as text (JSON strings), never
// markup.
#pragma once
#include "wire.h"

#include <mxml.h>

#include <string>
#include <string_view>
#include <vector>

namespace kweb {

inline constexpr int kConfigdSeconds = 5;
// The largest OPML file the page may import.
inline constexpr size_t kMaxOpmlBytes = 1u << 20;

struct web_reply {
    unsigned status = 200;
    std::string body;                     // JSON, or the exported OPML
    const char *type = "application/json";
    std::string filename;                 // set for a download
};

// Serves POST /api/config/<what> (list, feed-add, feed-set, feed-rm,
// subscribe, unsubscribe, profile-add, opml-import, opml-export). False
// when `what` names no such request. A stored change answers 200 with
// {"text": what was done}; a refusal {"error": a sentence}.
bool config_request(std::string_view what, const std::vector<json_member> &obj, web_reply *out);

// The list answer for a domain document: its profile ids and its feeds
// with their subscribers, as JSON.
std::string config_list_json(mxml_node_t *doc, std::string_view domain);

// Whether feed `id` of obj is still there with the attributes the page
// showed (every was_* member of obj: the page sends those of the
// attributes it changes); false with the sentence for the page.
bool config_unchanged(mxml_node_t *doc, const std::vector<json_member> &obj, std::string *why);

} // namespace kweb
