// docedit: edits of a domain document that leave every node they do not
// add or remove untouched, and the checks of user input.
#include "configd/docedit.h"
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include "util/kd_utf8.h"

namespace {

bool is_element(mxml_node_t *n, const char *name)
{
    const char *el = mxmlGetType(n) == MXML_ELEMENT ? mxmlGetElement(n) : nullptr;
    return el && !strcmp(el, name);
}

bool is_blank(mxml_node_t *n)
{
    const char *t = n && mxmlGetType(n) == MXML_OPAQUE ? mxmlGetOpaque(n) : nullptr;
    return t && strspn(t, " \t\r\n") == strlen(t);
}

} // namespace

std::string doc_attr(mxml_node_t *n, const char *name, const char *dflt)
{
    const char *v = mxmlElementGetAttr(n, name);
    return v ? v : dflt;
}

std::vector<mxml_node_t *> doc_children(mxml_node_t *parent, const char *name)
{
    std::vector<mxml_node_t *> out;
    for (mxml_node_t *n = parent ? mxmlGetFirstChild(parent) : nullptr; n; n = mxmlGetNextSibling(n))
        if (is_element(n, name))
            out.push_back(n);
    return out;
}

mxml_node_t *doc_child(mxml_node_t *parent, const char *name)
{
    for (mxml_node_t *n = parent ? mxmlGetFirstChild(parent) : nullptr; n; n = mxmlGetNextSibling(n))
        if (is_element(n, name))
            return n;
    return nullptr;
}

namespace {

bool attr_is(mxml_node_t *n, const char *attr, const char *value)
{
    const char *v = mxmlElementGetAttr(n, attr);
    return v && !strcmp(v, value);
}

} // namespace

mxml_node_t *doc_entry(mxml_node_t *root, const char *id)
{
    for (mxml_node_t *e : doc_children(doc_child(root, "pool"), "entry"))
        if (attr_is(e, "id", id))
            return e;
    return nullptr;
}

mxml_node_t *doc_entry_by_url(mxml_node_t *root, const char *url)
{
    for (mxml_node_t *e : doc_children(doc_child(root, "pool"), "entry"))
        if (attr_is(e, "url", url))
            return e;
    return nullptr;
}

namespace {

// A profile id as the daemon reads it (base 10), or -1 when it is none.
long long profile_number(const char *id)
{
    if (!id || !*id || strspn(id, "0123456789") != strlen(id) || strlen(id) > 10)
        return -1;
    long long v = strtoll(id, nullptr, 10);
    return v > 0xffffffffLL ? -1 : v;
}

} // namespace

mxml_node_t *doc_profile(mxml_node_t *root, const char *id)
{
    long long want = profile_number(id);
    for (mxml_node_t *p : doc_children(doc_child(root, "profiles"), "profile")) {
        const char *have = mxmlElementGetAttr(p, "id");
        if (want >= 0 ? profile_number(have) == want : attr_is(p, "id", id))
            return p;
    }
    return nullptr;
}

std::vector<mxml_node_t *> doc_items(mxml_node_t *profile)
{
    std::vector<mxml_node_t *> out;
    for (mxml_node_t *n = mxmlFindElement(profile, profile, "item", nullptr, nullptr, MXML_DESCEND); n;
         n = mxmlFindElement(n, profile, "item", nullptr, nullptr, MXML_DESCEND))
        out.push_back(n);
    return out;
}

namespace {

bool subscribes(mxml_node_t *profile, const char *id)
{
    for (mxml_node_t *it : doc_items(profile))
        if (attr_is(it, "entry", id))
            return true;
    return false;
}

} // namespace

std::vector<std::string> doc_subscribers(mxml_node_t *root, const char *id)
{
    std::vector<std::string> out;
    for (mxml_node_t *p : doc_children(doc_child(root, "profiles"), "profile"))
        if (subscribes(p, id) && mxmlElementGetAttr(p, "id"))
            out.push_back(mxmlElementGetAttr(p, "id"));
    return out;
}

std::string doc_next_id(mxml_node_t *root)
{
    unsigned long long top = 0;
    for (mxml_node_t *e : doc_children(doc_child(root, "pool"), "entry")) {
        const char *id = mxmlElementGetAttr(e, "id");
        if (!id || !*id || strspn(id, "0123456789") != strlen(id) || strlen(id) > 18)
            continue;
        top = std::max(top, strtoull(id, nullptr, 10));
    }
    return std::to_string(top + 1);
}

namespace {

void add_after(mxml_node_t *parent, mxml_node_t *where, mxml_node_t *node)
{
    mxmlAdd(parent, MXML_ADD_AFTER, where ? where : MXML_ADD_TO_PARENT, node);
}

void add_blank_after(mxml_node_t *parent, mxml_node_t *where, const std::string &text)
{
    if (!text.empty())
        add_after(parent, where, mxmlNewOpaque(MXML_NO_PARENT, text.c_str()));
}

} // namespace

