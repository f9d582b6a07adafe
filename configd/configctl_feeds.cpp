// configctl_feeds: the commands that list and edit a domain's feeds and
// profiles (feeds, feed add/rm/set, subscribe, unsubscribe, profile
// add/rm): the command lines and their output. Each edit (feededit.h) is
// one read-modify-write through ctl_update; the tree belongs to that loop.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>
#include "configd/configctl.h"
#include "configd/ctlrpc.h"
#include "configd/docedit.h"
#include "configd/feededit.h"
#include "configd/store.h"

int ctl_parse_args(const char *cmd, int argc, char **argv, const char *const *known, ctl_args *out)
{
    for (int i = 0; i < argc; i++) {
        std::string a = argv[i];
        if (a.rfind("--", 0) != 0) {
            out->pos.push_back(argv[i]);
            continue;
        }
        size_t eq = a.find('=');
        std::string name = a.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
        bool ok = false;
        for (const char *const *k = known; *k; k++)
            ok |= name == *k;
        if (!ok)
            return ctl_misuse(cmd, "unknown option '%s'", a.substr(0, eq).c_str());
        if (eq == std::string::npos && i + 1 >= argc)
            return ctl_misuse(cmd, "%s needs a value", a.c_str());
        out->opts.emplace_back(name, eq == std::string::npos ? argv[++i] : argv[i] + eq + 1);
    }
    return 0;
}

const char *ctl_opt(const ctl_args &a, const char *name)
{
    const char *v = nullptr;
    for (const auto &o : a.opts)
        if (o.first == name)
            v = o.second;
    return v;
}

std::vector<const char *> ctl_opts(const ctl_args &a, const char *name)
{
    std::vector<const char *> v;
    for (const auto &o : a.opts)
        if (o.first == name)
            v.push_back(o.second);
    return v;
}

namespace {

// Whether a terminal shows a code point in two columns (CJK, Hangul,
// full-width forms, emoji).
bool wide(unsigned cp)
{
    static const unsigned ranges[][2] = {{0x1100, 0x115f}, {0x2e80, 0xa4cf}, {0xac00, 0xd7a3}, {0xf900, 0xfaff},
                                         {0xfe30, 0xfe4f}, {0xff00, 0xff60}, {0xffe0, 0xffe6}, {0x1f300, 0x1f64f},
                                         {0x1f900, 0x1f9ff}, {0x20000, 0x3fffd}};
    for (const auto &r : ranges)
        if (cp >= r[0] && cp <= r[1])
            return true;
    return false;
}

// Columns a terminal uses for UTF-8 text.
size_t width(const std::string &s)
{
    size_t n = 0;
    for (size_t i = 0; i < s.size();) {
        auto c = static_cast<unsigned char>(s[i]);
        size_t len = c < 0x80 ? 1 : c < 0xe0 ? 2 : c < 0xf0 ? 3 : 4;
        unsigned cp = len == 1 ? c : c & (0x7f >> len);
        for (size_t k = 1; k < len && i + k < s.size(); k++)
            cp = cp << 6 | (static_cast<unsigned char>(s[i + k]) & 0x3f);
        n += wide(cp) ? 2 : 1;
        i += len;
    }
    return n;
}

void print_table(const std::vector<std::vector<std::string>> &rows)
{
    std::vector<size_t> w(rows[0].size(), 0);
    for (const auto &r : rows)
        for (size_t i = 0; i < r.size(); i++)
            w[i] = std::max(w[i], width(r[i]));
    for (const auto &r : rows) {
        std::string line;
        for (size_t i = 0; i < r.size(); i++)
            line += r[i] + (i + 1 < r.size() ? std::string(w[i] - width(r[i]) + 2, ' ') : "");
        puts(line.c_str());
    }
}

} // namespace

int ctl_feeds(int argc, char **argv)
{
    static const char *const words[] = {"DOMAIN", nullptr};
    if (int bad = ctl_check_words("feeds", argc, argv, words, false))
        return bad;
    if (!cfg_valid_domain(argv[0]))
        return ctl_fail("invalid domain name '%s' (allowed: 1 to 32 of a-z 0-9 _ -)", argv[0]);
    std::string gen, why;
    kd_mxml_tree doc(ctl_fetch(argv[0], &gen, &why));
    if (!doc)
        return ctl_fail("feeds %s: %s", argv[0], why.c_str());
    std::vector<std::vector<std::string>> rows{{"ID", "NAME", "URL", "POLL", "PROFILES"}};
    for (mxml_node_t *e : doc_children(doc_child(doc.get(), "pool"), "entry")) {
        std::string id = doc_attr(e, "id"), profiles;
        for (const std::string &p : doc_subscribers(doc.get(), id.c_str()))
            profiles += (profiles.empty() ? "" : ",") + p;
        rows.push_back(
            {id, doc_attr(e, "name"), doc_attr(e, "url"), doc_attr(e, "poll", "-"), profiles.empty() ? "-" : profiles});
    }
    print_table(rows);
    return 0;
}

