// The text form of a schedule: what each form reads as, the canonical text,
// the errors with their columns, and the round trip over random schedules.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <variant>
#include <vector>

#include "scheduler/text.h"
#include "time_zone.h"

namespace {

using scheduler::base_t;
using scheduler::entry_t;
using scheduler::text_schedule_t;

constexpr std::uint32_t kH = 3600;
constexpr std::uint32_t kD = 86400;

// "[begin,end) state" per entry, then "default X" when there is one.
std::string read(std::string_view text, const std::vector<std::string>* states = nullptr) {
    auto parsed = scheduler::parse_text(text, states);
    if (auto* error = std::get_if<scheduler::text_error_t>(&parsed)) {
        return error->message;
    }
    const auto& schedule = std::get<text_schedule_t>(parsed);
    std::string out = std::string(scheduler::base_name(schedule.base));
    for (const entry_t& e : schedule.entries) {
        out += " [" + std::to_string(e.begin) + "," + std::to_string(e.end) + ")" + e.state;
    }
    return schedule.default_state.empty() ? out : out + " default " + schedule.default_state;
}

std::string span(std::uint32_t begin, std::uint32_t end, const char* state) {
    return " [" + std::to_string(begin) + "," + std::to_string(end) + ")" + state;
}

TEST(TextForm, EachFormReadsAsTheEngineCounts) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"Mon-Fri 07:00-08:30 on; Sat,Sun 09:00-23:30 eco; default off",
         "Weekly" + span(25200, 30600, "on") + span(kD + 25200, kD + 30600, "on") +
             span(2 * kD + 25200, 2 * kD + 30600, "on") +
             span(3 * kD + 25200, 3 * kD + 30600, "on") +
             span(4 * kD + 25200, 4 * kD + 30600, "on") +
             span(5 * kD + 9 * kH, 5 * kD + 84600, "eco") +
             span(6 * kD + 9 * kH, 6 * kD + 84600, "eco") + " default off"},
        // An explicit end day, a wrapping day range, and the week's end split.
        {"Fri 22:00-Sat 02:00 on", "Weekly" + span(4 * kD + 22 * kH, 5 * kD + 2 * kH, "on")},
        {"Sat-Mon 12:00 ring", "Weekly" + span(12 * kH, 12 * kH, "ring") +
                                   span(5 * kD + 12 * kH, 5 * kD + 12 * kH, "ring") +
                                   span(6 * kD + 12 * kH, 6 * kD + 12 * kH, "ring")},
        {"Sun 22:00-06:00 on",
         "Weekly" + span(0, 6 * kH, "on") + span(6 * kD + 22 * kH, 7 * kD, "on")},
        {"Sun 22:00-24:00 on", "Weekly" + span(6 * kD + 22 * kH, 7 * kD, "on")},
        // Daily and hourly spans wrap past midnight and the full hour.
        {"22:00-06:00 on, 12:00:30-13:00 eco", "Daily" + span(0, 6 * kH, "on") +
                                                   span(12 * kH + 30, 13 * kH, "eco") +
                                                   span(22 * kH, kD, "on")},
        {"hourly: :50-:10 on", "Hourly" + span(0, 600, "on") + span(3000, 3600, "on")},
        {":00-:15:30 on, :45-:60 on", "Hourly" + span(0, 930, "on") + span(2700, 3600, "on")},
        {"day 1 00:00 - day 2 06:00 on", "Monthly" + span(0, kD + 6 * kH, "on")},
        {"monthly: day 31 08:00 bill",
         "Monthly" + span(30 * kD + 8 * kH, 30 * kD + 8 * kH, "bill")},
        // Years count with a February 29: March 1 is day 60.
        {"Mar 1 00:00 - Dec 31 24:00 on", "Yearly" + span(60 * kD, 366 * kD, "on")},
        {"Dec 24 18:00 - Dec 26 23:00 on",
         "Yearly" + span(358 * kD + 18 * kH, 360 * kD + 23 * kH, "on")},
        {"2026-12-24 18:00 - 2026-12-26 23:00 on", "Once" + span(1798135200, 1798326000, "on")},
        {"once: 2026-12-24 18:00Z bells", "Once" + span(1798135200, 1798135200, "bells")},
        {"daily: default off", "Daily default off"},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(read(text), expected) << text;
    }
}

