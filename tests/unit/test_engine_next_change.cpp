// The next state change of a schedule, as a function of its entries and a
// time. The default state is "off" throughout; times are seconds since the
// epoch, with the local time in each row's comment.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "engine_rows.h"
#include "next_change.h"
#include "time_zone.h"

namespace {

// "time state", "time state event", or "-" when there is no change.
std::string said(const std::optional<change_t>& change) {
    if (!change) {
        return "-";
    }
    return std::to_string(change->time) + " " + change->state + (change->isEvent ? " event" : "");
}

struct next_row_t {
    const char* zone;
    int base;
    const char* entries;
    time_t t;
    const char* expected;
};

void check(const std::vector<next_row_t>& rows) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const next_row_t& row = rows[i];
        scoped_time_zone_t zone(row.zone);
        EXPECT_EQ(said(schedule_nextChange(specOf(row.base, row.entries), row.t)), row.expected)
            << "row " << i << ": " << row.zone << " base " << row.base << " t=" << row.t;
    }
}

// Tuesday 2023-11-14 UTC starts at 1699920000; Monday 2023-11-13 at 1699833600.
const char* kDay = "0 3600 on, 21600 28800 on, 28800 36000 on, 64800 82800 eco, 82800 86400 on";
const char* kFirstDay = "0 86400 on";
const char* kEvening = "64800 72000 on";
const int kDaily = time_base_daily;
const int kMonthly = time_base_monthly;
const int kYearly = time_base_yearly;
const int kOnce = time_base_once;

// Runs of one state, wraps at the period end and momentary events.
TEST(EngineNextChange, RepeatingBases) {
    check({
        {"UTC", kDaily, kDay, 1699920000, "1699923600 off"},  // 00:00, a begin is in force
        {"UTC", kDaily, kDay, 1699941600, "1699956000 off"},  // 06:00, run 06-10
        {"UTC", kDaily, kDay, 1699956000, "1699984800 eco"},  // 10:00, the run's end
        // 23:30: the run crosses midnight into entry 1, ends Wed 01:00.
        {"UTC", kDaily, kDay, 1700004600, "1700010000 off"},
        {"UTC", time_base_hourly, "600 1200 on", 1700001000, "1700003400 on"},  // 22:30 -> 23:10
        // One state all day: the run wraps through every entry; next midnight.
        {"UTC", kDaily, "0 43200 on, 43200 86400 on", 1699956000, "1700006400 on"},
        // 23:30: midnight continues with another state.
        {"UTC", kDaily, "0 3600 on, 82800 86400 eco", 1700004600, "1700006400 on"},
        // 23:30: the next day starts with a gap, so the default returns at midnight.
        {"UTC", kDaily, "3600 7200 on, 82800 86400 on", 1700004600, "1700006400 off"},
        // 12:00 with everything over today: tomorrow's first begin.
        {"UTC", kDaily, "21600 28800 on, 28800 36000 on", 1699963200, "1700028000 on"},
        // Sunday 20:00 with entries Monday and Wednesday 08:00-17:00.
        {"UTC", time_base_weekly, "28800 61200 on, 201600 234000 on", 1700424000, "1700467200 on"},
        // 08:00: the event at t itself is not next; 13:53:20: tomorrow 08:00.
        {"UTC", kDaily, "28800 28800 ring, 43200 43200 ring", 1699948800, "1699963200 ring event"},
        {"UTC", kDaily, "28800 28800 ring, 43200 43200 ring", 1699970000, "1700035200 ring event"},
    });
}

