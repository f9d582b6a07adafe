// kelpctl's entry: options, the usage text and the command dispatch.
#include "kelpctl.h"

#include "platform/kd_paths.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace kelpctl;

namespace {

void usage(FILE *out)
{
    fprintf(out,
            "usage: kelpctl [-d rss|podcast] [-p PROFILE] [--api 2|3] [-f] [-t SECONDS] COMMAND [ARGS]\n"
            "\n"
            "Talks to kelpd over %s.\n"
            "\n"
            "options:\n"
            "  -d, --domain DOMAIN   rss (default) or podcast\n"
            "  -p, --profile ID      profile id (default 1)\n"
            "      --api VERSION     client API version, 2 or 3 (default 3)\n"
            "  -f, --follow          login and raw: after the answer, print every message until interrupted\n"
            "  -t, --timeout SECONDS how long to wait for an answer (default 5)\n"
            "  -h, --help            this text\n"
            "\n"
            "commands:\n",
            KD_CTL_SOCKET);
    for (const command &c : commands())
        fprintf(out, "  %-9s %-12s %s\n", c.name, c.args, c.help);
    fprintf(out, "\n"
                 "Every command but raw logs in first. overview and status collect what the daemon\n"
                 "pushes after the login until every feed has its overview or no message came for\n"
                 "%d ms. login -f and raw print messages with each tab as \\t, a backslash as \\\\\n"
                 "and control bytes as \\xNN; watch prints one line per message as key=value fields.\n"
                 "exit status: 0 done, 1 the daemon answered with an error (its name on stderr), the\n"
                 "item or feed asked for is not there, or status found the internet not usable;\n"
                 "2 usage error; 3 kelpd not running, connection lost or no answer in time.\n",
            kQuietMs);
}

bool parse_number(const char *text, unsigned long max, unsigned long *value)
{
    if (!text || *text < '0' || *text > '9')
        return false;
    char *end = nullptr;
    errno = 0;
    unsigned long v = strtoul(text, &end, 10);
    if (errno || *end || v > max)
        return false;
    *value = v;
    return true;
}

int parse_option(int ch, const char *arg, options *opt)
{
    unsigned long v = 0;
    switch (ch) {
    case 'd':
        if (strcmp(arg, "rss") != 0 && strcmp(arg, "podcast") != 0)
            return fail(kExitUsage, std::string("domain must be rss or podcast, not '") + arg + "'");
        opt->domain = arg;
        return 0;
    case 'p':
        if (!parse_number(arg, 4294967295ul, &v))
            return fail(kExitUsage, std::string("profile must be a number from 0 to 4294967295, not '") + arg + "'");
        opt->profile = static_cast<uint32_t>(v);
        return 0;
    case 'a':
        if (strcmp(arg, "2") != 0 && strcmp(arg, "3") != 0)
            return fail(kExitUsage, std::string("api must be 2 or 3, not '") + arg + "'");
        opt->api = arg[0] - '0';
        return 0;
    case 't':
        if (!parse_number(arg, 3600, &v) || v == 0)
            return fail(kExitUsage, std::string("timeout must be 1 to 3600 seconds, not '") + arg + "'");
        opt->timeout_s = static_cast<int>(v);
        return 0;
    case 'f':
        opt->follow = true;
        return 0;
    default:
        return fail(kExitUsage, "unknown option (try 'kelpctl --help')");
    }
}

// getopt's findings as one line: an unknown option, or one without its value.
int option_error(int ch, char **argv)
{
    const std::string hint = " (try 'kelpctl --help')";
    if (ch == ':')
        return fail(kExitUsage, std::string("option '") + argv[optind - 1] + "' needs a value" + hint);
    std::string name = optopt ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1]);
    return fail(kExitUsage, "unknown option '" + name + "'" + hint);
}

const command *find_command(const char *name)
{
    for (const command &c : commands())
        if (strcmp(c.name, name) == 0)
            return &c;
    return nullptr;
}

} // namespace

int main(int argc, char **argv)
{
    static const option longopts[] = {
        {"domain", required_argument, nullptr, 'd'}, {"profile", required_argument, nullptr, 'p'},
        {"api", required_argument, nullptr, 'a'},    {"follow", no_argument, nullptr, 'f'},
        {"timeout", required_argument, nullptr, 't'}, {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    options opt;
    opterr = 0; // our own one-line messages instead of getopt's
    int ch;
    // "+": options end at the command, so request words may look like options.
    while ((ch = getopt_long(argc, argv, "+:d:p:ft:h", longopts, nullptr)) != -1) {
        if (ch == 'h') {
            usage(stdout);
            return kExitOk;
        }
        if (ch == '?' || ch == ':')
            return option_error(ch, argv);
        if (int st = parse_option(ch, optarg, &opt))
            return st;
    }
    if (optind >= argc)
        return fail(kExitUsage, "missing command (try 'kelpctl --help')");
    const command *cmd = find_command(argv[optind]);
    if (!cmd)
        return fail(kExitUsage, std::string("unknown command '") + argv[optind] + "' (try 'kelpctl --help')");
    if (opt.follow && !cmd->follows)
        return fail(kExitUsage, std::string("-f works with login and raw only (try 'kelpctl watch')"));
    catch_interrupts();
    return cmd->run(opt, std::vector<std::string>(argv + optind + 1, argv + argc));
}
