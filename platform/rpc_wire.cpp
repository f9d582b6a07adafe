// rpc_wire: encoding and decoding of configd RPC frames (docs/rpc.md).
#include "platform/rpc_wire.h"
#include <cstdlib>
#include <cstring>
#include <string_view>
#include "platform/slab.h"

void rpcw_buf_free(rpc_buf *b)
{
    kd_free(b->data);
    *b = rpc_buf{};
}

int rpcw_buf_reserve(rpc_buf *b, size_t n)
{
    if (b->len + n <= b->cap)
        return 1;
    size_t cap = b->cap ? b->cap : 256;
    while (cap < b->len + n)
        cap *= 2;
    auto *d = static_cast<uint8_t *>(kd_realloc(b->data, cap));
    if (!d)
        return 0;
    b->data = d;
    b->cap = cap;
    return 1;
}

int rpcw_buf_append(rpc_buf *b, const void *p, size_t n)
{
    if (!rpcw_buf_reserve(b, n))
        return 0;
    if (n)
        memcpy(b->data + b->len, p, n);
    b->len += n;
    return 1;
}

void rpcw_buf_compact(rpc_buf *b)
{
    if (!b->off)
        return;
    memmove(b->data, b->data + b->off, b->len - b->off);
    b->len -= b->off;
    b->off = 0;
}

