// configctl: command-line tool for configd. Prints a domain's document or
// validates and stores a new one, and edits the feeds and profiles of a
// domain (configctl_feeds.cpp, configctl_opml.cpp) as read-modify-writes
// that configd refuses when someone else stored the domain meanwhile.
// Descriptors are owned by kd_unique_fd and trees by kd_mxml_tree
// (ctlrpc.cpp); this file owns the command line.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include "configd/configctl.h"
#include "configd/ctlrpc.h"
#include "configd/store.h"
#include "platform/rpc.h"
#include "util/kd_mxml.h"

namespace {

int cmd_get(const char *domain)
{
    if (!cfg_valid_domain(domain))
        return ctl_fail("invalid domain name '%s' (allowed: 1 to 32 of a-z 0-9 _ -)", domain);
    std::string gen, why;
    kd_mxml_tree doc(ctl_fetch(domain, &gen, &why));
    if (!doc)
        return ctl_fail("get %s: %s", domain, why.c_str());
    if (char *text = mxmlSaveAllocString(doc.get(), MXML_NO_CALLBACK)) {
        size_t n = strlen(text);
        fputs(text, stdout);
        if (n && text[n - 1] != '\n')
            fputc('\n', stdout);
        free(text);
    }
    return 0;
}

} // namespace

bool ctl_read_input(const char *file, size_t limit, std::string *text, std::string *why)
{
    bool is_stdin = !strcmp(file, "-");
    std::string name = is_stdin ? "standard input" : file;
    FILE *f = is_stdin ? stdin : fopen(file, "rb");
    if (!f) {
        *why = "cannot open " + name + ": " + strerror(errno);
        return false;
    }
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0 && text->size() <= limit)
        text->append(buf, n);
    bool ok = !ferror(f);
    if (!is_stdin)
        fclose(f);
    if (!ok)
        *why = "cannot read " + name;
    else if (text->size() > limit)
        *why = name + ": too large (limit " + std::to_string(limit >> 20) + " MiB)";
    else if (memchr(text->data(), 0, text->size()))
        *why = name + ": contains a NUL byte";
    return why->empty();
}

namespace {

int cmd_set(const char *domain, const char *file)
{
    if (!cfg_valid_domain(domain))
        return ctl_fail("invalid domain name '%s' (allowed: 1 to 32 of a-z 0-9 _ -)", domain);
    std::string text, why;
    if (!ctl_read_input(file, RPC_MAX_FRAME - 1024, &text, &why))
        return ctl_fail("%s", why.c_str());
    kd_mxml_tree doc(cfg_parse(text.c_str(), &why));
    if (doc)
        why = cfg_check_document(doc.get());
    if (!why.empty())
        return ctl_fail("%s: %s", file, why.c_str());
    if (!ctl_store(domain, doc.get(), &why))
        return ctl_fail("set %s: %s", domain, why.c_str());
    return 0;
}

int get_main(int argc, char **argv)
{
    return argc == 1 ? cmd_get(argv[0]) : ctl_usage(false);
}

int set_main(int argc, char **argv)
{
    return argc == 2 ? cmd_set(argv[0], argv[1]) : ctl_usage(false);
}

struct command {
    const char *word, *sub;
    int (*run)(int argc, char **argv);
};

const command g_commands[] = {
    {"get", nullptr, get_main},
    {"set", nullptr, set_main},
    {"feeds", nullptr, ctl_feeds},
    {"feed", "add", ctl_feed_add},
    {"feed", "rm", ctl_feed_rm},
    {"feed", "set", ctl_feed_set},
    {"subscribe", nullptr, ctl_subscribe},
    {"unsubscribe", nullptr, ctl_unsubscribe},
    {"profile", "add", ctl_profile_add},
    {"profile", "rm", ctl_profile_rm},
    {"opml", "export", ctl_opml_export},
    {"opml", "import", ctl_opml_import},
};

} // namespace

int ctl_usage(bool help)
{
    FILE *f = help ? stdout : stderr;
    fputs("usage: configctl [--timeout SECONDS] COMMAND ...\n"
          "  get DOMAIN                        print the domain's document\n"
          "  set DOMAIN FILE|-                 validate and store a document\n"
          "  feeds DOMAIN                      list the feeds and their subscribers\n"
          "  feed add DOMAIN URL [--name NAME] [--poll SECONDS] [--profile P [P...]]\n"
          "                                    add a feed, subscribed by the profiles\n"
          "  feed rm DOMAIN ID                 remove a feed and its subscriptions\n"
          "  feed set DOMAIN ID [--name NAME] [--url URL] [--poll SECONDS]\n"
          "  subscribe DOMAIN PROFILE ID...    subscribe a profile to feeds\n"
          "  unsubscribe DOMAIN PROFILE ID...  end a profile's subscriptions\n"
          "  profile add DOMAIN ID             add a profile without feeds\n"
          "  profile rm DOMAIN ID              remove a profile and its subscriptions\n"
          "  opml export DOMAIN [--profile P]  write the feeds as OPML 2.0\n"
          "  opml import DOMAIN FILE [--profile P]\n"
          "                                    add the feeds of an OPML file\n"
          "--timeout: seconds to wait for configd's answer (default 10).\n",
          f);
    return help ? 0 : 2;
}

namespace {

// "--timeout S" or "--timeout=S" before the command; false for a bad value.
bool take_timeout(int *i, int argc, char **argv)
{
    const char *a = argv[*i];
    const char *v = !strncmp(a, "--timeout=", 10) ? a + 10 : *i + 1 < argc ? argv[++*i] : "";
    char *end;
    long s = strtol(v, &end, 10);
    if (!*v || *end || s < 1 || s > 3600)
        return false;
    g_ctl_timeout = int(s);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    // Documents travel as text: no line wrapping inserted into them.
    mxmlSetWrapMargin(0);
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        if (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h"))
            return ctl_usage(true);
        if (strncmp(argv[i], "--timeout", 9) || (argv[i][9] && argv[i][9] != '=') || !take_timeout(&i, argc, argv))
            return ctl_usage(false);
    }
    for (const command &c : g_commands) {
        if (i >= argc || strcmp(argv[i], c.word))
            continue;
        if (!c.sub)
            return c.run(argc - i - 1, argv + i + 1);
        if (i + 1 < argc && !strcmp(argv[i + 1], c.sub))
            return c.run(argc - i - 2, argv + i + 2);
    }
    return ctl_usage(false);
}
