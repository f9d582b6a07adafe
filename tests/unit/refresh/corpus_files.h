// Feed collections of the refresh tests: the real-world corpus (found through
// $KELP_CORPUS, else the configured path) and the project's own feeds, each a
// folder with MANIFEST.tsv and feeds/.
#pragma once
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kelp_test {

inline std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The real-world corpus: $KELP_CORPUS, else the configured path.
inline std::string corpus_root()
{
    const char *env = getenv("KELP_CORPUS");
    return env && *env ? env : KELP_CORPUS_DEFAULT;
}

// The files a MANIFEST.tsv lists (first column, after its header line).
inline std::vector<std::string> manifest_files(const std::string &root)
{
    std::vector<std::string> files;
    std::ifstream in(root + "/MANIFEST.tsv");
    std::string line;
    std::getline(in, line); // header
    while (std::getline(in, line))
        files.push_back(line.substr(0, line.find('\t')));
    return files;
}

// Why a corpus sweep is skipped: the corpus is not part of the repository.
inline std::string corpus_absent(const std::string &root)
{
    return "real-world corpus not found at " + root + " (set KELP_CORPUS): sweep skipped";
}

} // namespace kelp_test
