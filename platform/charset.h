// charset: conversions between ISO 8859-1 (the daemon's text) and UTF-8
// (configd's documents).
#pragma once

// New slab-allocated UTF-8 copy of a Latin-1 text; null for a null text or
// when no memory is left.
char *ConvertStringFromISO8859_1ToUTF8_WithAlloc(const char *latin1);

// Converts a UTF-8 text to Latin-1 in place (the result is never longer);
// invalid sequences and characters beyond U+00FF become `fallback`.
// A sequence is a lead byte and the continuation bytes its bit pattern asks
// for; each truncated, overlong, surrogate, out-of-range or above-U+00FF
// sequence becomes one fallback, as does each stray continuation byte and
// each 0xFE or 0xFF byte. Returns 1 on success, 0 for a null text.
int ConvertStringFromUTF8ToISO8859_1_With_Fallback(char *text, char fallback);
