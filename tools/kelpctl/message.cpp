// kelpctl's reading of daemon messages: fields by key, numbers, the feed list
// of a login or accounts answer and the items of an overview. Whatever the
// daemon sends, missing fields read as empty and unknown ones are passed over.
#include "kelpctl.h"

namespace kelpctl {

bool starts_with(const std::string &s, const std::string &prefix)
{
    return s.compare(0, prefix.size(), prefix) == 0;
}

bool field_value(const std::vector<std::string> &f, const std::string &key, std::string *value, size_t from)
{
    const std::string prefix = key + ":";
    for (size_t i = from; i < f.size(); i++) {
        if (starts_with(f[i], prefix)) {
            *value = f[i].substr(prefix.size());
            return true;
        }
    }
    return false;
}

bool parse_u32(const std::string &text, uint32_t *value)
{
    if (text.empty() || text.size() > 10)
        return false;
    uint64_t v = 0;
    for (char ch : text) {
        if (ch < '0' || ch > '9')
            return false;
        v = v * 10 + static_cast<uint64_t>(ch - '0');
    }
    if (v > 0xffffffffull)
        return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

bool is_error(const std::string &answer)
{
    return starts_with(answer, "ERROR\t");
}

std::string error_of(const std::string &answer)
{
    std::vector<std::string> f = split_fields(answer);
    return f.size() > 2 && !f[2].empty() ? f[2] : std::string("unknown error");
}

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

overview parse_overview(const std::string &text)
{
    overview ov;
    std::vector<std::string> f = split_fields(text);
    // The header ends where the items begin; a uid: field opens each item.
    for (const std::string &field : f) {
        if (starts_with(field, "uid:"))
            ov.items.push_back({field.substr(4), "", ""});
        else if (ov.items.empty() && starts_with(field, "feed_id:"))
            ov.feed_id = field.substr(8);
        else if (ov.items.empty() && starts_with(field, "number:"))
            ov.number = field.substr(7);
        else if (ov.items.empty() && starts_with(field, "number_new:"))
            ov.number_new = field.substr(11);
        else if (!ov.items.empty() && starts_with(field, "state:"))
            ov.items.back().state = field.substr(6);
        else if (!ov.items.empty() && starts_with(field, "subject:"))
            ov.items.back().subject = field.substr(8);
    }
    return ov;
}

} // namespace kelpctl
