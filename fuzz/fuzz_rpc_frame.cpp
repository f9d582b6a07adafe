// fuzz_rpc_frame: bytes from the configd peer through the frame codec, the
// way a connection consumes them (buffered, split into frames, each decoded
// and released), and once more as one bare payload.
#include <cstring>
#include <mxml.h>

#include "fuzz/fuzz_check.h"
#include "platform/rpc_configd.h"
#include "platform/rpc_wire.h"

namespace {

// Mini-XML prints every error of a broken document to stderr by default,
// which would bury libFuzzer's own report and slow each run down.
void quiet(const char *) {}

// A decoded message must be released to nothing, whatever the outcome.
void decode_and_clear(const uint8_t *payload, uint32_t len)
{
    rpc_msg m;
    int r = rpcw_decode(payload, len, g_ConfigD_ParamsList, &m);
    FUZZ_CHECK(r >= -2 && r <= 1);
    if (r == 1) {
        // A list carries as many texts as it says, none of them missing.
        for (uint32_t i = 0; i < m.nlist; i++)
            FUZZ_CHECK(m.list[i] != nullptr);
    }
    rpcw_msg_clear(&m);
}

// Splits the stream into frames until one is incomplete or invalid.
void consume_stream(rpc_buf *in)
{
    uint32_t len = 0;
    int r;
    while ((r = rpcw_frame_ready(in->data + in->off, in->len - in->off, &len)) == 1) {
        FUZZ_CHECK(len <= RPC_MAX_FRAME);
        FUZZ_CHECK(RPCW_PREFIX + size_t{len} <= in->len - in->off);
        const uint8_t *payload = in->data + in->off + RPCW_PREFIX;
        in->off += RPCW_PREFIX + len;
        decode_and_clear(payload, len);
    }
    FUZZ_CHECK(r == 0 || r == -RPC_ERR_TOOBIG || r == -RPC_ERR_MALFORMED);
    rpcw_buf_compact(in);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    mxmlSetErrorCallback(quiet);
    size_t live = slab_live_count();
    rpc_buf in{};
    // Received in two reads, as a socket may deliver them.
    size_t first = size / 2;
    FUZZ_CHECK(rpcw_buf_append(&in, data, first));
    consume_stream(&in);
    FUZZ_CHECK(rpcw_buf_append(&in, data + first, size - first));
    consume_stream(&in);
    rpcw_buf_free(&in);
    if (size <= UINT32_MAX)
        decode_and_clear(data, static_cast<uint32_t>(size));
    fuzz_expect_no_leak(live);
    return 0;
}
