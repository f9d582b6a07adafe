// kelpctl: a command-line client of kelpd's control socket. It speaks the
// client protocol itself (no daemon code): one packet per message, fields
// separated by tabs, answers framed as NUL-terminated zero-padded blocks.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "util/kd_fd.h"

namespace kelpctl {

// Exit statuses, documented in the usage text.
inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;   // an ERROR answer, or not what was asked for
inline constexpr int kExitUsage = 2;
inline constexpr int kExitNoDaemon = 3;  // cannot connect, connection lost, no answer
// Not an exit status: receive_within found no message in time.
inline constexpr int kTimedOut = -1;

// How long the pushes after a login may pause before the collection ends.
inline constexpr int kQuietMs = 500;

struct options {
    std::string domain = "rss";
    uint32_t profile = 1;
    int api = 3;
    bool follow = false;
    int timeout_s = 5;  // how long to wait for an answer
};

// One connection to the daemon; the descriptor closes with the object.
struct connection {
    kd_unique_fd sock;
    int fd() const { return sock.get(); }
};

// Prints "kelpctl: <text>" on stderr and returns status.
int fail(int status, const std::string &text);

// Each returns 0 or an exit status after printing the one-line error.
int open_connection(connection *c);
int send_text(const connection &c, const std::string &text);
// The text of the next message (up to its first NUL); timeout_ms < 0 waits
// until interrupted. Returns 0, or an exit status (kExitOk when interrupted).
int receive(const connection &c, int timeout_ms, std::string *text);
// The same, but a timeout returns kTimedOut and prints nothing.
int receive_within(const connection &c, int timeout_ms, std::string *text);
// Milliseconds on a monotonic clock, and what is left until a deadline.
int64_t now_ms();
int left_ms(int64_t deadline);

std::vector<std::string> split_fields(const std::string &text);
bool interrupted();
void catch_interrupts();

// Keeps printing every message in visible form until interrupted.
int follow_messages(const connection &c);

// --- messages (message.cpp) ---
bool starts_with(const std::string &s, const std::string &prefix);
// The value of the first field "key:..." at or after index `from`.
bool field_value(const std::vector<std::string> &f, const std::string &key, std::string *value, size_t from = 0);
// A decimal number of at most 32 bits, digits only.
bool parse_u32(const std::string &text, uint32_t *value);
// The error field of an ERROR answer: "19:KD_NO_CONFIG".
std::string error_of(const std::string &answer);
bool is_error(const std::string &answer);

struct feed_row {
    std::string id;
    std::string name;
};
// name:/feed_id: pairs of a login or accounts answer.
std::vector<feed_row> feeds_of(const std::string &answer);

struct overview_item {
    std::string uid, state, subject;
};
struct overview {
    std::string feed_id, number, number_new;
    std::vector<overview_item> items;
};
overview parse_overview(const std::string &text);

// --- output (print.cpp) ---
// Text for people: each field decoded by kd_wire_text (UTF-8 when it is
// valid UTF-8, else Latin-1), control characters as \xNN; newlines stay
// when multiline, else they become spaces.
std::string readable(const std::string &text, bool multiline);
// A whole message for a terminal: its fields decoded as above, tabs as \t,
// a backslash as \\, control characters as \xNN.
std::string visible(const std::string &text);
void print_feeds(const std::vector<feed_row> &rows);
// One feed's overview as a table under a header line; none: no items yet.
void print_overview(const feed_row &feed, const overview *ov, int api);
// One message on one line: the command word, then key=value fields.
std::string pretty_line(const std::string &text, int api);

// --- session (session.cpp) ---
// Reads messages until the answer ("OK" or "ERROR") to the command `word`;
// pushed messages before it are passed over.
int await_answer(const connection &c, const options &opt, const std::string &word, std::string *answer);
// Connects and logs in for opt's domain, profile and API version; a refused
// login is reported ("login refused: 19:KD_NO_CONFIG") and returns kExitRefused.
int login_session(const options &opt, connection *c, std::string *answer);
// Sends a request after the login and waits for its answer; an ERROR answer
// is reported ("body refused: 12:KD_UID_NOT_FOUND") and returns kExitRefused.
int ask(const connection &c, const options &opt, const std::string &word, const std::string &request,
        std::string *answer);
// Hands every message to `take` until it returns true, no message came for
// kQuietMs, or opt's timeout has passed; the last two are not errors.
int collect(const connection &c, const options &opt, const std::function<bool(const std::string &)> &take);
// The fields that name the session in a request: "domain:rss\tprofile_id:1".
std::string session_fields(const options &opt);

// The commands: run with the options and the words after the command name.
struct command {
    const char *name;
    const char *args;
    const char *help;
    int (*run)(const options &opt, const std::vector<std::string> &args);
    bool follows;  // takes -f
};
const std::vector<command> &commands();

int cmd_login(const options &opt, const std::vector<std::string> &args);
int cmd_raw(const options &opt, const std::vector<std::string> &args);
int cmd_accounts(const options &opt, const std::vector<std::string> &args);
int cmd_read(const options &opt, const std::vector<std::string> &args);
int cmd_enclosure(const options &opt, const std::vector<std::string> &args);
int cmd_image(const options &opt, const std::vector<std::string> &args);
int cmd_overview(const options &opt, const std::vector<std::string> &args);
int cmd_status(const options &opt, const std::vector<std::string> &args);
int cmd_watch(const options &opt, const std::vector<std::string> &args);

} // namespace kelpctl
