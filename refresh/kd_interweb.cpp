// kd_interweb: the refresh of one feed entry. Starts the fetch of the
// entry's URL (in a child, refresh/kd_fetch) and, once it has ended, keeps
// the outcome in the record's lasterror and lastpoll, parses the document,
// adopts the feed title as the entry's name while the name is still empty or
// the URL, and hands the items to the merge. A failed poll never touches the
// items the record already holds. Neither checks the internet nor re-arms
// its timer: both belong to the poll timers.
#include "refresh/kd_interweb.h"

#include <cstring>
#include <ctime>
#include <mxml.h>

#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "http/httpcli.h"
#include "platform/charset.h"
#include "platform/localzone.h"
#include "platform/slab.h"
#include "refresh/kd_fetch.h"
#include "refresh/kd_itemmerge.h"
#include "util/kd_log.h"

namespace {

void tell_nobody_overview(mxml_node_t *, kd_client *) {}
void tell_nobody_entry(mxml_node_t *) {}

constexpr kd_refresh_clients kNobody{tell_nobody_overview, tell_nobody_entry};

kd_refresh_clients g_told = kNobody;

// Codes of a poll that did not get as far as the items.
constexpr int32_t KD_FEED_XML_ERROR = 4;
constexpr int32_t KD_FEED_NO_ITEMS = 5;

// Each wait of a poll is bounded so that one dead server stalls the daemon
// for seconds, not minutes.
constexpr float kPollTimeout = 3.0f;

httpcli_ctx poll_context()
{
    int32_t v = static_cast<int32_t>(verbosity);
    return httpcli_ctx{nullptr, 0, v >= 2 ? v - 1 : v, kPollTimeout};
}

// The fetch ended without a document worth parsing: one line saying why.
void log_fetch_failure(int code, const char *url)
{
    if (code == HTTPCLI_NO_CONNECTION)
        KD_LOG(1, LOG_ERR, "no connection to server [%s]", url);
    else if (code == HTTPCLI_NO_MEMORY)
        KD_LOG(1, LOG_ERR, "local memory exhausted");
    else if (code == 404)
        KD_LOG(1, LOG_ERR, "document not found - URL changed? [%s]", url);
    else
        KD_LOG(1, LOG_ERR, "got HTTP error %d [%s]", code, url);
}

// A user-given name (present, not empty, not the URL) wins over the title.
bool has_own_name(mxml_node_t *entry, const char *url)
{
    const char *name = mxmlElementGetAttr(entry, "name");
    return name && *name && strcmp(name, url) != 0;
}

// The feed title becomes the entry's name in configd and in the clients' lists.
void adopt_title(mxml_node_t *entry, const char *url, char *title)
{
    if (has_own_name(entry, url))
        return;
    KD_LOG(2, LOG_NOTICE, "setting feed title to '%s'", title);
    char *utf8 = ConvertStringFromISO8859_1ToUTF8_WithAlloc(title);
    if (utf8 && *utf8) {
        mxmlElementSetAttr(entry, "name", utf8);
        kd_save_config(kd_get_domain_from_node(entry));
        g_told.entry_updated(entry);
    } else {
        KD_LOG(1, LOG_ERR, "error converting string to UTF-8");
    }
    kd_free(utf8);
}

// Parses the fetched document and merges its items into the record.
void take_document(kd_node *feed, int code, const char *url, http_result *res, char **body)
{
    char *title = nullptr;
    localzone_refresh(); // the items' dates are read in the device's zone
    kd_node *parsed = *body ? kdx_parse_feed(code, url, res->content_type, body, &title) : nullptr;
    if (title)
        adopt_title(feed->entry, url, title);
    kd_free(title);
    if (!parsed) {
        feed->lasterror = KD_FEED_XML_ERROR;
        KD_LOG(1, LOG_ERR, "error parsing xml - try to validate the feed");
        return;
    }
    if (!parsed->children) {
        feed->lasterror = KD_FEED_NO_ITEMS;
        KD_LOG(1, LOG_ERR, "no items found - try to check URL by hand");
    } else {
        merge_feed(feed->entry, parsed);
    }
    kdn_free_feed(parsed);
}

// The second half of a poll, on the loop once the fetch has ended.
void take_fetch(kd_node *feed, const char *url, int code, httpcli_buffer *resp, http_result *res)
{
    feed->lastpoll = static_cast<int32_t>(time(nullptr));
    if (code != 200)
        feed->lasterror = code;
    if (code != 200 && code != HTTPCLI_TRUNCATED) {
        log_fetch_failure(code, url);
        return;
    }
    KD_LOG(3, LOG_NOTICE, "HTTP OK [%s]%s", url, code == HTTPCLI_TRUNCATED ? " [truncated]" : "");
    take_document(feed, code, url, res, &resp->start);
}

} // namespace

void kd_refresh_register(void)
{
    constexpr kd_config_polls polls{kd_refresh_entry, kd_fetch_cancel};
    kd_config_set_polls(&polls);
}

void kd_refresh_set_clients(const kd_refresh_clients *clients)
{
    g_told = clients ? *clients : kNobody;
}

const kd_refresh_clients &kd_refresh_told(void)
{
    return g_told;
}

void kd_refresh_entry(void *param, int)
{
    KD_ASSERT(param!=((void *)0));
    auto *feed = static_cast<kd_node *>(param);
    const char *url = feed->entry ? mxmlElementGetAttr(feed->entry, "url") : nullptr;
    if (!url) {
        const char *id = feed->entry ? mxmlElementGetAttr(feed->entry, "id") : nullptr;
        KD_LOG(2, LOG_INFO, "missing 'url' in entry '%s'", id ? id : "");
        return;
    }
    kd_fetch_start(feed, url, poll_context(), take_fetch);
}
