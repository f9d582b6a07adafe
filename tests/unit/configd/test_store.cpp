// configd's domain files under faults: a save that cannot be written leaves
// the stored document byte for byte and no temporary file, and the leftovers
// of saves interrupted by a crash are found and removed.
#include <gtest/gtest.h>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include "configd/store.h"
#include "util/kd_mxml.h"

namespace {

const char kOld[] = "<?xml version=\"1.0\"?><pool /><profiles><profile id=\"1\"><item entry=\"1\" read=\"01\" />"
                    "</profile></profiles>";

class store_test : public ::testing::Test {
protected:
    std::string dir;

    void SetUp() override
    {
        char tmpl[] = "/tmp/kelp-store-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }

    std::string file(const std::string &name)
    {
        std::ifstream in(dir + "/" + name, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    bool exists(const std::string &name)
    {
        struct stat st;
        return stat((dir + "/" + name).c_str(), &st) == 0;
    }
    void put(const std::string &name, const std::string &text)
    {
        std::ofstream(dir + "/" + name, std::ios::binary) << text;
    }
    // A document's text as configd writes it.
    static std::string rendered(const char *text)
    {
        std::string why;
        kd_mxml_tree doc(cfg_parse(text, &why));
        char *out = mxmlSaveAllocString(doc.get(), MXML_NO_CALLBACK);
        std::string s = out ? out : "";
        free(out);
        return s;
    }
    bool store(const char *text, std::string *why)
    {
        kd_mxml_tree doc(cfg_parse(text, why));
        return doc && cfg_store(dir, "rss", doc.get(), why);
    }
};

TEST_F(store_test, SaveReplacesTheDocumentAndLeavesNoTemporaryFile)
{
    std::string why;
    ASSERT_TRUE(store(kOld, &why)) << why;
    EXPECT_EQ(why, "");
    EXPECT_EQ(file("rss.xml"), rendered(kOld));
    EXPECT_FALSE(exists(".rss.xml.tmp"));
}

// A file size limit makes the write fail half way, as a full disk does.
TEST_F(store_test, SaveThatCannotBeWrittenKeepsTheOldDocumentWhole)
{
    std::string why;
    ASSERT_TRUE(store(kOld, &why)) << why;
    std::string big = std::string("<?xml version=\"1.0\"?><pool>") + std::string(8192, ' ') + "</pool><profiles />";
    rlimit was;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &was), 0);
    rlimit small = was;
    small.rlim_cur = 4096;
    auto old_handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    bool stored = store(big.c_str(), &why);
    setrlimit(RLIMIT_FSIZE, &was);
    signal(SIGXFSZ, old_handler);
    EXPECT_FALSE(stored);
    EXPECT_EQ(why, "cannot store document: File too large");
    EXPECT_EQ(file("rss.xml"), rendered(kOld));
    EXPECT_FALSE(exists(".rss.xml.tmp"));
    // The next save that fits goes through.
    ASSERT_TRUE(store(big.c_str(), &why)) << why;
    EXPECT_EQ(file("rss.xml"), rendered(big.c_str()));
}

// Whatever stands at the temporary file's name is replaced, never written
// through: a link planted there leaves its target alone.
TEST_F(store_test, SaveNeverWritesThroughALinkAtTheTemporaryName)
{
    put("victim", "untouched");
    ASSERT_EQ(symlink((dir + "/victim").c_str(), (dir + "/.rss.xml.tmp").c_str()), 0);
    std::string why;
    ASSERT_TRUE(store(kOld, &why)) << why;
    EXPECT_EQ(file("victim"), "untouched");
    struct stat st;
    ASSERT_EQ(lstat((dir + "/rss.xml").c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(file("rss.xml"), rendered(kOld));
    EXPECT_FALSE(exists(".rss.xml.tmp"));
}

TEST_F(store_test, LeftoversOfInterruptedSavesAreRemovedAndNothingElse)
{
    put("rss.xml", kOld);
    put(".rss.xml.tmp", "<?xml version=\"1.0\"?><pool");
    put(".podcast.xml.tmp", "");
    for (const char *other : {".Rss.xml.tmp", ".xml.tmp", "..xml.tmp", ".rss.xml.tmp~", "rss.xml.tmp", ".notes"})
        put(other, "x");
    std::vector<std::string> gone = cfg_remove_leftovers(dir);
    std::sort(gone.begin(), gone.end());
    EXPECT_EQ(gone, (std::vector<std::string>{".podcast.xml.tmp", ".rss.xml.tmp"}));
    EXPECT_FALSE(exists(".rss.xml.tmp"));
    EXPECT_FALSE(exists(".podcast.xml.tmp"));
    EXPECT_EQ(file("rss.xml"), kOld);
    for (const char *other : {".Rss.xml.tmp", ".xml.tmp", "..xml.tmp", ".rss.xml.tmp~", "rss.xml.tmp", ".notes"})
        EXPECT_TRUE(exists(other)) << other;
    EXPECT_TRUE(cfg_remove_leftovers(dir).empty());
    EXPECT_TRUE(cfg_remove_leftovers(dir + "/missing").empty());
}

} // namespace
