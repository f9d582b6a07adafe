// Feed sweeps: every document of a corpus is parsed as a complete and as a
// truncated download. Each parse must end without a crash or leak, with
// titled items and absolute site-relative URLs; for well-formed feeds the
// items must be exactly the titled item/entry elements, counted here
// independently from a DOM load. The real-world corpus ($KELP_CORPUS, by
// default shared/corpus beside the repository) is swept when it is there, the
// project's own feeds of tests/data always. The corpus-wide figures are
// compared with tests/corpus-figures.txt and tests/data/feed-figures.txt so
// that changes show up in review.
#include "tests/unit/feed/xml_fixture.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace {

const char kUrl[] = "http://corpus.example:81/path/feed.xml";
const char kBase[] = "http://corpus.example:81/";

struct corpus_file {
    std::string name;
    std::string kind;
};

// Files of root/MANIFEST.tsv with their kind (the last column); empty when
// there is no manifest.
std::vector<corpus_file> manifest(const std::string &root)
{
    std::vector<corpus_file> files;
    std::ifstream in(root + "/MANIFEST.tsv");
    std::string line;
    std::getline(in, line); // header
    while (std::getline(in, line)) {
        std::vector<std::string> cols;
        std::stringstream ss(line);
        for (std::string c; std::getline(ss, c, '\t');)
            cols.push_back(c);
        if (cols.size() >= 2)
            files.push_back({cols.front(), cols.back()});
    }
    return files;
}

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool has_text_or_cdata(mxml_node_t *element)
{
    mxml_node_t *title = mxmlFindElement(element, element, "title", nullptr, nullptr, MXML_DESCEND_FIRST);
    mxml_node_t *first = title ? mxmlGetFirstChild(title) : nullptr;
    if (!first)
        return false;
    if (mxmlGetType(first) == MXML_OPAQUE)
        return true;
    return mxmlGetType(first) == MXML_ELEMENT && strncmp(mxmlGetElement(first), "![CDATA[", 8) == 0;
}

// Titled item/entry elements of the document, by a DOM load; -1 if refused.
int count_titled_items(const char *doc)
{
    mxml_node_t *tree = mxmlLoadString(nullptr, doc, MXML_OPAQUE_CALLBACK);
    if (!tree)
        return -1;
    int n = 0;
    for (mxml_node_t *e = tree; e; e = mxmlWalkNext(e, tree, MXML_DESCEND)) {
        if (mxmlGetType(e) != MXML_ELEMENT)
            continue;
        const char *name = mxmlGetElement(e);
        if ((strcmp(name, "item") == 0 || strcmp(name, "entry") == 0) && has_text_or_cdata(e))
            n++;
    }
    mxmlDelete(tree);
    return n;
}

struct figures {
    long files = 0, parsed = 0, refused = 0, refused_wellformed = 0;
    long items = 0, enclosures = 0, images = 0, relative_made_absolute = 0;
    long truncated_parsed = 0, truncated_items = 0;
    std::vector<std::string> refused_names; // well-formed feeds Mini-XML cannot read

    std::string text() const
    {
        std::ostringstream o;
        o << "files " << files << "\nparsed " << parsed << "\nrefused " << refused
          << "\nrefused_wellformed " << refused_wellformed << "\nitems " << items
          << "\nenclosures " << enclosures << "\nimages " << images << "\nrelative_made_absolute "
          << relative_made_absolute << "\ntruncated_parsed " << truncated_parsed
          << "\ntruncated_items " << truncated_items << "\n";
        for (const std::string &n : refused_names)
            o << "refused_wellformed_file " << n << "\n";
        return o.str();
    }
};

void ignore_errors(const char *) {}

class Corpus : public XmlTest {
protected:
    // Checks one parse; returns the number of items.
    long check(const parsed &p, const std::string &name, figures *fig)
    {
        long n = 0;
        for (kd_item *i : p.items()) {
            n++;
            EXPECT_NE(i->title, nullptr) << name;
            for (kd_attachment *lists[] = {i->enclosures, i->images}; kd_attachment *l : lists) {
                for (kd_attachment *a = l; a; a = a->next) {
                    if (!a->url)
                        continue;
                    EXPECT_NE(a->url[0], '/') << name << ": " << a->url;
                    if (fig && strncmp(a->url, kBase, sizeof(kBase) - 1) == 0)
                        fig->relative_made_absolute++;
                    if (fig)
                        (l == i->images ? fig->images : fig->enclosures)++;
                }
            }
        }
        return n;
    }

