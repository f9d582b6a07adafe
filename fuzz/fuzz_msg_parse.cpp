// fuzz_msg_parse: a client's request block through the codec and back out
// as the answer a client would get, with nothing left behind.
#include <cstring>

#include "client/kd_msg.h"
#include "fuzz/fuzz_check.h"

namespace {

// The largest block a client can send in one packet.
constexpr size_t kMaxRequest = 8192;

// The answer must be a zero-padded block whose length is its capacity.
void check_block(const char *buf, uint32_t size)
{
    FUZZ_CHECK(buf != nullptr);
    FUZZ_CHECK(size >= 32 && (size & (size - 1)) == 0);
    FUZZ_CHECK(memchr(buf, '\0', size) != nullptr);
    FUZZ_CHECK(buf[size - 1] == '\0');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > kMaxRequest)
        return 0;
    size_t live = slab_live_count();
    kd_msg msg{};
    kd_msg_parse(&msg, reinterpret_cast<const char *>(data), size);
    FUZZ_CHECK(msg.cmd <= KD_CMD_IMAGE);
    FUZZ_CHECK(msg.error <= KD_NO_INTERNET);
    char *buf = nullptr;
    uint32_t len = 0;
    if (kd_msg_response(&buf, &len, &msg, 3, nullptr))
        check_block(buf, len);
    kd_free(buf);
    kd_free(msg.domain);
    fuzz_expect_no_leak(live);
    return 0;
}
