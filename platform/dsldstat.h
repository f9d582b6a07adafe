// dsldstat: the gateway's internet status. On a host: the internet is usable
// while the kernel has a default route (IPv4 or IPv6), read at each call.
// The IPv4 table counts a route 0.0.0.0/0 that is up and not a reject
// route; the IPv6 table a route ::/0 likewise, on any device (the kernel
// makes an IPv6 route through lo a reject route, which does not count).
#pragma once
#include <string_view>

int dsldstat_init(void);
int dsldstat_internet_usable(void);
void dsldstat_exit(void);

// Parsers of /proc/net/route and /proc/net/ipv6_route texts: 1 when the text
// holds a usable default route. Exposed for tests.
int dsldstat_parse_route4(std::string_view text);
int dsldstat_parse_route6(std::string_view text);
int dsldstat_route4_line_is_default(std::string_view line);
int dsldstat_route6_line_is_default(std::string_view line);
