// kelpctl: a command-line client of kelpd's control socket. It speaks the
// client protocol itself (no daemon code): one packet per message, fields
// separated by tabs, answers framed as NUL-terminated zero-padded blocks.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace kelpctl {

// Exit statuses, documented in the usage text.
inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;   // the daemon answered with an error
inline constexpr int kExitUsage = 2;
inline constexpr int kExitNoDaemon = 3;  // cannot connect, connection lost, no answer

struct options {
    std::string domain = "rss";
    uint32_t profile = 1;
    int api = 3;
    bool follow = false;
    int timeout_s = 5;  // how long to wait for an answer
};

// One connection to the daemon; the descriptor closes with the object.
struct connection {
    int fd = -1;
    connection() = default;
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;
    ~connection();
};

// Prints "kelpctl: <text>" on stderr and returns status.
int fail(int status, const std::string &text);

// Each returns 0 or an exit status after printing the one-line error.
int open_connection(connection *c);
int send_text(const connection &c, const std::string &text);
// The text of the next message (up to its first NUL); timeout_ms < 0 waits
// until interrupted. Returns 0, or an exit status (kExitOk when interrupted).
int receive(const connection &c, int timeout_ms, std::string *text);

std::vector<std::string> split_fields(const std::string &text);
// A message for a terminal: tabs as \t, control bytes as \xNN, Latin-1 as UTF-8.
std::string visible(const std::string &text);
std::string latin1_to_utf8(const std::string &text);
bool interrupted();
void catch_interrupts();

// Keeps printing every message in visible form until interrupted.
int follow_messages(const connection &c);

// Reads messages until the answer ("OK" or "ERROR") to the command `word`;
// pushed messages before it are passed over.
int await_answer(const connection &c, const options &opt, const std::string &word, std::string *answer);
// Connects and logs in for opt's domain, profile and API version; a refused
// login is reported ("login refused: 19:KD_NO_CONFIG") and returns kExitRefused.
int login_session(const options &opt, connection *c, std::string *answer);

// The commands: run with the options and the words after the command name.
struct command {
    const char *name;
    const char *args;
    const char *help;
    int (*run)(const options &opt, const std::vector<std::string> &args);
};
const std::vector<command> &commands();

int cmd_login(const options &opt, const std::vector<std::string> &args);
int cmd_raw(const options &opt, const std::vector<std::string> &args);

} // namespace kelpctl
