// kelpctl's commands that live on what the daemon pushes after a login: the
// overviews of the profile's feeds, the internet status, and watch, which
// prints every message as it comes.
#include "kelpctl.h"

#include <cstdio>
#include <map>

namespace kelpctl {

namespace {

// The login's feeds, or the one asked for; fails when the profile lacks it.
int wanted_feeds(const options &opt, const std::vector<std::string> &args, const std::string &answer,
                 std::vector<feed_row> *feeds)
{
    uint32_t want = 0, id = 0;
    for (const feed_row &row : feeds_of(answer)) {
        if (args.empty() || (parse_u32(row.id, &id) && parse_u32(args[0], &want) && id == want))
            feeds->push_back(row);
    }
    if (args.empty() || !feeds->empty())
        return 0;
    return fail(kExitRefused, "feed " + args[0] + " is not one of profile " + std::to_string(opt.profile) + "'s feeds");
}

// The daemon pushes one overview per feed with items; feeds never fetched get
// none, so the collection also ends when the pushes pause. The latest wins.
int collect_overviews(const connection &c, const options &opt, const std::vector<feed_row> &feeds,
                      std::map<std::string, overview> *got)
{
    size_t missing = feeds.size();
    auto take = [&](const std::string &text) {
        if (!starts_with(text, "overview\t"))
            return false;
        overview ov = parse_overview(text);
        for (const feed_row &row : feeds)
            missing -= row.id == ov.feed_id && !got->count(ov.feed_id) ? 1 : 0;
        (*got)[ov.feed_id] = ov;
        return missing == 0;
    };
    return collect(c, opt, take);
}

// A status message about the logged-in profile is a push; the answer to the
// field-less status request names no profile.
bool is_status_push(const options &opt, const std::string &text)
{
    std::vector<std::string> f = split_fields(text);
    std::string domain, profile;
    return field_value(f, "domain", &domain) && field_value(f, "profile_id", &profile) && domain == opt.domain &&
           profile == std::to_string(opt.profile);
}

bool is_status(const std::string &text)
{
    return starts_with(text, "OK\tstatus\t") || starts_with(text, "ERROR\tstatus\t");
}

// Sends "status" and reads until its answer, keeping the last status push.
int status_exchange(const connection &c, const options &opt, std::string *answer, std::string *push)
{
    int st = send_text(c, "status");
    while (st == 0 && !interrupted()) {
        std::string text;
        st = await_answer(c, opt, "status", &text);
        if (st == 0 && !is_status_push(opt, text)) {
            *answer = text;
            return 0;
        }
        if (st == 0)
            *push = text;
    }
    return st;
}

// The verdict: a push about the profile, else the answer; the daemon answers
// the request itself with 9 (it names no profile), which tells nothing.
int report_status(const std::string &answer, const std::string &push)
{
    const std::string &msg = push.empty() ? answer : push;
    bool says_nothing = push.empty() && starts_with(error_of(answer), "9:");
    if (!is_error(msg) || says_nothing) {
        printf("internet: usable\n");
        fflush(stdout);
        return kExitOk;
    }
    if (!starts_with(error_of(msg), "20:"))
        return fail(kExitRefused, "status refused: " + error_of(msg));
    printf("internet: not usable (%s)\n", readable(error_of(msg), false).c_str());
    fflush(stdout);
    return kExitRefused;
}

} // namespace

int cmd_overview(const options &opt, const std::vector<std::string> &args)
{
    uint32_t id = 0;
    if (args.size() > 1 || (args.size() == 1 && !parse_u32(args[0], &id)))
        return fail(kExitUsage, "overview takes at most one FEED_ID (a number), e.g. kelpctl overview 4");
    connection c;
    std::string answer;
    std::vector<feed_row> feeds;
    int st = login_session(opt, &c, &answer);
    st = st || interrupted() ? st : wanted_feeds(opt, args, answer, &feeds);
    std::map<std::string, overview> got;
    st = st || interrupted() || feeds.empty() ? st : collect_overviews(c, opt, feeds, &got);
    if (st || interrupted())
        return st;
    if (feeds.empty())
        printf("profile %u (%s) has no feeds\n", opt.profile, opt.domain.c_str());
    for (size_t i = 0; i < feeds.size(); i++) {
        auto found = got.find(feeds[i].id);
        printf("%s", i ? "\n" : "");
        print_overview(feeds[i], found == got.end() ? nullptr : &found->second, opt.api);
    }
    fflush(stdout);
    return kExitOk;
}

int cmd_status(const options &opt, const std::vector<std::string> &args)
{
    if (!args.empty())
        return fail(kExitUsage, "status takes no arguments (use -d and -p before the command)");
    connection c;
    std::string answer, push;
    int st = login_session(opt, &c, &answer);
    st = st || interrupted() ? st : status_exchange(c, opt, &answer, &push);
    // A login while the internet is down is followed by a status push, which
    // may come just after the answer: give it a moment.
    auto take = [&](const std::string &text) {
        if (is_status(text) && is_status_push(opt, text))
            push = text;
        return !push.empty();
    };
    if (st == 0 && !interrupted() && push.empty())
        st = collect(c, opt, take);
    if (st || interrupted())
        return st;
    return report_status(answer, push);
}

int cmd_watch(const options &opt, const std::vector<std::string> &args)
{
    if (!args.empty())
        return fail(kExitUsage, "watch takes no arguments (use -d and -p before the command)");
    connection c;
    std::string text;
    int st = login_session(opt, &c, &text);
    while (st == 0 && !interrupted()) {
        printf("%s\n", pretty_line(text, opt.api).c_str());
        fflush(stdout);
        st = receive(c, -1, &text);
    }
    return st;
}

} // namespace kelpctl
