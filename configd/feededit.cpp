// feededit: a user's requests as edits of a domain document (see
// feededit.h); every check happens before anything is changed.
#include "configd/feededit.h"
#include "configd/docedit.h"

std::string fe_check_feed(const char *url, const char *name, const char *poll)
{
    std::string why = url ? doc_check_url(url) : "";
    if (why.empty() && name)
        why = doc_check_name(name);
    if (why.empty() && poll)
        why = doc_check_poll(poll);
    return why;
}

namespace {

bool profiles_exist(mxml_node_t *doc, const std::vector<const char *> &ids, std::string *why)
{
    for (const char *p : ids)
        if (!doc_profile(doc, p)) {
            *why = std::string("no profile ") + p;
            return false;
        }
    return true;
}

bool url_free(mxml_node_t *doc, const char *url, mxml_node_t *self, std::string *why)
{
    mxml_node_t *e = doc_entry_by_url(doc, url);
    if (e && e != self)
        *why = "feed " + doc_attr(e, "id") + " has that URL already";
    return !e || e == self;
}

} // namespace

mxml_node_t *fe_find_feed(mxml_node_t *doc, const char *id, std::string *why)
{
    mxml_node_t *e = doc_entry(doc, id);
    if (!e)
        *why = std::string("no feed ") + id;
    return e;
}

bool fe_add_feed(mxml_node_t *doc, const char *url, const char *name, const char *poll,
                 const std::vector<const char *> &profiles, std::string *id, std::string *why)
{
    if (!profiles_exist(doc, profiles, why) || !url_free(doc, url, nullptr, why))
        return false;
    *id = doc_next_id(doc);
    // The daemon puts the feed's own title in place of a name that is
    // still the URL.
    doc_add_entry(doc, id->c_str(), url, name ? name : url, poll);
    for (const char *p : profiles)
        doc_subscribe(doc_profile(doc, p), id->c_str());
    return true;
}

bool fe_set_feed(mxml_node_t *doc, const char *id, const char *url, const char *name, const char *poll,
                 std::string *why)
{
    mxml_node_t *e = fe_find_feed(doc, id, why);
    if (!e || (url && !url_free(doc, url, e, why)))
        return false;
    const char *names[] = {"url", "name", "poll"};
    const char *values[] = {url, name, poll};
    for (int i = 0; i < 3; i++)
        if (values[i])
            mxmlElementSetAttr(e, names[i], values[i]);
    return true;
}

bool fe_remove_feed(mxml_node_t *doc, const char *id, std::string *why)
{
    mxml_node_t *e = fe_find_feed(doc, id, why);
    if (e)
        doc_remove_entry(doc, e);
    return e != nullptr;
}

bool fe_subscribe(mxml_node_t *doc, const char *profile, const std::vector<const char *> &ids, bool subscribe,
                  std::string *why)
{
    mxml_node_t *p = doc_profile(doc, profile);
    if (!p) {
        *why = std::string("no profile ") + profile;
        return false;
    }
    for (const char *id : ids)
        if (!fe_find_feed(doc, id, why))
            return false;
    for (const char *id : ids)
        subscribe ? doc_subscribe(p, id) : doc_unsubscribe(p, id);
    return true;
}

bool fe_add_profile(mxml_node_t *doc, const char *id, std::string *why)
{
    *why = doc_check_profile_id(id);
    if (!why->empty())
        return false;
    if (doc_profile(doc, id)) {
        *why = std::string("profile ") + id + " exists already";
        return false;
    }
    doc_add_profile(doc, id);
    return true;
}

bool fe_remove_profile(mxml_node_t *doc, const char *id, std::string *why)
{
    mxml_node_t *p = doc_profile(doc, id);
    if (!p)
        *why = std::string("no profile ") + id;
    else
        doc_remove(p);
    return p != nullptr;
}
