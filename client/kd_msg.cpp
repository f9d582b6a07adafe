// kd_msg helpers shared by the parser and the builders: the command and
// error words of the wire format, number formatting into one static buffer
// and the growing message buffer.
#include "client/kd_msg.h"
#include "client/kd_msg_limits.h"

#include "platform/slab.h"

#include <cstdio>
#include <cstring>

namespace {

// One buffer for every number the codec formats: each result is appended
// before the next one is made, and the daemon has a single thread.
char g_numbuf[64];

constexpr const char *kCmdWords[] = {
    "unknown\t", "login\t",    "logout\t",    "unknown\t", "unknown\t",
    "body\t",    "accounts\t", "enclosure\t", "OK\t",      "ERROR\t",
    "overview\t", "status\t",  "image\t",
};

constexpr const char *kErrNames[] = {
    "KD_NO_ERROR",          "KD_UNKOWN_COMMAND",     "KD_MISSING_VERSION",
    "KD_MISSING_URL",       "KD_MISSING_POLL_FREQ",  "KD_NO_MEMORY",
    "KD_MISSING_UID",       "KD_VERSION_NOT_SUPPORTED", "KD_ALREADY_LOGGED_IN",
    "KD_NOT_LOGGED_IN",     "KD_ALREADY_REGISTERED", "KD_ACCOUNT_NOT_FOUND",
    "KD_UID_NOT_FOUND",     "KD_MISSING_DOMAIN",     "KD_DOMAIN_NOT_FOUND",
    "KD_MISSING_PROFILE",   "KD_PROFILE_NOT_FOUND",  "KD_MISSING_FEEDID",
    "KD_FEED_NOT_FOUND",    "KD_NO_CONFIG",          "KD_NO_INTERNET",
};

constexpr uint32_t kCmdCount = sizeof(kCmdWords) / sizeof(kCmdWords[0]);
constexpr uint32_t kErrCount = sizeof(kErrNames) / sizeof(kErrNames[0]);

} // namespace

const char *err2str(uint32_t err)
{
    // Codes outside the table are never set by the daemon; name them anyway.
    const char *name = err < kErrCount ? kErrNames[err] : "KD_UNKNOWN_ERROR";
    snprintf(g_numbuf, sizeof(g_numbuf), "%d:%s", static_cast<int>(err), name);
    return g_numbuf;
}

const char *cmd2str(uint32_t cmd)
{
    return cmd < kCmdCount ? kCmdWords[cmd] : "unknown\t";
}

// The same text as "%u", without printf's parsing: overviews format two
// numbers per item.
const char *uint2str(uint32_t value)
{
    char digits[10];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value);
    for (int i = 0; i < n; i++)
        g_numbuf[i] = digits[n - 1 - i];
    g_numbuf[n] = '\0';
    return g_numbuf;
}

int msg_append(char **buf, uint32_t *capacity, uint32_t *used, const char *text)
{
    if (!text)
        return 1;
    size_t len = strlen(text);
    size_t cap = *capacity ? *capacity : 32;
    // Keep two spare bytes behind the text: the NUL and one more.
    while (len + 1 >= cap - *used) {
        // Past the largest block no connection could take the message whole.
        if (cap >= KD_MSG_MAX_BLOCK)
            return 0;
        cap *= 2;
    }
    if (cap != *capacity || !*buf) {
        char *grown = static_cast<char *>(kd_realloc(*buf, cap));
        if (!grown)
            return 0; // the old array stays in *buf for the caller to free
        *buf = grown;
        *capacity = static_cast<uint32_t>(cap);
    }
    memcpy(*buf + *used, text, len + 1);
    *used += static_cast<uint32_t>(len);
    return 1;
}
