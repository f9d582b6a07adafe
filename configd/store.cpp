// store: domain files of configd and document checks. Every descriptor is
// held by a kd_unique_fd, so each early return closes it; rendered texts are
// freed before the function that rendered them returns.
#include "configd/store.h"
#include "platform/fdio.h"
#include "platform/rpc_wire.h"
#include "util/kd_fd.h"
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <unistd.h>

bool cfg_valid_domain(const char *name)
{
    size_t n = name ? strlen(name) : 0;
    if (n < 1 || n > 32)
        return false;
    for (size_t i = 0; i < n; i++) {
        char c = name[i];
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-'))
            return false;
    }
    return true;
}

std::string cfg_check_document(mxml_node_t *root)
{
    if (!root)
        return "empty document";
    if (!mxmlFindElement(root, root, "pool", nullptr, nullptr, MXML_DESCEND_FIRST))
        return "document has no <pool> element below its root";
    mxml_node_t *profiles = mxmlFindElement(root, root, "profiles", nullptr, nullptr, MXML_DESCEND_FIRST);
    if (!profiles)
        return "document has no <profiles> element below its root";
    for (mxml_node_t *p = mxmlFindElement(profiles, profiles, "profile", nullptr, nullptr, MXML_DESCEND_FIRST); p;
         p = mxmlFindElement(p, profiles, "profile", nullptr, nullptr, MXML_NO_DESCEND))
        if (!mxmlElementGetAttr(p, "id"))
            return "a <profile> element has no \"id\" attribute";
    return "";
}

namespace {

// Mini-XML reports through one global callback; the last message is kept.
std::string g_lasterror;
void keep_error(const char *msg)
{
    g_lasterror = msg;
}

} // namespace

mxml_node_t *cfg_parse(const char *text, std::string *why)
{
    g_lasterror.clear();
    mxmlSetErrorCallback(keep_error);
    mxml_node_t *root = rpcw_parse_xml(text);
    if (!root)
        *why = "not well-formed XML: " + (g_lasterror.empty() ? "element left open" : g_lasterror);
    return root;
}

namespace {

std::string path_of(const std::string &dir, const char *domain)
{
    return dir + "/" + domain + ".xml";
}

const char kTempSuffix[] = ".xml.tmp";

// Where a domain's next document is written before it replaces the stored one.
std::string temp_of(const std::string &dir, const char *domain)
{
    return dir + "/." + domain + kTempSuffix;
}

// ".<domain>.xml.tmp": only a name that temp_of could have made.
bool is_temp_name(std::string_view name)
{
    size_t n = sizeof kTempSuffix - 1;
    if (name.size() <= n + 1 || name[0] != '.' || name.substr(name.size() - n) != kTempSuffix)
        return false;
    return cfg_valid_domain(std::string(name.substr(1, name.size() - n - 1)).c_str());
}

} // namespace

std::vector<std::string> cfg_remove_leftovers(const std::string &dir)
{
    std::vector<std::string> gone;
    std::unique_ptr<DIR, int (*)(DIR *)> d(opendir(dir.c_str()), closedir);
    if (!d)
        return gone;
    while (dirent *e = readdir(d.get()))
        if (is_temp_name(e->d_name) && unlink((dir + "/" + e->d_name).c_str()) == 0)
            gone.emplace_back(e->d_name);
    return gone;
}

namespace {

mxml_node_t *empty_document()
{
    mxml_node_t *root = mxmlNewXML("1.0");
    mxmlNewElement(root, "pool");
    mxmlNewElement(root, "profiles");
    return root;
}

bool read_file(const std::string &path, std::string *text, int *err)
{
    kd_unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        *err = errno;
        return false;
    }
    char buf[65536];
    ssize_t n;
    while ((n = read(fd.get(), buf, sizeof buf)) > 0)
        text->append(buf, size_t(n));
    *err = n < 0 ? errno : 0;
    return n == 0;
}

} // namespace

mxml_node_t *cfg_load(const std::string &dir, const char *domain, std::string *why)
{
    std::string text;
    int err = 0;
    if (!read_file(path_of(dir, domain), &text, &err)) {
        if (err == ENOENT)
            return empty_document();
        *why = std::string("cannot read stored document: ") + strerror(err);
        return nullptr;
    }
    mxml_node_t *root = cfg_parse(text.c_str(), why);
    if (!root)
        *why = "stored document is unreadable, " + *why;
    return root;
}

namespace {

bool fsync_dir(const std::string &dir)
{
    kd_unique_fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && fsync(fd.get()) == 0;
}

// Writes the whole text durably; the descriptor is closed here so that a
// failing close (a delayed write error) still counts. The file is made anew:
// whatever stood at its name (a symbolic link planted there) is never written
// through.
bool write_durably(const std::string &path, const char *text, int *err)
{
    unlink(path.c_str());
    kd_unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    bool ok = fd && fdio_write_all(fd.get(), text, strlen(text)) && fsync(fd.get()) == 0;
    *err = errno;
    if (fd && close(fd.release()) < 0 && ok) {
        ok = false;
        *err = errno;
    }
    return ok;
}

} // namespace

bool cfg_store(const std::string &dir, const char *domain, mxml_node_t *root, std::string *why)
{
    char *text = mxmlSaveAllocString(root, MXML_NO_CALLBACK);
    if (!text) {
        *why = "no memory to render the document";
        return false;
    }
    std::string tmp = temp_of(dir, domain);
    int err = 0;
    bool ok = write_durably(tmp, text, &err);
    free(text);
    // The rename is the one moment the new document replaces the old one.
    if (ok && rename(tmp.c_str(), path_of(dir, domain).c_str()) < 0) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        unlink(tmp.c_str());
        *why = std::string("cannot store document: ") + strerror(err);
        return false;
    }
    if (!fsync_dir(dir))
        *why = std::string("stored, but the directory could not be synced: ") + strerror(errno);
    return true;
}

std::string cfg_generation(const char *text)
{
    uint64_t h = 0xcbf29ce484222325ull;
    for (const char *p = text; *p; p++)
        h = (h ^ uint8_t(*p)) * 0x100000001b3ull;
    char out[17];
    snprintf(out, sizeof out, "%016" PRIx64, h);
    return out;
}

std::string cfg_generation_of(mxml_node_t *root)
{
    char *text = mxmlSaveAllocString(root, MXML_NO_CALLBACK);
    if (!text)
        return "";
    std::string g = cfg_generation(text);
    free(text);
    return g;
}
