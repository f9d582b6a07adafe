// kd_xml charset: feeds in legacy charsets (ISO 8859-x, windows-125x, KOI8-R,
// EUC-KR, GB2312/GB18030, Shift_JIS...) are converted to UTF-8 before Mini-XML,
// which reads UTF-8 only, sees them. Owns the choice of the charset (XML
// declaration, else Content-Type, else windows-1252), the iconv descriptor, the
// converted body (a new slab buffer, bounded like a download) and the rewrite
// of the declaration's encoding. A body that is valid UTF-8 is never touched.
#include "feed/kd_xml_charset.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iconv.h>
#include <string_view>
#include <strings.h>

#include "platform/slab.h"
#include "util/kd_limits.h"
#include "util/kd_log.h"

namespace {

// A converted body never holds more than a download may.
constexpr size_t kBound = KD_FEED_MAX_BYTES;
// Room for the declaration's encoding to grow to "UTF-8" (from a 1-byte name).
constexpr size_t kSlack = 8;
constexpr char kUtf8[] = "UTF-8";

// iconv descriptor to UTF-8, closed when it goes out of scope.
class to_utf8 {
public:
    explicit to_utf8(const char *from) : cd_(iconv_open(kUtf8, from)) {}
    ~to_utf8()
    {
        if (ok())
            iconv_close(cd_);
    }
    to_utf8(const to_utf8 &) = delete;
    to_utf8 &operator=(const to_utf8 &) = delete;
    bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
    // One iconv call; false with errno set when it stopped before the end.
    bool run(char **in, size_t *inleft, char **out, size_t *outleft)
    {
        return iconv(cd_, in, inleft, out, outleft) != static_cast<size_t>(-1);
    }
    void reset() { iconv(cd_, nullptr, nullptr, nullptr, nullptr); }

private:
    iconv_t cd_;
};

// Length of the UTF-8 sequence at s (n bytes left), 0 when it is not one:
// RFC 3629, so no overlong forms, surrogates or values past U+10FFFF.
size_t utf8_sequence(const unsigned char *s, size_t n)
{
    unsigned c = s[0];
    size_t len = c < 0x80 ? 1 : c < 0xC2 ? 0 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : c < 0xF5 ? 4 : 0;
    if (len <= 1 || len > n)
        return len > n ? 0 : len;
    unsigned lo = c == 0xE0 ? 0xA0 : c == 0xF0 ? 0x90 : 0x80;
    unsigned hi = c == 0xED ? 0x9F : c == 0xF4 ? 0x8F : 0xBF;
    if (s[1] < lo || s[1] > hi)
        return 0;
    for (size_t k = 2; k < len; k++) {
        if ((s[k] & 0xC0) != 0x80)
            return 0;
    }
    return len;
}

// Eight bytes of ASCII at once: feeds are mostly markup, and this check runs
// over every byte of every poll's body.
bool ascii8(const unsigned char *s)
{
    uint64_t w;
    memcpy(&w, s, sizeof w);
    return (w & 0x8080808080808080ull) == 0;
}

bool valid_utf8(const char *text, size_t n)
{
    const auto *s = reinterpret_cast<const unsigned char *>(text);
    for (size_t i = 0; i < n;) {
        if (i + 8 <= n && ascii8(s + i)) {
            i += 8;
            continue;
        }
        if (s[i] < 0x80) {
            i++;
            continue;
        }
        size_t len = utf8_sequence(s + i, n - i);
        if (!len)
            return false;
        i += len;
    }
    return true;
}

// Where the declaration's encoding value (between its quotes) lies; len 0
// with found false when the body has no declaration or it names none.
struct span {
    size_t at = 0, len = 0;
    bool found = false;
};

size_t skip_space(std::string_view s, size_t i)
{
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\r' || s[i] == '\n'))
        i++;
    return i;
}

span declared_encoding(std::string_view body)
{
    span sp;
    // "<?xml-stylesheet" and the like are other processing instructions.
    if (!body.starts_with("<?xml") || skip_space(body, 5) == 5)
        return sp;
    size_t end = body.find("?>");
    if (end == std::string_view::npos)
        return sp; // a declaration that never ends names nothing
    std::string_view decl = body.substr(0, end);
    size_t at = decl.find("encoding");
    if (at == std::string_view::npos)
        return sp;
    size_t i = skip_space(decl, at + 8);
    if (i >= decl.size() || decl[i] != '=')
        return sp;
    i = skip_space(decl, i + 1);
    if (i >= decl.size() || (decl[i] != '"' && decl[i] != '\''))
        return sp;
    size_t close = decl.find(decl[i], i + 1);
    if (close == std::string_view::npos)
        return sp;
    return {i + 1, close - i - 1, true};
}

// The charset parameter of a Content-Type (case-insensitive, quotes taken off).
std::string_view content_type_charset(const char *content_type)
{
    if (!content_type)
        return {};
    for (const char *p = content_type; *p; p++) {
        if (strncasecmp(p, "charset=", 8) != 0)
            continue;
        std::string_view v(p + 8);
        if (v.starts_with('"'))
            v.remove_prefix(1);
        return v.substr(0, v.find_first_of("\"; \t,"));
    }
    return {};
}

// Bytes Mini-XML takes for a UTF-16 byte-order mark wherever they stand.
bool has_utf16_mark(const char *body)
{
    return strpbrk(body, "\xFE\xFF") != nullptr;
}

// The charset a body that is not UTF-8 is read in; empty when none applies.
std::string_view choose_charset(const char *content_type, const char *body)
{
    span sp = declared_encoding(body);
    if (sp.found && sp.len)
        return std::string_view(body + sp.at, sp.len);
    std::string_view cs = content_type_charset(content_type);
    if (!cs.empty())
        return cs;
    // Undeclared FE/FF bytes are left to Mini-XML's UTF-16 reading, as before.
    return has_utf16_mark(body) ? std::string_view() : std::string_view("windows-1252");
}

bool is_one_of(std::string_view name, std::initializer_list<const char *> names)
{
    return std::any_of(names.begin(), names.end(), [name](const char *n) {
        return strlen(n) == name.size() && strncasecmp(n, name.data(), name.size()) == 0;
    });
}

// Names under which the body is already what Mini-XML reads.
bool means_utf8(std::string_view name)
{
    return is_one_of(name, {"UTF-8", "UTF8", "US-ASCII", "ASCII", "ANSI_X3.4-1968"});
}

// Labels that feeds use for a charset whose glibc namesake differs from what
// the web reads: glibc's Shift_JIS turns "\" and "~" into yen and overline,
// and GB2312 and EUC-KR are read as their supersets.
const char *iconv_name(std::string_view name, const char *plain)
{
    if (is_one_of(name, {"Shift_JIS", "Shift-JIS", "SJIS", "MS_Kanji", "csShiftJIS", "x-sjis"}))
        return "CP932";
    if (is_one_of(name, {"GB2312", "EUC-CN", "x-gbk", "csGB2312"}))
        return "GBK";
    if (is_one_of(name, {"EUC-KR", "ks_c_5601-1987", "csEUCKR", "windows-949"}))
        return "CP949";
    return plain;
}

// Charset names are short and made of these; anything else (quotes, "//"
// suffixes that change iconv's behaviour, control bytes) is not a name.
bool plausible_name(std::string_view name)
{
    if (name.empty() || name.size() > kdx_charset_name_max)
        return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               strchr("-_.:+", c) != nullptr;
    });
}

