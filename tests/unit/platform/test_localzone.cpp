// The device's time zone: TZ names the zone file when the environment named
// none, a zone the environment names is left alone, and a zone file that
// changes (another zone linked in, or the file first missing) is loaded
// again at the next look, not before.
#include "platform/localzone.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

void put_be32(FILE *f, int32_t v)
{
    uint32_t u = static_cast<uint32_t>(v);
    unsigned char b[4] = {static_cast<unsigned char>(u >> 24), static_cast<unsigned char>(u >> 16),
                          static_cast<unsigned char>(u >> 8), static_cast<unsigned char>(u)};
    fwrite(b, 1, 4, f);
}

// A zone file (TZif, version 1) of one fixed offset east of UTC, named abbr.
void write_zone(const std::string &path, int32_t offset, const char abbr[4])
{
    FILE *f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fwrite("TZif", 1, 4, f);
    for (int i = 0; i < 16; i++) // version 1, then reserved
        fputc(0, f);
    for (int32_t count : {0, 0, 0, 0, 1, 4}) // isut, isstd, leap, time, type, char
        put_be32(f, count);
    put_be32(f, offset);
    fputc(0, f); // not daylight saving time
    fputc(0, f); // its abbreviation starts at 0
    fwrite(abbr, 1, 4, f);
    fclose(f);
}

// Noon of 1 January 2020, local time, as mktime reads a feed's date.
time_t noon()
{
    tm t = {};
    t.tm_year = 120;
    t.tm_mday = 1;
    t.tm_hour = 12;
    t.tm_isdst = -1;
    return mktime(&t);
}

constexpr time_t kNoonUtc = 1577880000;

class localzone_test : public ::testing::Test {
protected:
    std::string base = "/tmp/kelp-zone-" + std::to_string(getpid());
    std::string link = base + "-localtime";
    std::string saved_tz;
    bool had_tz = false;

    void SetUp() override
    {
        const char *tz = getenv("TZ");
        had_tz = tz != nullptr;
        saved_tz = tz ? tz : "";
        unsetenv("TZ");
        write_zone(base + "-east", 3600, "EEE");
        write_zone(base + "-west", -5 * 3600, "WWW");
        localzone_use_file(link.c_str());
    }

    void TearDown() override
    {
        localzone_forget();
        localzone_use_file(nullptr);
        if (had_tz)
            setenv("TZ", saved_tz.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
        for (const char *s : {"-east", "-west", "-localtime", "-next"})
            unlink((base + s).c_str());
    }

    // Links the zone file to one of the two zones, as a device's settings do.
    void link_zone(const char *which)
    {
        std::string next = base + "-next";
        ASSERT_EQ(symlink((base + which).c_str(), next.c_str()), 0);
        ASSERT_EQ(rename(next.c_str(), link.c_str()), 0);
    }
};

TEST_F(localzone_test, WithoutTzTheZoneFileIsNamedInIt)
{
    link_zone("-east");
    localzone_init();
    ASSERT_NE(getenv("TZ"), nullptr);
    EXPECT_EQ(std::string(getenv("TZ")), ":" + link);
    EXPECT_EQ(noon(), kNoonUtc - 3600);
}

TEST_F(localzone_test, AZoneTheEnvironmentNamesIsLeftAlone)
{
    setenv("TZ", "UTC0", 1);
    link_zone("-east");
    localzone_init();
    EXPECT_STREQ(getenv("TZ"), "UTC0");
    localzone_refresh();
    EXPECT_STREQ(getenv("TZ"), "UTC0");
    EXPECT_EQ(noon(), kNoonUtc);
}

TEST_F(localzone_test, AnotherZoneLinkedInIsLoadedAtTheNextLook)
{
    link_zone("-east");
    localzone_init();
    EXPECT_EQ(noon(), kNoonUtc - 3600);
    link_zone("-west");
    localzone_refresh();
    EXPECT_EQ(noon(), kNoonUtc + 5 * 3600);
    EXPECT_EQ(std::string(getenv("TZ")), ":" + link);
    localzone_refresh(); // nothing changed: the same zone
    EXPECT_EQ(noon(), kNoonUtc + 5 * 3600);
}

TEST_F(localzone_test, AZoneFileThatAppearsLaterIsLoadedThen)
{
    localzone_init(); // no file yet: the C library takes UTC
    EXPECT_EQ(noon(), kNoonUtc);
    link_zone("-west");
    localzone_refresh();
    EXPECT_EQ(noon(), kNoonUtc + 5 * 3600);
}

} // namespace
