// kd_fetch_wire: writing the result of a fetch in the child, and reading it
// back in the daemon without trusting a byte of it.
#include "refresh/kd_fetch_wire.h"

#include <cstring>
#include <syslog.h>

#include "platform/child.h"
#include "platform/slab.h"

namespace {

constexpr char kMagic[4] = {'K', 'F', 'R', '1'};
// One log record's head: priority and length.
constexpr uint32_t kRecordHead = 8;
// Longest line a record may carry (the child cuts its lines shorter).
constexpr uint32_t kLineMax = 1023;

uint32_t len_of(const char *s)
{
    return s ? static_cast<uint32_t>(strlen(s)) : KD_FETCH_ABSENT;
}

uint32_t part_max(uint32_t part)
{
    return part == KD_FETCH_LOG ? KD_FETCH_LOG_MAX : KD_FETCH_PART_MAX;
}

bool write_part(int fd, const char *data, uint32_t len)
{
    return len == KD_FETCH_ABSENT || len == 0 || child_write_all(fd, data, len);
}

// The head's lengths are all within bounds; then every present part gets
// its buffer (with room for a terminator).
bool start_parts(kd_fetch_reader *r)
{
    if (memcmp(r->head.magic, kMagic, sizeof kMagic) != 0)
        return false;
    for (uint32_t i = 0; i < KD_FETCH_PARTS; i++) {
        uint32_t len = r->head.len[i];
        if (len == KD_FETCH_ABSENT && i != KD_FETCH_LOG)
            continue;
        if (len > part_max(i))
            return false;
        if (!(r->buf[i] = static_cast<char *>(kd_malloc(len + 1))))
            return false;
        r->buf[i][len] = '\0';
    }
    r->started = true;
    return true;
}

uint32_t part_len(const kd_fetch_reader *r, uint32_t part)
{
    return r->buf[part] ? r->head.len[part] : 0;
}

// Steps past parts that are absent or already full.
void skip_done(kd_fetch_reader *r)
{
    while (r->part < KD_FETCH_PARTS && r->got == part_len(r, r->part)) {
        r->part++;
        r->got = 0;
    }
}

// Calls fn (when given) for each record; false at the first malformed one.
bool walk_log(const kd_fetch_reader *r, void (*fn)(int prio, const char *text))
{
    const char *p = r->buf[KD_FETCH_LOG];
    uint32_t left = part_len(r, KD_FETCH_LOG);
    while (left > 0) {
        uint32_t head[2];
        if (left < kRecordHead)
            return false;
        memcpy(head, p, sizeof head);
        if (head[0] > LOG_DEBUG || head[1] > kLineMax || head[1] > left - kRecordHead)
            return false;
        char line[kLineMax + 1];
        memcpy(line, p + kRecordHead, head[1]);
        line[head[1]] = '\0';
        if (fn)
            fn(static_cast<int>(head[0]), line);
        p += kRecordHead + head[1];
        left -= kRecordHead + head[1];
    }
    return true;
}

char *take_part(kd_fetch_reader *r, uint32_t part)
{
    char *p = r->buf[part];
    r->buf[part] = nullptr;
    return p;
}

} // namespace

bool kd_fetch_write(int fd, int code, const httpcli_buffer *resp, const http_result *res, const char *log,
                    uint32_t loglen)
{
    kd_fetch_head head;
    memcpy(head.magic, kMagic, sizeof kMagic);
    head.code = code;
    head.len[KD_FETCH_BODY] = resp->start ? resp->len : KD_FETCH_ABSENT;
    head.len[KD_FETCH_CTYPE] = len_of(res->content_type);
    head.len[KD_FETCH_LOCATION] = len_of(res->location);
    head.len[KD_FETCH_CENCODING] = len_of(res->content_encoding);
    head.len[KD_FETCH_LOG] = loglen;
    const char *parts[KD_FETCH_PARTS] = {resp->start, res->content_type, res->location, res->content_encoding,
                                         log};
    if (!child_write_all(fd, &head, sizeof head))
        return false;
    for (uint32_t i = 0; i < KD_FETCH_PARTS; i++)
        if (!write_part(fd, parts[i], head.len[i]))
            return false;
    return true;
}

size_t kd_fetch_want(kd_fetch_reader *r, char **dst)
{
    if (!r->started) {
        *dst = reinterpret_cast<char *>(&r->head) + r->got;
        return sizeof r->head - r->got;
    }
    if (r->part >= KD_FETCH_PARTS)
        return 0;
    *dst = r->buf[r->part] + r->got;
    return part_len(r, r->part) - r->got;
}

bool kd_fetch_got(kd_fetch_reader *r, size_t n)
{
    r->got += static_cast<uint32_t>(n);
    if (!r->started) {
        if (r->got < sizeof r->head)
            return true;
        r->got = 0;
        r->part = 0;
        if (!start_parts(r))
            return false;
    }
    skip_done(r);
    return true;
}

bool kd_fetch_complete(const kd_fetch_reader *r)
{
    return r->started && r->part >= KD_FETCH_PARTS && walk_log(r, nullptr);
}

int kd_fetch_take(kd_fetch_reader *r, httpcli_buffer *resp, http_result *res)
{
    uint32_t len = part_len(r, KD_FETCH_BODY);
    resp->start = take_part(r, KD_FETCH_BODY);
    resp->len = resp->start ? len : 0;
    resp->size = resp->start ? len + 1 : 0;
    res->content_type = take_part(r, KD_FETCH_CTYPE);
    res->location = take_part(r, KD_FETCH_LOCATION);
    res->content_encoding = take_part(r, KD_FETCH_CENCODING);
    return r->head.code;
}

void kd_fetch_each_log(const kd_fetch_reader *r, void (*fn)(int prio, const char *text))
{
    walk_log(r, fn);
}

void kd_fetch_reader_free(kd_fetch_reader *r)
{
    for (char *&b : r->buf) {
        kd_free(b);
        b = nullptr;
    }
}

void kd_fetch_release(httpcli_buffer *resp, http_result *res)
{
    kd_free(resp->start);
    kd_free(res->content_type);
    kd_free(res->location);
    kd_free(res->content_encoding);
}
