// opml: OPML 2.0 export and import of a domain's feeds (see opml.h). The
// imported file's tree is held by a kd_mxml_tree, the domain's by the
// caller (ctl_apply's read-modify-write).
#include "configd/opml.h"
#include <algorithm>
#include <cstring>
#include <string_view>
#include "configd/docedit.h"
#include "configd/feededit.h"
#include "configd/store.h"
#include "util/kd_mxml.h"

namespace {

// What the profile categories and feeds carry beyond OPML's own attributes,
// so that an export imports back as it was.
constexpr const char ATTR_PROFILE[] = "kelpProfile";
constexpr const char ATTR_POLL[] = "kelpPoll";

std::string escape(std::string_view s)
{
    std::string out;
    for (char c : s) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '"')
            out += "&quot;";
        else if (static_cast<unsigned char>(c) < 0x20)
            out += "&#" + std::to_string(int(c)) + ";";
        else
            out += c;
    }
    return out;
}

std::string feed_outline(mxml_node_t *entry, const std::string &indent)
{
    std::string name = escape(doc_attr(entry, "name"));
    std::string out = indent + "<outline type=\"rss\" text=\"" + name + "\" title=\"" + name + "\" xmlUrl=\"" +
                      escape(doc_attr(entry, "url")) + "\"";
    if (mxmlElementGetAttr(entry, "poll"))
        out += std::string(" ") + ATTR_POLL + "=\"" + escape(doc_attr(entry, "poll")) + "\"";
    return out + " />\n";
}

// The feeds a profile subscribes, in the order of its items.
std::vector<mxml_node_t *> profile_feeds(mxml_node_t *doc, mxml_node_t *profile)
{
    std::vector<mxml_node_t *> out;
    for (mxml_node_t *it : doc_items(profile)) {
        const char *id = mxmlElementGetAttr(it, "entry");
        mxml_node_t *e = id ? doc_entry(doc, id) : nullptr;
        if (e && std::find(out.begin(), out.end(), e) == out.end())
            out.push_back(e);
    }
    return out;
}

std::string profile_category(mxml_node_t *doc, mxml_node_t *profile)
{
    std::string id = escape(doc_attr(profile, "id"));
    std::string out = "    <outline text=\"Profile " + id + "\" title=\"Profile " + id + "\" " + ATTR_PROFILE + "=\"" +
                      id + "\">\n";
    for (mxml_node_t *e : profile_feeds(doc, profile))
        out += feed_outline(e, "      ");
    return out + "    </outline>\n";
}

// Every profile as a category, then the feeds no profile subscribes.
std::string all_outlines(mxml_node_t *doc)
{
    std::string out;
    for (mxml_node_t *p : doc_children(doc_child(doc, "profiles"), "profile"))
        out += profile_category(doc, p);
    for (mxml_node_t *e : doc_children(doc_child(doc, "pool"), "entry")) {
        const char *id = mxmlElementGetAttr(e, "id");
        if (!id || doc_subscribers(doc, id).empty())
            out += feed_outline(e, "    ");
    }
    return out;
}

} // namespace

std::string opml_export(mxml_node_t *doc, const char *domain, mxml_node_t *profile)
{
    std::string title =
        std::string("Feeds of domain ") + domain + (profile ? " for profile " + doc_attr(profile, "id") : "");
    std::string body;
    if (profile)
        for (mxml_node_t *e : profile_feeds(doc, profile))
            body += feed_outline(e, "    ");
    else
        body = all_outlines(doc);
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<opml version=\"2.0\">\n  <head>\n    <title>" + escape(title) +
           "</title>\n  </head>\n  <body>\n" + body + "  </body>\n</opml>\n";
}

