// localzone: the device's time zone, looked at once per document.
#include "platform/localzone.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/stat.h>

namespace {

struct zone_state {
    const char *file; // the zone file; null: /etc/localtime
    char tz[256];     // ":" and the file's path: the value TZ is given
    bool ours;        // TZ was unset and names the zone file now
    bool known;       // `seen` holds the file's identity at the last look
    struct stat seen;
};

zone_state g_zone;

const char *zone_file()
{
    return g_zone.file ? g_zone.file : "/etc/localtime";
}

bool same_file(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// The C library loads a zone again only when TZ has another value than at
// its last look; a detour through UTC makes the next tzset read the file.
void load_again()
{
    setenv("TZ", "UTC0", 1);
    tzset();
    setenv("TZ", g_zone.tz, 1);
    tzset();
}

} // namespace

void localzone_init(void)
{
    if (getenv("TZ") && !g_zone.ours)
        return;
    snprintf(g_zone.tz, sizeof g_zone.tz, ":%s", zone_file());
    setenv("TZ", g_zone.tz, 1);
    tzset();
    g_zone.ours = true;
    g_zone.known = stat(zone_file(), &g_zone.seen) == 0;
}

void localzone_refresh(void)
{
    if (!g_zone.ours)
        return;
    struct stat now = {};
    bool known = stat(zone_file(), &now) == 0;
    if (known == g_zone.known && (!known || same_file(now, g_zone.seen)))
        return;
    g_zone.known = known;
    g_zone.seen = now;
    load_again();
}

void localzone_use_file(const char *path)
{
    g_zone.file = path;
}

void localzone_forget(void)
{
    g_zone.ours = g_zone.known = false;
}
