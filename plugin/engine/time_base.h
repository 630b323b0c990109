// Time bases and reference times.
//
// Entries of a schedule count seconds from the start of the current period of
// its base; for "Once" they are absolute times. All times are seconds since
// the epoch; local time enters only through the reference time.
#pragma once

#include <cstdint>
#include <ctime>
#include <string_view>

enum time_base_t : int {
    time_base_unknown = 0,
    time_base_once = 1,
    time_base_hourly = 2,
    time_base_daily = 3,
    time_base_weekly = 4,
    time_base_monthly = 5,
    time_base_yearly = 6,
};

// Makes the C library read the local time zone again. A host may pin TZ so
// that mktime and localtime do not look at the zone file on every call; a
// pinned zone is only read again when TZ changes, so it is changed and set
// back.
void time_reloadZone();
// The start of the period of base that contains t; 0 for "Once", t itself for
// an unknown base.
time_t time_calculateReferenceTime(int base, time_t t);
// The largest offset an entry may have: -1 (no limit, read unsigned) for
// "Once", 0 for an unknown base.
std::int32_t time_getMaxBoundary(int base);
// The length of the period of base that contains t, counted from ref, its
// reference time: the calendar length for "Monthly" and "Yearly" (up to the
// local midnight that starts the next month or year), the maximum boundary
// for the other bases.
std::int64_t time_getPeriodLength(int base, time_t t, time_t ref);
// The base of an exact, case-sensitive name; 0 for any other text.
int time_baseToEnum(std::string_view name);
// The name of a base; null outside 1..6.
const char* time_baseToChar(int base);
