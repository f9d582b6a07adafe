// The CA bundle read one certificate at a time: which of its certificates a
// chain keeps, that the verdict against them is the verdict against the
// whole bundle, and how unusable bundles are told apart. The certificates
// are fixtures of tests/data/tls (made by make-tls-fixtures.sh).
#include <gtest/gtest.h>

#if KELP_TLS
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <mbedtls/x509_crt.h>

#include "http/tls_ca.h"
#include "platform/slab.h"

namespace {

std::string fixture(const std::string &name)
{
    std::ifstream in(std::string(KELP_TLS_FIXTURES) + "/" + name, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    EXPECT_FALSE(s.str().empty()) << name;
    return s.str();
}

// A bundle file made of fixture certificates (by name) and literal text.
class bundle_file {
  public:
    explicit bundle_file(const std::string &content)
    {
        char tmpl[] = "/tmp/kelp-ca-XXXXXX";
        int fd = mkstemp(tmpl);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        close(fd);
        path_ = tmpl;
    }
    ~bundle_file() { unlink(path_.c_str()); }
    const char *path() const { return path_.c_str(); }

  private:
    std::string path_;
};

std::string pem(const std::vector<std::string> &names)
{
    std::string s;
    for (const auto &n : names)
        s += fixture(n + ".crt");
    return s;
}

// A parsed list of certificates, freed with the test.
struct crts {
    mbedtls_x509_crt c;
    crts() { mbedtls_x509_crt_init(&c); }
    explicit crts(const std::vector<std::string> &names) : crts()
    {
        std::string p = pem(names);
        EXPECT_EQ(mbedtls_x509_crt_parse(&c, reinterpret_cast<const unsigned char *>(p.c_str()), p.size() + 1),
                  0);
    }
    ~crts() { mbedtls_x509_crt_free(&c); }
    crts(const crts &) = delete;
    crts &operator=(const crts &) = delete;
};

// The fixtures a list holds, by name, found by their exact bytes.
std::vector<std::string> names_of(const mbedtls_x509_crt *list)
{
    static const char *all[] = {"root", "inter", "leaf", "impostor", "filler1", "filler2"};
    std::vector<std::string> out;
    for (const mbedtls_x509_crt *c = list; c && c->raw.len; c = c->next)
        for (const char *n : all) {
            crts one({n});
            if (one.c.raw.len == c->raw.len && memcmp(one.c.raw.p, c->raw.p, c->raw.len) == 0)
                out.push_back(n);
        }
    return out;
}

std::vector<std::string> kept(const std::string &content, const std::vector<std::string> &chain)
{
    bundle_file f(content);
    crts peer(chain);
    crts trust;
    EXPECT_EQ(tls_ca_for_chain(f.path(), &peer.c, &trust.c), 0);
    return names_of(&trust.c);
}

const std::string BROKEN = "-----BEGIN CERTIFICATE-----\nnot base64 !\n-----END CERTIFICATE-----\n";

TEST(TlsCa, KeepsOnlyTheIssuersOfTheChainInBundleOrder)
{
    std::string bundle = pem({"filler1", "impostor", "filler2", "inter", "root"});
    EXPECT_EQ(kept(bundle, {"leaf", "inter"}), (std::vector<std::string>{"impostor", "inter", "root"}));
    EXPECT_EQ(kept(bundle, {"leaf"}), (std::vector<std::string>{"inter"}));
    EXPECT_EQ(kept(bundle, {"inter"}), (std::vector<std::string>{"impostor", "root"}));
    EXPECT_EQ(kept(pem({"filler1", "filler2"}), {"leaf", "inter"}), std::vector<std::string>{});
}

TEST(TlsCa, SkipsBlocksItCannotUseAndTextBetween)
{
    std::string bundle = "# a comment\n" + BROKEN + "-----BEGIN TRUSTED CERTIFICATE-----\nAAAA\n"
                         "-----END TRUSTED CERTIFICATE-----\n" + pem({"root"}) + "-----BEGIN CERTIFICATE-----\nMII";
    EXPECT_EQ(kept(bundle, {"inter"}), std::vector<std::string>{"root"});
    bundle_file f(bundle);
    EXPECT_EQ(tls_ca_check(f.path()), 0);
}

TEST(TlsCa, ReadsABundleOfOneDerCertificate)
{
    EXPECT_EQ(kept(fixture("der.crt"), {"inter"}), std::vector<std::string>{"root"});
    bundle_file f(fixture("der.crt"));
    EXPECT_EQ(tls_ca_check(f.path()), 0);
}

TEST(TlsCa, CheckTellsWhyNothingIsUsable)
{
    EXPECT_EQ(tls_ca_check("/nonexistent/kelp-ca.crt"), MBEDTLS_ERR_X509_FILE_IO_ERROR);
    bundle_file empty("");
    EXPECT_EQ(tls_ca_check(empty.path()), MBEDTLS_ERR_X509_FILE_IO_ERROR);
    bundle_file broken(BROKEN + BROKEN);
    EXPECT_LT(tls_ca_check(broken.path()), 0);
    bundle_file text("no certificates here\n");
    EXPECT_LT(tls_ca_check(text.path()), 0);
    crts peer({"leaf"});
    crts trust;
    EXPECT_EQ(tls_ca_for_chain("/nonexistent/kelp-ca.crt", &peer.c, &trust.c), MBEDTLS_ERR_X509_FILE_IO_ERROR);
}

// The verdict for a chain against the kept CAs equals the verdict against
// the whole bundle loaded at once, for every order and choice of bundle.
uint32_t verdict(const mbedtls_x509_crt *trust, const std::vector<std::string> &chain, const char *host)
{
    crts peer(chain);
    uint32_t flags = 0;
    mbedtls_x509_crt_verify(&peer.c, const_cast<mbedtls_x509_crt *>(trust), nullptr, host, &flags, nullptr,
                            nullptr);
    return flags;
}

TEST(TlsCa, VerdictAgainstKeptCasIsThatOfTheWholeBundle)
{
    const std::vector<std::string> cas = {"root", "impostor", "inter", "filler1"};
    const std::vector<std::vector<std::string>> chains = {
        {"leaf"}, {"leaf", "inter"}, {"leaf", "inter", "root"}, {"leaf", "inter", "impostor"}, {"inter"}, {"root"},
        {"impostor"}};
    int trusted = 0;
    for (unsigned pick = 0; pick < (1u << cas.size()); pick++) {
        for (bool reversed : {false, true}) {
            std::vector<std::string> names;
            for (size_t i = 0; i < cas.size(); i++)
                if (pick & (1u << i))
                    names.push_back(cas[i]);
            if (reversed)
                std::reverse(names.begin(), names.end());
            std::string content = pem(names) + (names.empty() ? BROKEN : "");
            bundle_file f(content);
            crts whole;
            mbedtls_x509_crt_parse_file(&whole.c, f.path());
            for (const auto &chain : chains) {
                const char *host = chain[0] == "leaf" ? "leaf.test" : nullptr;
                crts peer(chain);
                crts trust;
                ASSERT_EQ(tls_ca_for_chain(f.path(), &peer.c, &trust.c), 0);
                uint32_t want = verdict(&whole.c, chain, host);
                EXPECT_EQ(verdict(&trust.c, chain, host), want) << content << " chain " << chain.size();
                trusted += want == 0;
            }
        }
    }
    EXPECT_GT(trusted, 0); // the sweep covers accepted chains as well as refused ones
}

TEST(TlsCa, WrongHostIsStillNamedAgainstKeptCas)
{
    bundle_file f(pem({"root"}));
    crts peer({"leaf", "inter"});
    crts trust;
    ASSERT_EQ(tls_ca_for_chain(f.path(), &peer.c, &trust.c), 0);
    EXPECT_EQ(verdict(&trust.c, {"leaf", "inter"}, "leaf.test"), 0u);
    EXPECT_EQ(verdict(&trust.c, {"leaf", "inter"}, "other.test"), uint32_t{MBEDTLS_X509_BADCERT_CN_MISMATCH});
}

TEST(TlsCa, RunningOutOfMemoryIsAnErrorAndLeavesNothing)
{
    bundle_file f(pem({"filler1", "root"}));
    crts peer({"inter"});
    size_t live = slab_live_count();
    slab_fail_after(0);
    crts trust;
    EXPECT_EQ(tls_ca_for_chain(f.path(), &peer.c, &trust.c), MBEDTLS_ERR_X509_ALLOC_FAILED);
    slab_fail_after(0);
    EXPECT_EQ(tls_ca_check(f.path()), MBEDTLS_ERR_X509_ALLOC_FAILED);
    slab_fail_after(-1);
    EXPECT_EQ(slab_live_count(), live);
    EXPECT_EQ(names_of(&trust.c), std::vector<std::string>{});
}

} // namespace
#endif
