// kd_xml strip: turns the HTML of item titles and bodies into the plain
// single-byte text that clients display, in place in the buffer that is kept.
// Entities become one ISO 8859-1 byte, tags vanish ("<br>" becomes a newline)
// and inline images are collected with their position in the text.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "feed/kd_xml.h"
#include "platform/slab.h"
#include "util/kd_log.h"

namespace {

bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// The entities feeds use most, with the values Mini-XML's table gives them,
// answered without searching that table.
struct common_entity {
    const char *name;
    size_t len;
    int value;
};
constexpr common_entity kCommon[] = {{"amp", 3, 38}, {"lt", 2, 60}, {"gt", 2, 62}, {"quot", 4, 34}, {"nbsp", 4, 160}};

// Value of the entity whose name runs from name to end (the ";"), -1 if unknown.
int entity_value(char *name, char *end)
{
    if (name[0] == '#' && name[1] >= '0' && name[1] <= '9') {
        long v = strtol(name + 1, nullptr, 10); // stops at the ";"
        // A number too big for an int is still just a character beyond
        // ISO 8859-1, never a wrapped small byte or a 0 that ends the text.
        return v > INT_MAX ? INT_MAX : static_cast<int>(v);
    }
    for (const common_entity &c : kCommon)
        if (static_cast<size_t>(end - name) == c.len && memcmp(name, c.name, c.len) == 0)
            return c.value;
    *end = '\0';
    int v = mxmlEntityGetValue(name);
    *end = ';';
    return v;
}

char entity_byte(int v)
{
    if (v == 8212)
        return '-';
    if (v < 256)
        return static_cast<char>(v);
    return '\xB7'; // middle dot stands for any character beyond ISO 8859-1
}

// Decodes entities, copying the text down over the names it replaces. The
// position of the next ";" is remembered so runs of "&" stay linear.
void decode_entities(char *str)
{
    char *w = str;
    char *r = str;
    char *semi = nullptr;
    while (*r) {
        if (*r != '&') {
            *w++ = *r++;
            continue;
        }
        if (!semi || semi <= r)
            semi = strchr(r + 1, ';');
        if (!semi)
            break;
        int v = entity_value(r + 1, semi);
        if (v == -1) {
            *w++ = *r++;
            continue;
        }
        if (v == 0) {
            *w = '\0';
            return;
        }
        *w++ = entity_byte(v);
        r = semi + 1;
    }
    memmove(w, r, strlen(r) + 1);
}

// End of the tag opened at p ("<"): the next ">" outside double quotes, or null.
const char *tag_end(const char *p)
{
    bool quoted = false;
    for (p++; *p; p++) {
        if (*p == '"')
            quoted = !quoted;
        else if (*p == '>' && !quoted)
            return p;
    }
    return nullptr;
}

bool image_known(const kd_item *item, const char *url, size_t len)
{
    for (const kd_attachment *a = item->images; a; a = a->next) {
        // Prefix match on purpose: "x.png" is taken as already held by "x.png/big".
        if (a->url && strncmp(a->url, url, len) == 0)
            return true;
    }
    return false;
}

void add_inline_image(kd_item *item, const char *url, size_t len, uint32_t offset)
{
    if (!len || image_known(item, url, len))
        return;
    auto *a = static_cast<kd_attachment *>(kd_calloc(1, sizeof(kd_attachment)));
    if (!a)
        return;
    a->url = kd_strndup(url, len < kdx_copy_limit ? len : kdx_copy_limit);
    a->offset = offset;
    a->next = item->images;
    item->images = a;
}

// Finds the src of an img tag spanning [tag, end) and records the image.
void collect_image(kd_item *item, const char *tag, const char *end, uint32_t offset)
{
    if (!item)
        return;
    const char *src = nullptr;
    for (const char *p = tag; p + 4 <= end; p++) {
        if (memcmp(p, "src=", 4) == 0) {
            src = p + 4;
            break;
        }
    }
    if (!src)
        return;
    while (src < end && (*src == '"' || is_space(*src)))
        src++;
    const char *u = src;
    while (u < end && *u != '"' && !is_space(*u))
        u++;
    add_inline_image(item, src, static_cast<size_t>(u - src), offset);
}

// Removes tags, copying text down; returns the new end of the text.
char *remove_tags(kd_item *item, char *str)
{
    char *w = str;
    const char *r = str;
    while (*r) {
        if (*r != '<') {
            *w++ = *r++;
            continue;
        }
        const char *end = tag_end(r);
        if (!end)
            break; // an unterminated tag swallows the rest
        if (strncmp(r + 1, "br>", 3) == 0)
            *w++ = '\n';
        else if (strncmp(r + 1, "img", 3) == 0 && is_space(r[4]))
            collect_image(item, r + 4, end, static_cast<uint32_t>(w - str));
        r = end + 1;
    }
    *w = '\0';
    return w;
}

// Trims trailing whitespace always, leading whitespace only while no image
// offset would be moved by it.
void trim(const kd_item *item, char *str, char *end)
{
    while (end > str && is_space(end[-1]))
        *--end = '\0';
    if (item && item->images)
        return;
    char *p = str;
    while (p < end && is_space(*p))
        p++;
    if (p != str)
        memmove(str, p, static_cast<size_t>(end - p) + 1);
}

} // namespace

void kdx_strip_html_tags(kd_item *item, char *str)
{
    KD_ASSERT(str != ((void *)0));
    decode_entities(str);
    char *end = remove_tags(item, str);
    trim(item, str, end);
}
