// fuzz_config_merge: configuration documents as configd would deliver them,
// merged into an empty domain and then again over themselves, and torn down
// as when the configd connection closes. Bytes after the first NUL, when
// present, form the second document, so that feeds and profiles can move,
// appear and vanish between the two deliveries.
#include <cstring>
#include <string>

#include "config/kd_config.h"
#include "feed/kd_node.h"
#include "fuzz/fuzz_check.h"
#include "platform/rpc_wire.h"

namespace {

// configd itself refuses documents with a profile that has no "id".
bool configd_accepts(mxml_node_t *root)
{
    mxml_node_t *profiles = mxmlFindElement(root, root, "profiles", nullptr, nullptr, MXML_DESCEND_FIRST);
    for (mxml_node_t *p = mxmlFindElement(profiles, profiles, "profile", nullptr, nullptr, MXML_DESCEND_FIRST);
         profiles && p; p = mxmlFindElement(p, profiles, "profile", nullptr, nullptr, MXML_NO_DESCEND))
        if (!mxmlElementGetAttr(p, "id"))
            return false;
    return true;
}

void quiet(const char *) {}

// Documents reach kelpd through the frame codec's strict parse.
mxml_node_t *load(const std::string &text)
{
    mxmlSetErrorCallback(quiet);
    mxml_node_t *root = rpcw_parse_xml(text.c_str());
    if (root && !configd_accepts(root)) {
        mxmlDelete(root);
        return nullptr;
    }
    return root;
}

// The session adopts the tree; one the merge refused is deleted.
void deliver(mxml_node_t *doc)
{
    kd_config_merge(&g_rssdomain, &g_rssproflist, doc);
    if (g_rssdomain != doc)
        mxmlDelete(doc);
}

// Records and elements must point at each other after every merge; a stale
// pointer into a deleted document is caught here by AddressSanitizer.
void check_links()
{
    for (kd_profile *p = g_rssproflist; p; p = p->next)
        if (p->profile)
            FUZZ_CHECK(mxmlGetUserData(p->profile) == p);
    mxml_node_t *root = g_rssdomain;
    mxml_node_t *pool = root ? mxmlFindElement(root, root, "pool", nullptr, nullptr, MXML_DESCEND_FIRST) : nullptr;
    for (mxml_node_t *e = mxmlFindElement(pool, pool, "entry", nullptr, nullptr, MXML_DESCEND_FIRST); pool && e;
         e = mxmlFindElement(e, pool, "entry", nullptr, nullptr, MXML_NO_DESCEND)) {
        auto *n = static_cast<kd_node *>(mxmlGetUserData(e));
        if (!n)
            continue;
        FUZZ_CHECK(n->entry == e);
        for (uint32_t i = 0; i < n->nrefs; i++)
            FUZZ_CHECK(mxmlGetUserData(n->refs[i]) == e);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    std::string first = bytes.c_str();
    size_t nul = bytes.find('\0');
    std::string second = nul == std::string::npos ? first : bytes.substr(nul + 1).c_str();
    mxml_node_t *a = load(first);
    if (!a)
        return 0;
    mxml_node_t *b = load(second);
    if (!b)
        b = load(first);
    FUZZ_CHECK(b != nullptr);
    size_t live = slab_live_count();
    deliver(a);
    check_links();
    deliver(b);
    check_links();
    kd_configd_closed(nullptr, nullptr);
    FUZZ_CHECK(g_rssdomain == nullptr && g_rssproflist == nullptr);
    fuzz_expect_no_leak(live);
    return 0;
}