mxml_node_t *doc_append(mxml_node_t *parent, const char *name)
{
    mxml_node_t *node = mxmlNewElement(MXML_NO_PARENT, name);
    std::vector<mxml_node_t *> same = doc_children(parent, name);
    if (!same.empty()) {
        // After the last sibling of its kind, indented as that one is.
        mxml_node_t *last = same.back();
        mxml_node_t *before = mxmlGetPrevSibling(last);
        add_after(parent, last, node);
        add_blank_after(parent, last, is_blank(before) ? mxmlGetOpaque(before) : "");
        return node;
    }
    // The first of its kind: one step deeper than the parent's closing tag.
    mxml_node_t *tail = mxmlGetLastChild(parent);
    if (is_blank(tail) && strchr(mxmlGetOpaque(tail), '\n')) {
        std::string indent = std::string(mxmlGetOpaque(tail)) + "  ";
        mxmlAdd(parent, MXML_ADD_BEFORE, tail, mxmlNewOpaque(MXML_NO_PARENT, indent.c_str()));
        mxmlAdd(parent, MXML_ADD_BEFORE, tail, node);
        return node;
    }
    mxmlAdd(parent, MXML_ADD_AFTER, MXML_ADD_TO_PARENT, node);
    return node;
}

void doc_remove(mxml_node_t *node)
{
    mxml_node_t *before = mxmlGetPrevSibling(node);
    if (is_blank(before))
        mxmlDelete(before);
    mxmlDelete(node);
}

mxml_node_t *doc_add_entry(mxml_node_t *root, const char *id, const char *url, const char *name, const char *poll)
{
    mxml_node_t *e = doc_append(doc_child(root, "pool"), "entry");
    mxmlElementSetAttr(e, "id", id);
    mxmlElementSetAttr(e, "url", url);
    mxmlElementSetAttr(e, "name", name);
    if (poll)
        mxmlElementSetAttr(e, "poll", poll);
    return e;
}

void doc_remove_entry(mxml_node_t *root, mxml_node_t *entry)
{
    std::string id = mxmlElementGetAttr(entry, "id");
    for (mxml_node_t *p : doc_children(doc_child(root, "profiles"), "profile"))
        doc_unsubscribe(p, id.c_str());
    doc_remove(entry);
}

mxml_node_t *doc_add_profile(mxml_node_t *root, const char *id)
{
    mxml_node_t *p = doc_append(doc_child(root, "profiles"), "profile");
    mxmlElementSetAttr(p, "id", id);
    return p;
}

bool doc_subscribe(mxml_node_t *profile, const char *id)
{
    if (subscribes(profile, id))
        return false;
    mxmlElementSetAttr(doc_append(profile, "item"), "entry", id);
    return true;
}

bool doc_unsubscribe(mxml_node_t *profile, const char *id)
{
    bool any = false;
    for (mxml_node_t *it : doc_items(profile))
        if (attr_is(it, "entry", id)) {
            doc_remove(it);
            any = true;
        }
    return any;
}

std::string doc_check_url(const char *url)
{
    std::string_view u = url;
    size_t scheme = u.find("://");
    std::string s(u.substr(0, scheme == std::string_view::npos ? 0 : scheme));
    for (char &c : s)
        c = char(tolower(static_cast<unsigned char>(c)));
    if (s != "http" && s != "https")
        return std::string("not an http or https URL: '") + url + "'";
    size_t host = scheme + 3;
    if (host >= u.size() || u[host] == '/' || u[host] == ':' || u[host] == '?' || u[host] == '#')
        return std::string("URL has no host: '") + url + "'";
    if (u.size() > 4096)
        return "URL longer than 4096 bytes";
    for (unsigned char c : u)
        if (c <= 0x20 || c == 0x7f)
            return "URL contains white space or a control character";
    return "";
}

std::string doc_check_name(const char *name)
{
    size_t n = strlen(name);
    if (!n)
        return "empty name";
    if (n > 4096)
        return "name longer than 4096 bytes";
    auto *p = reinterpret_cast<const unsigned char *>(name);
    for (size_t i = 0; i < n;) {
        uint32_t cp = 0;
        size_t len = kd_utf8_char(p + i, n - i, &cp);
        if (!len)
            return "name is not valid UTF-8";
        if (cp < 0x20 || (cp >= 0x7f && cp < 0xa0))
            return "name contains a control character";
        i += len;
    }
    return "";
}

std::string doc_check_poll(const char *poll)
{
    size_t n = strlen(poll);
    if (!n || strspn(poll, "0123456789") != n || n > 10)
        return std::string("poll interval is not a number of seconds: '") + poll + "'";
    long long v = strtoll(poll, nullptr, 10);
    if (v < DOC_MIN_POLL)
        return "poll interval " + std::to_string(v) + " s is below the minimum of " + std::to_string(DOC_MIN_POLL) + " s";
    if (v > 0x7fffffff)
        return "poll interval " + std::to_string(v) + " s is too large";
    return "";
}

std::string doc_check_profile_id(const char *id)
{
    if (profile_number(id) < 0)
        return std::string("profile id is not a number from 0 to 4294967295: '") + id + "'";
    return "";
}