TEST(TextForm, ErrorsSayWhereAndWhat) {
    const std::vector<std::string> states = {"on", "off"};
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"Mon-Fri x", "col 9: expected a time such as 07:30"},
        {"Mon-Fri 07:00-08:3x on",
         "col 15: that is not a time of day, expected a time such as 07:30"},
        {"Mon 25:00-26:00 on", "col 5: that is not a time of day, expected a time such as 07:30"},
        {"Mon 07:00-08:00", "col 16: expected a state"},
        {"Mon 07:00 on; Frx 08:00 on", "col 15: expected a day such as Mon"},
        {"07:00 on 08:00 on", "col 10: expected \";\" or \",\" between spans"},
        {"24:00 ring", "col 1: 24:00 only ends a span, expected a time such as 07:30"},
        {"default off",
         "col 1: expected a base such as \"daily:\" before a schedule without spans"},
        {"on at seven", "col 1: expected a day, a date or a time such as 07:30"},
        {"Feb 30 12:00 on", "col 1: expected a day of Feb from 1 to 29"},
        {"yearly: Mon 24 10:00 on", "col 9: expected a date such as Dec 24"},
        {"Dec 24 on", "col 8: expected a time such as 07:30"},
        {"day 32 00:00 on", "col 1: expected a day of the month from day 1 to day 31"},
        {"monthly: 1 00:00 on", "col 10: expected a day of the month such as day 1"},
        {"hourly: :00-:61 on", "col 13: expected a minute such as :15 (:60 only ends a span)"},
        {"2026-13-01 10:00 on", "col 1: expected a date such as 2026-12-24"},
        {"2026-12-24 10:00+15:00 on", "col 17: expected a UTC offset such as +01:00"},
        {"day 2 00:00 - day 1 00:00 on", "col 15: the span ends before it begins"},
        {"Mon 07:00-09:00 on, 08:00-10:00 off",
         "col 21: Mon 07:00-09:00 on and Mon 08:00-10:00 off overlap"},
        {"Mon-Fri 07:00 on, 08:00-09:00 on",
         "col 19: events and spans cannot be mixed in one schedule"},
        {"Mon-Fri 07:00-08:30 dim", "col 21: the state \"dim\" is not one of on, off"},
        {"07:00-08:00 on; default off; default on", "col 30: the default is named twice"},
    };
    for (const auto& [text, message] : rows) {
        EXPECT_EQ(read(text, &states), message) << text;
    }
}

text_schedule_t schedule(base_t base, std::vector<entry_t> entries, std::string def = "off") {
    return {base, std::move(entries), std::move(def)};
}

TEST(TextForm, CanonicalTextMergesDaysAndStatesTheBase) {
    std::vector<entry_t> workdays;
    for (std::uint32_t d : {0u, 1u, 2u, 4u}) {
        workdays.push_back({"on", d * kD + 7 * kH, d * kD + 8 * kH + 1800});
    }
    workdays.push_back({"eco", 5 * kD + 22 * kH, 6 * kD + 6 * kH});
    workdays.push_back({"eco", 6 * kD, 6 * kD + 1});
    const std::vector<std::pair<text_schedule_t, std::string>> rows = {
        {schedule(base_t::weekly, workdays),
         "weekly: Mon-Wed,Fri 07:00-08:30 on; Sat 22:00-06:00 eco; Sun 00:00-00:00:01 eco; "
         "default off"},
        {schedule(base_t::weekly, {{"on", 0, 3 * kD}}, ""), "weekly: Mon 00:00-Thu 00:00 on"},
        {schedule(base_t::daily, {{"on", 0, kD}}), "daily: 00:00-24:00 on; default off"},
        {schedule(base_t::hourly, {{"chime", 1800, 1800}}, ""), "hourly: :30 chime"},
        {schedule(base_t::monthly, {{"on", 30 * kD, 31 * kD}}, ""),
         "monthly: day 31 00:00 - day 31 24:00 on"},
        {schedule(base_t::yearly, {{"on", 59 * kD, 60 * kD}}, ""),
         "yearly: Feb 29 00:00 - Feb 29 24:00 on"},
        {schedule(base_t::once, {}, "off"), "once: default off"},
    };
    for (const auto& [s, text] : rows) {
        EXPECT_EQ(scheduler::format_text(s), text) << text;
    }
}

