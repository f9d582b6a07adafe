// kd_interweb: placeholder refresh of one feed entry; it counts and logs the
// poll so that the timers can be watched before the fetch exists.
#include "refresh/kd_interweb.h"

#include <mxml.h>

#include "feed/kd_node.h"
#include "util/kd_log.h"

uint32_t g_refresh_count;

void kd_refresh_entry(void *param, int)
{
    KD_ASSERT(param!=((void *)0));
    auto *feed = static_cast<kd_node *>(param);
    g_refresh_count++;
    const char *url = feed->entry ? mxmlElementGetAttr(feed->entry, "url") : nullptr;
    KD_LOG(4, LOG_DEBUG, "[kddbg] refresh of %s", url ? url : "");
}
