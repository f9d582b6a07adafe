// configctl_opml: the opml export and opml import commands: their command
// lines, the file read and the output; the OPML work itself is opml.h's,
// the import one read-modify-write through ctl_update.
#include <cstdio>
#include <string>
#include "configd/configctl.h"
#include "configd/ctlrpc.h"
#include "configd/docedit.h"
#include "configd/opml.h"
#include "configd/store.h"

namespace {

// The largest OPML file configctl reads.
constexpr size_t OPML_MAX_BYTES = 8 << 20;
// The one option of both commands.
const char *const g_profile_option[] = {"profile", nullptr};

} // namespace

int ctl_opml_export(int argc, char **argv)
{
    static const char *const words[] = {"DOMAIN", nullptr};
    ctl_args a;
    if (int bad = ctl_parse_args("opml export", argc, argv, g_profile_option, &a))
        return bad;
    if (int bad = ctl_check_words("opml export", a.pos.size(), a.pos.data(), words, false))
        return bad;
    const char *domain = a.pos[0], *profile = ctl_opt(a, "profile");
    if (!cfg_valid_domain(domain))
        return ctl_fail("invalid domain name '%s' (allowed: 1 to 32 of a-z 0-9 _ -)", domain);
    std::string gen, why;
    kd_mxml_tree doc(ctl_fetch(domain, &gen, &why));
    if (!doc)
        return ctl_fail("opml export %s: %s", domain, why.c_str());
    mxml_node_t *p = profile ? doc_profile(doc.get(), profile) : nullptr;
    if (profile && !p)
        return ctl_fail("opml export %s: no profile %s", domain, profile);
    fputs(opml_export(doc.get(), domain, p).c_str(), stdout);
    return 0;
}

int ctl_opml_import(int argc, char **argv)
{
    static const char *const words[] = {"DOMAIN", "FILE", nullptr};
    ctl_args a;
    if (int bad = ctl_parse_args("opml import", argc, argv, g_profile_option, &a))
        return bad;
    if (int bad = ctl_check_words("opml import", a.pos.size(), a.pos.data(), words, false))
        return bad;
    const char *domain = a.pos[0], *file = a.pos[1], *profile = ctl_opt(a, "profile");
    opml_list list;
    std::string text, why;
    if (!ctl_read_input(file, OPML_MAX_BYTES, &text, &why))
        return ctl_fail("%s", why.c_str());
    if (!opml_read(text, &list, &why))
        return ctl_fail("%s: %s", file, why.c_str());
    return ctl_update("opml import", domain, [&](mxml_node_t *doc, std::string *out, std::string *err) {
        return opml_import(doc, list, profile, out, err);
    });
}
