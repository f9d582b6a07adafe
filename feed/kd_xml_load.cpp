// kd_xml load: prepares a downloaded body for Mini-XML (byte-order mark
// removed, a legacy charset converted to UTF-8, an XML declaration carrying the
// HTTP charset put in front when the document has none) and runs the SAX
// loader that builds the items.
#include <cstring>

#include "feed/kd_xml.h"
#include "feed/kd_xml_charset.h"
#include "platform/slab.h"
#include "util/kd_log.h"
#include "util/kd_mxml.h"

namespace {

constexpr char kDeclStart[] = "<?xml version=\"1.0";
constexpr char kDeclEncoding[] = "\" encoding=\"";
constexpr char kDeclEnd[] = "\" ?>";
constexpr int kTruncated = 2; // the HTTP client's code for a body cut at its bound

// The HTTP/1.1 separators, which end a charset value.
bool is_separator(unsigned char c)
{
    return c != '\0' && strchr("()<>@,;:\\\"/[]?={}", c) != nullptr;
}

// Length of the charset value at v: its first character whatever it is, then
// up to a control character, space, DEL, a byte of 128 or more, or a separator.
size_t charset_length(const char *v)
{
    if (!*v)
        return 0;
    size_t n = 1;
    for (auto c = static_cast<unsigned char>(v[n]); c > 32 && c < 127 && !is_separator(c);
         c = static_cast<unsigned char>(v[n]))
        n++;
    return n;
}

// Builds the declaration for content_type (null counts as no charset); a body
// converted to UTF-8 gets that as its encoding instead.
char *build_declaration(const char *content_type, bool utf8)
{
    const char *cs = content_type ? strstr(content_type, "charset=") : nullptr;
    const char *value = utf8 ? "UTF-8" : cs ? cs + 8 : nullptr;
    size_t vlen = utf8 ? 5 : value ? charset_length(value) : 0;
    size_t len = sizeof(kDeclStart) - 1 + sizeof(kDeclEnd) - 1;
    if (value)
        len += sizeof(kDeclEncoding) - 1 + vlen;
    auto *decl = static_cast<char *>(kd_malloc(len + 1));
    if (!decl)
        return nullptr;
    char *p = stpcpy(decl, kDeclStart);
    if (value) {
        p = stpcpy(p, kDeclEncoding);
        memcpy(p, value, vlen);
        p += vlen;
    }
    strcpy(p, kDeclEnd);
    return decl;
}

void remove_bom(char *body)
{
    if (strncmp(body, "\xEF\xBB\xBF", 3) == 0)
        memmove(body, body + 3, strlen(body + 3) + 1);
}

// Enlarges *body to room + pad bytes after the terminator of its blen bytes,
// the pad zero-filled; false without memory (*body then unchanged).
bool enlarge_body(char **body, size_t blen, size_t room, size_t pad)
{
    auto *grown = static_cast<char *>(kd_realloc(*body, blen + room + 1 + pad));
    if (!grown) {
        KD_LOG(1, LOG_CRIT, "local memory exhausted (enlarging body)");
        return false;
    }
    memset(grown + blen + room + 1, 0, pad);
    *body = grown;
    return true;
}

// Puts the declaration in front of *body, enlarging it once; false without memory.
bool insert_declaration(const char *content_type, bool utf8, char **body, size_t pad)
{
    char *decl = build_declaration(content_type, utf8);
    if (!decl) {
        KD_LOG(1, LOG_CRIT, "local memory exhausted (XML declaration)");
        return false;
    }
    size_t dlen = strlen(decl);
    size_t blen = strlen(*body);
    if (!enlarge_body(body, blen, dlen, pad)) {
        kd_free(decl);
        return false;
    }
    memmove(*body + dlen, *body, blen + 1);
    memcpy(*body, decl, dlen);
    kd_free(decl);
    return true;
}

// Readies *body for the loader; false when memory ran out.
bool prepare_body(const char *content_type, char **body, kdx_charset_info *info)
{
    remove_bom(*body);
    if (!kdx_decode_body(content_type, body, info))
        return false;
    // Zero bytes behind the terminator keep Mini-XML's UTF-16 reads inside the body.
    size_t pad = kd_mxml_pad_for(*body);
    if (strncmp(*body, "<?xml", 5) != 0)
        return insert_declaration(content_type, info->transcoded, body, pad);
    return !pad || enlarge_body(body, strlen(*body), 0, pad);
}

// The title goes to the caller, also after an XML error; dropped when the
// caller asked for none.
void hand_over_title(char *title, char **out)
{
    if (out)
        *out = title;
    else
        kd_free(title);
}

} // namespace

void kdx_xml_error(const char *message)
{
    KD_LOG(1, LOG_ERR, "xml error: %s", message);
}

kd_node *kdx_parse_feed(int status, const char *url, const char *content_type, char **body,
                        char **title)
{
    return kdx_parse_feed_charset(status, url, content_type, body, title, nullptr);
}

kd_node *kdx_parse_feed_charset(int status, const char *url, const char *content_type,
                                char **body, char **title, kdx_charset_info *info)
{
    kdx_charset_info own;
    if (!info)
        info = &own;
    *info = {};
    mxmlSetErrorCallback(kdx_xml_error);
    auto *feed = static_cast<kd_node *>(kd_calloc(1, sizeof(kd_node)));
    if (!feed) {
        KD_LOG(1, LOG_CRIT, "local memory exhausted (temporary feed node)");
        return nullptr;
    }
    kdx_parse_state st = {url, feed, nullptr, 0, nullptr};
    if (!prepare_body(content_type, body, info)) {
        kdn_free_feed(feed);
        return nullptr;
    }
    if (info->cut)
        status = kTruncated; // cut at the bound like any download that outgrew it
    mxml_node_t *tree = mxmlSAXLoadString(nullptr, *body, MXML_OPAQUE_CALLBACK,
                                          kdx_new_node_from_rss, &st);
    hand_over_title(st.title, title);
    if (tree)
        mxmlDelete(tree); // every needed text has been copied into the items
    // The conversion ends at an invalid sequence, which is an XML error there.
    if ((!tree || info->invalid) && status == 200) {
        kdn_free_feed(feed);
        return nullptr;
    }
    KD_LOG(3, LOG_DEBUG, "[kddbg] found %d items in feed", st.count);
    return feed;
}
