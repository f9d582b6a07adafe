// kelpctl's commands. Each opens its own connection, logs in where the
// protocol needs it (login_session), and prints the answer for people; the
// table at the end is where further commands (accounts, status, overview,
// body, enclosure, image) join.
#include "kelpctl.h"

#include <cstdio>

namespace kelpctl {

namespace {

std::string login_request(const options &opt)
{
    return "login\tv:" + std::to_string(opt.api) + "\tdomain:" + opt.domain +
           "\tprofile_id:" + std::to_string(opt.profile);
}

bool starts_with(const std::string &s, const std::string &prefix)
{
    return s.compare(0, prefix.size(), prefix) == 0;
}

// The error field of an ERROR answer: "19:KD_NO_CONFIG".
std::string error_of(const std::string &answer)
{
    std::vector<std::string> f = split_fields(answer);
    return f.size() > 2 ? f[2] : std::string("unknown error");
}

struct feed_row {
    std::string id;
    std::string name;
};

// name:/feed_id: pairs behind the answer's fixed fields.
std::vector<feed_row> feeds_of(const std::string &answer)
{
    std::vector<feed_row> rows;
    for (const std::string &f : split_fields(answer)) {
        if (starts_with(f, "name:"))
            rows.push_back({"", f.substr(5)});
        else if (starts_with(f, "feed_id:") && !rows.empty())
            rows.back().id = f.substr(8);
    }
    return rows;
}

void print_feeds(const std::vector<feed_row> &rows)
{
    size_t width = 7; // "FEED_ID"
    for (const feed_row &r : rows)
        width = r.id.size() > width ? r.id.size() : width;
    printf("%-*s  %s\n", static_cast<int>(width), "FEED_ID", "NAME");
    for (const feed_row &r : rows)
        printf("%-*s  %s\n", static_cast<int>(width), r.id.c_str(), visible(r.name).c_str());
    fflush(stdout);
}

// Joins the words with tabs, the separator the daemon itself uses.
std::string join_tabs(const std::vector<std::string> &words)
{
    std::string out;
    for (const std::string &w : words)
        out += (out.empty() ? "" : "\t") + w;
    return out;
}

} // namespace

int await_answer(const connection &c, const options &opt, const std::string &word, std::string *answer)
{
    for (;;) {
        int st = receive(c, opt.timeout_s * 1000, answer);
        if (st != 0 || interrupted())
            return st;
        if (starts_with(*answer, "OK\t" + word + "\t") || starts_with(*answer, "ERROR\t" + word + "\t"))
            return 0;
    }
}

int login_session(const options &opt, connection *c, std::string *answer)
{
    int st = open_connection(c);
    st = st ? st : send_text(*c, login_request(opt));
    st = st ? st : await_answer(*c, opt, "login", answer);
    if (st || interrupted())
        return st;
    if (starts_with(*answer, "ERROR\t"))
        return fail(kExitRefused, "login refused: " + error_of(*answer));
    return 0;
}

int cmd_login(const options &opt, const std::vector<std::string> &args)
{
    if (!args.empty())
        return fail(kExitUsage, "login takes no arguments (use -d and -p before the command)");
    connection c;
    std::string answer;
    int st = login_session(opt, &c, &answer);
    if (st || interrupted())
        return st;
    print_feeds(feeds_of(answer));
    return opt.follow ? follow_messages(c) : kExitOk;
}

int cmd_raw(const options &opt, const std::vector<std::string> &args)
{
    if (args.empty())
        return fail(kExitUsage, "raw needs a request, e.g. kelpctl raw login v:3 domain:rss profile_id:1");
    connection c;
    std::string answer;
    int st = open_connection(&c);
    st = st ? st : send_text(c, join_tabs(args));
    st = st ? st : receive(c, opt.timeout_s * 1000, &answer);
    if (st || interrupted())
        return st;
    printf("%s\n", visible(answer).c_str());
    fflush(stdout);
    return opt.follow ? follow_messages(c) : kExitOk;
}

const std::vector<command> &commands()
{
    static const std::vector<command> table = {
        {"login", "", "log in and list the profile's feeds (FEED_ID, NAME)", cmd_login},
        {"raw", "REQUEST...", "send one request (words joined by tabs) and print the answer", cmd_raw},
    };
    return table;
}

} // namespace kelpctl
