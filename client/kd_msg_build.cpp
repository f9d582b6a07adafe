// kd_msg builders: the answer to a request (kd_msg_response) and the daemon's
// own overview message (kd_msg_request). Texts are appended straight from the
// configuration and feed trees; the block sent is the whole buffer capacity.
#include "client/kd_msg.h"
#include "client/kd_msg_limits.h"

#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "platform/charset.h"
#include "platform/slab.h"
#include "util/bitfield.h"
#include "util/kd_limits.h"
#include "util/kd_log.h"
#include "util/kd_text.h"

#include <cstring>

namespace {

constexpr uint32_t kStartCapacity = 32;

// The longest overview fits one block. A feed document holds at most
// KD_FEED_MAX_BYTES bytes (also after its conversion to UTF-8) and an item
// takes at least 28 of them besides its title of at least one byte
// ("<item><title>" "</title></item>"); its part of the overview is at most
// 32 bytes besides the title ("\tuid:", 10 digits, "\tstate:", one digit,
// "\tsubject:"), and loading never lengthens a title. So the items need at
// most 33/29 of the document; the head (domain, ids, counts) gets 4 KiB.
constexpr uint64_t kOverviewHead = 4096;
static_assert(uint64_t(KD_FEED_MAX_BYTES) * 33 / 29 + kOverviewHead + 2 <= KD_MSG_MAX_BLOCK,
              "the overview of the longest feed must fit one block");

// The growing message: the caller's slots plus the used count.
struct msgbuf {
    char **buf;
    uint32_t *cap;
    uint32_t used;
    bool ok;
};

bool msg_start(msgbuf *m, char **buf, uint32_t *size)
{
    KD_ASSERT(*buf==((void *)0));
    *m = {buf, size, 0, true};
    *buf = static_cast<char *>(kd_malloc(kStartCapacity));
    if (!*buf)
        return m->ok = false;
    (*buf)[0] = '\0';
    *size = kStartCapacity;
    return true;
}

// Appends every text in turn; after the first failure nothing more is added.
template <typename... T> void put(msgbuf *m, T... texts)
{
    ((m->ok = m->ok && msg_append(m->buf, m->cap, &m->used, texts)), ...);
}

// Zero padding behind the NUL: the whole capacity goes on the wire.
int msg_finish(msgbuf *m)
{
    if (!m->ok)
        return 0;
    memset(*m->buf + m->used, 0, *m->cap - m->used);
    return 1;
}

bool has_text(const char *s)
{
    return s && *s;
}

// The name a client sees for a feed: its name, or its URL while it has none.
const char *feed_label(mxml_node_t *entry)
{
    const char *name = mxmlElementGetAttr(entry, "name");
    return has_text(name) ? name : mxmlElementGetAttr(entry, "url");
}

void put_feed(msgbuf *m, mxml_node_t *entry)
{
    const char *label = feed_label(entry);
    if (!has_text(label))
        return;
    char *latin1 = kd_strdup(label);
    // Without memory for one name the list would be silently incomplete.
    if (!latin1) {
        m->ok = false;
        return;
    }
    // A name that cannot be converted is left out rather than sent garbled.
    if (ConvertStringFromUTF8ToISO8859_1_With_Fallback(latin1, '.'))
        put(m, "\t", "name:", latin1, "\t", "feed_id:", mxmlElementGetAttr(entry, "id"));
    kd_free(latin1);
}

// Subscriptions directly below the profile element that lead to a pool entry.
void put_feed_list(msgbuf *m, const kd_profile *prof)
{
    if (!prof->profile)
        return;
    for (mxml_node_t *n = mxmlGetFirstChild(prof->profile); n && m->ok; n = mxmlGetNextSibling(n)) {
        if (mxmlGetType(n) != MXML_ELEMENT || strcmp(mxmlGetElement(n), "item") != 0)
            continue;
        auto *entry = static_cast<mxml_node_t *>(mxmlGetUserData(n));
        if (mxmlElementGetAttr(n, "entry") && entry)
            put_feed(m, entry);
    }
}

void put_body(msgbuf *m, kd_item *item, int api)
{
    char *text = has_text(item->body) ? item->body : item->title;
    put(m, "body:", tab2space(text));
    if (api < 3)
        return;
    for (kd_attachment *a = item->images; a && m->ok; a = a->next) {
        if (has_text(a->url))
            put(m, "\timage:", tab2space(a->url), "\toffset:", uint2str(a->offset));
    }
}

void put_first_url(msgbuf *m, kd_attachment *a)
{
    put(m, "url:");
    if (a && has_text(a->url))
        put(m, tab2space(a->url));
}

// Item commands: the request's feed and uid, then the item's text or URL.
void put_item_part(msgbuf *m, const kd_msg *req, int api, const void *object)
{
    put(m, "\t", "feed_id:", uint2str(req->feed_id));
    put(m, "\t", "uid:", uint2str(req->uid));
    if (!object)
        return;
    // The stored texts lose their tabs for good, so the object is written to.
    auto *item = static_cast<kd_item *>(const_cast<void *>(object));
    put(m, "\t");
    if (req->cmd == KD_CMD_BODY)
        put_body(m, item, api);
    else if (req->cmd == KD_CMD_ENCLOSURE)
        put_first_url(m, item->enclosures);
    else
        put_first_url(m, item->images);
}

bool is_item_cmd(uint32_t cmd)
{
    return cmd == KD_CMD_BODY || cmd == KD_CMD_ENCLOSURE || cmd == KD_CMD_IMAGE;
}

uint32_t item_state(const kd_item *item, const bitfield *bf, uint32_t i, int api)
{
    uint32_t state = bf_isset(bf, i) ? 1 : 0;
    if (api >= 3) {
        state += item->enclosures ? 2 : 0;
        state += item->images ? 4 : 0;
    }
    return state;
}

void put_items(msgbuf *m, const kd_node *feed, const bitfield *bf, int api)
{
    int32_t set = bf_count(bf);
    uint32_t fresh = set > 0 ? static_cast<uint32_t>(set) : 0;
    fresh = fresh > feed->nchildren ? 0 : feed->nchildren - fresh;
    put(m, "\t", "number:", uint2str(feed->nchildren));
    put(m, "\t", "number_new:", uint2str(fresh));
    uint32_t i = 0;
    for (kd_item *it = feed->children; it && m->ok; it = it->next, i++) {
        put(m, "\t", "uid:", uint2str(it->uid));
        put(m, "\t", "state:", uint2str(item_state(it, bf, i, api)));
        put(m, "\t", "subject:", tab2space(it->title));
    }
}

void put_overview(msgbuf *m, const kd_overview_desc *desc, const bitfield *bf, int api)
{
    auto *entry = static_cast<mxml_node_t *>(mxmlGetUserData(desc->subscription));
    if (!entry)
        return;
    put(m, "domain:", desc->domain, "\t", "profile_id:", uint2str(desc->profile->profile_id));
    put(m, "\t", "feed_id:", mxmlElementGetAttr(entry, "id"));
    auto *feed = static_cast<const kd_node *>(mxmlGetUserData(entry));
    if (!feed) {
        put(m, "\tnumber:0\tnumber_new:0");
        return;
    }
    put_items(m, feed, bf, api);
}

} // namespace

