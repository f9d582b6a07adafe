// Helpers of the restart tests: the read marks a daemon leaves in configd,
// and a restart that starts from them with nothing else of the old daemon
// (no feed record, no items), as every visit after the last client left does.
#pragma once
#include "tests/unit/refresh/refresh_fixture.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace kelp_test {

// The "read" and "first" attributes of both subscriptions, "(none)" when absent.
struct saved_marks {
    std::string read[2], first[2];
};

// Attributes of a subscription element holding the saved values.
inline std::string saved_attrs(const std::string &read, const std::string &first)
{
    std::string s;
    if (read != "(none)")
        s += " read=\"" + read + "\"";
    if (first != "(none)")
        s += " first=\"" + first + "\"";
    return s;
}

// The positions a "read" attribute marks; none for "(none)".
inline std::set<uint32_t> marked_positions(const std::string &read)
{
    bitfield f;
    bf_init(&f);
    bf_from_string(&f, read == "(none)" ? nullptr : read.c_str());
    std::set<uint32_t> out;
    for (uint32_t i = 0; i < f.len * 8; i++)
        if (bf_isset(&f, i))
            out.insert(i);
    bf_free(&f);
    return out;
}

// A title as clients are sent it: sending turns its tabs into spaces.
inline std::string as_sent(std::string title)
{
    std::replace(title.begin(), title.end(), '\t', ' ');
    return title;
}

// Whether a "first" value names the item of this freshly parsed title: it
// holds the hash of the title as it stood when written, before a client was
// sent it or after.
inline bool names_title(const std::string &first, const std::string &fresh)
{
    return first == hash_text(fresh.c_str()) || first == hash_text(as_sent(fresh).c_str());
}

class restart_test : public refresh_test {
protected:
    saved_marks saved()
    {
        saved_marks m;
        for (int p : {1, 2}) {
            m.read[p - 1] = attr(sub(p), "read");
            m.first[p - 1] = attr(sub(p), "first");
        }
        return m;
    }

    std::set<uint32_t> read_positions(int profile_id) { return marked_positions(attr(sub(profile_id), "read")); }

    // A new daemon with configd's document as the old one left it: the
    // subscriptions carry the saved marks and the feed has not been fetched.
    kd_node *restart(const saved_marks &m)
    {
        TearDown();
        SetUp();
        return setup(" name=\"A\"", saved_attrs(m.read[0], m.first[0]), saved_attrs(m.read[1], m.first[1]));
    }

    // The temporary node of a parse, or null when the document yields no item.
    static kd_node *parse_items(const std::string &body)
    {
        char *text = kd_strdup(body.c_str());
        kd_node *parsed = kdx_parse_feed(200, kUrlA, "application/rss+xml", &text, nullptr);
        kd_free(text);
        if (parsed && !parsed->children) {
            kdn_free_feed(parsed);
            return nullptr;
        }
        return parsed;
    }

    // The item titles a document yields, in order.
    static std::vector<std::string> parsed_titles(const std::string &body)
    {
        kd_node *parsed = parse_items(body);
        std::vector<std::string> v = parsed ? refresh_test::titles(parsed) : std::vector<std::string>{};
        kdn_free_feed(parsed);
        return v;
    }
};

} // namespace kelp_test
