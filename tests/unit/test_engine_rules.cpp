// Ordering and verification of entry lists, the reasons a schedule is
// refused, and the state a schedule holds at a time.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "engine_rows.h"
#include "orv/variant.h"
#include "schedules.h"
#include "time_zone.h"

namespace {

TEST(EngineRules, OrderSortsByBeginAndTheSearchSkipsDefaultSpans) {
    // entries, default, ordered entries, the entries the search reads
    const std::vector<std::tuple<const char*, const char*, const char*, const char*>> rows = {
        {"5 10 a, 0 2 b, 3 4 c", "off", "0 2 b, 3 4 c, 5 10 a", "0 2 b, 3 4 c, 5 10 a"},
        // Equal begins keep the order they were written in.
        {"7 7 a, 1 1 z, 7 7 b, 7 7 c", "off", "1 1 z, 7 7 a, 7 7 b, 7 7 c",
         "1 1 z, 7 7 a, 7 7 b, 7 7 c"},
        // A lunch break in the default state is kept as written; the search
        // does without it.
        {"0 3600 on, 3600 7200 off, 7200 9000 on", "off", "0 3600 on, 3600 7200 off, 7200 9000 on",
         "0 3600 on, 7200 9000 on"},
        // An event in the default state is sent like any other.
        {"0 1 off, 5 5 off", "off", "0 1 off, 5 5 off", "5 5 off"},
        {"0 1 off", "Off", "0 1 off", "0 1 off"},  // states compare case-sensitively
        {"0 5 b, -10 10 a", "off", "-10 10 a, 0 5 b", "-10 10 a, 0 5 b"},  // begins are signed
    };
    for (const auto& [input, def, expected, searched] : rows) {
        const std::vector<schedule_entry_t> all = entriesOf(input);
        std::vector<schedule_entry_t> ordered;
        for (std::size_t at : schedule_order(all)) {
            ordered.push_back(all.at(at));
        }
        EXPECT_EQ(textOf(ordered), expected) << input;
        EXPECT_EQ(textOf(schedule_searched(ordered, def)), searched) << input;
    }
}

// The rule and the positions of a breach, as "rule at other"; "" for none.
std::string breachOf(const std::optional<breach_t>& breach) {
    if (!breach) {
        return "";
    }
    static const char* const kRules[] = {"mixed", "reversed", "beyond", "unknownState", "overlap"};
    return std::string(kRules[breach->rule]) + " " + std::to_string(breach->at) + " " +
           std::to_string(breach->other);
}

TEST(EngineRules, VerifyFindsTheFirstBreach) {
    // base, whether the type lists states, ordered entries, breach ("": accepted)
    const std::vector<std::tuple<int, bool, const char*, const char*>> rows = {
        {time_base_daily, false, "", ""},
        {time_base_daily, true, "0 86400 on", ""},
        {time_base_daily, true, "0 86401 on", "beyond 0 0"},
        // The boundary is checked unsigned, so a negative offset exceeds it.
        {time_base_hourly, true, "-10 10 on", "beyond 0 0"},
        {time_base_once, true, "-10 10 on", ""},
        // End before begin only when read signed.
        {time_base_once, true, "10 -10 on", "reversed 0 0"},
        {time_base_daily, true, "20 20 on, 30 40 on", "mixed 1 0"},
        {time_base_daily, true, "20 30 on, 40 40 on", "mixed 1 0"},
        {time_base_daily, true, "20 20 on, 20 20 off", ""},
        {time_base_daily, true, "0 100 on, 100 200 off, 7200 9000 eco", ""},
        {time_base_daily, true, "0 101 on, 100 200 off", "overlap 0 1"},
        // The successor's overlap is found before its unknown state.
        {time_base_daily, true, "0 100 on, 50 60 bogus", "overlap 0 1"},
        {time_base_daily, false, "0 100 on", "unknownState 0 0"},
    };
    const std::vector<std::string> known = {"on", "off", "eco"};
    for (const auto& [base, listed, input, expected] : rows) {
        const std::vector<std::string> states = listed ? known : std::vector<std::string>{};
        EXPECT_EQ(breachOf(schedule_verify(entriesOf(input), base, states)), expected) << input;
    }
}

struct parse_row_t {
    const char* id;
    const char* base;
    const char* def;
    const char* override;
    const char* entries;  // JSON; null for none
    const char* outcome;  // the reason, or the ordered entries kept
};

const char* const kOverlapping =
    R"([{"state":"on","begin":100,"end":200},{"state":"eco","begin":0,"end":150}])";

const parse_row_t kParseRows[] = {
    {nullptr, "Daily", "off", "", nullptr, "'ID' is missing from the schedule"},
    {"a", "Daily", "off", nullptr, nullptr, "'override' is missing from the schedule"},
    {"a.b", "Daily", "off", "", nullptr, "ID 'a.b' may be neither empty nor hold a dot"},
    {"", "Daily", "off", "", nullptr, "ID '' may be neither empty nor hold a dot"},
    {"a", "daily", "off", "", nullptr,
     "base 'daily' is not one of Once, Hourly, Daily, Weekly, Monthly, Yearly"},
    {"a", "Daily", "bogus", "", nullptr, "default state 'bogus' is not a state of type 'Light'"},
    {"a", "Daily", "off", "bogus", nullptr,
     "override state 'bogus' is not a state of type 'Light'"},
    {"a", "Daily", "bogus", "bogus", nullptr,
     "default state 'bogus' is not a state of type 'Light'"},
    {"a", "Daily", "off", "", R"([{"state":"on","begin":0,"end":1},"junk"])",
     "entry 2 is not a map of state, begin and end"},
    // Entries are ordered before they are verified, and named as sent.
    {"a", "Daily", "off", "", kOverlapping, "entries 1 and 2 overlap"},
    {"a", "Hourly", "off", "", R"([{"state":"on","begin":0,"end":3601}])",
     "entry 1 lies outside the Hourly period of 3600 s"},
    {"a", "Daily", "off", "",
     R"([{"state":"on","begin":0,"end":1},{"state":"dim","begin":5,"end":9}])",
     "entry 2: state 'dim' is not a state of type 'Light'"},
    {"a", "Daily", "off", "", R"([{"state":"on","begin":9,"end":1}])",
     "entry 1 ends before it begins"},
    {"a", "Daily", "off", "",
     R"([{"state":"on","begin":9,"end":10},{"state":"on","begin":5,"end":5}])",
     "entries 2 and 1 mix a span and an event: a schedule holds one kind"},
    // An entry in the default state is kept, so it can overlap.
    {"a", "Daily", "off", "on",
     R"([{"state":"on","begin":0,"end":100},{"state":"off","begin":50,"end":60}])",
     "entries 1 and 2 overlap"},
    {"a", "Once", "off", "",
     R"([{"state":"on","begin":300,"end":400},{"state":"eco","begin":0,"end":100}])",
     "0 100 eco, 300 400 on"},
    {"a", "Daily", "off", "",
     R"([{"state":"on","begin":0,"end":100},{"state":"off","begin":100,"end":200}])",
     "0 100 on, 100 200 off"},
    {"a", "Daily", "off", "", nullptr, ""},
};

std::optional<std::string> textOrNothing(const char* value) {
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

// A schedule as sent, checked against a type with the states on, off and eco.
TEST(EngineRules, ParseRefusesWithItsReason) {
    type_record_t type;
    type.name = "Light";
    type.stateNames = {"on", "off", "eco"};
    for (const parse_row_t& row : kParseRows) {
        schedule_t schedule;
        schedule.ID = textOrNothing(row.id);
        schedule.base = textOrNothing(row.base);
        schedule.def = textOrNothing(row.def);
        schedule.override = textOrNothing(row.override);
        if (row.entries != nullptr) {
            schedule.schedule = std::make_shared<const variant_list_t>(
                *variant_fromJSON(row.entries).value_or(variant_t()).list());
        }
        const schedule_parse_t parsed = schedules_parse(schedule, type);
        const bool accepted = parsed.record != nullptr;
        EXPECT_EQ(accepted ? textOf(schedule_written(*parsed.record)) : parsed.reason, row.outcome)
            << row.def << " " << (row.entries ? row.entries : "-");
        EXPECT_EQ(parsed.reason.empty(), accepted);
    }
}

TEST(EngineRules, StateAtTime) {
    const char* daily = "3600 7200 on, 7200 10800 eco";
    const char* once = "1700000000 1700003600 on";
    const time_t day = 1699920000;  // 2023-11-14 00:00 UTC
    // zone, base, entries, time, state with the default "off"
    const std::vector<std::tuple<const char*, int, const char*, time_t, const char*>> rows = {
        {"UTC", time_base_daily, daily, day + 3600, "on"},
        {"UTC", time_base_daily, daily, day + 7199, "on"},
        {"UTC", time_base_daily, daily, day + 7200, "eco"},
        {"UTC", time_base_daily, daily, day + 10800, "off"},
        {"UTC", time_base_daily, "", day + 3600, "off"},
        {"UTC", time_base_once, once, 1700000000, "on"},
        {"UTC", time_base_once, once, 1700003600, "off"},
        // A momentary event is no state, even at its moment.
        {"UTC", time_base_daily, "3600 3600 ring", day + 3600, "off"},
        // Offsets are signed: an entry from -10 covers the start of the hour.
        {"UTC", time_base_hourly, "-10 10 on", day + 5, "on"},
        {"UTC", time_base_hourly, "-20 -10 on", day + 5, "off"},
        // The period starts at local midnight: 01:30 CEST is 23:30 UTC.
        {"Europe/Berlin", time_base_daily, daily, 1689377400, "on"},
        {"UTC", time_base_daily, daily, 1689377400, "off"},
    };
    for (const auto& [zoneName, base, input, t, expected] : rows) {
        scoped_time_zone_t zone(zoneName);
        EXPECT_EQ(schedule_stateAt(specOf(base, input), t), expected)
            << zoneName << " t=" << t << " " << input;
    }
}

}  // namespace
