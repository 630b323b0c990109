#include "time_base.h"

#include <array>
#include <cstdlib>
#include <string>

namespace {

constexpr std::array<const char*, 6> kBaseNames = {"Once",   "Hourly",  "Daily",
                                                   "Weekly", "Monthly", "Yearly"};

// The longest period of each base, indexed by base - 1. Monthly and Yearly
// take the longest month and year. Once has no limit: -1 read as unsigned.
constexpr std::array<std::int32_t, 6> kMaxBoundaries = {-1, 3600, 86400, 604800, 2678400, 31622400};

constexpr time_t kDay = 86400;

bool isKnownBase(int base) {
    return base >= time_base_once && base <= time_base_yearly;
}

// Clears the fields below the period's start. The daylight-saving flag stays
// as it was for t, so across a switch the result is the wall-clock start of
// the period read with t's offset, one hour off the physical instant.
void truncateToPeriod(int base, struct tm* tm) {
    switch (base) {
        case time_base_yearly:
            tm->tm_mon = 0;
            [[fallthrough]];
        case time_base_monthly:
            tm->tm_mday = 1;
            [[fallthrough]];
        case time_base_daily:
        case time_base_weekly:
            tm->tm_hour = 0;
            [[fallthrough]];
        case time_base_hourly:
            tm->tm_min = 0;
            tm->tm_sec = 0;
            break;
        default:
            break;
    }
}

// Weeks start on Monday. The Monday is reached by whole days of 86400 s from
// the local midnight of t's day, counted by the weekday of t's own date: the
// midnight instant, read with t's daylight-saving flag, falls on the Saturday
// when the clocks went forward that night.
time_t weekStart(time_t midnight, int weekday) {
    return midnight - ((weekday + 6) % 7) * kDay;
}

// The start of the month or year after t's, computed like the reference time:
// from t's broken-down time with its daylight-saving flag kept.
time_t nextPeriodStart(int base, time_t t) {
    struct tm broken {};
    localtime_r(&t, &broken);
    truncateToPeriod(base, &broken);
    if (base == time_base_yearly) {
        broken.tm_year += 1;
    } else {
        broken.tm_mon += 1;
    }
    return mktime(&broken);
}

}  // namespace

void time_reloadZone() {
    const char* pinned = std::getenv("TZ");
    if (pinned == nullptr) {
        tzset();
        return;
    }
    const std::string zone = pinned;
    setenv("TZ", "UTC0", 1);
    tzset();
    setenv("TZ", zone.c_str(), 1);
    tzset();
}

time_t time_calculateReferenceTime(int base, time_t t) {
    struct tm broken {};
    localtime_r(&t, &broken);
    const int weekday = broken.tm_wday;
    truncateToPeriod(base, &broken);
    time_t start = mktime(&broken);
    switch (base) {
        case time_base_once:
            return 0;
        case time_base_weekly:
            return weekStart(start, weekday);
        default:
            return isKnownBase(base) ? start : t;
    }
}

std::int32_t time_getMaxBoundary(int base) {
    return isKnownBase(base) ? kMaxBoundaries[base - 1] : 0;
}

std::int64_t time_getPeriodLength(int base, time_t t, time_t ref) {
    if (base != time_base_monthly && base != time_base_yearly) {
        return time_getMaxBoundary(base);
    }
    return static_cast<std::int64_t>(nextPeriodStart(base, t)) - static_cast<std::int64_t>(ref);
}

int time_baseToEnum(std::string_view name) {
    for (std::size_t i = 0; i < kBaseNames.size(); ++i) {
        if (name == kBaseNames[i]) {
            return static_cast<int>(i) + 1;
        }
    }
    return time_base_unknown;
}

const char* time_baseToChar(int base) {
    return isKnownBase(base) ? kBaseNames[base - 1] : nullptr;
}
