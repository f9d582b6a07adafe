// Read marks across a restart as a property, over the real-world corpus, the
// project's own feeds and seeded generated feeds: whichever items two
// profiles read, a new daemon's first fetch of the same document, and of the
// document with two new items on top, shows exactly those items read.
#include "tests/unit/refresh/corpus_files.h"
#include "tests/unit/refresh/restart_fixture.h"

#include <filesystem>
#include <random>

using namespace kelp_test;

namespace {

// A document and the same document with two new items before its first one.
struct feed_pair {
    std::string body, on_top;
};

const char kNewTitles[] = "<title>Kelp extra one</title></@><@><title>Kelp extra two</title></@>";

// Two items of the element name `name`, in the document's own element form.
std::string two_new(const std::string &name)
{
    std::string s = std::string("<@>") + kNewTitles;
    for (size_t at = s.find('@'); at != std::string::npos; at = s.find('@', at + 1))
        s.replace(at, 1, name);
    return s;
}

// Where the first item ("item" or "entry" element) of a document starts,
// with its element name; npos when there is none.
size_t first_item_tag(const std::string &doc, std::string *name)
{
    for (size_t at = doc.find('<'); at != std::string::npos; at = doc.find('<', at + 1)) {
        for (const char *n : {"item", "entry"}) {
            size_t len = strlen(n);
            char after = doc.compare(at + 1, len, n) == 0 && at + 1 + len < doc.size() ? doc[at + 1 + len] : 'x';
            if (after == '>' || after == ' ' || after == '\t' || after == '\r' || after == '\n') {
                *name = n;
                return at;
            }
        }
    }
    return std::string::npos;
}

feed_pair with_two_on_top(const std::string &doc)
{
    std::string name;
    size_t at = first_item_tag(doc, &name);
    if (at == std::string::npos)
        return {doc, doc};
    return {doc, doc.substr(0, at) + two_new(name) + doc.substr(at)};
}

// A seeded choice of positions among n items; never all, often none.
std::set<uint32_t> choose(std::mt19937 &rng, uint32_t n)
{
    std::set<uint32_t> s;
    std::uniform_int_distribution<int> coin(0, 2);
    for (uint32_t j = 0; j < n; j++)
        if (coin(rng) == 0)
            s.insert(j);
    return s;
}

std::set<uint32_t> moved(const std::set<uint32_t> &s, uint32_t by)
{
    std::set<uint32_t> out;
    for (uint32_t j : s)
        out.insert(j + by);
    return out;
}

class property_test : public restart_test {
protected:
    // The property for one document; false when it yields no items.
    bool holds_for(const feed_pair &f, std::mt19937 &rng)
    {
        std::vector<std::string> before = parsed_titles(f.body);
        if (before.empty())
            return false;
        std::vector<std::string> after = parsed_titles(f.on_top);
        std::vector<std::string> below(after.begin() + std::min<size_t>(2, after.size()), after.end());
        EXPECT_EQ(below, before) << "two items on top";
        std::set<uint32_t> chosen[2] = {choose(rng, before.size()), choose(rng, before.size())};
        read_and_restart(f.body, f.body, chosen, 0);
        read_and_restart(f.body, f.on_top, chosen, 2);
        return true;
    }

    // One daemon reads the chosen items of `first`, the next fetches `next`.
    void read_and_restart(const std::string &first, const std::string &next, const std::set<uint32_t> chosen[2],
                          uint32_t shift)
    {
        setup();
        merge_doc(first);
        for (int p : {1, 2})
            for (uint32_t j : chosen[p - 1])
                kd_mark_read(sub(p), j);
        restart(saved());
        merge_doc(next);
        std::string top = parsed_titles(next).front();
        for (int p : {1, 2}) {
            EXPECT_EQ(read_positions(p), moved(chosen[p - 1], shift)) << "profile " << p << ", shift " << shift;
            std::string first = attr(sub(p), "first");
            bool named = chosen[p - 1].empty() ? first == "(none)" : names_title(first, top);
            EXPECT_TRUE(named) << "profile " << p << ": first=" << first;
        }
        TearDown();
        SetUp();
    }

