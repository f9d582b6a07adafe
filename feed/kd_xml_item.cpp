// kd_xml item: the SAX callback that builds one kd_item from each closed
// "item" (RSS) or "entry" (Atom) element and keeps the first channel title,
// with the collection of enclosures and media attachments.
#include <cstring>
#include <ctime>

#include "feed/kd_xml.h"
#include "platform/slab.h"
#include "util/bitfield.h"
#include "util/kd_log.h"

namespace {

constexpr char kCdata[] = "![CDATA[";
constexpr size_t kCdataLen = sizeof(kCdata) - 1;

mxml_node_t *child(mxml_node_t *element, const char *name)
{
    return mxmlFindElement(element, element, name, nullptr, nullptr, MXML_DESCEND_FIRST);
}

// Plain text of an element: its first child when that is an opaque node.
const char *opaque_text(mxml_node_t *element)
{
    mxml_node_t *first = mxmlGetFirstChild(element);
    return first && mxmlGetType(first) == MXML_OPAQUE ? mxmlGetOpaque(first) : nullptr;
}

// Section text (after "![CDATA[") of a CDATA node, or null for other nodes.
char *cdata_of(mxml_node_t *node)
{
    if (!node || mxmlGetType(node) != MXML_ELEMENT)
        return nullptr;
    const char *name = mxmlGetElement(node);
    if (!name || strncmp(name, kCdata, kCdataLen) != 0)
        return nullptr;
    return const_cast<char *>(name) + kCdataLen; // only ever shortened in place
}

// CDATA text of an element: its first child when that is a CDATA section.
char *cdata_text(mxml_node_t *element)
{
    return cdata_of(mxmlGetFirstChild(element));
}

void cut_brackets(char *s)
{
    size_t n = strlen(s);
    if (n >= 2 && s[n - 2] == ']' && s[n - 1] == ']')
        s[n - 2] = '\0';
}

bool is_named(mxml_node_t *node, const char *name)
{
    const char *n = node && mxmlGetType(node) == MXML_ELEMENT ? mxmlGetElement(node) : nullptr;
    return n && strcmp(n, name) == 0;
}

void take_feed_title(mxml_node_t *title, kdx_parse_state *st)
{
    mxml_node_t *parent = mxmlGetParent(title);
    if (st->title || !(is_named(parent, "channel") || is_named(parent, "feed")))
        return;
    const char *text = opaque_text(title);
    if (text)
        st->title = kd_strndup(text, kdx_copy_limit);
}

// Title of the item from its "title" element; false when the item is dropped.
bool set_title(kd_item *item, mxml_node_t *title)
{
    if (const char *text = opaque_text(title)) {
        item->title = kd_strndup(text, kdx_copy_limit);
        if (item->title)
            item->hash = fnv_hash(item->title);
        return item->title != nullptr;
    }
    char *section = cdata_text(title);
    if (!section) {
        KD_LOG(2, LOG_WARNING,
               "kdx_new_node_from_rss(): element contains no opaque string and no CDATA");
        return false;
    }
    char *tmp = kd_strndup(section, kdx_copy_limit);
    if (!tmp)
        return false;
    cut_brackets(tmp);
    kdx_strip_html_tags(item, tmp);
    item->title = kd_strndup(tmp, kdx_copy_limit); // hash stays 0 for CDATA titles
    kd_free(tmp);
    return item->title != nullptr;
}

// Stripping shrinks a body (escaped markup often to half its size); the
// record keeps it for as long as the item lives, so it gives the rest back.
// Worth a reallocation only when that frees more than a malloc's rounding.
void fit_body(kd_item *item, size_t copied)
{
    size_t len = strlen(item->body);
    if (copied - len < 64)
        return;
    if (auto *fit = static_cast<char *>(kd_realloc(item->body, len + 1)))
        item->body = fit;
}

void set_body(kd_item *item, mxml_node_t *element)
{
    mxml_node_t *body = child(element, "description");
    if (!body)
        body = child(element, "summary");
    if (!body)
        body = child(element, "content");
    if (!body)
        return;
    if (const char *text = opaque_text(body)) {
        item->body = kd_strndup(text, kdx_copy_limit);
        if (item->body) {
            size_t copied = strlen(item->body);
            kdx_strip_html_tags(item, item->body);
            fit_body(item, copied);
        }
        return;
    }
    if (char *section = cdata_text(body)) {
        item->body = kd_strndup(section, kdx_copy_limit);
        if (!item->body)
            return;
        size_t copied = strlen(item->body);
        kdx_strip_html_tags(item, item->body);
        cut_brackets(item->body);
        fit_body(item, copied);
    }
}

// Inline images of "content:encoded" CDATA sections; the text is discarded.
void collect_encoded_images(kd_item *item, mxml_node_t *element)
{
    mxml_node_t *encoded = child(element, "content:encoded");
    if (!encoded)
        return;
    for (mxml_node_t *n = mxmlGetFirstChild(encoded); n; n = mxmlGetNextSibling(n)) {
        if (char *section = cdata_of(n))
            kdx_strip_html_tags(item, section);
    }
}

void set_guid(kd_item *item, mxml_node_t *element)
{
    mxml_node_t *guid = child(element, "guid");
    if (!guid)
        guid = child(element, "id");
    const char *text = guid ? opaque_text(guid) : nullptr;
    if (text)
        item->guid = kd_strndup(text, kdx_copy_limit);
}

void set_date(kd_item *item, mxml_node_t *element)
{
    mxml_node_t *pub = child(element, "pubDate");
    const char *text = pub ? opaque_text(pub) : nullptr;
    int32_t date = text ? kdx_parse_date(text) : -1;
    item->date = date != -1 ? date : static_cast<int32_t>(time(nullptr));
}

// Length of scheme, host and port at the start of url: up to the first "/"
// after an optional "http://" (for other schemes only the scheme and colon).
size_t base_length(const char *url)
{
    const char *p = strncmp(url, "http://", 7) == 0 ? url + 7 : url;
    const char *slash = strchr(p, '/');
    return slash ? static_cast<size_t>(slash - url) : strlen(url);
}

void make_absolute(kd_attachment *list, const char *base, size_t baselen)
{
    for (kd_attachment *a = list; a; a = a->next) {
        if (!a->url || a->url[0] != '/' || !baselen)
            continue;
        size_t len = strlen(a->url);
        auto *url = static_cast<char *>(kd_realloc(a->url, baselen + len + 1));
        if (!url)
            continue; // keep the relative URL rather than lose it
        memmove(url + baselen, url, len + 1);
        memcpy(url, base, baselen);
        a->url = url;
    }
}

void append_item(kdx_parse_state *st, kd_item *item)
{
    if (st->last)
        st->last->next = item;
    else
        st->feed->children = item;
    st->last = item;
    st->count++;
}

// Everything of an item after its title, in this order; parts that are
// missing or could not be copied stay empty.
void fill_item(kd_item *item, mxml_node_t *element, const char *feed_url)
{
    set_body(item, element);
    kdx_add_attachments(item, element, "enclosure", "url", nullptr, "url");
    kdx_add_attachments(item, element, "media:content", "url", nullptr, "url");
    kdx_add_attachments(item, element, "link", "rel", "enclosure", "href");
    collect_encoded_images(item, element);
    set_guid(item, element);
    set_date(item, element);
    const char *url = feed_url ? feed_url : "";
    size_t baselen = base_length(url);
    make_absolute(item->enclosures, url, baselen);
    make_absolute(item->images, url, baselen);
}

void build_item(mxml_node_t *element, kdx_parse_state *st)
{
    mxml_node_t *title = child(element, "title");
    if (!title) {
        KD_LOG(2, LOG_NOTICE, "items without a title are ignored");
        return;
    }
    auto *item = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
    if (!item)
        return;
    if (!set_title(item, title)) {
        kdn_free_item(item);
        return;
    }
    fill_item(item, element, st->url);
    append_item(st, item);
}

bool is_image(const char *s, size_t minlen)
{
    return s && strlen(s) >= minlen && strncmp(s, "image", 5) == 0;
}

bool url_held(const kd_attachment *list, const char *url)
{
    for (; list; list = list->next) {
        if (url && list->url && strcmp(list->url, url) == 0)
            return true;
    }
    return false;
}

void add_attachment(kd_item *item, mxml_node_t *match, const char *urlattr)
{
    const char *type = mxmlElementGetAttr(match, "type");
    const char *medium = mxmlElementGetAttr(match, "medium");
    const char *url = mxmlElementGetAttr(match, urlattr);
    kd_attachment **list = &item->enclosures;
    if (is_image(type, 6)) {
        list = &item->images;
    } else if (is_image(medium, 5)) {
        list = &item->images;
        type = "image/*";
    }
    if (url_held(*list, url))
        return;
    auto *a = static_cast<kd_attachment *>(kd_calloc(1, sizeof(kd_attachment)));
    if (!a)
        return;
    a->type = type ? kd_strndup(type, kdx_copy_limit) : nullptr;
    a->url = url ? kd_strndup(url, kdx_copy_limit) : nullptr;
    a->next = *list;
    *list = a;
}

} // namespace

