// What the parser and the formatter of the text form share: the names of
// days and months, period lengths and the writing of times.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "scheduler/schedule.h"

namespace scheduler::text {

inline constexpr std::uint32_t kDay = 86400;
inline constexpr std::array<std::string_view, 7> kDayNames = {"Mon", "Tue", "Wed", "Thu",
                                                              "Fri", "Sat", "Sun"};
inline constexpr std::array<std::string_view, 12> kMonthNames = {
    "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
// Days of each month and the day of the year it starts on, in a year with
// February 29.
inline constexpr std::array<std::uint32_t, 12> kMonthDays = {31, 29, 31, 30, 31, 30,
                                                             31, 31, 30, 31, 30, 31};
inline constexpr std::array<std::uint32_t, 12> kMonthStarts = {0,   31,  60,  91,  121, 152,
                                                               182, 213, 244, 274, 305, 335};
inline constexpr std::array<std::string_view, 6> kBaseWords = {"once",   "hourly",  "daily",
                                                               "weekly", "monthly", "yearly"};

// The period's length in seconds; none for "once".
std::optional<std::uint32_t> periodOf(base_t base);

// "07:00", "07:00:30"; seconds only when there are some.
std::string clockText(std::uint32_t secondsOfDay);
// ":15", ":15:30" within an hour.
std::string minuteText(std::uint32_t secondsOfHour);
// One entry as the text form writes it, with its day for a week:
// "Mon 07:00-08:30 on".
std::string entryText(base_t base, const entry_t& entry);

}  // namespace scheduler::text
