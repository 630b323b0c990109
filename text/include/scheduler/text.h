// The text form of a schedule: what people write and read instead of
// seconds from the start of a period.
//
//   weekly: Mon-Fri 07:00-08:30 on, 18:00-23:00 on; Sat,Sun 09:00-23:30 on; default off
//   daily: 07:00-08:30 on, 22:00-06:00 eco; default off
//   hourly: :00-:15 on
//   monthly: day 1 00:00 - day 2 06:00 on
//   yearly: Dec 24 18:00 - Dec 26 23:00 on
//   once: 2026-12-24 18:00 - 2026-12-26 23:00 on
//   weekly: Mon-Fri 07:00 ring
//
// Groups are separated by ";", spans and events within a group by ",". A
// span is "FROM-TO STATE", an event "AT STATE"; one schedule holds spans or
// events, not both. The base may be stated ("weekly:") or is inferred from
// the first group. "default STATE", when given, is the last group and names
// the state between the spans. Times take optional seconds ("07:00:30");
// "24:00" (":60" in an hour) may end a span. States are words of letters,
// digits and "_.:-" that do not begin with "-" (which would read as a span).
//
// Times are what the engine counts: seconds from the start of the period
// (Monday 00:00 for a week, day 1 00:00 for a month, January 1 00:00 for a
// year), so "07:00" is 25200 s after midnight. A span whose end is not after
// its begin runs into the next day, hour or week; one that crosses the end
// of the period is split into two entries. Years are counted as if they had
// a February 29, so that every date can be written; in other years the
// engine's seconds put dates from March on a day later. "once" times are
// local times of the process's zone; in the hour that repeats when the
// clocks go back, a time carries its UTC offset ("02:30+01:00"), and any
// "once" time may carry one ("+01:00", "-03:30", "Z"). A time that the
// clocks skip reads as mktime makes it: an hour later when they skip one.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "scheduler/schedule.h"

namespace scheduler {

struct text_schedule_t {
    base_t base = base_t::daily;
    // Sorted by begin, then end.
    std::vector<entry_t> entries;
    // Empty when the text names none.
    std::string default_state;

    bool operator==(const text_schedule_t&) const = default;
};

struct text_error_t {
    // 1-based; one past the last character when the text ends too soon.
    std::size_t column = 0;
    // Always starts "col N: ", e.g. "col 9: expected a time such as 07:30".
    std::string message;
};

// The schedule a text describes. With the type's states, a state outside
// them is refused.
SCHEDULER_CLIENT_API std::variant<text_schedule_t, text_error_t> parse_text(
    std::string_view text, const std::vector<std::string>* states = nullptr);

// The canonical text: the base stated, days with the same spans merged into
// ranges, everything in one order. For a valid schedule with its entries
// sorted by begin, then end, parse_text gives the schedule back.
SCHEDULER_CLIENT_API std::string format_text(const text_schedule_t& schedule);

}  // namespace scheduler
