// opml: OPML 2.0 export and import of a domain's feeds, shared by
// configctl and kelp-web. Export writes one outline per feed (in a category
// outline per profile unless a profile is named); import reads every feed
// outline at any depth, adds the feeds the pool lacks and subscribes them.
// An imported text is sized up before Mini-XML sees it (outline count,
// nesting, entity declarations) and refused whole when any feed in it fails
// the checks of feededit.h.
#pragma once
#include <cstddef>
#include <string>
#include <vector>
#include <mxml.h>

// Bounds of an OPML text we import (its byte size is bounded by the caller).
inline constexpr size_t OPML_MAX_OUTLINES = 10000;
inline constexpr size_t OPML_MAX_DEPTH = 64;

// The domain's feeds as an OPML document; only the feeds of `profile`,
// flat, when it is not null (it must be a profile element of doc).
std::string opml_export(mxml_node_t *doc, const char *domain, mxml_node_t *profile);

// One feed outline of an imported file.
struct opml_feed {
    std::string url, name, poll, profile;
};

// What an OPML file holds: its feeds and its profile categories, in order.
struct opml_list {
    std::vector<opml_feed> feeds;
    std::vector<std::string> profiles;
};

// Reads an OPML text; false with the reason when it is not OPML, is too
// big or deep, or names a feed that fails the checks.
bool opml_read(const std::string &text, opml_list *list, std::string *why);

// Adds the listed feeds that the pool lacks and subscribes them to
// `profile` (when not null; it must exist) or to their category's profile
// (made when missing). One line per feed added or skipped and a total go to
// *report. False (nothing changed) only for an unknown `profile`.
bool opml_import(mxml_node_t *doc, const opml_list &list, const char *profile, std::string *report,
                 std::string *why);
