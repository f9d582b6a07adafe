// slab: the device allocator. Every call carries the caller's module name and
// line (SLAB_TAG); the allocator keeps live allocation counts and bytes per
// tag so that leaks show up in slab_dump_for_debug and in tests.
#pragma once
#include <cstddef>

#define SLAB_TAG __FILE_NAME__, __LINE__

void *slab_dmalloc(size_t size, const char *module, int line);
void *slab_dcalloc(size_t nmemb, size_t size, const char *module, int line);
void *slab_drealloc(void *ptr, size_t size, const char *module, int line);
char *slab_dstrdup(const char *s, const char *module, int line);
char *slab_dstrndup(const char *s, size_t n, const char *module, int line);
void slab_cbcontext_free(void *ptr, const char *module, int line);
void slab_dump_for_debug(const char *name);

// Accounting, for tests and diagnostics.
size_t slab_live_count();
size_t slab_live_bytes();
size_t slab_live_count_for(const char *module);

// Test hook: the allocation after `n` more successful ones fails (0: the next
// one); a negative value switches failure injection off.
void slab_fail_after(long n);

// Convenience wrappers with the caller's tag.
#define kd_malloc(n)        slab_dmalloc((n), SLAB_TAG)
#define kd_calloc(n, s)     slab_dcalloc((n), (s), SLAB_TAG)
#define kd_realloc(p, n)    slab_drealloc((p), (n), SLAB_TAG)
#define kd_strdup(s)        slab_dstrdup((s), SLAB_TAG)
#define kd_strndup(s, n)    slab_dstrndup((s), (n), SLAB_TAG)
#define kd_free(p)          slab_cbcontext_free((p), SLAB_TAG)