    // The property over every file of a folder's feeds; returns how many held items.
    size_t sweep(const std::string &folder, const std::vector<std::string> &files)
    {
        std::mt19937 rng(24);
        size_t cases = 0;
        for (const auto &f : files) {
            SCOPED_TRACE(f);
            cases += holds_for(with_two_on_top(slurp(folder + "/" + f)), rng);
            if (HasFailure())
                break;
        }
        return cases;
    }
};

TEST_F(property_test, CorpusFeeds)
{
    std::string root = corpus_root();
    auto files = manifest_files(root);
    if (files.empty())
        GTEST_SKIP() << corpus_absent(root);
    EXPECT_GT(sweep(root + "/feeds", files), 250u) << files.size() << " files";
}

TEST_F(property_test, OwnFeedsAndLegacyCharsets)
{
    auto files = manifest_files(KELP_TEST_DATA);
    ASSERT_GE(files.size(), 10u);
    EXPECT_GE(sweep(KELP_TEST_DATA "/feeds", files), 7u);
    std::vector<std::string> legacy;
    for (const auto &e : std::filesystem::directory_iterator(KELP_TEST_DATA "/charsets"))
        if (e.path().filename().string().find(".utf8.") == std::string::npos)
            legacy.push_back(e.path().filename().string());
    ASSERT_GE(legacy.size(), 10u);
    EXPECT_EQ(sweep(KELP_TEST_DATA "/charsets", legacy), legacy.size());
}

// --- generated feeds ---

// Title words as a document in one charset writes them; kdx converts every
// legacy charset to UTF-8 before the titles are taken.
struct charset_words {
    const char *declaration; // empty: undeclared, read as windows-1252
    std::vector<std::string> words;
};

const charset_words kCharsets[] = {
    {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>", {"caf\xC3\xA9", "\xC3\xBC" "ber", "\xE2\x82\xAC" "5"}},
    {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>", {"caf\xE9", "\xFC" "ber", "5\xA3"}},
    {"", {"caf\xE9", "\x80" "5", "\x93quoted\x94"}},
    {"<?xml version=\"1.0\" encoding=\"KOI8-R\"?>", {"\xEE\xCF\xD7\xCF\xD3\xD4\xD8", "\xD3\xC5\xC7\xCF\xC4\xCE\xD1"}},
};

const char *const kWords[] = {"Story", "News", "Update", "Kelp", "Gateway", "Weather", "the", "of"};

class generator {
public:
    explicit generator(uint32_t seed) : rng_(seed) {}

    feed_pair feed()
    {
        cs_ = &kCharsets[pick(std::size(kCharsets))];
        bool atom = pick(3) == 0;
        uint32_t n = pick(5) == 0 ? 20 + pick(50) : 1 + pick(20);
        std::string items;
        for (uint32_t j = 0; j < n; j++)
            items += item(atom, j);
        std::string head = std::string(cs_->declaration) +
                           (atom ? "<feed xmlns=\"http://www.w3.org/2005/Atom\"><title>Generated</title>"
                                 : "<rss version=\"2.0\"><channel><title>Generated</title>");
        std::string tail = atom ? "</feed>" : "</channel></rss>";
        return {head + items + tail, head + two_new(atom ? "entry" : "item") + items + tail};
    }

    std::mt19937 &rng() { return rng_; }

private:
    std::mt19937 rng_;
    const charset_words *cs_ = nullptr;

    uint32_t pick(size_t n) { return std::uniform_int_distribution<uint32_t>(0, uint32_t(n) - 1)(rng_); }

    // One to four words, some of them written in the document's charset;
    // few words make titles that repeat, as in real feeds.
    std::string words()
    {
        std::string t;
        for (uint32_t k = 0, n = 1 + pick(4); k < n; k++) {
            t += k ? " " : "";
            t += pick(4) == 0 ? cs_->words[pick(cs_->words.size())] : kWords[pick(std::size(kWords))];
        }
        return t;
    }

    // A title in one of the forms feeds use.
    std::string title()
    {
        switch (pick(6)) {
        case 0:
            return words();
        case 1:
            return "<![CDATA[" + words() + "]]>";
        case 2:
            return "<![CDATA[<b>" + words() + "</b> <a href=\"/x\">" + words() + "</a><br>]]>";
        case 3:
            return words() + " &amp; " + words() + " &lt;&#233;&gt;";
        case 4:
            return "<![CDATA[" + words() + " &eacute; &mdash; &#8364; &amp;amp; " + words() + "]]>";
        default:
            return pick(2) ? "<![CDATA[ ]]>" : "<![CDATA[" + words() + "\n]]>";
        }
    }

    std::string item(bool atom, uint32_t j)
    {
        std::string id = pick(3) == 0 ? "" : "g" + std::to_string(pick(2) ? j : pick(j + 1));
        if (atom)
            return "<entry><title>" + title() + "</title>" + (id.empty() ? "" : "<id>" + id + "</id>") + "</entry>";
        return "<item><title>" + title() + "</title>" + (id.empty() ? "" : "<guid>" + id + "</guid>") +
               "<description>" + words() + "</description></item>";
    }
};

TEST_F(property_test, GeneratedFeeds)
{
    generator gen(20240601);
    size_t cases = 0;
    for (int k = 0; k < 150; k++) {
        SCOPED_TRACE("generated feed " + std::to_string(k));
        cases += holds_for(gen.feed(), gen.rng());
        if (HasFailure())
            break;
    }
    EXPECT_EQ(cases, 150u); // every generated feed has items
}

} // namespace
