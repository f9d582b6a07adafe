// replay_main: runs a fuzz target over committed inputs without libFuzzer,
// so that every build (g++ included) replays the corpora as a test. Each
// argument is a file or a directory whose files are replayed in name order;
// every input gets a heap block of exactly its size, so that a read past the
// end is seen by AddressSanitizer.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool is_dir(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Regular files of a directory, sorted so that runs are repeatable.
std::vector<std::string> files_of(const std::string &dir)
{
    std::vector<std::string> out;
    DIR *d = opendir(dir.c_str());
    if (!d)
        return out;
    while (dirent *e = readdir(d)) {
        std::string path = dir + "/" + e->d_name;
        struct stat st;
        if (e->d_name[0] != '.' && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
            out.push_back(path);
    }
    closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

bool replay(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        return false;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    // new[] of zero bytes still gives a distinct block, as libFuzzer does.
    std::unique_ptr<uint8_t[]> block(new uint8_t[bytes.size()]);
    if (!bytes.empty())
        memcpy(block.get(), bytes.data(), bytes.size());
    fprintf(stderr, "replay: %s (%zu bytes)\n", path.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(block.get(), bytes.size());
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; i++) {
        if (is_dir(argv[i])) {
            auto files = files_of(argv[i]);
            inputs.insert(inputs.end(), files.begin(), files.end());
        } else {
            inputs.emplace_back(argv[i]);
        }
    }
    // An empty corpus would make the test pass without testing anything.
    if (inputs.empty()) {
        fprintf(stderr, "replay: no inputs\n");
        return 2;
    }
    for (const auto &path : inputs)
        if (!replay(path))
            return 1;
    printf("replay: %zu inputs passed\n", inputs.size());
    return 0;
}