namespace {

void put_u32(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

uint32_t get_u32(const uint8_t *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

int append_u32(rpc_buf *b, uint32_t v)
{
    uint8_t q[4];
    put_u32(q, v);
    return rpcw_buf_append(b, q, 4);
}

int append_text(rpc_buf *b, const char *s, size_t n)
{
    return n <= RPC_MAX_FRAME && append_u32(b, uint32_t(n)) && rpcw_buf_append(b, s, n);
}

int append_str(rpc_buf *b, const char *s)
{
    return s && append_text(b, s, strlen(s));
}

// A tree travels as its text, rendered without whitespace callbacks.
int append_xml(rpc_buf *b, mxml_node_t *x)
{
    if (!x)
        return 0;
    char *text = mxmlSaveAllocString(x, MXML_NO_CALLBACK);
    if (!text)
        return 0;
    int ok = append_text(b, text, strlen(text));
    free(text);
    return ok;
}

int append_list(rpc_buf *b, const char *const *list)
{
    if (!list)
        return 0;
    uint32_t n = 0;
    while (list[n])
        n++;
    if (!append_u32(b, n))
        return 0;
    for (uint32_t i = 0; i < n; i++)
        if (!append_str(b, list[i]))
            return 0;
    return 1;
}

int append_args(rpc_buf *b, std::string_view fmt, va_list ap)
{
    if (fmt == "s")
        return append_str(b, va_arg(ap, const char *));
    if (fmt == "x")
        return append_xml(b, va_arg(ap, mxml_node_t *));
    if (fmt == "A{s}")
        return append_list(b, va_arg(ap, const char *const *));
    if (fmt == "sx") {
        const char *s = va_arg(ap, const char *);
        return append_str(b, s) && append_xml(b, va_arg(ap, mxml_node_t *));
    }
    return fmt.empty() || fmt == "v";
}

} // namespace

int rpcw_encode(rpc_buf *out, uint8_t kind, uint32_t id, uint32_t tag, const char *fmt, va_list ap)
{
    size_t start = out->len;
    uint8_t hdr[RPCW_PREFIX + RPCW_HEADER];
    hdr[4] = kind;
    put_u32(hdr + 5, id);
    put_u32(hdr + 9, tag);
    int ok = rpcw_buf_append(out, hdr, sizeof hdr) && append_args(out, fmt ? fmt : "", ap);
    size_t paylen = out->len - start - RPCW_PREFIX;
    if (!ok || paylen > RPC_MAX_FRAME) {
        out->len = start;
        return 0;
    }
    put_u32(out->data + start, uint32_t(paylen));
    return 1;
}

int rpcw_frame_ready(const uint8_t *p, size_t n, uint32_t *paylen)
{
    if (n < RPCW_PREFIX)
        return 0;
    uint32_t len = get_u32(p);
    if (len > RPC_MAX_FRAME)
        return -RPC_ERR_TOOBIG;
    if (len < RPCW_HEADER)
        return -RPC_ERR_MALFORMED;
    if (n - RPCW_PREFIX < len)
        return 0;
    *paylen = len;
    return 1;
}

const rpc_msgdesc *rpcw_find(const rpc_msgdesc *table, uint32_t id)
{
    for (; table && (table->id || table->args || table->reply); table++)
        if (table->id == id)
            return table;
    return nullptr;
}

const char *rpcw_format(const rpc_msgdesc *d, uint8_t kind)
{
    if (kind == RPCW_ERROR_REPLY)
        return "s";
    const char *f = kind == RPCW_REPLY ? d->reply : d->args;
    return f ? f : "";
}

namespace {

// Reading cursor over one payload; `bad` latches the first overrun.
struct reader {
    const uint8_t *p;
    size_t n;
    bool bad;      // structure broken: the frame is malformed
    bool badxml;   // well framed, but an XML text does not parse
};

uint32_t read_u32(reader *r)
{
    if (r->bad || r->n < 4) {
        r->bad = true;
        return 0;
    }
    uint32_t v = get_u32(r->p);
    r->p += 4;
    r->n -= 4;
    return v;
}

// Texts are NUL-free byte strings; a NUL inside one is malformed.
char *read_text(reader *r)
{
    uint32_t len = read_u32(r);
    if (r->bad || len > r->n || memchr(r->p, 0, len)) {
        r->bad = true;
        return nullptr;
    }
    char *s = kd_strndup(reinterpret_cast<const char *>(r->p), len);
    r->p += len;
    r->n -= len;
    if (!s)
        r->bad = true;
    return s;
}

// Keeps every node (a whole tree) and counts element opens against closes,
// since Mini-XML accepts elements left open at the end of the text.
void sax_keep(mxml_node_t *node, mxml_sax_event_t event, void *data)
{
    if (event == MXML_SAX_ELEMENT_OPEN)
        ++*static_cast<long *>(data);
    if (event == MXML_SAX_ELEMENT_CLOSE)
        --*static_cast<long *>(data);
    else
        mxmlRetain(node);
}

// Mini-XML leaks the root element when its own start tag is broken and no top
// node is given; under a holder element a failed parse frees everything.
bool parses_under_holder(const char *text)
{
    mxml_node_t *holder = mxmlNewElement(MXML_NO_PARENT, "holder");
    if (!holder)
        return false;
    long open = 0;
    mxml_node_t *x = mxmlSAXLoadString(holder, text, mxml_opaque_cb, sax_keep, &open);
    mxmlDelete(holder);
    return x != nullptr;
}

// A parse without a top node. Mini-XML makes a node with no parent for
// whitespace after the root element, then refuses what follows as a second
// root and frees only its first node; such strays are chained through their
// user data and freed here.
struct toplevel_parse {
    long open = 0;
    mxml_node_t *first = nullptr;
    mxml_node_t *strays = nullptr;
};

void sax_keep_toplevel(mxml_node_t *node, mxml_sax_event_t event, void *data)
{
    auto *p = static_cast<toplevel_parse *>(data);
    sax_keep(node, event, &p->open);
    if (event == MXML_SAX_ELEMENT_CLOSE || mxmlGetParent(node))
        return;
    if (!p->first) {
        p->first = node;
        return;
    }
    mxmlSetUserData(node, p->strays);
    p->strays = node;
}

void free_strays(mxml_node_t *stray)
{
    while (stray) {
        auto *next = static_cast<mxml_node_t *>(mxmlGetUserData(stray));
        mxmlDelete(stray);
        stray = next;
    }
}

// The holder changes where top-level nodes hang, so the tree handed on
// comes from a second parse without a top node.
mxml_node_t *parse_strict(const char *text)
{
    if (!parses_under_holder(text))
        return nullptr;
    toplevel_parse p;
    mxml_node_t *x = mxmlSAXLoadString(nullptr, text, mxml_opaque_cb, sax_keep_toplevel, &p);
    free_strays(p.strays);
    if (x && p.open != 0) {
        mxmlDelete(x);
        x = nullptr;
    }
    return x;
}

// Bytes 0xFE 0xFF or 0xFF 0xFE anywhere in a text switch Mini-XML's string
// reader to UTF-16, and it then reads up to three bytes past the terminator:
// such a text is parsed from a copy with four zero bytes behind it.
size_t utf16_pad_for(const char *text)
{
    return strpbrk(text, "\xFE\xFF") ? 4 : 0;
}

} // namespace

mxml_node_t *rpcw_parse_xml(const char *text)
{
    size_t pad = utf16_pad_for(text);
    if (!pad)
        return parse_strict(text);
    // A copy with zero bytes behind its terminator, which Mini-XML may read.
    size_t len = strlen(text);
    auto *copy = static_cast<char *>(kd_calloc(1, len + 1 + pad));
    if (!copy)
        return nullptr;
    memcpy(copy, text, len);
    mxml_node_t *x = parse_strict(copy);
    kd_free(copy);
    return x;
}

namespace {

mxml_node_t *read_xml(reader *r)
{
    char *text = read_text(r);
    if (!text)
        return nullptr;
    mxml_node_t *x = rpcw_parse_xml(text);
    kd_free(text);
    if (!x)
        r->badxml = true;
    return x;
}

void read_list(reader *r, rpc_msg *m)
{
    uint32_t n = read_u32(r);
    // Every element needs at least its 4-byte length: refuse absurd counts early.
    if (r->bad || n > r->n / 4) {
        r->bad = true;
        return;
    }
    m->list = static_cast<char **>(kd_calloc(n ? n : 1, sizeof(char *)));
    if (!m->list) {
        r->bad = true;
        return;
    }
    for (uint32_t i = 0; i < n && !r->bad; i++) {
        m->list[i] = read_text(r);
        m->nlist = i + 1;
    }
}

void read_args(reader *r, std::string_view fmt, rpc_msg *m)
{
    if (fmt == "s" || fmt == "sx")
        m->s = read_text(r);
    if (fmt == "x" || fmt == "sx")
        m->x = r->bad ? nullptr : read_xml(r);
    if (fmt == "A{s}")
        read_list(r, m);
}

} // namespace

int rpcw_decode(const uint8_t *payload, uint32_t len, const rpc_msgdesc *table, rpc_msg *out)
{
    *out = rpc_msg{};
    if (len < RPCW_HEADER)
        return -1;
    uint8_t kind = payload[0];
    if (kind < RPCW_REQUEST || kind > RPCW_ERROR_REPLY)
        return -1;
    out->id = get_u32(payload + 1);
    out->tag = get_u32(payload + 5);
    out->is_reply = kind == RPCW_REPLY || kind == RPCW_ERROR_REPLY;
    const rpc_msgdesc *d = rpcw_find(table, out->id);
    if (!d)
        return 0;
    reader r{payload + RPCW_HEADER, len - RPCW_HEADER, false, false};
    if (kind == RPCW_ERROR_REPLY)
        out->error = read_text(&r);
    else
        read_args(&r, rpcw_format(d, kind), out);
    if (r.bad || r.n || r.badxml) {
        uint32_t id = out->id, tag = out->tag;
        rpcw_msg_clear(out);
        out->id = id;
        out->tag = tag;
        out->is_reply = kind == RPCW_REPLY || kind == RPCW_ERROR_REPLY;
        return r.bad || r.n ? -1 : -2;
    }
    return 1;
}

void rpcw_msg_clear(rpc_msg *m)
{
    for (uint32_t i = 0; i < m->nlist; i++)
        kd_free(m->list[i]);
    kd_free(m->list);
    kd_free(m->s);
    kd_free(m->error);
    if (m->x)
        mxmlDelete(m->x);
    *m = rpc_msg{};
}
