// configctl: command-line tool for configd. Prints a domain's document or
// validates and stores a new one, and edits the feeds and profiles of a
// domain (configctl_feeds.cpp, configctl_opml.cpp) as read-modify-writes
// that configd refuses when someone else stored the domain meanwhile.
// Descriptors are owned by kd_unique_fd and trees by kd_mxml_tree
// (ctlrpc.cpp); this file owns the command line.
#include <cerrno>
#include <cstdarg>
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
    static const char *const words[] = {"DOMAIN", nullptr};
    int bad = ctl_check_words("get", argc, argv, words, false);
    return bad ? bad : cmd_get(argv[0]);
}

int set_main(int argc, char **argv)
{
    static const char *const words[] = {"DOMAIN", "FILE", nullptr};
    int bad = ctl_check_words("set", argc, argv, words, false);
    return bad ? bad : cmd_set(argv[0], argv[1]);
}

struct command {
    const char *word, *sub;
    const char *args; // what follows the command's words, as the usage shows it
    const char *what; // its line in the usage, or null
    int (*run)(int argc, char **argv);
};

const command g_commands[] = {
    {"get", nullptr, "DOMAIN", "print the domain's document", get_main},
    {"set", nullptr, "DOMAIN FILE|-", "validate and store a document", set_main},
    {"feeds", nullptr, "DOMAIN", "list the feeds and their subscribers", ctl_feeds},
    {"feed", "add", "DOMAIN URL [--name NAME] [--poll SECONDS] [--profile P [P...]]",
     "add a feed, subscribed by the profiles", ctl_feed_add},
    {"feed", "rm", "DOMAIN ID", "remove a feed and its subscriptions", ctl_feed_rm},
    {"feed", "set", "DOMAIN ID [--name NAME] [--url URL] [--poll SECONDS]", nullptr, ctl_feed_set},
    {"subscribe", nullptr, "DOMAIN PROFILE ID...", "subscribe a profile to feeds", ctl_subscribe},
    {"unsubscribe", nullptr, "DOMAIN PROFILE ID...", "end a profile's subscriptions", ctl_unsubscribe},
    {"profile", "add", "DOMAIN ID", "add a profile without feeds", ctl_profile_add},
    {"profile", "rm", "DOMAIN ID", "remove a profile and its subscriptions", ctl_profile_rm},
    {"opml", "export", "DOMAIN [--profile P]", "write the feeds as OPML 2.0", ctl_opml_export},
    {"opml", "import", "DOMAIN FILE [--profile P]", "add the feeds of an OPML file", ctl_opml_import},
};

const char g_usage_line[] = "usage: configctl [--timeout SECONDS] COMMAND ...";

// "feed add DOMAIN URL ...": a command's words and its arguments.
std::string synopsis(const command &c)
{
    return std::string(c.word) + (c.sub ? std::string(" ") + c.sub : "") + " " + c.args;
}

} // namespace

int ctl_usage()
{
    printf("%s\n", g_usage_line);
    for (const command &c : g_commands) {
        std::string syn = synopsis(c);
        // The descriptions start in column 37; a longer synopsis has its own line.
        if (!c.what)
            printf("  %s\n", syn.c_str());
        else if (syn.size() <= 32)
            printf("  %-32s  %s\n", syn.c_str(), c.what);
        else
            printf("  %s\n%36s%s\n", syn.c_str(), "", c.what);
    }
    fputs("--timeout: seconds to wait for configd's answer (default 10).\n", stdout);
    return 0;
}

// A command line configctl cannot take as a whole: one line naming what is
// wrong and the short usage; exit status 2.
__attribute__((format(printf, 1, 2))) static int refuse_command_line(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("configctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fprintf(stderr, "\n%s ('configctl --help' lists the commands)\n", g_usage_line);
    return 2;
}

int ctl_misuse(const char *cmd, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "configctl: %s: ", cmd);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    // The usage of the command, or of each command of a group ("feed").
    std::string prefix = std::string(cmd) + " ";
    for (const command &c : g_commands)
        if (std::string syn = synopsis(c); syn.rfind(prefix, 0) == 0)
            fprintf(stderr, "usage: configctl %s\n", syn.c_str());
    return 2;
}

int ctl_check_words(const char *cmd, size_t n, const char *const *words, const char *const *names, bool more)
{
    size_t want = 0;
    while (names[want])
        want++;
    if (n < want)
        return ctl_misuse(cmd, "%s missing", names[n]);
    if (n > want && !more)
        return ctl_misuse(cmd, "unexpected argument '%s'", words[want]);
    return 0;
}

namespace {

// "--timeout S" or "--timeout=S" before the command; 0, or the exit status
// after the value was refused.
int take_timeout(int *i, int argc, char **argv)
{
    const char *a = argv[*i];
    if (strncmp(a, "--timeout=", 10) && *i + 1 >= argc)
        return refuse_command_line("%s needs a number of seconds", a);
    const char *v = !strncmp(a, "--timeout=", 10) ? a + 10 : argv[++*i];
    char *end;
    long s = strtol(v, &end, 10);
    if (!*v || *end || s < 1 || s > 3600) {
        fprintf(stderr, "configctl: --timeout: '%s' is not a number of seconds from 1 to 3600\n", v);
        return 2;
    }
    g_ctl_timeout = int(s);
    return 0;
}

// The command the words at argv[i] name, or null after saying why none.
const command *find_command(int i, int argc, char **argv)
{
    if (i >= argc) {
        refuse_command_line("no command given");
        return nullptr;
    }
    std::string subs;
    for (const command &c : g_commands) {
        if (strcmp(argv[i], c.word))
            continue;
        if (!c.sub || (i + 1 < argc && !strcmp(argv[i + 1], c.sub)))
            return &c;
        subs += std::string(subs.empty() ? "" : ", ") + c.sub;
    }
    if (subs.empty())
        refuse_command_line("unknown command '%s'", argv[i]);
    else if (i + 1 >= argc)
        ctl_misuse(argv[i], "%s expected", subs.c_str());
    else
        ctl_misuse(argv[i], "unknown command '%s' (%s)", argv[i + 1], subs.c_str());
    return nullptr;
}

} // namespace

int main(int argc, char **argv)
{
    // Documents travel as text: no line wrapping inserted into them.
    mxmlSetWrapMargin(0);
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        if (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h"))
            return ctl_usage();
        if (strncmp(argv[i], "--timeout", 9) || (argv[i][9] && argv[i][9] != '='))
            return refuse_command_line("unknown option '%s'", argv[i]);
        if (int bad = take_timeout(&i, argc, argv))
            return bad;
    }
    const command *c = find_command(i, argc, argv);
    if (!c)
        return 2;
    int words = c->sub ? 2 : 1;
    return c->run(argc - i - words, argv + i + words);
}
