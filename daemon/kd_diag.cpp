// kd_diag: the SIGUSR2 status dump; the dump file of subscribed feeds and the
// syslog listing of connections and configuration trees with their records.
#include "daemon/kd_diag.h"

#include "client/kd_client.h"
#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "platform/kd_paths.h"
#include "platform/slab.h"
#include "util/kd_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr size_t kLine = 256;

// A line under construction, cut at kLine bytes like every line of the dump.
struct kd_line {
    char buf[kLine + 1] = "";
    size_t len = 0;

    void add(const char *fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        if (len >= kLine)
            return;
        va_list ap;
        va_start(ap, fmt);
        int n = vsnprintf(buf + len, kLine + 1 - len, fmt, ap);
        va_end(ap);
        len = n < 0 ? len : std::min(kLine, len + static_cast<size_t>(n));
    }
};

void indent_line(kd_line &line, int indent)
{
    int n = indent < 0 ? 0 : std::min(indent, static_cast<int>(kLine));
    line.add("%*s", n, "");
}

long due_seconds(const kd_node *n)
{
    if (!n->timer)
        return 0;
    return static_cast<long>(n->poll) - (static_cast<long>(time(nullptr)) - n->lastpoll);
}

void dump_pool(FILE *f, const char *heading, mxml_node_t *root)
{
    fputs(heading, f);
    // Only the pool that the merge uses: a "pool" nested in a profile, say,
    // must not hide the feeds.
    mxml_node_t *pool = kd_pool_of(root);
    for (mxml_node_t *e = kd_first_entry(pool); e; e = kd_next_entry(e, pool)) {
        if (!mxmlGetUserData(e))
            continue;
        const char *name = mxmlElementGetAttr(e, "name");
        const char *url = mxmlElementGetAttr(e, "url");
        fprintf(f, "[%s] %s", name ? name : "", url ? url : "");
        kd_trace_userdata(2, e, f);
    }
}

// The short file that support-data collection picks up; its close is what
// `kelpd --create-supportdata` waits for.
void write_dump_file()
{
    FILE *f = fopen(KD_DUMP_FILE, "w");
    if (!f) {
        syslog(LOG_ERR, "unable to open logfile: %s", strerror(errno));
        return;
    }
    dump_pool(f, "RSS pool:\n", g_rssdomain);
    dump_pool(f, "Podcast pool:\n", g_poddomain);
    fclose(f);
}

void log_line(const kd_line &line)
{
    syslog(LOG_DEBUG, "%s", line.buf);
}

// Appends the bracketed record of an "entry" or "profile" element; false
// for an element of another name, which has no line of its own.
bool describe_record(kd_line &line, const char *pad, const char *name, void *data)
{
    if (strcmp(name, "entry") == 0) {
        auto *n = static_cast<kd_node *>(data);
        line.add("%s[#refs=%u #children=%u nextuid=%u poll=%ld lasterror=%d due=%ld]", pad, n->nrefs,
                 n->nchildren, n->nextuid, static_cast<long>(n->poll), n->lasterror, due_seconds(n));
        return true;
    }
    if (strcmp(name, "profile") == 0) {
        auto *p = static_cast<kd_profile *>(data);
        line.add("%s[#conns=%u was_online=%u]", pad, p->nconns, static_cast<unsigned>(p->was_online));
        return true;
    }
    return false;
}

// The node's own text after the indentation: an element's tag with its
// attributes, a blank and the text of an opaque node, or a placeholder.
void describe_node(kd_line &line, mxml_node_t *node)
{
    mxml_type_t type = mxmlGetType(node);
    if (type == MXML_OPAQUE) {
        line.add(" %s", mxmlGetOpaque(node) ? mxmlGetOpaque(node) : "");
        return;
    }
    if (type != MXML_ELEMENT) {
        line.add(" [unhandled node - type = %d]", static_cast<int>(type));
        return;
    }
    line.add("<%s", mxmlGetElement(node));
    for (int i = 0; i < mxmlElementGetAttrCount(node); i++) {
        const char *attr = nullptr;
        const char *value = mxmlElementGetAttrByIndex(node, i, &attr);
        line.add(" %s=\"%s\"", attr ? attr : "", value ? value : "");
    }
}

void log_closing_tag(int indent, mxml_node_t *element)
{
    kd_line line;
    indent_line(line, indent);
    line.add("</%s>", mxmlGetElement(element));
    log_line(line);
}

} // namespace

void kd_trace_userdata(int indent, mxml_node_t *element, FILE *stream)
{
    KD_ASSERT(element!=((void *)0));
    KD_ASSERT(mxmlGetType(element)==MXML_ELEMENT);
    const char *name = mxmlGetElement(element);
    void *data = mxmlGetUserData(element);
    if (!data || !name)
        return;
    kd_line pad;
    indent_line(pad, indent);
    kd_line line;
    if (!describe_record(line, pad.buf, name, data))
        return;
    if (stream)
        fprintf(stream, "%s\n", line.buf);
    else
        log_line(line);
}

void kd_trace_xml(int indent, mxml_node_t *node)
{
    if (!node)
        return;
    kd_line line;
    indent_line(line, indent);
    describe_node(line, node);
    bool element = mxmlGetType(node) == MXML_ELEMENT;
    mxml_node_t *child = mxmlGetFirstChild(node);
    // Only elements and their records appear; a text node's line is dropped.
    if (element) {
        line.add("%s", child ? ">" : " />");
        log_line(line);
        kd_trace_userdata(indent, node, nullptr);
        if (!child)
            return;
    }
    for (; child; child = mxmlGetNextSibling(child))
        kd_trace_xml(indent + 1, child);
    if (element)
        log_closing_tag(indent, node);
}

void kd_status_dump(kd_client *clients)
{
    write_dump_file();
    syslog(LOG_DEBUG, "SIGUSR2 usage courtesy of jov :)");
    if (clients) {
        syslog(LOG_DEBUG, "active connections:");
        for (kd_client *c = clients; c; c = c->next)
            kd_trace_client(c);
    } else {
        syslog(LOG_DEBUG, "no client connected");
    }
    syslog(LOG_DEBUG, "RSS-Feed structure:");
    kd_trace_xml(1, g_rssdomain);
    syslog(LOG_DEBUG, "Podcast structure:");
    kd_trace_xml(1, g_poddomain);
    slab_dump_for_debug(KD_PROGRAM_NAME);
}
