// Reference times, boundaries and base names. Each row names the time zone
// it runs in; Europe/Berlin rows cover the daylight-saving switches.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <vector>

#include "time_base.h"
#include "time_zone.h"

namespace {

struct time_row_t {
    const char* zone;
    int base;
    time_t t;
    time_t expected;
    const char* note;
};

TEST(EngineTime, ReferenceTimes) {
    const std::vector<time_row_t> rows = {
        {"UTC", time_base_once, 1700000000, 0, "Tue 2023-11-14 22:13:20"},
        {"UTC", time_base_hourly, 1700000000, 1699999200, ""},
        {"UTC", time_base_daily, 1700000000, 1699920000, ""},
        {"UTC", time_base_weekly, 1700000000, 1699833600, "Monday 13th"},
        {"UTC", time_base_monthly, 1700000000, 1698796800, ""},
        {"UTC", time_base_yearly, 1700000000, 1672531200, ""},
        {"UTC", 0, 1700000000, 1700000000, "unknown base: t itself"},
        {"UTC", 7, 1700000000, 1700000000, "unknown base: t itself"},
        // A Sunday belongs to the week that began six days before.
        {"UTC", time_base_weekly, 1700388000, 1699833600, "Sun 2023-11-19 10:00"},
        // A Monday is its own reference day.
        {"UTC", time_base_weekly, 1699833600, 1699833600, "Mon 2023-11-13 00:00"},
        // Last second of a week, a month and a year.
        {"UTC", time_base_weekly, 1704067199, 1703462400, "Sun 2023-12-31 23:59:59"},
        {"UTC", time_base_monthly, 1704067199, 1701388800, ""},
        {"UTC", time_base_yearly, 1704067199, 1672531200, ""},
        // Month end of a leap February.
        {"UTC", time_base_monthly, 1709251199, 1706745600, "Thu 2024-02-29 23:59:59"},
        // The day the clock goes back: midnight read with the standard-time
        // flag of t is 01:00 daylight time, so t - reference is wall-clock time.
        {"Europe/Berlin", time_base_daily, 1698577200, 1698534000, "Sun 2023-10-29 12:00 CET"},
        // The Sunday the clock goes forward: midnight read with the daylight
        // flag is Saturday 23:00 standard time, but the weekday is that of
        // the Sunday, so the week starts six days before that instant.
        {"Europe/Berlin", time_base_weekly, 1679824800, 1679263200, "Sun 2023-03-26 12:00 CEST"},
        {"Europe/Berlin", time_base_daily, 1689415200, 1689372000, "Sat 2023-07-15 12:00 CEST"},
    };
    for (const time_row_t& row : rows) {
        scoped_time_zone_t zone(row.zone);
        EXPECT_EQ(time_calculateReferenceTime(row.base, row.t), row.expected)
            << row.zone << " t=" << row.t << " base=" << row.base << " " << row.note;
    }
}

// Whatever the time, the reference is not later than t and the offset stays
// inside the period.
TEST(EngineTime, OffsetStaysInsideThePeriod) {
    scoped_time_zone_t zone("Europe/Berlin");
    for (int base = time_base_hourly; base <= time_base_yearly; ++base) {
        for (time_t t = 1672531200; t < 1704067200; t += 7 * 3600 + 13) {
            const time_t reference = time_calculateReferenceTime(base, t);
            ASSERT_LE(reference, t) << "base " << base << " t " << t;
            ASSERT_LT(t - reference, time_getMaxBoundary(base)) << "base " << base << " t " << t;
        }
    }
}

TEST(EngineTime, BoundariesAndNames) {
    struct row_t {
        const char* name;
        int base;
        std::int32_t boundary;
    };
    const std::vector<row_t> rows = {
        {"Once", 1, -1},       {"Hourly", 2, 3600},     {"Daily", 3, 86400},
        {"Weekly", 4, 604800}, {"Monthly", 5, 2678400}, {"Yearly", 6, 31622400},
    };
    for (const row_t& row : rows) {
        EXPECT_EQ(time_baseToEnum(row.name), row.base) << row.name;
        EXPECT_STREQ(time_baseToChar(row.base), row.name);
        EXPECT_EQ(time_getMaxBoundary(row.base), row.boundary) << row.name;
    }
    for (const char* name : {"daily", " Daily", "Daily ", "", "ONCE", "Weeks"}) {
        EXPECT_EQ(time_baseToEnum(name), 0) << '"' << name << '"';
    }
    for (int base : {0, 7, -1}) {
        EXPECT_EQ(time_baseToChar(base), nullptr) << base;
        EXPECT_EQ(time_getMaxBoundary(base), 0) << base;
    }
}

}  // namespace