void kdx_add_attachments(kd_item *item, mxml_node_t *element, const char *name, const char *attr,
                         const char *value, const char *urlattr)
{
    // Each search starts from the previous match, so after a match with child
    // elements it continues among those children.
    mxml_node_t *match = element;
    while ((match = mxmlFindElement(match, element, name, attr, value, MXML_DESCEND_FIRST)))
        add_attachment(item, match, urlattr);
}

void kdx_new_node_from_rss(mxml_node_t *node, mxml_sax_event_t event, void *data)
{
    if (event != MXML_SAX_ELEMENT_CLOSE) {
        mxmlRetain(node); // keep the whole tree for the lookups at the close
        return;
    }
    auto *st = static_cast<kdx_parse_state *>(data);
    const char *name = mxmlGetElement(node);
    if (!name)
        return;
    if (strcmp(name, "item") == 0 || strcmp(name, "entry") == 0) {
        build_item(node, st);
        // Its texts are copied: the loader's own release after this call
        // frees the item's subtree now, so the next item reuses that memory
        // instead of the whole document's tree being held until the end. A
        // root element stays, or the loader would have no tree to return.
        if (mxmlGetParent(node))
            mxmlRelease(node);
    } else if (strcmp(name, "title") == 0)
        take_feed_title(node, st);
}
