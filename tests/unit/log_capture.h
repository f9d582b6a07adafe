// The unit tests' capture of the daemon's syslog lines: every line the code
// under test logs since the last clear, with its priority. Exactly one
// source file of a test binary defines KELP_LOG_CAPTURE_IMPL before
// including this header; that file's definitions of syslog() and vsyslog()
// take the calls of the whole binary.
#pragma once
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

namespace kelp_test {

struct log_line {
    int prio;
    std::string text;
};

inline std::vector<log_line> &captured_log()
{
    static std::vector<log_line> lines;
    return lines;
}

inline size_t log_count(const std::string &text)
{
    size_t n = 0;
    for (const auto &l : captured_log())
        n += l.text == text;
    return n;
}

inline bool log_has(const std::string &text) { return log_count(text) > 0; }

inline bool log_has_prio(const std::string &text, int prio)
{
    for (const auto &l : captured_log())
        if (l.text == text && l.prio == prio)
            return true;
    return false;
}

} // namespace kelp_test

#ifdef KELP_LOG_CAPTURE_IMPL
extern "C" void vsyslog(int prio, const char *fmt, va_list ap)
{
    char buf[2048];
    vsnprintf(buf, sizeof buf, fmt, ap);
    kelp_test::captured_log().push_back({prio, buf});
}

extern "C" void syslog(int prio, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsyslog(prio, fmt, ap);
    va_end(ap);
}
#endif
