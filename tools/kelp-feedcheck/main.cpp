// kelp-feedcheck: checks one feed the way kelpd polls it.
//   kelp-feedcheck [-v...] [--truncated] [--url URL] FILE [CONTENT-TYPE]
//   kelp-feedcheck [-v...] URL
// An argument naming an existing file is read as a downloaded body; otherwise
// an argument of the form scheme://... is fetched with the daemon's HTTP client
// (no proxy, 3 s per wait). Exit status 0 when the feed has items, 1 when not,
// 2 for a usage error or an unreadable file.
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "feed/kd_xml.h"
#include "http/httpcli.h"
#include "platform/slab.h"
#include "tools/kelp-feedcheck/feedcheck.h"
#include "util/kd_log.h"

namespace {

struct options {
    const char *target = nullptr;       // FILE or URL
    const char *content_type = nullptr; // FILE mode only
    const char *url = nullptr;          // FILE mode: feed URL for relative attachments
    bool truncated = false;             // FILE mode: parse as a cut-short download
};

int usage()
{
    fprintf(stderr, "usage: kelp-feedcheck [-v...] URL\n"
                    "       kelp-feedcheck [-v...] [--truncated] [--url FEED-URL] FILE [CONTENT-TYPE]\n");
    return 2;
}

bool is_file(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

// scheme://rest, the scheme made of letters, digits, "+", "-" and ".".
bool is_url(const char *arg)
{
    size_t n = strspn(arg, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.");
    return n > 0 && strncmp(arg + n, "://", 3) == 0;
}

bool parse_args(int argc, char **argv, options *o)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a.size() > 1 && a[0] == '-' && a.find_first_not_of('v', 1) == std::string::npos) {
            verbosity += static_cast<uint32_t>(a.size() - 1);
        } else if (a == "--truncated") {
            o->truncated = true;
        } else if (a == "--url" && i + 1 < argc) {
            o->url = argv[++i];
        } else if (a.starts_with("-")) {
            return false;
        } else if (!o->target) {
            o->target = argv[i];
        } else if (!o->content_type) {
            o->content_type = argv[i];
        } else {
            return false;
        }
    }
    return o->target != nullptr;
}

// The whole file as a NUL-terminated slab buffer, like a downloaded body.
char *read_file(const char *path)
{
    FILE *f = fopen(path, "rb");
    if (!f)
        return nullptr;
    std::string data;
    char buf[65536];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;)
        data.append(buf, n);
    bool ok = !ferror(f);
    fclose(f);
    return ok ? kd_strndup(data.c_str(), data.size()) : nullptr;
}

// Parses body as a poll would and prints the outcome; true when items came out.
bool parse_and_print(int code, const char *url, const char *content_type, char **body)
{
    char *title = nullptr;
    kdx_charset_info charset;
    kd_node *feed = kdx_parse_feed_charset(code, url, content_type, body, &title, &charset);
    int n = feedcheck_print_feed(code, content_type, &charset, title, feed);
    kd_free(title);
    kdn_free_feed(feed);
    return n > 0;
}

int check_file(const options &o)
{
    char *body = read_file(o.target);
    if (!body) {
        fprintf(stderr, "kelp-feedcheck: cannot read %s\n", o.target);
        return 2;
    }
    bool ok = parse_and_print(o.truncated ? HTTPCLI_TRUNCATED : 200, o.url ? o.url : o.target,
                              o.content_type, &body);
    kd_free(body);
    return ok ? 0 : 1;
}

int check_url(const char *url)
{
    // The context of a poll: no proxy, 3 seconds per wait.
    httpcli_ctx ctx = {nullptr, 0, static_cast<int32_t>(verbosity >= 2 ? verbosity - 1 : verbosity), 3.0f};
    httpcli_buffer resp = {};
    http_result res = {};
    int code = httpcli_get(&ctx, url, &resp, &res);
    bool ok = false;
    if (code != 200 && code != HTTPCLI_TRUNCATED) {
        feedcheck_print_fetch_failure(code, url);
    } else {
        if (!resp.start)
            resp.start = kd_strdup(""); // an empty body is still a document
        ok = resp.start && parse_and_print(code, url, res.content_type, &resp.start);
    }
    kd_free(res.location);
    kd_free(res.content_type);
    kd_free(res.content_encoding);
    kd_free(resp.start);
    return ok ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    options o;
    if (!parse_args(argc, argv, &o))
        return usage();
    // With -v the parser's log lines (xml errors, item notices) show on stderr.
    openlog("kelp-feedcheck", LOG_PERROR | LOG_PID, LOG_USER);
    tzset();
    if (is_file(o.target))
        return check_file(o);
    if (!is_url(o.target)) {
        fprintf(stderr, "kelp-feedcheck: no such file, and not a URL: %s\n", o.target);
        return 2;
    }
    if (o.content_type || o.truncated || o.url) {
        fprintf(stderr, "kelp-feedcheck: CONTENT-TYPE, --truncated and --url apply to files only\n");
        return usage();
    }
    return check_url(o.target);
}
