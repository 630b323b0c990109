// The text form of a schedule: what each form reads as, the canonical text,
// the errors with their columns, and the round trip over random schedules.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
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

// The same span on each of these days.
std::vector<entry_t> daily(std::vector<std::uint32_t> days, std::uint32_t from, std::uint32_t to,
                           const char* state = "on") {
    std::vector<entry_t> entries;
    for (std::uint32_t d : days) {
        entries.push_back({state, d * kD + from, d * kD + to});
    }
    return entries;
}

// The same, as read() shows it.
std::string onDays(std::vector<std::uint32_t> days, std::uint32_t from, std::uint32_t to,
                   const char* state = "on") {
    std::string out;
    for (const entry_t& e : daily(std::move(days), from, to, state)) {
        out += span(e.begin, e.end, state);
    }
    return out;
}

using rows_t = std::vector<std::pair<std::string, std::string>>;

// Each text reads as its expected entries, or fails with its message.
void expectReads(const rows_t& rows, const std::vector<std::string>* states = nullptr) {
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(read(text, states), expected) << text;
    }
}

TEST(TextForm, WeeklyFormsReadAsTheEngineCounts) {
    std::string workdays;
    for (std::uint32_t d = 0; d < 5; ++d) {
        workdays += onDays({d}, 7 * kH, 30600) + onDays({d}, 18 * kH, 23 * kH);
    }
    expectReads({
        {"Mon-Fri 07:00-08:30 on, 18:00-23:00 on; Sat,Sun 09:00-23:30 on; default off",
         "Weekly" + workdays + onDays({5, 6}, 9 * kH, 84600) + " default off"},
        // Spaces anywhere between the words.
        {"  weekly :Mon - Wed 07:00 - 08:00  on ;default  off ",
         "Weekly" + onDays({0, 1, 2}, 7 * kH, 8 * kH) + " default off"},
        // Wrapping ranges, mixed lists, seconds.
        {"Sat-Mon 12:00 ring", "Weekly" + onDays({0, 5, 6}, 12 * kH, 12 * kH, "ring")},
        {"Mon,Wed-Thu,Sun 07:00:30 ring",
         "Weekly" + onDays({0, 2, 3, 6}, 7 * kH + 30, 7 * kH + 30, "ring")},
        // Past midnight: with an end day, or into the next day.
        {"Fri 22:00-Sat 02:00 on", "Weekly" + onDays({4}, 22 * kH, kD + 2 * kH)},
        {"Thu-Fri 22:00-06:00 on", "Weekly" + onDays({3, 4}, 22 * kH, kD + 6 * kH)},
        // Past the week's end: split in two.
        {"Sun 22:00-06:00 on", "Weekly" + span(0, 6 * kH, "on") + onDays({6}, 22 * kH, kD)},
        {"Sat 22:00-Mon 02:00 on", "Weekly" + span(0, 2 * kH, "on") + onDays({5}, 22 * kH, 2 * kD)},
        {"Sun 22:00-24:00 on", "Weekly" + onDays({6}, 22 * kH, kD)},
        {"Mon 06:00-Sun 24:00 on", "Weekly" + span(6 * kH, 7 * kD, "on")},
        {"weekly:", "Weekly"},
    });
}

TEST(TextForm, OtherBasesReadAsTheEngineCounts) {
    expectReads({
        // Daily and hourly spans wrap past midnight and the full hour.
        {"22:00-06:00 on, 12:00:30-13:00 eco", "Daily" + span(0, 6 * kH, "on") +
                                                   span(12 * kH + 30, 13 * kH, "eco") +
                                                   span(22 * kH, kD, "on")},
        {"daily: 00:00-24:00 on", "Daily" + span(0, kD, "on")},
        {"12:00 ring, 06:00 ring",
         "Daily" + span(6 * kH, 6 * kH, "ring") + span(12 * kH, 12 * kH, "ring")},
        {"daily: default off", "Daily default off"},
        // State names take digits and _.:- after their first character.
        {"07:00 x_1.b:c-d", "Daily" + span(7 * kH, 7 * kH, "x_1.b:c-d")},
        {"hourly: :50-:10 on", "Hourly" + span(0, 600, "on") + span(3000, 3600, "on")},
        {":00-:15:30 on, :45-:60 on", "Hourly" + span(0, 930, "on") + span(2700, 3600, "on")},
        {":30 chime", "Hourly" + span(1800, 1800, "chime")},
        {"day 1 00:00 - day 2 06:00 on", "Monthly" + span(0, kD + 6 * kH, "on")},
        {"monthly: day 31 08:00 bill", "Monthly" + onDays({30}, 8 * kH, 8 * kH, "bill")},
        // Years count with a February 29: March 1 is day 60.
        {"Mar 1 00:00 - Dec 31 24:00 on", "Yearly" + span(60 * kD, 366 * kD, "on")},
        {"Dec 24 18:00 - Dec 26 23:00 on", "Yearly" + onDays({358}, 18 * kH, 2 * kD + 23 * kH)},
        {"Dec 24 18:00 bells", "Yearly" + onDays({358}, 18 * kH, 18 * kH, "bells")},
        {"2026-12-24 18:00 - 2026-12-26 23:00 on", "Once" + span(1798135200, 1798326000, "on")},
        {"2026-12-24 18:00 bells", "Once" + span(1798135200, 1798135200, "bells")},
        {"once: 2026-12-24 18:00+01:00 bells", "Once" + span(1798131600, 1798131600, "bells")},
    });
}