// Offsets count from midnight read with t's daylight-saving flag, and months
// and years have their calendar lengths.
TEST(EngineNextChange, SwitchesAndCalendarLengths) {
    const char* monthEnds = "0 86400 on, 2419200 2505600 on";   // first day and the 29th
    const char* yearEnds = "0 86400 on, 31449600 31536000 on";  // Jan 1 and day 365
    check({
        // A switch later that day moves the 18:00 begin by an hour.
        {"Europe/Berlin", kDaily, kEvening, 1679788800, "1679850000 on"},  // 03-26 -> 19 CEST
        {"Europe/Berlin", kDaily, kEvening, 1698534000, "1698595200 on"},  // 10-29 -> 17 CET
        // After the switch the begin is 18:00 again.
        {"Europe/Berlin", kDaily, kEvening, 1679824800, "1679846400 on"},  // 12:00 CEST
        {"Europe/Berlin", kDaily, kEvening, 1698577200, "1698598800 on"},  // 12:00 CET
        {"UTC", kMonthly, kFirstDay, 1700006400, "1701388800 on"},         // Nov 15 -> Dec 1 (30 d)
        {"UTC", kMonthly, kFirstDay, 1706745600, "1706832000 off"},        // 2024-02-01 -> 02-02
        {"UTC", kMonthly, kFirstDay, 1706832000, "1709251200 on"},         // Feb 2 -> Mar 1 (29 d)
        {"UTC", kMonthly, kFirstDay, 1675296000, "1677628800 on"},         // 2023-02 (28 d)
        {"UTC", kMonthly, kFirstDay, 1704153600, "1706745600 on"},         // Jan 2 -> Feb 1 (31 d)
        // Feb 29 12:00: runs into Mar 1, whose entry has the same state.
        {"UTC", kMonthly, monthEnds, 1709208000, "1709337600 off"},
        // Across a switch the next month's midnight is read with t's flag,
        // like the reference time: Apr 1 01:00 CEST, and Oct 31 23:00 CET.
        {"Europe/Berlin", kMonthly, kFirstDay, 1678878000, "1680303600 on"},
        {"Europe/Berlin", kMonthly, kFirstDay, 1697364000, "1698789600 on"},
        {"UTC", kYearly, kFirstDay, 1688169600, "1704067200 on"},   // 2023-07-01 -> 2024-01-01
        {"UTC", kYearly, kFirstDay, 1704067200, "1704153600 off"},  // 2024-01-01 -> 01-02
        {"UTC", kYearly, kFirstDay, 1709251200, "1735689600 on"},   // leap 2024 -> 2025-01-01
        // 2023-12-31 12:00: runs into New Year's Day, off on Jan 2.
        {"UTC", kYearly, yearEnds, 1704024000, "1704153600 off"},
        // A day a month lacks does not occur in it: the 30th from February
        // comes on March 30 and lasts its day; day 366 waits for a leap year.
        {"UTC", kMonthly, "2505600 2592000 on", 1707523200, "1711756800 on"},
        {"UTC", kMonthly, "2505600 2592000 on", 1711800000, "1711843200 off"},
        {"UTC", kYearly, "31536000 31622400 on", 1688169600, "1735603200 on"},
        // The 29th to the 31st: absent from February 2023, and in 2024 cut
        // short by the month's end.
        {"UTC", kMonthly, "2419200 2678400 on", 1675987200, "1680048000 on"},
        {"UTC", kMonthly, "2419200 2678400 on", 1709208000, "1709251200 off"},
    });
}

// Sunday 10:00-12:00, seen from 08:00 and from 10:30 that Sunday: the week
// counts from the Monday of the Sunday's own date, also when midnight read
// with the day's daylight-saving flag falls on the Saturday (the clocks went
// forward that night: Berlin, New York; half an hour at Lord Howe; at
// midnight itself in Santiago) or the clocks went back.
TEST(EngineNextChange, TheSundaysTheClocksChange) {
    const char* kSunday = "554400 561600 on";
    const int kWeekly = time_base_weekly;
    check({
        {"Europe/Berlin", kWeekly, kSunday, 1774764000, "1774771200 on"},  // 03-29 forward
        {"Europe/Berlin", kWeekly, kSunday, 1774773000, "1774778400 off"},
        {"Europe/Berlin", kWeekly, kSunday, 1792911600, "1792918800 on"},  // 10-25 back
        {"Europe/Berlin", kWeekly, kSunday, 1792920600, "1792926000 off"},
        {"America/New_York", kWeekly, kSunday, 1772971200, "1772978400 on"},  // 03-08 forward
        {"America/New_York", kWeekly, kSunday, 1772980200, "1772985600 off"},
        {"America/New_York", kWeekly, kSunday, 1793538000, "1793545200 on"},  // 11-01 back
        {"America/New_York", kWeekly, kSunday, 1793547000, "1793552400 off"},
        {"Australia/Lord_Howe", kWeekly, kSunday, 1775338200, "1775345400 on"},  // 04-05 back
        {"Australia/Lord_Howe", kWeekly, kSunday, 1775347200, "1775352600 off"},
        {"Australia/Lord_Howe", kWeekly, kSunday, 1791061200, "1791068400 on"},  // 10-04 forward
        {"Australia/Lord_Howe", kWeekly, kSunday, 1791070200, "1791075600 off"},
        {"America/Santiago", kWeekly, kSunday, 1775390400, "1775397600 on"},  // 04-05 back
        {"America/Santiago", kWeekly, kSunday, 1775399400, "1775404800 off"},
        {"America/Santiago", kWeekly, kSunday, 1788692400, "1788699600 on"},  // 09-06 forward
        {"America/Santiago", kWeekly, kSunday, 1788701400, "1788706800 off"},
    });
}

