// kelp-web's Host and Origin checks (see origin.h).
#include "origin.h"

#include <arpa/inet.h>

#include <strings.h>

namespace kweb {

namespace {

bool all_digits(std::string_view s)
{
    for (char c : s)
        if (c < '0' || c > '9')
            return false;
    return true;
}

// The host part without its port; empty when malformed.
std::string_view host_name(std::string_view host)
{
    if (!host.empty() && host[0] == '[') {
        size_t close = host.find(']');
        if (close == std::string_view::npos)
            return {};
        std::string_view rest = host.substr(close + 1);
        if (!rest.empty() && (rest[0] != ':' || !all_digits(rest.substr(1))))
            return {};
        return host.substr(0, close + 1);
    }
    size_t colon = host.rfind(':');
    if (colon != std::string_view::npos && all_digits(host.substr(colon + 1)))
        host = host.substr(0, colon);
    return host;
}

bool is_address(std::string_view name)
{
    std::string s(name);
    unsigned char buf[16];
    if (s.size() > 2 && s.front() == '[' && s.back() == ']')
        return inet_pton(AF_INET6, s.substr(1, s.size() - 2).c_str(), buf) == 1;
    return inet_pton(AF_INET, s.c_str(), buf) == 1;
}

bool same_name(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

} // namespace

bool host_allowed(std::string_view host, const std::vector<std::string> &names)
{
    std::string_view name = host_name(host);
    if (name.empty())
        return false;
    if (is_address(name) || same_name(name, "localhost"))
        return true;
    for (const std::string &n : names)
        if (same_name(name, n))
            return true;
    return false;
}

bool origin_matches(std::string_view origin, std::string_view host)
{
    if (host.empty())
        return false;
    for (std::string_view scheme : {"http://", "https://"})
        if (origin.size() == scheme.size() + host.size() && origin.substr(0, scheme.size()) == scheme &&
            same_name(origin.substr(scheme.size()), host))
            return true;
    return false;
}

} // namespace kweb
