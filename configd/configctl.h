// configctl: what the command modules of configctl share: the parsed
// command line of one command and the command handlers. Each handler returns
// the exit status: 0 done, 1 refused or failed (one line on stderr), 2 usage.
#pragma once
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

// Positional words and --option VALUE pairs of one command, in order.
struct ctl_args {
    std::vector<const char *> pos;
    std::vector<std::pair<std::string, const char *>> opts;
};

// Splits argv into words and options; every option takes a value (as
// "--opt VALUE" or "--opt=VALUE") and must be one of `known` (a
// null-terminated list). False for a usage error.
bool ctl_parse_args(int argc, char **argv, const char *const *known, ctl_args *out);
// The last value given for an option, or null.
const char *ctl_opt(const ctl_args &a, const char *name);
// Every value given for an option, in order.
std::vector<const char *> ctl_opts(const ctl_args &a, const char *name);

// Reads a whole file ("-": standard input) of at most `limit` bytes
// without NUL bytes; false with the reason, naming the file, in *why.
bool ctl_read_input(const char *file, size_t limit, std::string *text, std::string *why);

// Handlers; argv starts after the command words ("feed add" ...).
int ctl_feeds(int argc, char **argv);
int ctl_feed_add(int argc, char **argv);
int ctl_feed_rm(int argc, char **argv);
int ctl_feed_set(int argc, char **argv);
int ctl_subscribe(int argc, char **argv);
int ctl_unsubscribe(int argc, char **argv);
int ctl_profile_add(int argc, char **argv);
int ctl_profile_rm(int argc, char **argv);
int ctl_opml_export(int argc, char **argv);
int ctl_opml_import(int argc, char **argv);

// Prints the usage (to stdout for --help, else to stderr) and returns 2,
// or 0 for --help.
int ctl_usage(bool help);