int kd_msg_response(char **buf, uint32_t *size, const kd_msg *req, int api, const void *object)
{
    KD_ASSERT(req!=((void *)0));
    msgbuf m;
    if (!msg_start(&m, buf, size))
        return 0;
    put(&m, req->error ? "ERROR\t" : "OK\t", cmd2str(req->cmd));
    if (req->error)
        put(&m, err2str(req->error), "\t");
    put(&m, "domain:", req->domain, "\t", "profile_id:", uint2str(req->profile_id));
    auto *prof = static_cast<kd_profile *>(const_cast<void *>(object));
    if (prof && (req->cmd == KD_CMD_LOGIN || req->cmd == KD_CMD_ACCOUNTS))
        put_feed_list(&m, prof);
    // The profile has now been told that the internet is usable.
    if (prof && req->cmd == KD_CMD_STATUS && !req->error)
        prof->was_online = 1;
    if (is_item_cmd(req->cmd))
        put_item_part(&m, req, api, object);
    return msg_finish(&m);
}

int kd_msg_request(char **buf, uint32_t *size, uint32_t cmd, int api, const kd_overview_desc *desc)
{
    msgbuf m;
    if (!msg_start(&m, buf, size))
        return 0;
    put(&m, cmd2str(cmd));
    if (cmd != KD_CMD_OVERVIEW || !desc || !desc->subscription || !desc->profile)
        return msg_finish(&m);
    bitfield bf;
    bf_init(&bf);
    const char *read = mxmlElementGetAttr(desc->subscription, "read");
    if (read)
        bf_from_string(&bf, read);
    // Marks that could not be loaded would show read items as new.
    if (read && strlen(read) >= 2 && !bf.bits)
        m.ok = false;
    put_overview(&m, desc, &bf, api);
    bf_free(&bf);
    return msg_finish(&m);
}