TEST(TextForm, SyntaxErrorsSayWhereAndWhat) {
    expectReads({
        {"Mon-Fri x", "col 9: expected a time such as 07:30"},
        {"Mon-Fri 07:00-08:3x on",
         "col 15: that is not a time of day, expected a time such as 07:30"},
        {"Mon 25:00-26:00 on", "col 5: that is not a time of day, expected a time such as 07:30"},
        {"24:00 ring", "col 1: 24:00 only ends a span, expected a time such as 07:30"},
        {"Mon-Fri 07:00", "col 14: expected a state"},
        {"07:00-08:00 -x", "col 13: expected a state"},
        {"Mno-Fri 07:00 on", "col 1: expected a day such as Mon"},
        {"Mno 07:00 on", "col 1: expected a day such as Mon"},
        {"Mon 07:00 on; Frx 08:00 on", "col 15: expected a day such as Mon"},
        {"Dce 24 18:00 on", "col 1: expected a date such as Dec 24"},
        {"dialy: 07:00 on", "col 1: expected a base such as \"daily:\""},
        {"07:00 on 08:00 on", "col 10: expected \";\" or \",\" between spans"},
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
    });
}

TEST(TextForm, RuleErrorsNameWhatBreaksThem) {
    const std::vector<std::string> states = {"on", "off"};
    expectReads(
        {
            {"day 2 00:00 - day 1 00:00 on", "col 15: the span ends before it begins"},
            {"Mon 07:00-09:00 on, 08:00-10:00 off",
             "col 21: Mon 07:00-09:00 on and Mon 08:00-10:00 off overlap"},
            {"Sun 22:00-06:00 on; Mon 05:00-07:00 off",
             "col 25: Mon 00:00-06:00 on and Mon 05:00-07:00 off overlap"},
            {"Mon 07:00 on, 07:00 off", "col 15: Mon 07:00 on and Mon 07:00 off overlap"},
            {"Mon-Fri 07:00 on, 08:00-09:00 on",
             "col 19: events and spans cannot be mixed in one schedule"},
            {"Mon-Fri 07:00-08:30 dim", "col 21: the state \"dim\" is not one of on, off"},
            // The first unknown state of the text, not the earliest of the week.
            {"Tue 07:00 dim; Mon 07:00 eco", "col 11: the state \"dim\" is not one of on, off"},
            {"Mon 07:00-08:00 on; default dim", "col 29: the state \"dim\" is not one of on, off"},
            {"07:00-08:00 on; default off; default on", "col 30: the default is named twice"},
            {"daily: default off; 07:00-08:00 on", "col 21: the default comes last"},
        },
        &states);
}

text_schedule_t schedule(base_t base, std::vector<entry_t> entries, std::string def = "off") {
    return {base, std::move(entries), std::move(def)};
}

