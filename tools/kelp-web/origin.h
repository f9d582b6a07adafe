// Which requests kelp-web takes. A page of another site must neither post
// to kelp-web nor reach it through a name it controls (DNS rebinding), so
// the Host header must be an address, "localhost" or a name given with
// --allow-host, and a POST's Origin must be the page's own.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace kweb {

// host: the Host header ("name", "name:port", "[v6]:port").
bool host_allowed(std::string_view host, const std::vector<std::string> &names);
// origin: the Origin header; true when it is http:// or https:// and host.
bool origin_matches(std::string_view origin, std::string_view host);

} // namespace kweb
