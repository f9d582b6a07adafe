// UTF-8 checks and the decoding of kelpd's wire texts for people. kelpd
// passes subjects, bodies and URLs on as the feed document's bytes (UTF-8
// for nearly every feed today) and names in ISO 8859-1, without saying
// which: a text that is valid UTF-8 is taken as UTF-8, any other as
// ISO 8859-1. The clients (kelpctl, kelp-web) decode every field this way.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Length (1 to 4) of the valid UTF-8 sequence at p, n bytes available, and
// its code point in *cp; 0 for an invalid, overlong, surrogate or cut
// sequence.
size_t kd_utf8_char(const unsigned char *p, size_t n, uint32_t *cp);

// Whether the whole text is valid UTF-8.
bool kd_utf8_valid(std::string_view text);

// Appends the ISO 8859-1 text to *out as UTF-8.
void kd_latin1_to_utf8(std::string_view latin1, std::string *out);

// One field of a kelpd message as UTF-8: as it is when it is valid UTF-8,
// otherwise read as ISO 8859-1.
std::string kd_wire_text(std::string_view field);
