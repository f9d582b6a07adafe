// Feeds that change between polls in every way real feeds do (items
// reordered, duplicated, retitled, all replaced; empty, broken, truncated
// documents; a server gone), synthetic and from the real-world corpus. After
// every poll the items' uids and the subscriptions' "read" and "first" are
// checked against what the previous state allows, and a failed poll must
// leave both exactly as they were.
#include "tests/unit/refresh/corpus_files.h"
#include "tests/unit/refresh/refresh_fixture.h"

#include <functional>
#include <set>

using namespace kelp_test;

namespace {

kd_item *copy_item(const kd_item *it)
{
    auto *c = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
    c->title = kd_strdup(it->title);
    c->guid = it->guid ? kd_strdup(it->guid) : nullptr;
    c->hash = it->hash;
    c->uid = it->uid;
    return c;
}

kd_item *copy_list(const std::vector<const kd_item *> &items)
{
    kd_item *head = nullptr, **tail = &head;
    for (const kd_item *it : items) {
        *tail = copy_item(it);
        tail = &(*tail)->next;
    }
    return head;
}

std::vector<const kd_item *> listed(const kd_item *it)
{
    std::vector<const kd_item *> v;
    for (; it; it = it->next)
        v.push_back(it);
    return v;
}

void free_list(kd_item *it)
{
    while (it) {
        kd_item *next = it->next;
        kdn_free_item(it);
        it = next;
    }
}

// The state a poll starts from: the items and every subscription's marks.
struct before_poll {
    kd_item *items = nullptr;
    const kd_item *pointer = nullptr;
    uint32_t nextuid = 0;
    std::vector<std::string> read, first;
    ~before_poll() { free_list(items); }
};

class hostile_test : public refresh_test {
protected:
    kd_node *n = nullptr;

    // Every feed of a collection polled, changed every way and failed; returns
    // how many of them held items.
    size_t sweep(const std::string &root, const std::vector<std::string> &files)
    {
        size_t merged = 0;
        for (const auto &f : files) {
            SCOPED_TRACE(f);
            std::string body = slurp(root + "/feeds/" + f);
            n = setup();
            verbosity = 0;
            poll_checked(body, 200);
            if (n->nchildren > 0) {
                merged++;
                mark_some();
                run_changes();
                run_failures(body);
                EXPECT_GT(n->nchildren, 0u);
            }
            TearDown();
            SetUp();
            if (HasFailure())
                break;
        }
        return merged;
    }

    std::string attr_of(int p, const char *name) { return attr(sub(p), name); }

    void snapshot(before_poll &b)
    {
        free_list(b.items);
        b.items = copy_list(listed(n->children));
        b.pointer = n->children;
        b.nextuid = n->nextuid;
        b.read = {attr_of(1, "read"), attr_of(2, "read")};
        b.first = {attr_of(1, "first"), attr_of(2, "first")};
    }

    // A poll that failed: nothing of the feed or the marks moved.
    void expect_unchanged(const before_poll &b)
    {
        EXPECT_EQ(n->children, b.pointer);
        EXPECT_EQ(n->nextuid, b.nextuid);
        EXPECT_EQ(uids(n).size(), listed(b.items).size());
        for (int p : {1, 2}) {
            EXPECT_EQ(attr_of(p, "read"), b.read[p - 1]);
            EXPECT_EQ(attr_of(p, "first"), b.first[p - 1]);
        }
    }

    // A poll that merged: each item has the uid of the first old item it is
    // (or the next fresh one, in order), and exactly the marks of unchanged
    // items moved, with "first" naming the new first item when any is left.
    void expect_merged(const before_poll &b)
    {
        uint32_t fresh = b.nextuid;
        std::vector<bitfield> expected(2);
        bitfield old[2];
        for (int p = 0; p < 2; p++) {
            bf_init(&expected[p]);
            bf_init(&old[p]);
            bf_from_string(&old[p], b.read[p] == "(none)" ? nullptr : b.read[p].c_str());
        }
        uint32_t j = 0;
        for (const kd_item *it = n->children; it; it = it->next, j++) {
            uint32_t pos = 0, result = 2;
            const kd_item *o = b.items;
            for (; o; o = o->next, pos++)
                if ((result = kdn_compare(o, it)) != 2)
                    break;
            if (!o) {
                EXPECT_EQ(it->uid, fresh++) << it->title;
                continue;
            }
            EXPECT_EQ(it->uid, o->uid) << it->title;
            for (int p = 0; p < 2; p++)
                if (result == 0 && bf_isset(&old[p], pos))
                    bf_set(&expected[p], j);
        }
        EXPECT_EQ(n->nextuid, fresh);
        EXPECT_EQ(n->nchildren, j);
        for (int p = 0; p < 2; p++) {
            char *text = nullptr;
            bf_to_string(&text, &expected[p]);
            std::string want = text && *text ? text : "(none)";
            kd_free(text);
            EXPECT_EQ(attr_of(p + 1, "read"), want);
            EXPECT_EQ(attr_of(p + 1, "first"), want == "(none)" ? "(none)" : hash_text(n->children->title));
            bf_free(&expected[p]);
            bf_free(&old[p]);
        }
    }

