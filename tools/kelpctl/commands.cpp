// kelpctl's request commands. Each opens its own connection, logs in
// (login_session), sends its request and prints the answer for people; the
// commands that live on pushed messages are in pushes.cpp.
#include "kelpctl.h"

#include <cstdio>

namespace kelpctl {

namespace {

// Joins the words with tabs, the separator the daemon itself uses.
std::string join_tabs(const std::vector<std::string> &words)
{
    std::string out;
    for (const std::string &w : words)
        out += (out.empty() ? "" : "\t") + w;
    return out;
}

struct item_ref {
    uint32_t feed = 0;
    uint32_t uid = 0;
};

int item_args(const std::string &word, const std::vector<std::string> &args, item_ref *ref)
{
    if (args.size() == 2 && parse_u32(args[0], &ref->feed) && parse_u32(args[1], &ref->uid))
        return 0;
    return fail(kExitUsage, word + " needs FEED_ID UID (two numbers), e.g. kelpctl " + word + " 4 17");
}

// Logs in, asks for one item and checks that the answer carries it: the daemon
// answers "OK" without the item part for a feed that the profile lacks.
int ask_item(const options &opt, const std::string &name, const std::string &word,
             const std::vector<std::string> &args, const std::string &key, std::vector<std::string> *fields)
{
    item_ref ref;
    if (int st = item_args(name, args, &ref))
        return st;
    connection c;
    std::string answer;
    int st = login_session(opt, &c, &answer);
    std::string request = word + "\t" + session_fields(opt) + "\tfeed_id:" + std::to_string(ref.feed) +
                          "\tuid:" + std::to_string(ref.uid);
    st = st || interrupted() ? st : ask(c, opt, word, request, &answer);
    if (st || interrupted())
        return st;
    *fields = split_fields(answer);
    std::string value;
    if (!field_value(*fields, key, &value))
        return fail(kExitRefused, "feed " + std::to_string(ref.feed) + " is not one of profile " +
                                      std::to_string(opt.profile) + "'s feeds");
    return 0;
}

// Prints the url field of an enclosure or image answer.
int print_url(const options &opt, const std::string &word, const std::vector<std::string> &args)
{
    std::vector<std::string> fields;
    int st = ask_item(opt, word, word, args, "url", &fields);
    if (st || interrupted())
        return st;
    std::string url;
    field_value(fields, "url", &url);
    if (url.empty())
        return fail(kExitRefused, "item " + args[1] + " of feed " + args[0] + " has no " + word);
    printf("%s\n", readable(url, false).c_str());
    fflush(stdout);
    return kExitOk;
}

} // namespace

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

int cmd_accounts(const options &opt, const std::vector<std::string> &args)
{
    if (!args.empty())
        return fail(kExitUsage, "accounts takes no arguments (use -d and -p before the command)");
    connection c;
    std::string answer;
    int st = login_session(opt, &c, &answer);
    st = st || interrupted() ? st : ask(c, opt, "accounts", "accounts\t" + session_fields(opt), &answer);
    if (st || interrupted())
        return st;
    print_feeds(feeds_of(answer));
    return kExitOk;
}

int cmd_read(const options &opt, const std::vector<std::string> &args)
{
    std::vector<std::string> f;
    int st = ask_item(opt, "read", "body", args, "body", &f);
    if (st || interrupted())
        return st;
    size_t i = 0;
    while (!starts_with(f[i], "body:"))
        i++;
    std::string body = readable(f[i].substr(5), true);
    printf("%s%s", body.c_str(), !body.empty() && body.back() == '\n' ? "" : "\n");
    // The images follow the body as image:/offset: pairs.
    for (i++; i < f.size(); i++) {
        if (!starts_with(f[i], "image:"))
            continue;
        std::string offset = "?";
        if (i + 1 < f.size() && starts_with(f[i + 1], "offset:"))
            offset = readable(f[i + 1].substr(7), false);
        printf("image at offset %s: %s\n", offset.c_str(), readable(f[i].substr(6), false).c_str());
    }
    fflush(stdout);
    return kExitOk;
}

int cmd_enclosure(const options &opt, const std::vector<std::string> &args)
{
    return print_url(opt, "enclosure", args);
}

int cmd_image(const options &opt, const std::vector<std::string> &args)
{
    return print_url(opt, "image", args);
}

const std::vector<command> &commands()
{
    static const std::vector<command> table = {
        {"login", "", "log in and list the profile's feeds (FEED_ID, NAME)", cmd_login, true},
        {"accounts", "", "log in and ask for the profile's feeds again (FEED_ID, NAME)", cmd_accounts, false},
        {"overview", "[FEED_ID]", "the items of every feed (or one) with their read state", cmd_overview, false},
        {"read", "FEED_ID UID", "print an item's text (API 3: and its images); marks it read", cmd_read, false},
        {"enclosure", "FEED_ID UID", "print the URL of an item's enclosure; marks it read", cmd_enclosure, false},
        {"image", "FEED_ID UID", "print the URL of an item's first image; marks it read", cmd_image, false},
        {"status", "", "whether the gateway's internet connection is usable", cmd_status, false},
        {"watch", "", "log in and print every pushed message readably until interrupted", cmd_watch, false},
        {"raw", "REQUEST...", "send one request (words joined by tabs) and print the answer", cmd_raw, true},
    };
    return table;
}

} // namespace kelpctl
