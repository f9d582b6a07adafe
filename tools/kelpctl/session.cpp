// kelpctl's session with the daemon: the login every command starts with,
// requests matched to their answers among the pushed messages that share the
// connection, and the collection of pushes that follow a login.
#include "kelpctl.h"

namespace kelpctl {

namespace {

std::string login_request(const options &opt)
{
    return "login\tv:" + std::to_string(opt.api) + "\t" + session_fields(opt);
}

// "OK" or "ERROR", the command's word, then its fields if any.
bool is_answer(const std::string &text, const std::string &word)
{
    for (const std::string &head : {"OK\t" + word, "ERROR\t" + word}) {
        if (text == head || starts_with(text, head + "\t"))
            return true;
    }
    return false;
}

int no_answer(const options &opt)
{
    return fail(kExitNoDaemon, "no answer from kelpd within " + std::to_string(opt.timeout_s) + " seconds");
}

} // namespace

std::string session_fields(const options &opt)
{
    return "domain:" + opt.domain + "\tprofile_id:" + std::to_string(opt.profile);
}

int await_answer(const connection &c, const options &opt, const std::string &word, std::string *answer)
{
    // Pushes keep coming while the answer is awaited: the timeout is for all of them.
    const int64_t deadline = now_ms() + opt.timeout_s * 1000LL;
    for (;;) {
        int st = receive_within(c, left_ms(deadline), answer);
        if (st == kTimedOut)
            return no_answer(opt);
        if (st != 0 || interrupted())
            return st;
        if (is_answer(*answer, word))
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
    if (is_error(*answer))
        return fail(kExitRefused, "login refused: " + error_of(*answer));
    return 0;
}

int ask(const connection &c, const options &opt, const std::string &word, const std::string &request,
        std::string *answer)
{
    int st = send_text(c, request);
    st = st ? st : await_answer(c, opt, word, answer);
    if (st || interrupted())
        return st;
    if (is_error(*answer))
        return fail(kExitRefused, word + " refused: " + error_of(*answer));
    return 0;
}

int collect(const connection &c, const options &opt, const std::function<bool(const std::string &)> &take)
{
    const int64_t deadline = now_ms() + opt.timeout_s * 1000LL;
    for (;;) {
        int wait = left_ms(deadline);
        if (wait == 0)
            return 0;
        std::string text;
        int st = receive_within(c, wait < kQuietMs ? wait : kQuietMs, &text);
        if (st == kTimedOut)
            return 0;
        if (st != 0 || interrupted())
            return st;
        if (take(text))
            return 0;
    }
}

} // namespace kelpctl