    // Merges a list made from the current items, as a poll of a changed feed would.
    void merge_list(kd_item *list)
    {
        before_poll b;
        snapshot(b);
        auto *parsed = static_cast<kd_node *>(kd_calloc(1, sizeof(kd_node)));
        parsed->children = list;
        merge_feed(entry_el("1"), parsed);
        kdn_free_feed(parsed);
        expect_merged(b);
    }

    void poll_checked(const std::string &body, int code)
    {
        before_poll b;
        snapshot(b);
        g_answer = scripted_answer{};
        g_answer.code = code;
        g_answer.body = body;
        g_answer.has_body = code == 200 || code == HTTPCLI_TRUNCATED;
        poll(n);
        if (n->children == b.pointer)
            expect_unchanged(b);
        else
            expect_merged(b);
    }

    void mark_some()
    {
        uint32_t count = n->nchildren;
        kd_mark_read(sub(1), 0);
        if (count > 2)
            kd_mark_read(sub(1), 2);
        kd_mark_read(sub(2), count - 1);
    }

    // Every change between polls, in turn, on whatever the feed holds now.
    void run_changes()
    {
        auto items = [this] { return listed(n->children); };
        auto reversed = items();
        std::reverse(reversed.begin(), reversed.end());
        merge_list(copy_list(reversed));
        mark_some();
        auto doubled = items();
        doubled.insert(doubled.begin(), doubled.front());
        doubled.push_back(doubled.back());
        merge_list(copy_list(doubled));
        mark_some();
        kd_item *retitled = copy_list(items());
        int k = 0;
        for (kd_item *it = retitled; it; it = it->next)
            if (k++ % 2 == 0) {
                std::string t = std::string(it->title) + " (updated)";
                kd_free(it->title);
                it->title = kd_strdup(t.c_str());
                it->hash = fnv_hash(it->title);
            }
        merge_list(retitled);
        mark_some();
        auto dropped = items();
        if (dropped.size() > 2)
            dropped.erase(dropped.begin() + 1, dropped.end() - 1);
        merge_list(copy_list(dropped));
        mark_some();
    }

    void run_failures(const std::string &body)
    {
        for (int code : {int(HTTPCLI_NO_CONNECTION), 404, 500, 301, int(HTTPCLI_NO_MEMORY)})
            poll_checked("", code);
        poll_checked(rss_feed(""), 200);
        poll_checked("", 200);
        poll_checked(body.substr(0, body.size() / 2), 200);
        poll_checked(body.substr(0, body.size() / 2), HTTPCLI_TRUNCATED);
        poll_checked("\xef\xbb\xbf<", 200);
    }
};

TEST_F(hostile_test, SyntheticFeedChangingEveryWay)
{
    n = setup();
    std::string base = rss_feed(rss_item("A", "a") + rss_item("B", "b") + rss_item("C") + rss_item("D", "d") +
                                rss_item("News") + rss_item("News update"));
    poll_checked(base, 200);
    ASSERT_EQ(n->nchildren, 6u);
    mark_some();
    run_changes();
    // All replaced, then the old items back: new uids, and none reused.
    poll_checked(rss_feed(rss_titles({"P", "Q", "R"})), 200);
    mark_some();
    poll_checked(base, 200);
    auto now = uids(n);
    std::set<uint32_t> seen(now.begin(), now.end());
    EXPECT_EQ(seen.size(), 6u);
    EXPECT_GE(*seen.begin(), 9u);
    mark_some();
    run_failures(base);
    EXPECT_GT(n->nchildren, 0u);
}

TEST_F(hostile_test, DuplicateGuidsWithOtherTitlesShareOneUid)
{
    n = setup();
    poll_checked(rss_feed(rss_item("A", "same") + rss_item("B", "other")), 200);
    mark_some();
    poll_checked(rss_feed(rss_item("A", "same") + rss_item("A2", "same") + rss_item("A3", "same")), 200);
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 0, 0}));
}

TEST_F(hostile_test, TitlePrefixMatchesAsAnUpdate)
{
    // An old title that is the start of a new one is the same item, updated.
    n = setup();
    poll_checked(rss_feed(rss_titles({"News", "Weather"})), 200);
    kd_mark_read(sub(1), 0);
    poll_checked(rss_feed(rss_titles({"News update", "Weather"})), 200);
    EXPECT_EQ(uids(n), (std::vector<uint32_t>{0, 1}));
    EXPECT_EQ(attr(sub(1), "read"), "(none)");
}


TEST_F(hostile_test, CorpusFeedsChangingEveryWay)
{
    std::string root = corpus_root();
    auto files = manifest_files(root);
    if (files.empty())
        GTEST_SKIP() << corpus_absent(root);
    ASSERT_GT(files.size(), 300u);
    EXPECT_GT(sweep(root, files), 250u);
}

TEST_F(hostile_test, OwnFeedsChangingEveryWay)
{
    auto files = manifest_files(KELP_TEST_DATA);
    ASSERT_GE(files.size(), 10u);
    EXPECT_GE(sweep(KELP_TEST_DATA, files), 7u);
}

} // namespace