// The characters of markup must come out as themselves, or the declaration
// and every tag would change meaning (UTF-16, UTF-7, EBCDIC...).
bool keeps_ascii(to_utf8 &cd)
{
    char probe[] = "\t\n\r !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                   "[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~";
    char out[sizeof probe * 4];
    char *in = probe, *op = out;
    size_t inleft = sizeof probe - 1, outleft = sizeof out;
    bool same = cd.run(&in, &inleft, &op, &outleft) && static_cast<size_t>(op - out) == sizeof probe - 1 &&
                memcmp(out, probe, sizeof probe - 1) == 0;
    cd.reset();
    return same;
}

// The name as reported: control and high bytes as "?", cut with "...".
void report_name(std::string_view name, kdx_charset_info *info)
{
    size_t n = std::min(name.size(), kdx_charset_name_max);
    for (size_t i = 0; i < n; i++) {
        auto c = static_cast<unsigned char>(name[i]);
        info->name[i] = c > 32 && c < 127 ? static_cast<char>(c) : '?';
    }
    strcpy(info->name + n, name.size() > n ? "..." : "");
}

// Grows the output to the bound when a charset needs more than three bytes
// per input byte; false when it is at the bound already or memory ran out.
bool grow_to_bound(char **out, char **op, size_t *cap, size_t *outleft)
{
    if (*cap >= kBound)
        return false;
    auto *grown = static_cast<char *>(kd_realloc(*out, kBound + kSlack + 1));
    if (!grown)
        return false;
    size_t used = static_cast<size_t>(*op - *out);
    *out = grown;
    *op = grown + used;
    *outleft = kBound - used;
    *cap = kBound;
    return true;
}

// Converts the n bytes of body into *out (a new slab buffer, NUL-terminated
// after at most kBound bytes of whole characters); false without memory.
bool convert(to_utf8 &cd, char *body, size_t n, char **out, kdx_charset_info *info)
{
    // No legacy charset needs more than three UTF-8 bytes per byte.
    size_t cap = std::min(n, kBound / 3 + 1) * 3;
    cap = std::min(cap, kBound);
    *out = static_cast<char *>(kd_malloc(cap + kSlack + 1));
    if (!*out)
        return false;
    char *in = body, *op = *out;
    size_t inleft = n, outleft = cap;
    while (!cd.run(&in, &inleft, &op, &outleft)) {
        bool full = errno == E2BIG;
        if (full && grow_to_bound(out, &op, &cap, &outleft))
            continue;
        if (full && cap < kBound) { // the growth found no memory
            kd_free(*out);
            return false;
        }
        info->cut = full;
        info->invalid = !full; // EILSEQ, or EINVAL: a sequence broken off at the end
        info->bad_at = full ? 0 : static_cast<size_t>(in - body);
        break;
    }
    *op = '\0';
    return true;
}

// The declaration of the converted body now names UTF-8; the buffer has
// kSlack bytes of room behind its terminator for a longer name.
void rewrite_declaration(char *out)
{
    size_t len = strlen(out);
    span sp = declared_encoding(std::string_view(out, len));
    if (!sp.found)
        return;
    size_t name_len = sizeof kUtf8 - 1;
    memmove(out + sp.at + name_len, out + sp.at + sp.len, len - sp.at - sp.len + 1);
    memcpy(out + sp.at, kUtf8, name_len);
}

void log_outcome(const kdx_charset_info *info, size_t from, size_t to)
{
    if (info->invalid)
        KD_LOG(1, LOG_ERR, "xml error: invalid %s sequence at byte %zu", info->name, info->bad_at);
    KD_LOG(3, LOG_DEBUG, "[kddbg] body converted from %s to UTF-8 (%zu to %zu bytes%s)", info->name,
           from, to, info->cut ? ", cut at the download bound" : "");
}

// Replaces *body by its conversion to UTF-8; false when memory ran out.
bool transcode(to_utf8 &cd, char **body, size_t n, kdx_charset_info *info)
{
    char *out = nullptr;
    if (!convert(cd, *body, n, &out, info)) {
        KD_LOG(1, LOG_CRIT, "local memory exhausted (converting body)");
        return false;
    }
    rewrite_declaration(out);
    size_t len = strlen(out);
    if (auto *fit = static_cast<char *>(kd_realloc(out, len + 1)))
        out = fit; // give back what the estimate left over
    kd_free(*body);
    *body = out;
    info->transcoded = true;
    log_outcome(info, n, len);
    return true;
}

} // namespace

bool kdx_decode_body(const char *content_type, char **body, kdx_charset_info *info)
{
    *info = {};
    size_t n = strlen(*body);
    if (valid_utf8(*body, n))
        return true;
    std::string_view name = choose_charset(content_type, *body);
    if (name.empty() || means_utf8(name))
        return true;
    report_name(name, info);
    if (plausible_name(name)) {
        char plain[kdx_charset_name_max + 1];
        memcpy(plain, name.data(), name.size());
        plain[name.size()] = '\0';
        to_utf8 cd(iconv_name(name, plain));
        if (cd.ok() && keeps_ascii(cd))
            return transcode(cd, body, n, info);
    }
    info->unknown = true;
    KD_LOG(1, LOG_ERR, "xml error: unknown charset \"%s\"", info->name);
    return true;
}
