// kelp-web's translation between kelpd's client protocol and the page's
// JSON: daemon messages (tab-separated key:value text, each field in UTF-8
// or ISO 8859-1) become one-line JSON events, the page's small JSON requests become request text.
// Nothing here does input/output.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kweb {

// One member of a flat JSON object: a string or an unsigned 32-bit number.
struct json_member {
    std::string key;
    bool is_number = false;
    uint32_t number = 0;
    std::string text;
};

inline constexpr size_t kMaxJsonMembers = 16;

// Parses one flat JSON object ({"a":"x","b":12}); nested values, negative or
// fractional numbers, true/false/null and more than kMaxJsonMembers members
// are refused. Returns false on anything malformed.
bool json_parse_object(std::string_view text, std::vector<json_member> *out);
const json_member *json_find(const std::vector<json_member> &obj, std::string_view key);

// Appends a text from kelpd or configd as a quoted JSON string in UTF-8:
// decoded by kd_wire_text (UTF-8 when valid, else ISO 8859-1), with every
// control character and the HTML specials escaped as \uXXXX.
void json_append_string(std::string *out, std::string_view text);

// Digits only, at most 4294967295.
bool parse_u32(std::string_view text, uint32_t *value);

// A daemon message (its text up to the NUL) as one JSON object, or false
// when it is not a message the page understands.
bool message_to_json(std::string_view text, std::string *json);

// The request text for the page's command ("body", "enclosure", "image",
// "accounts", "status") on the session's domain and profile; false for any
// other command or a missing feed_id/uid where the command needs them.
bool request_from_json(const std::vector<json_member> &obj, std::string_view domain, uint32_t profile,
                       std::string *request);

std::string login_request(std::string_view domain, uint32_t profile);

} // namespace kweb
