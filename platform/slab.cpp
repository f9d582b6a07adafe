// slab over the C library allocator: each block carries a small header with
// its size and tag, and a fixed table counts live blocks per tag.
#include "platform/slab.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <syslog.h>

namespace {

constexpr uint32_t kMagic = 0x5eab1ab5;
constexpr size_t kTags = 512;

struct tag_stat {
    const char *module;
    int line;
    size_t count;
    size_t bytes;
};

// Header in front of every block, aligned as malloc aligns (16 bytes on
// x86_64, 8 on 32-bit ARM): the payload behind it keeps malloc's alignment,
// and the header never claims more alignment than its block has.
struct alignas(std::max_align_t) block_hdr {
    size_t size;
    tag_stat *tag;
    uint32_t magic;
};
static_assert(sizeof(block_hdr) % alignof(std::max_align_t) == 0);

// The counts per tag (and of the tags that found no place), the live
// totals, and the allocation a test has made fail (-1: none).
struct slab_state {
    tag_stat tags[kTags];
    tag_stat overflow = {"(other)", 0, 0, 0};
    size_t live_count;
    size_t live_bytes;
    long fail_after = -1;
};

slab_state g_slab;

tag_stat *find_tag(const char *module, int line)
{
    size_t h = (reinterpret_cast<uintptr_t>(module) >> 3) * 31u + static_cast<unsigned>(line);
    for (size_t i = 0; i < kTags; i++) {
        tag_stat *t = &g_slab.tags[(h + i) % kTags];
        if (t->module == module && t->line == line)
            return t;
        if (!t->module) {
            t->module = module;
            t->line = line;
            return t;
        }
    }
    return &g_slab.overflow;
}

bool injected_failure()
{
    if (g_slab.fail_after < 0)
        return false;
    if (g_slab.fail_after == 0) {
        g_slab.fail_after = -1;
        return true;
    }
    g_slab.fail_after--;
    return false;
}

void account(block_hdr *h, size_t size, const char *module, int line)
{
    h->size = size;
    h->tag = find_tag(module ? module : "?", line);
    h->magic = kMagic;
    h->tag->count++;
    h->tag->bytes += size;
    g_slab.live_count++;
    g_slab.live_bytes += size;
}

void unaccount(block_hdr *h)
{
    h->tag->count--;
    h->tag->bytes -= h->size;
    g_slab.live_count--;
    g_slab.live_bytes -= h->size;
    h->magic = 0;
}

block_hdr *header_of(void *p)
{
    block_hdr *h = static_cast<block_hdr *>(p) - 1;
    if (h->magic != kMagic)
        abort(); // not ours, or freed twice
    return h;
}

} // namespace

void *slab_dmalloc(size_t size, const char *module, int line)
{
    if (injected_failure() || size > SIZE_MAX - sizeof(block_hdr))
        return nullptr;
    auto *h = static_cast<block_hdr *>(malloc(sizeof(block_hdr) + size));
    if (!h)
        return nullptr;
    account(h, size, module, line);
    return h + 1;
}

void *slab_dcalloc(size_t nmemb, size_t size, const char *module, int line)
{
    if (size && nmemb > SIZE_MAX / size)
        return nullptr;
    void *p = slab_dmalloc(nmemb * size, module, line);
    if (p)
        memset(p, 0, nmemb * size);
    return p;
}

void *slab_drealloc(void *ptr, size_t size, const char *module, int line)
{
    if (!ptr)
        return slab_dmalloc(size, module, line);
    if (injected_failure() || size > SIZE_MAX - sizeof(block_hdr))
        return nullptr;
    block_hdr *old = header_of(ptr);
    tag_stat *tag = old->tag;
    size_t oldsize = old->size;
    auto *h = static_cast<block_hdr *>(realloc(old, sizeof(block_hdr) + size));
    if (!h)
        return nullptr;
    tag->count--;
    tag->bytes -= oldsize;
    g_slab.live_count--;
    g_slab.live_bytes -= oldsize;
    account(h, size, module, line);
    return h + 1;
}

char *slab_dstrdup(const char *s, const char *module, int line)
{
    if (!s)
        return nullptr;
    return slab_dstrndup(s, strlen(s), module, line);
}

char *slab_dstrndup(const char *s, size_t n, const char *module, int line)
{
    if (!s)
        return nullptr;
    size_t len = strnlen(s, n);
    auto *p = static_cast<char *>(slab_dmalloc(len + 1, module, line));
    if (!p)
        return nullptr;
    memcpy(p, s, len);
    p[len] = '\0';
    return p;
}

void slab_cbcontext_free(void *ptr, const char *, int)
{
    if (!ptr)
        return;
    block_hdr *h = header_of(ptr);
    unaccount(h);
    free(h);
}

void slab_dump_for_debug(const char *name)
{
    syslog(LOG_DEBUG, "slab statistics of %s: %zu live allocations, %zu bytes",
           name ? name : "?", g_slab.live_count, g_slab.live_bytes);
    for (const tag_stat &t : g_slab.tags) {
        if (t.module && t.count)
            syslog(LOG_DEBUG, "  %s:%d count=%zu bytes=%zu", t.module, t.line, t.count, t.bytes);
    }
    if (g_slab.overflow.count)
        syslog(LOG_DEBUG, "  (other) count=%zu bytes=%zu", g_slab.overflow.count, g_slab.overflow.bytes);
}

size_t slab_live_count() { return g_slab.live_count; }
size_t slab_live_bytes() { return g_slab.live_bytes; }

size_t slab_live_count_for(const char *module)
{
    size_t n = 0;
    for (const tag_stat &t : g_slab.tags) {
        if (t.module && strcmp(t.module, module) == 0)
            n += t.count;
    }
    return n;
}

void slab_fail_after(long n) { g_slab.fail_after = n; }
