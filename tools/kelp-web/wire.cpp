// kelp-web's protocol translation: daemon messages to JSON events and the
// page's JSON requests to request text (see wire.h).
#include "wire.h"

#include "util/kd_utf8.h"

#include <cstdio>

namespace kweb {

namespace {

struct field {
    std::string_view key;
    std::string_view value;
    bool keyed; // the field had a colon
};

// Splits a daemon message at its tabs; each field at its first colon.
std::vector<field> split_fields(std::string_view text)
{
    std::vector<field> out;
    for (;;) {
        size_t tab = text.find('\t');
        std::string_view f = text.substr(0, tab);
        size_t colon = f.find(':');
        if (colon == std::string_view::npos)
            out.push_back({f, {}, false});
        else
            out.push_back({f.substr(0, colon), f.substr(colon + 1), true});
        if (tab == std::string_view::npos)
            return out;
        text.remove_prefix(tab + 1);
    }
}

void append_key(std::string *out, std::string_view key)
{
    if (out->back() != '{' && out->back() != '[')
        out->push_back(',');
    out->push_back('"');
    out->append(key);
    out->append("\":");
}

void append_number(std::string *out, std::string_view key, uint32_t v)
{
    append_key(out, key);
    out->append(std::to_string(v));
}

void append_text(std::string *out, std::string_view key, std::string_view text)
{
    append_key(out, key);
    json_append_string(out, text);
}

// A number field of the message; false when it is not a number.
bool append_number_field(std::string *out, const field &f)
{
    uint32_t v;
    if (!parse_u32(f.value, &v))
        return false;
    append_number(out, f.key, v);
    return true;
}

bool is_number_key(std::string_view key)
{
    return key == "profile_id" || key == "feed_id" || key == "uid" || key == "number" || key == "number_new";
}

// "name:"/"feed_id:" pairs of a login or accounts answer; a feed whose id is
// not a number cannot be asked for and is left out.
void append_feeds(std::string *out, const std::vector<field> &fs, size_t i)
{
    std::string feeds = "[";
    for (; i + 1 < fs.size(); i++) {
        uint32_t id;
        if (fs[i].key != "name" || fs[i + 1].key != "feed_id" || !parse_u32(fs[i + 1].value, &id))
            continue;
        feeds += feeds.size() > 1 ? ",{" : "{";
        append_text(&feeds, "name", fs[i].value);
        append_number(&feeds, "feed_id", id);
        feeds += '}';
        i++;
    }
    feeds += ']';
    append_key(out, "feeds");
    out->append(feeds);
}

// One "image:" field and the "offset:" that follows it; *i moves past both.
bool append_image(std::string *images, const std::vector<field> &fs, size_t *i)
{
    uint32_t off = 0;
    const field &f = fs[*i];
    if (*i + 1 < fs.size() && fs[*i + 1].key == "offset") {
        if (!parse_u32(fs[*i + 1].value, &off))
            return false;
        ++*i;
    }
    *images += images->size() > 1 ? ",{" : "{";
    append_text(images, "url", f.value);
    append_number(images, "offset", off);
    *images += '}';
    return true;
}

// body:, image:/offset: pairs and url: of an item answer.
bool append_item_fields(std::string *out, const std::vector<field> &fs, size_t i)
{
    std::string images = "[";
    for (; i < fs.size(); i++) {
        const field &f = fs[i];
        if (f.key == "image") {
            if (!append_image(&images, fs, &i))
                return false;
        } else if (f.key == "body" || f.key == "url")
            append_text(out, f.key, f.value);
        else if (is_number_key(f.key) && !append_number_field(out, f))
            return false;
    }
    append_key(out, "images");
    out->append(images + "]");
    return true;
}

// "9:KD_NOT_LOGGED_IN" as {"code":9,"name":"KD_NOT_LOGGED_IN"}.
bool append_error(std::string *out, const field &f)
{
    uint32_t code;
    if (!parse_u32(f.key, &code))
        return false;
    append_key(out, "error");
    *out += "{\"code\":" + std::to_string(code);
    append_text(out, "name", f.value);
    *out += '}';
    return true;
}

// The domain and profile id that every answer repeats; false when neither
// is there. *i moves past them.
bool append_head(std::string *out, const std::vector<field> &fs, size_t *i)
{
    size_t start = *i;
    for (; *i < fs.size() && fs[*i].keyed && (fs[*i].key == "domain" || fs[*i].key == "profile_id"); ++*i) {
        if (fs[*i].key == "domain")
            append_text(out, "domain", fs[*i].value);
        else if (!append_number_field(out, fs[*i]))
            return false;
    }
    return *i > start;
}

bool answer_to_json(const std::vector<field> &fs, std::string *out)
{
    if (fs.size() < 2)
        return false;
    bool ok = fs[0].key == "OK";
    std::string_view cmd = fs[1].key;
    *out = ok ? "{\"type\":\"answer\",\"ok\":true" : "{\"type\":\"answer\",\"ok\":false";
    append_text(out, "cmd", cmd);
    size_t i = 2;
    if (!ok && fs.size() > 2 && !append_error(out, fs[i++]))
        return false;
    if (!append_head(out, fs, &i))
        return false;
    if (cmd == "login" || cmd == "accounts")
        append_feeds(out, fs, i);
    else if ((cmd == "body" || cmd == "enclosure" || cmd == "image") && !append_item_fields(out, fs, i))
        return false;
    *out += '}';
    return true;
}

bool overview_to_json(const std::vector<field> &fs, std::string *out)
{
    *out = "{\"type\":\"overview\"";
    std::string items = "[";
    bool in_item = false;
    for (size_t i = 1; i < fs.size(); i++) {
        const field &f = fs[i];
        if (f.key == "uid") {
            items += in_item ? "},{" : "{";
            in_item = true;
            if (!append_number_field(&items, f))
                return false;
        } else if (in_item && f.key == "state") {
            if (!append_number_field(&items, f))
                return false;
        } else if (in_item && f.key == "subject")
            append_text(&items, "subject", f.value);
        else if (f.key == "domain")
            append_text(out, "domain", f.value);
        else if (!in_item && is_number_key(f.key) && !append_number_field(out, f))
            return false;
    }
    items += in_item ? "}]" : "]";
    append_key(out, "items");
    *out += items + "}";
    return true;
}

} // namespace

bool parse_u32(std::string_view text, uint32_t *value)
{
    if (text.empty() || text.size() > 10)
        return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + static_cast<unsigned>(c - '0');
    }
    if (v > UINT32_MAX)
        return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

void json_append_string(std::string *out, std::string_view text)
{
    out->push_back('"');
    for (unsigned char c : kd_wire_text(text)) {
        // '<', '>' and '&' are escaped too, so that no JSON text can ever
        // look like markup to anything that mishandles it.
        if (c < 0x20 || c == '"' || c == '\\' || c == '<' || c == '>' || c == '&' || c == 0x7f) {
            char esc[8];
            snprintf(esc, sizeof(esc), "\\u%04x", c);
            out->append(esc);
        } else
            out->push_back(static_cast<char>(c));
    }
    out->push_back('"');
}

bool message_to_json(std::string_view text, std::string *json)
{
    std::vector<field> fs = split_fields(text);
    if (fs[0].key == "overview" && fs[0].value.empty())
        return overview_to_json(fs, json);
    if ((fs[0].key == "OK" || fs[0].key == "ERROR") && fs[0].value.empty())
        return answer_to_json(fs, json);
    return false;
}

std::string login_request(std::string_view domain, uint32_t profile)
{
    return "login\tv:3\tdomain:" + std::string(domain) + "\tprofile_id:" + std::to_string(profile);
}

bool request_from_json(const std::vector<json_member> &obj, std::string_view domain, uint32_t profile,
                       std::string *request)
{
    const json_member *cmd = json_find(obj, "cmd");
    if (!cmd || cmd->is_number)
        return false;
    if (cmd->text == "status") {
        *request = "status";
        return true;
    }
    std::string head = "\tdomain:" + std::string(domain) + "\tprofile_id:" + std::to_string(profile);
    if (cmd->text == "accounts") {
        *request = "accounts" + head;
        return true;
    }
    if (cmd->text != "body" && cmd->text != "enclosure" && cmd->text != "image")
        return false;
    const json_member *feed = json_find(obj, "feed_id");
    const json_member *uid = json_find(obj, "uid");
    if (!feed || !uid || !feed->is_number || !uid->is_number)
        return false;
    *request = cmd->text + head + "\tfeed_id:" + std::to_string(feed->number) + "\tuid:" + std::to_string(uid->number);
    return true;
}

} // namespace kweb
