// kd_fetch_wire: the one message a fetching child sends back on its pipe, and
// the daemon's reader of it, which checks every length before it allocates
// or copies anything. Layout, in the machine's own byte order (both ends are
// the same program on the same machine):
//   magic "KFR1", the result code (int32), five lengths (uint32): body,
//   Content-Type, Location, Content-Encoding, log records;
//   then those five parts' bytes in that order, without terminators.
// A header the response did not have is KD_FETCH_ABSENT long and sends no
// bytes. A log record is a priority (uint32, a syslog level), a length
// (uint32) and the line's text.
#pragma once
#include <cstddef>
#include <cstdint>

#include "http/httpcli.h"

inline constexpr uint32_t KD_FETCH_ABSENT = 0xffffffffu;
// A body is at most the download bound plus the last receive block; a
// header value comes out of the same bytes.
inline constexpr uint32_t KD_FETCH_PART_MAX = HTTPCLI_MAX_RESPONSE + 4096;
// The lines a fetch may log (a TLS failure's reason, say) are few and short.
inline constexpr uint32_t KD_FETCH_LOG_MAX = 8192;

enum { KD_FETCH_BODY, KD_FETCH_CTYPE, KD_FETCH_LOCATION, KD_FETCH_CENCODING, KD_FETCH_LOG, KD_FETCH_PARTS };

struct kd_fetch_head {
    char magic[4];
    int32_t code;
    uint32_t len[KD_FETCH_PARTS];
};

// The child's side: the whole message on a blocking descriptor; false when
// the reader has gone.
bool kd_fetch_write(int fd, int code, const httpcli_buffer *resp, const http_result *res, const char *log,
                    uint32_t loglen);

// The daemon's side, fed as the pipe delivers: the head first, then each part
// into its own slab buffer of exactly the announced size (plus a NUL).
struct kd_fetch_reader {
    kd_fetch_head head;
    uint32_t part;              // part being read; KD_FETCH_PARTS: complete
    uint32_t got;               // bytes of the head or of that part so far
    char *buf[KD_FETCH_PARTS];  // null for absent parts
    bool started;               // the head is complete and checked
};

// Where the next bytes go and how many at most; 0 once the message is
// complete (anything that still comes is too much).
size_t kd_fetch_want(kd_fetch_reader *r, char **dst);
// `n` bytes were put at the place kd_fetch_want gave; false when the message
// is bad (a wrong magic, a length out of bounds, no memory).
bool kd_fetch_got(kd_fetch_reader *r, size_t n);
// True when every part has arrived and the log records are well formed.
bool kd_fetch_complete(const kd_fetch_reader *r);
// Hands a complete message's parts over: the code, the body (as the HTTP
// client leaves it: NUL-terminated, len without the NUL) and the headers.
int kd_fetch_take(kd_fetch_reader *r, httpcli_buffer *resp, http_result *res);
// Calls fn for each log record of a complete message, in order.
void kd_fetch_each_log(const kd_fetch_reader *r, void (*fn)(int prio, const char *text));
void kd_fetch_reader_free(kd_fetch_reader *r);

// Frees a result's body and headers, the fetch's own in the child or those
// kd_fetch_take handed over in the daemon.
void kd_fetch_release(httpcli_buffer *resp, http_result *res);
