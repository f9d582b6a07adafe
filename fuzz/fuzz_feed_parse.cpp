// fuzz_feed_parse: a feed server's body (and, for some inputs, its
// Content-Type) through the document loader and the item extraction, once as
// a complete and once as a truncated download.
#include <cstring>
#include <string>

#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "fuzz/fuzz_check.h"

namespace {

const char kUrl[] = "http://feeds.example.net/news/feed.xml";

// Header values seen in the wild, chosen by the first byte.
const char *const kContentTypes[] = {
    nullptr,
    "text/xml",
    "application/rss+xml; charset=utf-8",
    "text/xml; charset=ISO-8859-1",
    "application/atom+xml;charset=\"windows-1252\"",
    "text/html; charset=",
};
constexpr size_t kFixedTypes = sizeof(kContentTypes) / sizeof(kContentTypes[0]);

// Splits the input into a content type and a body. Selector values past the
// fixed list take the content type from the input, up to the first newline.
void split(const uint8_t *data, size_t size, std::string *type, bool *has_type, std::string *body)
{
    size_t sel = size ? data[0] % (kFixedTypes + 2) : 0;
    const char *rest = reinterpret_cast<const char *>(data) + (size ? 1 : 0);
    size_t n = size ? size - 1 : 0;
    if (sel < kFixedTypes) {
        *has_type = kContentTypes[sel] != nullptr;
        *type = *has_type ? kContentTypes[sel] : "";
        body->assign(rest, n);
        return;
    }
    const void *nl = memchr(rest, '\n', n);
    size_t tlen = nl ? static_cast<size_t>(static_cast<const char *>(nl) - rest) : 0;
    *has_type = true;
    type->assign(rest, tlen); // a NUL inside ends the C string early, as in a header copy
    body->assign(rest + (nl ? tlen + 1 : 0), n - (nl ? tlen + 1 : 0));
}

// The body as the HTTP client hands it over: NUL-terminated slab memory.
char *slab_body(const std::string &body)
{
    auto *b = static_cast<char *>(kd_malloc(body.size() + 1));
    FUZZ_CHECK(b != nullptr);
    memcpy(b, body.data(), body.size());
    b[body.size()] = '\0';
    return b;
}

void check_items(const kd_node *feed)
{
    for (const kd_item *it = feed->children; it; it = it->next)
        FUZZ_CHECK(it->title != nullptr);
}

void parse_once(int status, const char *type, const std::string &body, bool want_title)
{
    char *b = slab_body(body);
    char *title = nullptr;
    kd_node *feed = kdx_parse_feed(status, kUrl, type, &b, want_title ? &title : nullptr);
    if (feed)
        check_items(feed);
    if (title)
        FUZZ_CHECK(strlen(title) <= 4096);
    kdn_free_feed(feed);
    kd_free(title);
    kd_free(b);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string type, body;
    bool has_type = false;
    split(data, size, &type, &has_type, &body);
    const char *ct = has_type ? type.c_str() : nullptr;
    size_t live = slab_live_count();
    parse_once(200, ct, body, true);
    fuzz_expect_no_leak(live);
    parse_once(2, ct, body, (size & 1) != 0);
    fuzz_expect_no_leak(live);
    return 0;
}
