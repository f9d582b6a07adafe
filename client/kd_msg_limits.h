// kd_msg limits: the largest block the daemon sends, shared by the codec
// (which builds nothing longer), the connections (whose send buffers must
// take a block of this size whole) and the clients' receive buffers.
#pragma once
#include <cstdint>

// Text, NUL and padding of one answer or pushed message. The overview of the
// longest feed a poll can load fits (see kd_msg_build.cpp); an answer that
// would need more is not built and is logged as "unable to prepare ...".
inline constexpr uint32_t KD_MSG_MAX_BLOCK = 256u * 1024;
