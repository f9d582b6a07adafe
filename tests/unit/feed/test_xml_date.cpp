// Publication dates: the lenient RFC 822 reading with local time (TZ=UTC in
// the tests) and the two-digit number reader beneath it.
#include "tests/unit/feed/xml_fixture.h"

namespace {

class Date : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1); // dates are read as local time; CTest sets the same
        tzset();
    }
};

TEST_F(Date, ReadNumberSkipsNonDigitsAndReadsAtMostTwo)
{
    const char *s = "ab12c7 345";
    const char *p = s;
    EXPECT_EQ(kdx_read_number(&p), 12);
    EXPECT_EQ(p, s + 4);
    EXPECT_EQ(kdx_read_number(&p), 7);
    EXPECT_EQ(kdx_read_number(&p), 34);
    EXPECT_EQ(kdx_read_number(&p), 5);
    EXPECT_EQ(kdx_read_number(&p), -1);
    EXPECT_EQ(*p, '\0');
    EXPECT_EQ(kdx_read_number(&p), -1);
}

TEST_F(Date, Rfc822WithFourDigitYear)
{
    EXPECT_EQ(kdx_parse_date("Tue, 10 Jun 2003 04:00:00 GMT"), 1055217600);
}

TEST_F(Date, TwoDigitYearAndZoneDigitsAsSeconds)
{
    EXPECT_EQ(kdx_parse_date("10 Jun 03 04:00 +0200"), 1055217602);
}

TEST_F(Date, MissingSecondsAreZero)
{
    EXPECT_EQ(kdx_parse_date("10 Jun 2003 04:00"), 1055217600);
}

TEST_F(Date, TwoDigitYearPivot)
{
    EXPECT_EQ(kdx_parse_date("1 Jan 69 00:00:00"), 0 - 365 * 86400);
    EXPECT_EQ(kdx_parse_date("1 Jan 70 00:00:00"), 0);
    EXPECT_EQ(kdx_parse_date("1 Jan 00 00:00:00"), 946684800);
    EXPECT_EQ(kdx_parse_date("1 Jan 7 00:00:00"), 1167609600);
}

TEST_F(Date, NumericFormFails)
{
    EXPECT_EQ(kdx_parse_date("2003-06-10T04:00:00Z"), -1);
}

TEST_F(Date, IncompleteDatesFail)
{
    EXPECT_EQ(kdx_parse_date(""), -1);
    EXPECT_EQ(kdx_parse_date("Tue, Jun"), -1);
    EXPECT_EQ(kdx_parse_date("10 Jun"), -1);
    EXPECT_EQ(kdx_parse_date("10 Jun 2003"), -1);
    EXPECT_EQ(kdx_parse_date("10 Jun 2003 04"), -1);
    EXPECT_EQ(kdx_parse_date("10 Xyz 2003 04:00"), -1);
    EXPECT_EQ(kdx_parse_date("10 jun 2003 04:00"), -1); // month names are case-sensitive
}

TEST_F(Date, ShortMonthTextIsNotOverread)
{
    EXPECT_EQ(kdx_parse_date("10 J"), -1);
    EXPECT_EQ(kdx_parse_date("10 Ju"), -1);
    EXPECT_EQ(kdx_parse_date("10 M"), -1);
    EXPECT_EQ(kdx_parse_date("10 A"), -1);
    EXPECT_EQ(kdx_parse_date("10 D"), -1); // month found, no year
}

struct month_case {
    const char *name;
    int month;
};

class Month : public Date, public ::testing::WithParamInterface<month_case> {};

TEST_P(Month, EveryMonthName)
{
    std::string text = std::string("1 ") + GetParam().name + " 2001 12:00:00";
    struct tm want = {};
    want.tm_mday = 1;
    want.tm_mon = GetParam().month;
    want.tm_year = 101;
    want.tm_hour = 12;
    EXPECT_EQ(kdx_parse_date(text.c_str()), static_cast<int32_t>(timegm(&want)));
}

INSTANTIATE_TEST_SUITE_P(Date, Month,
                         ::testing::Values(month_case{"Jan", 0}, month_case{"Feb", 1},
                                           month_case{"Mar", 2}, month_case{"Apr", 3},
                                           month_case{"May", 4}, month_case{"Jun", 5},
                                           month_case{"Jul", 6}, month_case{"Aug", 7},
                                           month_case{"Sep", 8}, month_case{"Oct", 9},
                                           month_case{"Nov", 10}, month_case{"Dec", 11},
                                           month_case{"January", 0}, month_case{"Dxx", 11}));

TEST_F(Date, DateBeyond32BitsFails)
{
    // 2068 does not fit a 32-bit time; the caller then uses the parse time.
    EXPECT_EQ(kdx_parse_date("1 Jan 68 00:00:00"), -1);
}

TEST_F(Date, LocalTimeFollowsTimeZone)
{
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    int32_t summer = kdx_parse_date("Tue, 10 Jun 2003 04:00:00 GMT");
    int32_t winter = kdx_parse_date("Fri, 10 Jan 2003 04:00:00 GMT");
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(summer, 1055217600 - 2 * 3600); // daylight saving decided by the system: UTC+2
    EXPECT_EQ(winter, 1042171200 - 1 * 3600); // UTC+1
}

} // namespace
