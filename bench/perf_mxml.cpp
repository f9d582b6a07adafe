// The floor for the feed parser: Mini-XML's SAX loader alone over the same
// bytes, opaque text nodes, a callback that only keeps every node (as the
// daemon's does before it builds items), and the release of the tree.
#include "bench/perf_driver.h"

#include <mxml.h>

namespace {

void retain_only(mxml_node_t *node, mxml_sax_event_t event, void *)
{
    if (event != MXML_SAX_ELEMENT_CLOSE)
        mxmlRetain(node);
}

void quiet(const char *) {}

} // namespace

void *perf_prepare(const std::string &doc)
{
    mxmlSetErrorCallback(quiet); // malformed corpus files are parsed all the same
    return const_cast<char *>(doc.c_str());
}

void perf_run(void *input)
{
    mxml_node_t *tree = mxmlSAXLoadString(nullptr, static_cast<const char *>(input), MXML_OPAQUE_CALLBACK,
                                          retain_only, nullptr);
    if (tree)
        mxmlDelete(tree);
}

int main(int argc, char **argv) { return perf::main(argc, argv); }