TEST(TextForm, OnceTimesAcrossTheDaylightSavingSwitches) {
    scoped_time_zone_t berlin("Europe/Berlin");
    const std::vector<std::pair<std::uint32_t, std::string>> rows = {
        // 01:59:59 and then 03:00 on 2026-03-29.
        {1774745999, "once: 2026-03-29 01:59:59 on"},
        {1774746000, "once: 2026-03-29 03:00 on"},
        // 02:30 happens twice on 2026-10-25: each time says which.
        {1792888200, "once: 2026-10-25 02:30+02:00 on"},
        {1792891800, "once: 2026-10-25 02:30+01:00 on"},
    };
    for (const auto& [at, text] : rows) {
        const text_schedule_t s = schedule(base_t::once, {{"on", at, at}}, "");
        EXPECT_EQ(scheduler::format_text(s), text);
        auto back = scheduler::parse_text(text);
        ASSERT_TRUE(std::holds_alternative<text_schedule_t>(back)) << text;
        EXPECT_EQ(std::get<text_schedule_t>(back), s) << text;
    }
    EXPECT_EQ(read("2026-03-29 02:30 on").substr(0, 5), "Once ") << "a skipped time still reads";
}

// A random valid schedule: spans or events at random places of the period,
// none overlapping, sorted as the parser sorts them.
text_schedule_t randomSchedule(std::mt19937& random, base_t base) {
    const std::uint32_t period = base == base_t::once      ? 600 * kD
                                 : base == base_t::hourly  ? kH
                                 : base == base_t::daily   ? kD
                                 : base == base_t::weekly  ? 7 * kD
                                 : base == base_t::monthly ? 31 * kD
                                                           : 366 * kD;
    const std::uint32_t origin = base == base_t::once ? 1790000000 : 0;
    const bool events = random() % 4 == 0;
    const char* states[] = {"on", "off", "eco", "dim-2"};
    const std::uint32_t count = random() % 7;
    const std::uint32_t step = period / (count + 1);
    text_schedule_t s{base, {}, random() % 3 == 0 ? "" : states[random() % 4]};
    for (std::uint32_t i = 0; i < count; ++i) {
        // Seconds are kept rare, as people write them.
        const std::uint32_t grain = random() % 5 == 0 ? 1 : 60;
        // Each entry keeps to the first three quarters of its own step, so
        // that rounding to the grain never makes two overlap.
        const std::uint32_t begin = (i * step + random() % (step / 2)) / grain * grain;
        const std::uint32_t limit = (i * step + step * 3 / 4) / grain * grain;
        const std::uint32_t length = 1 + random() % (step / 2);
        const std::uint32_t end = std::min(limit, (begin + length + grain - 1) / grain * grain);
        s.entries.push_back(
            {states[random() % 4], origin + begin, origin + (events ? begin : end)});
    }
    return s;
}

TEST(TextForm, EveryScheduleReadsBackFromItsText) {
    std::mt19937 random(20261124);
    for (const char* zone : {"UTC", "Europe/Berlin"}) {
        scoped_time_zone_t inZone(zone);
        for (int i = 0; i < 3000; ++i) {
            const auto base = static_cast<base_t>(i % 6);
            const text_schedule_t s = randomSchedule(random, base);
            const std::string text = scheduler::format_text(s);
            auto back = scheduler::parse_text(text);
            ASSERT_TRUE(std::holds_alternative<text_schedule_t>(back))
                << text << ": " << std::get<scheduler::text_error_t>(back).message;
            ASSERT_EQ(std::get<text_schedule_t>(back), s) << zone << ": " << text;
        }
    }
}

}  // namespace
