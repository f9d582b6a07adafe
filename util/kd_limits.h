// kd_limits: bounds that modules of several layers must agree on, kept below
// all of them so that none has to reach sideways for another's constant.
#pragma once
#include <cstdint>

// The largest feed document: the HTTP client cuts a download here
// (HTTPCLI_MAX_RESPONSE), the charset conversion cuts the UTF-8 it makes
// here, and the codec's largest block is sized to carry the overview of a
// feed this long.
inline constexpr uint32_t KD_FEED_MAX_BYTES = 196608;
