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

// Splits the arguments of command `cmd` into words and options; every
// option takes a value (as "--opt VALUE" or "--opt=VALUE") and must be one
// of `known` (a null-terminated list). 0, or ctl_misuse's status after
// naming the option that is unknown or lacks its value.
int ctl_parse_args(const char *cmd, int argc, char **argv, const char *const *known, ctl_args *out);
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

// --help: prints the usage of every command to stdout; returns 0.
int ctl_usage();
// A command used wrongly ("feed add", or a group's first word "feed"):
// prints "configctl: CMD: " and the message as one line, then the command's
// usage line, on stderr; returns the exit status 2.
int ctl_misuse(const char *cmd, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// Checks a command's positional words against the names it takes (a
// null-terminated list; `more`: any number of further words): 0 when they
// fit, else ctl_misuse's status after naming the missing or extra word.
int ctl_check_words(const char *cmd, size_t n, const char *const *words, const char *const *names, bool more);