namespace {

// Where a comment, CDATA section, processing instruction or declaration
// starting at i ends; 0 when none starts there.
size_t markup_end(std::string_view t, size_t i)
{
    static const std::pair<std::string_view, std::string_view> kinds[] = {
        {"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}, {"<!", ">"}};
    for (const auto &[open, close] : kinds) {
        if (!t.substr(i).starts_with(open))
            continue;
        size_t end = t.find(close, i + open.size());
        return end == std::string_view::npos ? t.size() : end + close.size();
    }
    return 0;
}

// The '>' that ends the tag starting at i (quoted '>' skipped), or the end.
size_t tag_end(std::string_view t, size_t i)
{
    char quote = 0;
    for (i++; i < t.size() && (quote || t[i] != '>'); i++)
        quote = quote ? (t[i] == quote ? 0 : quote) : (t[i] == '"' || t[i] == '\'') ? t[i] : 0;
    return i;
}

// Counts outline tags and nesting without building anything, so that a
// hostile file is refused before the parser holds it. Mini-XML does the
// real checking afterwards; it expands no declared entity, but a file
// declaring any is refused outright.
std::string size_up(std::string_view t)
{
    if (t.find("<!ENTITY") != std::string_view::npos)
        return "entity declarations are not accepted";
    size_t outlines = 0, depth = 0;
    for (size_t i = t.find('<'); i != std::string_view::npos; i = t.find('<', i)) {
        if (size_t skip = markup_end(t, i)) {
            i = skip;
            continue;
        }
        size_t end = tag_end(t, i);
        bool closing = i + 1 < t.size() && t[i + 1] == '/';
        bool empty = end < t.size() && t[end - 1] == '/';
        depth = closing ? (depth ? depth - 1 : 0) : depth + !empty;
        std::string_view name = t.substr(i + 1, 8);
        outlines += !closing && name.starts_with("outline") && (name.size() == 7 || strchr(" \t\r\n/>", name[7]));
        if (outlines > OPML_MAX_OUTLINES)
            return "more than " + std::to_string(OPML_MAX_OUTLINES) + " outlines";
        if (depth > OPML_MAX_DEPTH)
            return "elements nested more than " + std::to_string(OPML_MAX_DEPTH) + " deep";
        i = end;
    }
    return "";
}

// Titles in the wild carry line breaks and tabs: each run of white space
// becomes one space.
std::string tidy_title(const std::string &s)
{
    std::string out;
    bool space = false;
    for (char c : s) {
        bool ws = c == ' ' || c == '\n' || c == '\r' || c == '\t';
        if (!ws && space && !out.empty())
            out += ' ';
        if (!ws)
            out += c;
        space = ws;
    }
    return out;
}

bool take_feed(mxml_node_t *o, const std::string &profile, size_t number, opml_list *out, std::string *why)
{
    opml_feed f{doc_attr(o, "xmlUrl"), tidy_title(doc_attr(o, "title")), doc_attr(o, ATTR_POLL), profile};
    if (f.name.empty())
        f.name = tidy_title(doc_attr(o, "text"));
    if (f.name.empty())
        f.name = f.url;
    std::string bad = fe_check_feed(f.url.c_str(), f.name.c_str(), f.poll.empty() ? nullptr : f.poll.c_str());
    if (!bad.empty()) {
        *why = "outline " + std::to_string(number) + ": " + bad;
        return false;
    }
    out->feeds.push_back(f);
    return true;
}

// Every feed outline below `parent` in document order; categories are
// flattened, and a profile category passes its profile on.
bool collect(mxml_node_t *parent, const std::string &profile, size_t depth, size_t *number, opml_list *out,
                    std::string *why)
{
    if (depth > OPML_MAX_DEPTH) {
        *why = "outlines nested too deep";
        return false;
    }
    for (mxml_node_t *o : doc_children(parent, "outline")) {
        ++*number;
        if (mxmlElementGetAttr(o, "xmlUrl")) {
            if (!take_feed(o, profile, *number, out, why))
                return false;
            continue;
        }
        std::string inner = doc_attr(o, ATTR_PROFILE, profile.c_str());
        if (inner != profile) {
            if (std::string bad = doc_check_profile_id(inner.c_str()); !bad.empty()) {
                *why = "outline " + std::to_string(*number) + ": " + bad;
                return false;
            }
            out->profiles.push_back(inner);
        }
        if (!collect(o, inner, depth + 1, number, out, why))
            return false;
    }
    return true;
}

} // namespace

bool opml_read(const std::string &text, opml_list *feeds, std::string *why)
{
    *why = size_up(text);
    if (!why->empty())
        return false;
    kd_mxml_tree tree(cfg_parse(text.c_str(), why));
    if (!tree)
        return false;
    mxml_node_t *root = tree.get();
    mxml_node_t *opml = mxmlGetElement(root) && !strcmp(mxmlGetElement(root), "opml") ? root : doc_child(root, "opml");
    mxml_node_t *body = doc_child(opml, "body");
    if (!opml || !body) {
        *why = std::string("not an OPML document (no <") + (opml ? "body" : "opml") + "> element)";
        return false;
    }
    size_t number = 0;
    return collect(body, "", 0, &number, feeds, why);
}

namespace {

// What one import did so far.
struct import_tally {
    std::vector<mxml_node_t *> added, seen;
    size_t skipped;
    std::string out;
};

mxml_node_t *find_or_add_profile(mxml_node_t *doc, const std::string &id, import_tally *t)
{
    mxml_node_t *p = doc_profile(doc, id.c_str());
    if (!p) {
        p = doc_add_profile(doc, id.c_str());
        t->out += "added profile " + id + "\n";
    }
    return p;
}

// Adds one feed (or finds it by URL) and subscribes its profile.
void import_feed(mxml_node_t *doc, const opml_feed &f, const char *profile, import_tally *t)
{
    mxml_node_t *e = doc_entry_by_url(doc, f.url.c_str());
    if (!e) {
        std::string id = doc_next_id(doc);
        e = doc_add_entry(doc, id.c_str(), f.url.c_str(), f.name.c_str(), f.poll.empty() ? nullptr : f.poll.c_str());
        t->added.push_back(e);
        t->out += "added feed " + id + ": " + f.name + " <" + f.url + ">\n";
    } else if (std::find(t->seen.begin(), t->seen.end(), e) == t->seen.end()) {
        t->skipped++;
        t->out += "skipped " + f.url + " (already in the pool as feed " + doc_attr(e, "id") + ")\n";
    }
    t->seen.push_back(e);
    std::string pid = profile ? profile : f.profile;
    if (!pid.empty())
        doc_subscribe(find_or_add_profile(doc, pid, t), doc_attr(e, "id").c_str());
}

} // namespace

bool opml_import(mxml_node_t *doc, const opml_list &list, const char *profile, std::string *report,
                 std::string *why)
{
    if (profile && !doc_profile(doc, profile)) {
        *why = std::string("no profile ") + profile;
        return false;
    }
    import_tally t{};
    // Profile categories come back even when they hold no feed.
    for (const std::string &p : list.profiles)
        if (!profile)
            find_or_add_profile(doc, p, &t);
    for (const opml_feed &f : list.feeds)
        import_feed(doc, f, profile, &t);
    *report = t.out + std::to_string(t.added.size()) + " feeds added, " + std::to_string(t.skipped) + " skipped\n";
    return true;
}