int ctl_feed_add(int argc, char **argv)
{
    static const char *const known[] = {"name", "poll", "profile", nullptr};
    static const char *const words[] = {"DOMAIN", "URL", nullptr};
    ctl_args a;
    if (int bad = ctl_parse_args("feed add", argc, argv, known, &a))
        return bad;
    std::vector<const char *> profiles = ctl_opts(a, "profile");
    // "--profile 1 2 3" names three profiles.
    if (int bad = ctl_check_words("feed add", a.pos.size(), a.pos.data(), words, !profiles.empty()))
        return bad;
    const char *url = a.pos[1], *name = ctl_opt(a, "name"), *poll = ctl_opt(a, "poll");
    profiles.insert(profiles.end(), a.pos.begin() + 2, a.pos.end());
    std::string why = fe_check_feed(url, name, poll);
    if (!why.empty())
        return ctl_fail("feed add %s: %s", a.pos[0], why.c_str());
    return ctl_update("feed add", a.pos[0], [&](mxml_node_t *doc, std::string *out, std::string *err) {
        std::string id;
        if (!fe_add_feed(doc, url, name, poll, profiles, &id, err))
            return false;
        *out = "added feed " + id + "\n";
        return true;
    });
}

int ctl_feed_rm(int argc, char **argv)
{
    static const char *const words[] = {"DOMAIN", "ID", nullptr};
    if (int bad = ctl_check_words("feed rm", argc, argv, words, false))
        return bad;
    const char *id = argv[1];
    return ctl_update("feed rm", argv[0], [&](mxml_node_t *doc, std::string *, std::string *err) {
        return fe_remove_feed(doc, id, err);
    });
}

int ctl_feed_set(int argc, char **argv)
{
    static const char *const known[] = {"name", "url", "poll", nullptr};
    static const char *const words[] = {"DOMAIN", "ID", nullptr};
    ctl_args a;
    if (int bad = ctl_parse_args("feed set", argc, argv, known, &a))
        return bad;
    if (int bad = ctl_check_words("feed set", a.pos.size(), a.pos.data(), words, false))
        return bad;
    if (a.opts.empty())
        return ctl_misuse("feed set", "nothing to change: give --name, --url or --poll");
    const char *id = a.pos[1], *url = ctl_opt(a, "url"), *name = ctl_opt(a, "name"), *poll = ctl_opt(a, "poll");
    std::string why = fe_check_feed(url, name, poll);
    if (!why.empty())
        return ctl_fail("feed set %s: %s", a.pos[0], why.c_str());
    return ctl_update("feed set", a.pos[0], [&](mxml_node_t *doc, std::string *, std::string *err) {
        return fe_set_feed(doc, id, url, name, poll, err);
    });
}

namespace {

// subscribe and unsubscribe: every feed id must name a feed of the pool.
int change_subscriptions(const char *what, int argc, char **argv, bool subscribe)
{
    static const char *const words[] = {"DOMAIN", "PROFILE", "ID", nullptr};
    if (int bad = ctl_check_words(what, argc, argv, words, true))
        return bad;
    const char *profile = argv[1];
    std::vector<const char *> ids(argv + 2, argv + argc);
    return ctl_update(what, argv[0], [&](mxml_node_t *doc, std::string *, std::string *err) {
        return fe_subscribe(doc, profile, ids, subscribe, err);
    });
}

} // namespace

int ctl_subscribe(int argc, char **argv)
{
    return change_subscriptions("subscribe", argc, argv, true);
}

int ctl_unsubscribe(int argc, char **argv)
{
    return change_subscriptions("unsubscribe", argc, argv, false);
}

namespace {

const char *const g_profile_words[] = {"DOMAIN", "ID", nullptr};

} // namespace

int ctl_profile_add(int argc, char **argv)
{
    if (int bad = ctl_check_words("profile add", argc, argv, g_profile_words, false))
        return bad;
    const char *id = argv[1];
    std::string why = doc_check_profile_id(id);
    if (!why.empty())
        return ctl_fail("profile add %s: %s", argv[0], why.c_str());
    return ctl_update("profile add", argv[0], [&](mxml_node_t *doc, std::string *, std::string *err) {
        return fe_add_profile(doc, id, err);
    });
}

int ctl_profile_rm(int argc, char **argv)
{
    if (int bad = ctl_check_words("profile rm", argc, argv, g_profile_words, false))
        return bad;
    const char *id = argv[1];
    return ctl_update("profile rm", argv[0], [&](mxml_node_t *doc, std::string *, std::string *err) {
        return fe_remove_profile(doc, id, err);
    });
}