// Once entries hold absolute times, and a Once schedule ends. The end of a
// span one second long is a change of its own.
TEST(EngineNextChange, OnceAndShortSpans) {
    const char* other = "1700001000 1700002000 on, 1700002000 1700003000 eco";
    const char* gap = "1700001000 1700002000 on, 1700002500 1700003000 on";
    const char* second = "1700000000 1700000001 on";
    check({
        {"UTC", kOnce, other, 1700000500, "1700001000 on"},
        {"UTC", kOnce, other, 1700001500, "1700002000 eco"},  // own boundary event
        {"UTC", kOnce, other, 1700002000, "1700003000 off"},
        {"UTC", kOnce, other, 1700003000, "-"},  // over at its last end
        {"UTC", kOnce, "1700001000 1700002000 on, 1700002000 1700003000 on", 1700001500,
         "1700003000 off"},  // one run
        {"UTC", kOnce, gap, 1700001500, "1700002000 off"},
        {"UTC", kOnce, gap, 1700002200, "1700002500 on"},
        {"UTC", kOnce, "1700001000 1700001000 ring", 1700000000, "1700001000 ring event"},
        {"UTC", kDaily, "", 1700000000, "-"},  // no entries at all
        {"UTC", kOnce, second, 1699999999, "1700000000 on"},
        {"UTC", kOnce, second, 1700000000, "1700000001 off"},  // searched from its begin
        {"UTC", kOnce, second, 1700000001, "-"},
        {"UTC", kDaily, "3600 3601 on", 1699923599, "1699923600 on"},
        {"UTC", kDaily, "3600 3601 on", 1699923600, "1699923601 off"},
        {"UTC", kDaily, "3600 3601 on", 1699923601, "1700010000 on"},  // tomorrow
        {"UTC", kDaily, "3600 3601 on, 3601 3602 eco", 1699923600, "1699923601 eco"},
    });
}

// While a temporary state holds, a change to that same state does not end
// it: the change after it is planned instead, once.
TEST(EngineNextChange, HeldStateSkipsTheChangeItAlreadyShows) {
    const char* spans = "3600 7200 on, 7200 10800 eco";
    const char* rings = "28800 28800 ring, 43200 43200 ring";
    const time_t day = 1699920000;
    struct row_t {
        const char* entries;
        time_t t;
        const char* held;  // null: none
        const char* expected;
        const char* stateAtT;
    };
    const std::vector<row_t> rows = {
        {spans, day, nullptr, "1699923600 on", "off"},
        {spans, day, "eco", "1699923600 on", "off"},
        {spans, day, "on", "1699927200 eco", "off"},
        {spans, day + 7300, "off", "1700010000 on", "eco"},  // past midnight
        // Only one change is passed over, even when the next sets the same.
        {rings, day, "ring", "1699963200 ring event", "off"},
        {"", day, "on", "-", "off"},
    };
    for (const row_t& row : rows) {
        const schedule_spec_t spec = specOf(kDaily, row.entries);
        const std::string held = row.held != nullptr ? row.held : "";
        const std::string* heldState = row.held != nullptr ? &held : nullptr;
        EXPECT_EQ(said(schedule_nextChangeHeld(spec, row.t, heldState)), row.expected)
            << row.entries << " held " << held;
        const position_t position = schedule_position(spec, row.t, heldState);
        EXPECT_EQ(said(position.next), row.expected) << row.entries << " held " << held;
        EXPECT_EQ(position.state, row.stateAtT) << row.entries << " t=" << row.t;
    }
}

