// Robustness of the parser: the committed corpus, every truncation of it,
// byte mutations, random blocks and grammar-shaped requests up to the
// largest receive. Each block sits at the end of its own heap allocation so
// that a read past the count is caught under AddressSanitizer.
#include "msg_fixture.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

using namespace kelp_test;

namespace {

constexpr size_t kMaxBlock = 8192;

bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Parses one block, checks what any parse must satisfy, builds the answer
// from the result, and releases everything.
void parse_and_check(const std::string &bytes)
{
    if (bytes.empty())
        return;
    size_t live = slab_live_count();
    char *block = new char[bytes.size()];
    memcpy(block, bytes.data(), bytes.size());
    kd_msg msg{};
    kd_msg_parse(&msg, block, bytes.size());
    delete[] block;
    EXPECT_LE(msg.cmd, 12u);
    EXPECT_TRUE(msg.error == 0 || msg.error == 2 || msg.error == 6 || msg.error == 13 || msg.error == 15 ||
                msg.error == 17)
        << msg.error;
    // A NUL inside the value ends the copied text early; white space never gets in.
    if (msg.domain) {
        for (const char *p = msg.domain; *p; p++)
            EXPECT_FALSE(is_space(*p));
    }
    char *buf = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(kd_msg_response(&buf, &size, &msg, 3, nullptr), 1);
    frame_text(buf, size); // checks the capacity and padding, frees the block
    kd_free(msg.domain);
    EXPECT_EQ(slab_live_count(), live);
}

std::vector<std::string> corpus()
{
    std::vector<std::string> out;
    DIR *d = opendir(KELP_CLIENT_CORPUS);
    if (!d)
        return out;
    while (dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name.size() < 5 || name.substr(name.size() - 4) != ".req")
            continue;
        std::ifstream f(std::string(KELP_CLIENT_CORPUS) + "/" + name, std::ios::binary);
        out.emplace_back(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    }
    closedir(d);
    return out;
}

TEST(MsgFuzz, CorpusIsThere)
{
    EXPECT_GE(corpus().size(), 10u);
}

TEST(MsgFuzz, EveryTruncationOfTheCorpus)
{
    for (const std::string &req : corpus())
        for (size_t n = 1; n <= req.size(); n++)
            parse_and_check(req.substr(0, n));
}

TEST(MsgFuzz, ByteMutationsOfTheCorpus)
{
    std::mt19937 rng(20261121);
    for (const std::string &req : corpus()) {
        for (int round = 0; round < 300; round++) {
            std::string m = req;
            int flips = 1 + static_cast<int>(rng() % 4);
            for (int k = 0; k < flips && !m.empty(); k++)
                m[rng() % m.size()] = static_cast<char>(rng() & 0xff);
            parse_and_check(m.substr(0, 1 + rng() % m.size()));
        }
    }
}

TEST(MsgFuzz, RandomBlocksUpToTheLargestReceive)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 2000; round++) {
        size_t len = 1 + rng() % kMaxBlock;
        if (round % 4)
            len = 1 + rng() % 64; // short blocks reach the interesting paths more often
        std::string s(len, '\0');
        for (char &c : s)
            c = static_cast<char>(rng() & 0xff);
        parse_and_check(s);
    }
}

std::string pick(std::mt19937 &rng, const std::vector<std::string> &from)
{
    return from[rng() % from.size()];
}

// Requests built from the protocol's own words, keys and number shapes.
std::string structured(std::mt19937 &rng)
{
    static const std::vector<std::string> words = {"login", "logout", "body", "accounts", "enclosure", "OK",
                                                   "ERROR", "overview", "status", "image", "log", "x"};
    static const std::vector<std::string> keys = {"v:", "domain:", "profile_id:", "feed_id:", "uid:", "", "dom"};
    static const std::vector<std::string> values = {"3", "rss", "podcast", "99999999999", "-1", "",
                                                    "4294967296", "0", "12abc", std::string(300, '7')};
    static const std::vector<std::string> spaces = {" ", "\t", "\r\n", "\v\f", "", "  \t "};
    std::string s = pick(rng, spaces) + pick(rng, words);
    int fields = static_cast<int>(rng() % 6);
    for (int k = 0; k < fields; k++)
        s += pick(rng, spaces) + pick(rng, keys) + pick(rng, values);
    if (rng() % 3 == 0)
        s.push_back('\0');
    return s.substr(0, 1 + rng() % s.size());
}

TEST(MsgFuzz, GrammarShapedRequests)
{
    std::mt19937 rng(42);
    for (int round = 0; round < 20000; round++)
        parse_and_check(structured(rng));
}

TEST(MsgFuzz, LargestBlockOfOneLongRequest)
{
    std::string s = "body\tdomain:" + std::string(kMaxBlock - 12, 'r');
    ASSERT_EQ(s.size(), kMaxBlock);
    parse_and_check(s);
    std::string digits = "logout domain:rss profile_id:" + std::string(kMaxBlock - 29, '9');
    parse_and_check(digits);
}

} // namespace
