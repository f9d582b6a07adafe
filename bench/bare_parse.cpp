// kelp-bench-bareparse: the floor of parsing one feed document. Loads the
// file with Mini-XML the way the feed loader does (opaque text, a SAX
// callback) but the callback only keeps every node, and nothing is made of
// the tree: what is left is the XML library's own cost.
//
//   kelp-bench-bareparse FILE [ROUNDS [LOADS]]
// prints ROUNDS lines, each the median of LOADS loads in microseconds.
#include <mxml.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

void keep_node(mxml_node_t *node, mxml_sax_event_t, void *)
{
    mxmlRetain(node);
}

// One load and release of a fresh copy, as a download hands the daemon one.
double one_load_us(const std::string &doc)
{
    auto t0 = std::chrono::steady_clock::now();
    std::string copy = doc;
    mxml_node_t *tree = mxmlSAXLoadString(nullptr, copy.c_str(), MXML_OPAQUE_CALLBACK, keep_node, nullptr);
    if (!tree) {
        fprintf(stderr, "kelp-bench-bareparse: document does not parse\n");
        exit(1);
    }
    mxmlDelete(tree);
    auto t1 = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::micro>(t1 - t0).count();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: kelp-bench-bareparse FILE [ROUNDS [LOADS]]\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    std::string doc = ss.str();
    if (doc.empty()) {
        fprintf(stderr, "kelp-bench-bareparse: %s is empty or missing\n", argv[1]);
        return 1;
    }
    int rounds = argc > 2 ? atoi(argv[2]) : 5;
    int loads = argc > 3 ? atoi(argv[3]) : 21;
    one_load_us(doc); // warm the allocator and the caches
    for (int r = 0; r < rounds; r++) {
        std::vector<double> t;
        for (int i = 0; i < loads; i++)
            t.push_back(one_load_us(doc));
        std::nth_element(t.begin(), t.begin() + t.size() / 2, t.end());
        printf("%.1f\n", t[t.size() / 2]);
    }
    return 0;
}
