// kelp-web's subscriptions through configd (see cfgweb.h).
#include "cfgweb.h"

#include "configd/ctlrpc.h"
#include "configd/docedit.h"
#include "configd/feededit.h"
#include "configd/opml.h"
#include "util/kd_mxml.h"

#include <algorithm>
#include <optional>

namespace kweb {

namespace {

// The members of one request, as text (numbers in decimal).
struct fields {
    std::string domain;
    std::optional<std::string> id, url, name, poll, profile, opml;
};

std::optional<std::string> text_of(const std::vector<json_member> &obj, std::string_view key)
{
    const json_member *m = json_find(obj, key);
    if (!m)
        return std::nullopt;
    return m->is_number ? std::to_string(m->number) : m->text;
}

const char *c_str(const std::optional<std::string> &v)
{
    return v ? v->c_str() : nullptr;
}

void reply_error(web_reply *out, unsigned status, const std::string &text)
{
    out->status = status;
    out->body = "{\"error\":";
    json_append_string(&out->body, text);
    out->body += "}";
}

void reply_text(web_reply *out, std::string text)
{
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    out->status = 200;
    out->body = "{\"text\":";
    json_append_string(&out->body, text);
    out->body += "}";
}

bool read_fields(const std::vector<json_member> &obj, fields *f, web_reply *out)
{
    std::optional<std::string> domain = text_of(obj, "domain");
    if (!domain || (*domain != "rss" && *domain != "podcast")) {
        reply_error(out, 400, "domain must be rss or podcast");
        return false;
    }
    f->domain = *domain;
    f->id = text_of(obj, "id");
    f->url = text_of(obj, "url");
    f->name = text_of(obj, "name");
    f->poll = text_of(obj, "poll");
    f->profile = text_of(obj, "profile");
    f->opml = text_of(obj, "opml");
    return true;
}

// configd could not be asked: not running, or no answer.
void configd_trouble(const std::string &why, web_reply *out)
{
    if (why.rfind("cannot connect to configd", 0) == 0)
        reply_error(out, 503, "configd is not running (" + why + ")");
    else
        reply_error(out, 502, "configd did not answer: " + why);
}

// One read-modify-write with the edit, and its outcome in words.
void apply(const fields &f, const ctl_edit &edit, web_reply *out)
{
    std::string text, why;
    switch (ctl_apply(f.domain.c_str(), edit, &text, &why)) {
    case ctl_result::stored:
        reply_text(out, text);
        return;
    case ctl_result::refused:
        reply_error(out, 409, why);
        return;
    case ctl_result::unreachable:
        configd_trouble(why, out);
        return;
    case ctl_result::failed:
        reply_error(out, 502, "configd did not take the change: " + why);
        return;
    case ctl_result::busy:
        reply_error(out, 503, why + "; try again");
        return;
    }
}

bool checked(const std::string &why, web_reply *out)
{
    if (!why.empty())
        reply_error(out, 400, why);
    return why.empty();
}

void feed_add(const fields &f, web_reply *out)
{
    if (!f.url)
        return reply_error(out, 400, "the feed's URL is missing");
    if (!checked(fe_check_feed(c_str(f.url), c_str(f.name), c_str(f.poll)), out))
        return;
    std::vector<const char *> profiles;
    if (f.profile)
        profiles.push_back(f.profile->c_str());
    apply(f, [&](mxml_node_t *doc, std::string *text, std::string *why) {
        std::string id;
        if (!fe_add_feed(doc, c_str(f.url), c_str(f.name), c_str(f.poll), profiles, &id, why))
            return false;
        *text = "added feed " + id;
        return true;
    }, out);
}

void feed_set(const fields &f, const std::vector<json_member> &obj, web_reply *out)
{
    if (!f.id || (!f.url && !f.name && !f.poll))
        return reply_error(out, 400, "which feed, and what to change?");
    if (!checked(fe_check_feed(c_str(f.url), c_str(f.name), c_str(f.poll)), out))
        return;
    apply(f, [&](mxml_node_t *doc, std::string *text, std::string *why) {
        if (!config_unchanged(doc, obj, why) ||
            !fe_set_feed(doc, f.id->c_str(), c_str(f.url), c_str(f.name), c_str(f.poll), why))
            return false;
        *text = "changed feed " + *f.id;
        return true;
    }, out);
}

void feed_rm(const fields &f, const std::vector<json_member> &obj, web_reply *out)
{
    if (!f.id)
        return reply_error(out, 400, "which feed?");
    apply(f, [&](mxml_node_t *doc, std::string *text, std::string *why) {
        if (!config_unchanged(doc, obj, why) || !fe_remove_feed(doc, f.id->c_str(), why))
            return false;
        *text = "removed feed " + *f.id;
        return true;
    }, out);
}

void subscribe(const fields &f, bool on, web_reply *out)
{
    if (!f.id || !f.profile)
        return reply_error(out, 400, "which profile and which feed?");
    apply(f, [&](mxml_node_t *doc, std::string *text, std::string *why) {
        if (!fe_subscribe(doc, f.profile->c_str(), {f.id->c_str()}, on, why))
            return false;
        *text = "profile " + *f.profile + (on ? " subscribes" : " no longer subscribes") + " feed " + *f.id;
        return true;
    }, out);
}

void profile_add(const fields &f, web_reply *out)
{
    if (!f.profile)
        return reply_error(out, 400, "which profile?");
    if (!checked(doc_check_profile_id(f.profile->c_str()), out))
        return;
    apply(f, [&](mxml_node_t *doc, std::string *text, std::string *why) {
        if (!fe_add_profile(doc, f.profile->c_str(), why))
            return false;
        *text = "added profile " + *f.profile;
        return true;
    }, out);
}

// A file that is too large, not OPML or names a bad feed is refused whole,
// before configd is asked: nothing changes.
void opml_import_request(const fields &f, web_reply *out)
{
    if (!f.opml)
        return reply_error(out, 400, "no OPML file");
    if (f.opml->size() > kMaxOpmlBytes)
        return reply_error(out, 413, "the OPML file is larger than " + std::to_string(kMaxOpmlBytes >> 20) + " MiB");
    if (f.opml->find('\0') != std::string::npos)
        return reply_error(out, 400, "the OPML file contains a NUL byte");
    opml_list list;
    std::string why;
    if (!opml_read(*f.opml, &list, &why))
        return reply_error(out, 400, why);
    apply(f, [&](mxml_node_t *doc, std::string *text, std::string *err) {
        return opml_import(doc, list, c_str(f.profile), text, err);
    }, out);
}

void opml_export_request(const fields &f, web_reply *out)
{
    std::string gen, why;
    kd_mxml_tree doc(ctl_fetch(f.domain.c_str(), &gen, &why));
    if (!doc)
        return configd_trouble(why, out);
    mxml_node_t *p = f.profile ? doc_profile(doc.get(), f.profile->c_str()) : nullptr;
    if (f.profile && !p)
        return reply_error(out, 409, "no profile " + *f.profile);
    out->body = opml_export(doc.get(), f.domain.c_str(), p);
    out->type = "text/x-opml; charset=utf-8";
    out->filename = "kelp-" + f.domain + (p ? "-profile-" + *f.profile : std::string()) + ".opml";
}

void list(const fields &f, web_reply *out)
{
    std::string gen, why;
    kd_mxml_tree doc(ctl_fetch(f.domain.c_str(), &gen, &why));
    if (!doc)
        return configd_trouble(why, out);
    out->body = config_list_json(doc.get(), f.domain);
}

// Profile ids as the daemon reads them; others cannot be logged in to.
void append_profile_ids(std::string *json, const std::vector<std::string> &ids)
{
    json->push_back('[');
    bool first = true;
    for (const std::string &id : ids) {
        uint32_t n;
        if (!parse_u32(id, &n))
            continue;
        json->append(first ? "" : ",").append(std::to_string(n));
        first = false;
    }
    json->push_back(']');
}

void append_feed(std::string *json, mxml_node_t *doc, mxml_node_t *e)
{
    std::string id = doc_attr(e, "id");
    *json += "{\"id\":";
    json_append_string(json, id);
    for (const char *key : {"name", "url", "poll"}) {
        *json += ",\"" + std::string(key) + "\":";
        json_append_string(json, doc_attr(e, key));
    }
    *json += ",\"profiles\":";
    append_profile_ids(json, doc_subscribers(doc, id.c_str()));
    *json += "}";
}

} // namespace

std::string config_list_json(mxml_node_t *doc, std::string_view domain)
{
    std::string json = "{\"domain\":";
    json_append_string(&json, domain);
    std::vector<std::string> ids;
    for (mxml_node_t *p : doc_children(doc_child(doc, "profiles"), "profile"))
        ids.push_back(doc_attr(p, "id"));
    json += ",\"profiles\":";
    append_profile_ids(&json, ids);
    json += ",\"feeds\":[";
    bool first = true;
    for (mxml_node_t *e : doc_children(doc_child(doc, "pool"), "entry")) {
        json += first ? "" : ",";
        append_feed(&json, doc, e);
        first = false;
    }
    return json + "]}";
}

bool config_unchanged(mxml_node_t *doc, const std::vector<json_member> &obj, std::string *why)
{
    std::string id = text_of(obj, "id").value_or("");
    mxml_node_t *e = doc_entry(doc, id.c_str());
    if (!e) {
        *why = "someone else removed feed " + id + " meanwhile: reload and try again";
        return false;
    }
    for (const char *key : {"url", "name", "poll"}) {
        std::optional<std::string> was = text_of(obj, std::string("was_") + key);
        if (was && *was != doc_attr(e, key)) {
            *why = "someone else changed feed " + id + " meanwhile: reload and try again";
            return false;
        }
    }
    return true;
}

bool config_request(std::string_view what, const std::vector<json_member> &obj, web_reply *out)
{
    static const char *const known[] = {"list", "feed-add", "feed-set", "feed-rm", "subscribe",
                                        "unsubscribe", "profile-add", "opml-import", "opml-export"};
    if (std::find(std::begin(known), std::end(known), what) == std::end(known))
        return false;
    g_ctl_timeout = kConfigdSeconds;
    fields f;
    if (!read_fields(obj, &f, out))
        return true;
    if (what == "list")
        list(f, out);
    else if (what == "feed-add")
        feed_add(f, out);
    else if (what == "feed-set")
        feed_set(f, obj, out);
    else if (what == "feed-rm")
        feed_rm(f, obj, out);
    else if (what == "subscribe" || what == "unsubscribe")
        subscribe(f, what == "subscribe", out);
    else if (what == "profile-add")
        profile_add(f, out);
    else if (what == "opml-import")
        opml_import_request(f, out);
    else
        opml_export_request(f, out);
    return true;
}

} // namespace kweb