// The parts' entries sorted by begin, as a valid schedule holds them.
std::vector<entry_t> joined(const std::vector<std::vector<entry_t>>& parts) {
    std::vector<entry_t> all;
    for (const std::vector<entry_t>& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    std::sort(all.begin(), all.end(),
              [](const entry_t& a, const entry_t& b) { return a.begin < b.begin; });
    return all;
}

void expectTexts(const std::vector<std::pair<text_schedule_t, std::string>>& rows) {
    for (const auto& [s, text] : rows) {
        EXPECT_EQ(scheduler::format_text(s), text) << text;
    }
}

TEST(TextForm, WeeklyCanonicalTextMergesDays) {
    const std::vector<entry_t> example =
        joined({daily({0, 1, 2, 3, 4}, 7 * kH, 30600), daily({0, 1, 2, 3, 4}, 18 * kH, 23 * kH),
                daily({5, 6}, 9 * kH, 84600)});
    const std::vector<entry_t> workdays =
        joined({daily({0, 1, 2, 4}, 7 * kH, 8 * kH + 1800), daily({5}, 22 * kH, kD + 6 * kH, "eco"),
                daily({6}, 0, 1, "eco")});
    const std::vector<entry_t> alternate =
        joined({daily({0, 2}, 0, kH, "a"), daily({1, 3}, 0, kH, "b")});
    expectTexts({
        {schedule(base_t::weekly, example),
         "weekly: Mon-Fri 07:00-08:30 on, 18:00-23:00 on; Sat,Sun 09:00-23:30 on; default off"},
        {schedule(base_t::weekly, workdays),
         "weekly: Mon-Wed,Fri 07:00-08:30 on; Sat 22:00-06:00 eco; Sun 00:00-00:00:01 eco; "
         "default off"},
        // Two days are a list, three a range; groups go by their first day.
        {schedule(base_t::weekly, daily({0, 2, 3, 4, 5}, 7 * kH, 7 * kH, "ring"), ""),
         "weekly: Mon,Wed-Sat 07:00 ring"},
        {schedule(base_t::weekly, daily({0, 1, 3}, kH, 2 * kH), ""),
         "weekly: Mon,Tue,Thu 01:00-02:00 on"},
        {schedule(base_t::weekly, alternate, ""),
         "weekly: Mon,Wed 00:00-01:00 a; Tue,Thu 00:00-01:00 b"},
        {schedule(base_t::weekly, {{"on", 0, 3 * kD}}, ""), "weekly: Mon 00:00-Thu 00:00 on"},
        // Spans that end with the week.
        {schedule(base_t::weekly, {{"on", 6 * kH, 7 * kD}}, ""), "weekly: Mon 06:00-Sun 24:00 on"},
        {schedule(base_t::weekly, {{"on", 0, 6 * kH}, {"on", 6 * kD + 22 * kH, 7 * kD}}, ""),
         "weekly: Mon 00:00-06:00 on; Sun 22:00-24:00 on"},
    });
}

TEST(TextForm, CanonicalTextOfOtherBases) {
    expectTexts({
        {schedule(base_t::daily, {{"on", 0, kD}}), "daily: 00:00-24:00 on; default off"},
        {schedule(base_t::daily, {{"on", 0, 6 * kH}, {"on", 22 * kH, kD}}),
         "daily: 00:00-06:00 on, 22:00-24:00 on; default off"},
        {schedule(base_t::hourly, {{"chime", 1800, 1800}}, ""), "hourly: :30 chime"},
        {schedule(base_t::hourly, {{"on", 0, 90}, {"off", 3599, 3600}}, ""),
         "hourly: :00-:01:30 on, :59:59-:60 off"},
        {schedule(base_t::monthly, {{"on", 30 * kD, 31 * kD}}, ""),
         "monthly: day 31 00:00 - day 31 24:00 on"},
        {schedule(base_t::yearly, {{"on", 59 * kD, 60 * kD}}, ""),
         "yearly: Feb 29 00:00 - Feb 29 24:00 on"},
        {schedule(base_t::once, {{"on", 1798135200, 1798326000}}, ""),
         "once: 2026-12-24 18:00 - 2026-12-26 23:00 on"},
        {schedule(base_t::once, {}, "off"), "once: default off"},
    });
}

// The two switches of 2026 in Europe/Berlin, both at 01:00 UTC.
constexpr std::uint32_t kSpring = 1774746000;  // 2026-03-29 02:00 CET becomes 03:00 CEST
constexpr std::uint32_t kAutumn = 1792890000;  // 2026-10-25 03:00 CEST becomes 02:00 CET

TEST(TextForm, OnceTimesAcrossTheDaylightSavingSwitches) {
    scoped_time_zone_t berlin("Europe/Berlin");
    const std::vector<std::pair<std::uint32_t, std::string>> rows = {
        {kSpring - 1, "once: 2026-03-29 01:59:59 on"},
        {kSpring, "once: 2026-03-29 03:00 on"},
        // 02:00 to 02:59:59 happen twice on 2026-10-25: each time says which.
        {kAutumn - kH, "once: 2026-10-25 02:00+02:00 on"},
        {kAutumn - 1800, "once: 2026-10-25 02:30+02:00 on"},
        {kAutumn, "once: 2026-10-25 02:00+01:00 on"},
        {kAutumn + 1800, "once: 2026-10-25 02:30+01:00 on"},
        {kAutumn + kH, "once: 2026-10-25 03:00 on"},
    };
    for (const auto& [at, text] : rows) {
        const text_schedule_t s = schedule(base_t::once, {{"on", at, at}}, "");
        EXPECT_EQ(scheduler::format_text(s), text);
        auto back = scheduler::parse_text(text);
        ASSERT_TRUE(std::holds_alternative<text_schedule_t>(back)) << text;
        EXPECT_EQ(std::get<text_schedule_t>(back), s) << text;
    }
    const std::vector<std::pair<std::string, std::string>> reads = {
        // The time the clocks skip reads as the zone's standard time.
        {"2026-03-29 02:30 on", "Once" + span(kSpring + 1800, kSpring + 1800, "on")},
        // Spans count seconds, not wall-clock hours: one hour in spring,
        // three in autumn.
        {"2026-03-29 01:30 - 2026-03-29 03:30 on",
         "Once" + span(kSpring - 1800, kSpring + 1800, "on")},
        {"2026-10-25 01:30 - 2026-10-25 03:30 on",
         "Once" + span(kAutumn - 3 * 1800, kAutumn + 3 * 1800, "on")},
        {"2026-10-25 02:30Z ring", "Once" + span(kAutumn + 5400, kAutumn + 5400, "ring")},
    };
    for (const auto& [text, expected] : reads) {
        EXPECT_EQ(read(text), expected) << text;
    }
}

// A period of a base as the random schedules use it: where it starts and
// how long it is ("once" takes a window of its own).
struct window_t {
    std::uint32_t origin;
    std::uint32_t length;
};

window_t windowOf(std::mt19937& random, base_t base) {
    constexpr std::array<std::uint32_t, 6> kPeriods = {0, kH, kD, 7 * kD, 31 * kD, 366 * kD};
    if (base != base_t::once) {
        return {0, kPeriods[static_cast<std::size_t>(base)]};
    }
    // Six hours around either switch of 2026, or anywhere in 2026.
    const std::uint32_t pick = random() % 3;
    return pick == 0   ? window_t{kSpring - 3 * kH, 6 * kH}
           : pick == 1 ? window_t{kAutumn - 3 * kH, 6 * kH}
                       : window_t{1767225600, 365 * kD};
}

// A point of [0, length]: now and then a start of a day or an hour or an
// end of the period, mostly whole minutes, seldom with seconds.
std::uint32_t randomPoint(std::mt19937& random, std::uint32_t length) {
    const std::uint32_t unit = length >= kD ? kD : kH;
    switch (random() % 8) {
        case 0:
            return random() % 2 == 0 ? 0 : length;
        case 1:
            return std::min<std::uint32_t>(length, random() % (length / unit + 1) * unit);
        case 2:
            return random() % (length + 1);
        default:
            return random() % (length + 1) / 60 * 60;
    }
}

// A random valid schedule: spans that may touch but never overlap, or
// events, sorted as the parser sorts them.
text_schedule_t randomSchedule(std::mt19937& random, base_t base) {
    const char* states[] = {"on",  "off", "eco",     "dim-2", "a.b_c",
                            "x:1", "Mon", "default", "24",    "Z"};
    const window_t window = windowOf(random, base);
    const std::uint32_t count = random() % 8;
    text_schedule_t s{base, {}, random() % 3 == 0 ? "" : states[random() % 10]};
    std::vector<std::uint32_t> points;
    for (std::uint32_t i = 0; i < 2 * count; ++i) {
        points.push_back(randomPoint(random, window.length));
    }
    std::sort(points.begin(), points.end());
    if (random() % 4 == 0) {
        // Events: distinct points, none at the very end of a period.
        points.erase(std::unique(points.begin(), points.end()), points.end());
        for (std::uint32_t at : points) {
            if (at < window.length || base == base_t::once) {
                s.entries.push_back(
                    {states[random() % 10], window.origin + at, window.origin + at});
            }
        }
        return s;
    }
    for (std::size_t i = 0; i + 1 < points.size(); i += 2) {
        if (points[i] < points[i + 1]) {
            s.entries.push_back(
                {states[random() % 10], window.origin + points[i], window.origin + points[i + 1]});
        }
    }
    return s;
}

TEST(TextForm, EveryScheduleReadsBackFromItsText) {
    std::mt19937 random(20261124);
    for (const char* zone : {"UTC", "Europe/Berlin"}) {
        scoped_time_zone_t inZone(zone);
        for (int i = 0; i < 6000; ++i) {
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