    void sweep(const std::string &root, const std::vector<corpus_file> &files,
               const std::string &figures_path);
};

std::string expected_figures(const std::string &path)
{
    std::string text = slurp(path);
    std::string out;
    std::stringstream ss(text);
    for (std::string line; std::getline(ss, line);) {
        if (!line.empty() && line[0] != '#')
            out += line + "\n";
    }
    return out;
}

void Corpus::sweep(const std::string &root, const std::vector<corpus_file> &files,
                   const std::string &figures_path)
{
    figures fig;
    for (const corpus_file &f : files) {
        std::string doc = slurp(root + "/feeds/" + f.name);
        bool wellformed = f.kind != "malformed" && f.kind != "other";
        fig.files++;

        parsed p;
        p.body = slab_body(doc);
        kdx_charset_info cs;
        p.feed = kdx_parse_feed_charset(200, kUrl, "text/xml", &p.body, &p.title, &cs);
        long n = check(p, f.name, &fig);
        mxmlSetErrorCallback(ignore_errors);
        int want = count_titled_items(p.body);
        bool complete_ok = p.feed != nullptr;
        if (complete_ok) {
            fig.parsed++;
            fig.items += n;
            // A body whose conversion outgrew the download bound is read as a
            // truncated download; the DOM sees the cut body.
            if (!cs.cut) {
                EXPECT_NE(want, -1) << f.name << ": parsed by SAX but refused by DOM";
            }
            if (wellformed && !cs.cut) {
                EXPECT_EQ(n, want) << f.name;
            }
        } else {
            fig.refused++;
            if (wellformed) {
                fig.refused_wellformed++;
                fig.refused_names.push_back(f.name);
            }
            EXPECT_EQ(want, -1) << f.name << ": refused by SAX but loaded by DOM";
        }
        p.release();
        EXPECT_EQ(slab_live_count(), base_) << f.name;

        parsed t = parse_doc(doc, 2, kUrl, "text/xml");
        long tn = check(t, f.name, nullptr);
        ASSERT_NE(t.feed, nullptr) << f.name; // a truncated download never fails as a whole
        fig.truncated_parsed++;
        fig.truncated_items += tn;
        if (complete_ok) {
            EXPECT_EQ(tn, n) << f.name; // the status only matters after an error
        }
        t.release();
        EXPECT_EQ(slab_live_count(), base_) << f.name;
    }
    EXPECT_EQ(fig.text(), expected_figures(figures_path))
        << "corpus figures changed; if intended, update " << figures_path << " to:\n"
        << fig.text();
}

// The real-world corpus is not part of the repository: a clone alone skips it.
TEST_F(Corpus, EveryFileParsesSafely)
{
    const char *env = getenv("KELP_CORPUS");
    std::string root = env && *env ? env : KELP_CORPUS_DEFAULT;
    std::vector<corpus_file> files = manifest(root);
    if (files.empty())
        GTEST_SKIP() << "real-world corpus not found at " << root << " (set KELP_CORPUS): sweep skipped";
    ASSERT_EQ(files.size(), 392u) << "unexpected corpus at " << root;
    sweep(root, files, KELP_CORPUS_FIGURES);
}

TEST_F(Corpus, OwnFeedsParseSafely)
{
    std::vector<corpus_file> files = manifest(KELP_TEST_DATA);
    size_t on_disk = 0;
    for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator(KELP_TEST_DATA "/feeds"))
        on_disk++;
    ASSERT_EQ(files.size(), on_disk) << "every file of tests/data/feeds belongs in tests/data/MANIFEST.tsv";
    sweep(KELP_TEST_DATA, files, KELP_TEST_DATA "/feed-figures.txt");
}

} // namespace
