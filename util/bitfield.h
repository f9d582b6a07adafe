// bitfield: a profile's read marks for one feed (bit n for the item at
// position n), their hexadecimal text form, and fnv_hash of item titles.
#pragma once
#include <cstdint>

struct bitfield {
    uint8_t *bits;  // bit n in byte n/8 under mask 1 << (n % 8); null when empty
    uint32_t len;   // bytes in bits
};

void bf_init(bitfield *f);
void bf_free(bitfield *f);
int bf_grow(bitfield *f, uint32_t newlen);
void bf_set(bitfield *f, uint32_t n);
void bf_clear(bitfield *f, uint32_t n);
uint32_t bf_isset(const bitfield *f, uint32_t n);
int bf_is_empty(const bitfield *f);
int32_t bf_count(const bitfield *f);
void bf_copy(bitfield *dst, const bitfield *src);
void bf_shift(bitfield *f, uint32_t distance, uint32_t count);
void bf_from_string(bitfield *f, const char *str);
void bf_to_string(char **str, const bitfield *f);
uint32_t fnv_hash(const char *str);
