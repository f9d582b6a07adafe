// kd_msg_parse: turns the first request of one received block into a kd_msg.
// The block is not NUL-terminated, so every look at a byte is bounded by the
// count; a malformed request is recorded in the error field, never rejected.
#include "client/kd_msg.h"

#include "platform/slab.h"
#include "util/kd_log.h"

#include <cstring>
#include <string_view>

namespace {

// POSIX-locale white space, independent of the process locale.
bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

size_t skip_space(const char *buf, size_t pos, size_t count)
{
    while (pos < count && is_space(buf[pos]))
        pos++;
    return pos;
}

// Prefix match of one word, only when the block still holds that many bytes.
bool match_word(const char *buf, size_t *pos, size_t count, std::string_view word)
{
    if (count - *pos < word.size() || memcmp(buf + *pos, word.data(), word.size()) != 0)
        return false;
    *pos += word.size();
    return true;
}

struct cmd_word {
    std::string_view word;
    uint32_t cmd;
};

// The one candidate word per first letter ("l" has two, tried in order).
const cmd_word *words_for(char first, size_t *n)
{
    static const cmd_word e[] = {{"enclosure", KD_CMD_ENCLOSURE}};
    static const cmd_word O[] = {{"OK", KD_CMD_OK}};
    static const cmd_word E[] = {{"ERROR", KD_CMD_ERROR}};
    static const cmd_word a[] = {{"accounts", KD_CMD_ACCOUNTS}};
    static const cmd_word b[] = {{"body", KD_CMD_BODY}};
    static const cmd_word i[] = {{"image", KD_CMD_IMAGE}};
    static const cmd_word o[] = {{"overview", KD_CMD_OVERVIEW}};
    static const cmd_word s[] = {{"status", KD_CMD_STATUS}};
    static const cmd_word l[] = {{"login", KD_CMD_LOGIN}, {"logout", KD_CMD_LOGOUT}};
    *n = 1;
    switch (first) {
    case 'e': return e;
    case 'O': return O;
    case 'E': return E;
    case 'a': return a;
    case 'b': return b;
    case 'i': return i;
    case 'o': return o;
    case 's': return s;
    case 'l': *n = 2; return l;
    default: *n = 0; return nullptr;
    }
}

uint32_t read_cmd(const char *buf, size_t *pos, size_t count)
{
    if (*pos >= count)
        return KD_CMD_UNKNOWN;
    size_t n = 0;
    const cmd_word *words = words_for(buf[*pos], &n);
    for (size_t k = 0; k < n; k++) {
        if (match_word(buf, pos, count, words[k].word))
            return words[k].cmd;
    }
    return KD_CMD_UNKNOWN;
}

// Skips white space and the key; false when the bytes there are another key.
// A key that does not fit in the block is not compared: the position then
// lands at or behind the end and the field fails there.
bool skip_key(const char *buf, size_t *pos, size_t count, const char *key)
{
    size_t p = skip_space(buf, *pos, count);
    if (key) {
        size_t klen = strlen(key);
        if (p + klen < count && memcmp(buf + p, key, klen) != 0)
            return false;
        p += klen;
    }
    *pos = p;
    return true;
}

bool read_uint(const char *buf, size_t *pos, size_t count, const char *key, uint32_t *value)
{
    size_t p = *pos;
    if (!skip_key(buf, &p, count, key) || p >= count || !is_digit(buf[p]))
        return false;
    uint32_t v = 0;
    // Unsigned arithmetic: numbers beyond 32 bits wrap on purpose.
    for (; p < count && is_digit(buf[p]); p++)
        v = v * 10u + static_cast<uint32_t>(buf[p] - '0');
    *value = v;
    *pos = p;
    return true;
}

// 1: read, 0: missing, -1: no memory for the copy.
int read_string(const char *buf, size_t *pos, size_t count, const char *key, char **value)
{
    KD_ASSERT(*value==((void *)0));
    size_t p = *pos;
    // A key followed by white space has no value, like a key at the end.
    if (!skip_key(buf, &p, count, key) || p >= count || is_space(buf[p]))
        return 0;
    size_t start = p;
    while (p < count && !is_space(buf[p]))
        p++;
    *value = kd_strndup(buf + start, p - start);
    if (!*value)
        return -1;
    *pos = p;
    return 1;
}

struct field {
    const char *key;
    bool is_string;
    uint32_t kd_msg::*number;
    uint32_t missing;
};

constexpr field kLogin[] = {
    {"v:", false, &kd_msg::version, KD_MISSING_VERSION},
    {"domain:", true, nullptr, KD_MISSING_DOMAIN},
    {"profile_id:", false, &kd_msg::profile_id, KD_MISSING_PROFILE},
};
constexpr field kSession[] = {
    {"domain:", true, nullptr, KD_MISSING_DOMAIN},
    {"profile_id:", false, &kd_msg::profile_id, KD_MISSING_PROFILE},
};
constexpr field kItem[] = {
    {"domain:", true, nullptr, KD_MISSING_DOMAIN},
    {"profile_id:", false, &kd_msg::profile_id, KD_MISSING_PROFILE},
    {"feed_id:", false, &kd_msg::feed_id, KD_MISSING_FEEDID},
    {"uid:", false, &kd_msg::uid, KD_MISSING_UID},
};

const field *fields_for(uint32_t cmd, size_t *n)
{
    switch (cmd) {
    case KD_CMD_LOGIN: *n = std::size(kLogin); return kLogin;
    case KD_CMD_LOGOUT:
    case KD_CMD_ACCOUNTS: *n = std::size(kSession); return kSession;
    case KD_CMD_BODY:
    case KD_CMD_ENCLOSURE:
    case KD_CMD_IMAGE: *n = std::size(kItem); return kItem;
    default: *n = 0; return nullptr;
    }
}

// Reads one field; returns 0 or the error code that ends the parse.
uint32_t read_field(kd_msg *msg, const char *buf, size_t *pos, size_t count, const field &f)
{
    if (!f.is_string)
        return read_uint(buf, pos, count, f.key, &(msg->*f.number)) ? 0 : f.missing;
    int r = read_string(buf, pos, count, f.key, &msg->domain);
    if (r < 0)
        return KD_NO_MEMORY;
    return r ? 0 : f.missing;
}

} // namespace

int kd_msg_parse(kd_msg *msg, const char *buf, size_t count)
{
    KD_ASSERT(msg!=((void *)0));
    KD_ASSERT(buf!=((void *)0));
    KD_ASSERT(count>0);
    size_t pos = skip_space(buf, 0, count);
    msg->cmd = read_cmd(buf, &pos, count);
    size_t n = 0;
    const field *fields = fields_for(msg->cmd, &n);
    for (size_t k = 0; k < n; k++) {
        uint32_t err = read_field(msg, buf, &pos, count, fields[k]);
        if (err) {
            msg->error = err;
            break;
        }
    }
    return static_cast<int>(msg->error);
}
