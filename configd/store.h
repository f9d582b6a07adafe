// store: configd's domain documents on disk (one file per domain in the
// state directory) and the checks that every stored document passes. Trees
// returned are the caller's (for a kd_mxml_tree); no descriptor outlives a call.
#pragma once
#include <cstddef>
#include <mxml.h>
#include <string>
#include <vector>

// [a-z0-9_-]{1,32}: a domain name can never be a path.
bool cfg_valid_domain(const char *name);

// Checks what kelpd's merge needs of a document; empty when it is acceptable,
// otherwise the reason.
std::string cfg_check_document(mxml_node_t *root);

// Parses XML text; null with the parser's reason in *why.
mxml_node_t *cfg_parse(const char *text, std::string *why);

// The document of a domain: the stored one, or an empty one (pool and
// profiles) when none was ever stored; null with the reason in *why when the
// stored file cannot be read or parsed.
mxml_node_t *cfg_load(const std::string &dir, const char *domain, std::string *why);

// Stores a document atomically and durably (temporary file, fsync, rename,
// fsync of the directory); false with the reason in *why.
bool cfg_store(const std::string &dir, const char *domain, mxml_node_t *root, std::string *why);

// Removes the temporary files that saves interrupted by a crash left in the
// state directory; returns their names.
std::vector<std::string> cfg_remove_leftovers(const std::string &dir);

// The generation of a document: 16 lowercase hex digits of the 64-bit FNV-1a
// hash of its text as configd renders it. Equal texts have equal
// generations, so a reader can tell whether the document changed since.
std::string cfg_generation(const char *text);

// The generation of a tree, rendered as a get sends it; empty when there is
// no memory to render it.
std::string cfg_generation_of(mxml_node_t *root);
