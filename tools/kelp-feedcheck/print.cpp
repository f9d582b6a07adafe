// kelp-feedcheck output: items as kelpd holds them (single-byte text, image
// offsets into the stripped body) and the verdict line a poll would log.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "feed/kd_xml.h"
#include "http/httpcli.h"
#include "tools/kelp-feedcheck/feedcheck.h"

namespace {

constexpr size_t kExcerpt = 160;

// One line of text: control bytes shown as escapes so an item stays one line.
std::string one_line(const char *s, size_t max)
{
    std::string out;
    size_t n = 0;
    for (; s[n] && n < max; n++) {
        auto c = static_cast<unsigned char>(s[n]);
        if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (c < 32 || c == 127)
            out += "\\x" + std::string(1, "0123456789abcdef"[c >> 4]) + "0123456789abcdef"[c & 15];
        else
            out += static_cast<char>(c);
    }
    if (s[n])
        out += "...";
    return out;
}

std::string local_time(int32_t t)
{
    time_t tt = t;
    struct tm tm;
    char buf[64];
    if (!localtime_r(&tt, &tm) || !strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %Z", &tm))
        return "?";
    return buf;
}

void print_attachments(const char *label, const kd_attachment *a, bool offsets)
{
    for (; a; a = a->next) {
        printf("  %s:", label);
        if (offsets)
            printf(" offset=%u", a->offset);
        printf(" type=%s url=%s\n", a->type ? a->type : "(none)", a->url ? a->url : "(none)");
    }
}

void print_item(int n, const kd_item *i)
{
    printf("item %d\n", n);
    printf("  title: %s\n", one_line(i->title, kdx_copy_limit).c_str());
    printf("  hash: %lu\n", static_cast<unsigned long>(i->hash));
    printf("  guid: %s\n", i->guid ? one_line(i->guid, kdx_copy_limit).c_str() : "(none)");
    printf("  date: %ld (%s)\n", static_cast<long>(i->date), local_time(i->date).c_str());
    if (i->body)
        printf("  body: %zu bytes: %s\n", strlen(i->body), one_line(i->body, kExcerpt).c_str());
    else
        printf("  body: (none)\n");
    print_attachments("enclosure", i->enclosures, false);
    print_attachments("image", i->images, true);
}

// What was done to the body's charset; nothing for a body read as it came.
void print_charset(const kdx_charset_info *cs)
{
    if (!cs->name[0])
        return;
    printf("charset: %s", cs->name);
    if (cs->unknown)
        printf(" (unknown, not decoded)\n");
    else if (cs->invalid)
        printf(" (transcoded up to an invalid sequence at byte %zu)\n", cs->bad_at);
    else if (cs->cut)
        printf(" (transcoded, cut at %u bytes)\n", HTTPCLI_MAX_RESPONSE);
    else
        printf(" (transcoded)\n");
}

} // namespace

int feedcheck_print_feed(int code, const char *content_type, const kdx_charset_info *charset, const char *title,
               const kd_node *feed)
{
    printf("result: %d%s\n", code, code == 2 ? " (truncated)" : "");
    printf("content-type: %s\n", content_type ? content_type : "(none)");
    print_charset(charset);
    printf("feed title: %s\n", title ? one_line(title, kdx_copy_limit).c_str() : "(none)");
    if (!feed) {
        printf("verdict: error parsing xml - try to validate the feed\n");
        return 0;
    }
    int n = 0;
    for (const kd_item *i = feed->children; i; i = i->next)
        print_item(++n, i);
    if (n == 0)
        printf("verdict: no items found - try to check URL by hand\n");
    else
        printf("verdict: %d item%s\n", n, n == 1 ? "" : "s");
    return n;
}

void feedcheck_print_fetch_failure(int code, const char *url)
{
    printf("result: %d\n", code);
    if (code == 1)
        printf("verdict: no connection to server [%s]\n", url);
    else if (code == 3)
        printf("verdict: local memory exhausted\n");
    else if (code == 404)
        printf("verdict: document not found - URL changed? [%s]\n", url);
    else
        printf("verdict: got HTTP error %d [%s]\n", code, url);
}