// The changes met walking from change to change through (from, to]; each
// lies after the one before and sets the state the schedule holds then.
std::set<time_t> walk(const schedule_spec_t& spec, time_t from, time_t to) {
    std::set<time_t> walked;
    time_t t = from;
    while (std::optional<change_t> next = schedule_nextChange(spec, t)) {
        if (next->time > to || next->time <= t) {
            EXPECT_GT(next->time, t) << textOf(spec.entries);
            break;
        }
        EXPECT_EQ(next->state, schedule_stateAt(spec, next->time))
            << textOf(spec.entries) << " at " << next->time;
        walked.insert(next->time);
        t = next->time;
    }
    return walked;
}

// A valid list of spans for a period: ordered, without overlap, some of them
// adjacent, some one second long, some touching the period's edges.
std::vector<schedule_entry_t> randomSpans(std::mt19937& random, std::uint32_t period) {
    static const char* const kStates[] = {"on", "eco"};
    std::vector<schedule_entry_t> entries;
    std::uint32_t cursor = random() % 2 == 0 ? 0 : random() % (period / 4);
    for (unsigned count = random() % 6; count > 0; --count) {
        const std::uint32_t length = random() % 3 == 0 ? 1 : 1 + random() % (period / 4);
        if (cursor + length > period) {
            break;
        }
        entries.push_back({kStates[random() % 2], cursor, cursor + length});
        cursor += length + (random() % 2 == 0 ? 0 : random() % (period / 8));
    }
    if (!entries.empty() && random() % 3 == 0) {
        entries.back().end = period;
    }
    return entries;
}

// True when one state holds the whole period without a break.
bool oneRun(const std::vector<schedule_entry_t>& entries, std::uint32_t period) {
    std::uint32_t reached = 0;
    for (const schedule_entry_t& entry : entries) {
        if (entry.begin != reached || entry.state != entries.front().state) {
            return false;
        }
        reached = entry.end;
    }
    return reached == period;
}

// The times in (from, to] at which the state differs from the second
// before; only the entries' begins and ends can be such times. A schedule
// that holds one state throughout tells it again at each period's start.
std::set<time_t> stateChanges(const schedule_spec_t& spec, time_t from, time_t to, time_t ref,
                              std::uint32_t period) {
    std::set<time_t> changes;
    for (time_t start = ref; start <= to; start += period) {
        if (oneRun(spec.entries, period) && start > from) {
            changes.insert(start);
        }
        for (const schedule_entry_t& entry : spec.entries) {
            for (const time_t x : {start + entry.begin, start + entry.end}) {
                if (x > from && x <= to &&
                    schedule_stateAt(spec, x - 1) != schedule_stateAt(spec, x)) {
                    changes.insert(x);
                }
            }
        }
    }
    return changes;
}

// Walking from change to change over two periods meets every change of
// state, each with the state the schedule holds from then on.
TEST(EngineNextChange, WalkAgreesWithStateAt) {
    scoped_time_zone_t zone("UTC");
    std::mt19937 random(20240115);
    const time_t monday = 1699833600;
    const std::vector<std::string> states = {"on", "eco"};
    for (int i = 0; i < 400; ++i) {
        const int base = i % 2 == 0 ? kDaily : time_base_weekly;
        const auto period = static_cast<std::uint32_t>(time_getMaxBoundary(base));
        const schedule_spec_t spec{base, randomSpans(random, period), "off"};
        ASSERT_FALSE(schedule_verify(spec.entries, base, states)) << textOf(spec.entries);
        const time_t from = monday + period + random() % period;
        const time_t to = from + 2 * static_cast<time_t>(period);
        EXPECT_EQ(walk(spec, from, to), stateChanges(spec, from, to, monday, period))
            << base << ": " << textOf(spec.entries) << " from " << from;
    }
}

// A change must set the state the schedule holds at its time, also when the
// day of an entry is missing from the month or year the search starts in:
// each period is placed by its own calendar, so a span on the 30th searched
// from February comes on March 30, not March 1 for a month.
TEST(EngineNextChange, ShortPeriodsAgreeWithStateAt) {
    const std::vector<std::tuple<int, const char*, time_t>> rows = {
        {kMonthly, "2505600 2592000 on", 1707566400},   // the 30th, from 2024-02-10
        {kMonthly, "2592000 2678400 on", 1700000000},   // the 31st, from 2023-11-14
        {kYearly, "31536000 31622400 on", 1688169600},  // day 366, from 2023-07-01
    };
    scoped_time_zone_t zone("UTC");
    for (const auto& [base, entries, from] : rows) {
        walk(specOf(base, entries), from, from + 400 * 86400);
    }
}

}  // namespace
