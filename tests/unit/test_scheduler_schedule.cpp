// Ordering and verification of entry lists, and the state a schedule holds at
// a time.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "orv/trace.h"
#include "orv/variant.h"
#include "orv/variant_map.h"
#include "scheduler_schedule.h"
#include "scheduler_time.h"
#include "time_zone.h"

namespace {

variant_list_t list(const char* json) {
    std::optional<variant_t> value = variant_fromJSON(json);
    EXPECT_TRUE(value && value->list()) << json;
    return value && value->list() ? *value->list() : variant_list_t{};
}

// Entries in the short form "begin end state, ..."; negative offsets are
// stored as their unsigned 32-bit value, and "junk" is an element that is not
// an entry.
variant_list_t entries(const std::string& text) {
    variant_list_t result;
    std::istringstream rows(text);
    for (std::string row; std::getline(rows, row, ',');) {
        std::istringstream fields(row);
        std::int64_t begin = 0;
        std::int64_t end = 0;
        std::string state;
        if (fields >> begin >> end >> state) {
            variant_map_t map;
            variant_map_addChar(&map, "state", state);
            variant_map_addUInt32(&map, "begin", static_cast<std::uint32_t>(begin));
            variant_map_addUInt32(&map, "end", static_cast<std::uint32_t>(end));
            result.emplace_back(std::move(map));
        } else {
            result.emplace_back("junk");
        }
    }
    return result;
}

std::string json(const variant_list_t& entries) {
    variant_t value(entries);
    return variant_toJSON(&value);
}

// One expected trace line: its message and the function that traced it.
struct line_t {
    const char* function;
    const char* message;
};

class ScheduleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tolvTraceReset();
        tolvTraceAddZone(500, "scheduler_plugin");
        tolvTraceSetLevel(500);
        tolvTraceSetSink([this](std::string_view line) { lines_.emplace_back(line); });
    }
    void TearDown() override {
        tolvTraceSetSink({});
        tolvTraceReset();
    }
    void expectLines(const std::vector<line_t>& expected, const char* tag, const char* context) {
        ASSERT_EQ(lines_.size(), expected.size()) << context;
        for (std::size_t i = 0; i < expected.size(); ++i) {
            std::string wanted = std::string("[") + tag + "]" + expected[i].message + " - (" +
                                 expected[i].function + "@";
            EXPECT_NE(lines_[i].find(wanted), std::string::npos) << context << "\n" << lines_[i];
        }
    }
    std::vector<std::string> lines_;
};

TEST_F(ScheduleTest, OrderSortsByBeginAndDropsTheDefault) {
    struct row_t {
        const char* entries;
        const char* def;
        const char* expected;
        std::size_t removed;
    };
    const std::vector<row_t> rows = {
        {"5 10 a, 0 2 b, 3 4 c", "off", "0 2 b, 3 4 c, 5 10 a", 0},
        // Equal begins come out in reverse input order.
        {"100 100 x, 100 100 y", "off", "100 100 y, 100 100 x", 0},
        {"0 3600 on, 3600 7200 off, 7200 9000 on", "off", "0 3600 on, 7200 9000 on", 1},
        {"0 1 off, 5 5 off", "off", "", 2},
        {"0 1 off", "Off", "0 1 off", 0},
        {"0 5 b, -10 10 a", "off", "-10 10 a, 0 5 b", 0},
        // A bad element goes to the end, but one already placed is walked
        // over, so later entries may land behind it.
        {"5 10 a, junk, 0 2 b", "off", "0 2 b, 5 10 a, junk", 0},
        {"junk, 5 10 a, 0 2 b", "off", "junk, 0 2 b, 5 10 a", 0},
    };
    const std::string removal = "[n]found a schedule entry setting the default value, removing it";
    for (const row_t& row : rows) {
        lines_.clear();
        const variant_list_t input = entries(row.entries);
        std::optional<variant_list_t> ordered = schedule_order(input, row.def);
        ASSERT_TRUE(ordered.has_value()) << row.entries;
        EXPECT_EQ(json(*ordered), json(entries(row.expected))) << row.entries;
        std::size_t removals = 0;
        for (const std::string& line : lines_) {
            removals += line.find(removal) != std::string::npos ? 1 : 0;
        }
        EXPECT_EQ(removals, row.removed) << row.entries;
    }
}

TEST_F(ScheduleTest, VerifyRefusesWithExactlyOneReason) {
    const char* on = R"(["on","off","eco"])";
    struct row_t {
        int base;
        const char* states;
        const char* entries;
        std::vector<line_t> trace;  // empty: the schedule is accepted
    };
    const line_t overlap = {"schedule_checkOverlappings", "overlapping detected"};
    const line_t invalidOverlap = {"schedule_verify", "invalid overlapping detected in schedule"};
    const line_t badState = {"schedule_verify", "invalid state detected in schedule"};
    const line_t mixed = {"schedule_verify", "Mixed event/state schedules are not allowed"};
    const line_t endFirst = {"schedule_verify", "end starts before begin..."};
    const line_t notMap = {"entryMap", "Not a variant map"};
    const line_t noEntry = {"schedule_verify", "error getting schedule entry"};
    const line_t noNext = {"schedule_checkOverlappings", "error getting schedule entry"};
    const line_t pastDay = {"schedule_verify",
                            "schedule out of boundary begin=0, end=86401, boundary=86400"};
    const line_t pastHour = {"schedule_verify",
                             "schedule out of boundary begin=4294967286, end=10, boundary=3600"};
    const std::vector<row_t> rows = {
        {time_base_daily, "[]", "", {}},
        {time_base_daily, on, "0 86400 on", {}},
        {time_base_daily, on, "0 86401 on", {pastDay}},
        {time_base_hourly, on, "-10 10 on", {pastHour}},
        {time_base_once, on, "-10 10 on", {}},
        {time_base_daily, on, "100 50 on", {endFirst}},
        // End before begin only when read signed.
        {time_base_once, on, "10 -10 on", {endFirst}},
        {time_base_daily, on, "0 10 on, 20 20 on", {mixed}},
        {time_base_daily, on, "20 20 on, 30 40 on", {mixed}},
        {time_base_daily, on, "20 20 on, 20 20 off", {}},
        {time_base_daily, on, "0 100 on, 100 200 off, 7200 9000 eco", {}},
        {time_base_daily, on, "0 101 on, 100 200 off", {overlap, invalidOverlap}},
        // The successor's overlap is found before its unknown state.
        {time_base_daily, on, "0 100 on, 50 60 bogus", {overlap, invalidOverlap}},
        {time_base_daily, on, "0 100 On", {badState}},
        {time_base_daily, "[]", "0 100 on", {badState}},
        {time_base_daily, on, "junk", {notMap, noEntry}},
        {time_base_daily, on, "0 100 on, junk", {notMap, noNext, invalidOverlap}},
    };
    for (const row_t& row : rows) {
        lines_.clear();
        const variant_list_t states = list(row.states);
        EXPECT_EQ(schedule_verify(entries(row.entries), row.base, &states), row.trace.empty())
            << row.entries;
        expectLines(row.trace, "x", row.entries);
    }
}

// Outside verification an element may overlap both neighbours; each conflict
// is traced.
TEST_F(ScheduleTest, CheckOverlappingsLooksBothWays) {
    const variant_list_t list = entries("0 100 a, 50 150 b, 120 200 c, 300 400 d");
    const line_t overlap = {"schedule_checkOverlappings", "overlapping detected"};
    EXPECT_FALSE(schedule_checkOverlappings(list, 1));
    expectLines({overlap, overlap}, "x", "middle");
    lines_.clear();
    EXPECT_TRUE(schedule_checkOverlappings(list, 3));
    EXPECT_FALSE(schedule_checkOverlappings(list, 4));
    expectLines({{"schedule_checkOverlappings", "error getting schedule entry"}}, "x", "past end");
}

TEST_F(ScheduleTest, CurrentState) {
    const char* daily = "3600 7200 on, 7200 10800 eco";
    const char* once = "1700000000 1700003600 on";
    const char* event = "3600 3600 ring";
    const char* trailingJunk = "3600 7200 on, junk";
    const time_t day = 1699920000;  // 2023-11-14 00:00 UTC
    struct row_t {
        const char* zone;
        int base;
        const char* entries;
        const char* def;
        time_t t;
        const char* expected;  // null: no result
    };
    const std::vector<row_t> rows = {
        {"UTC", time_base_daily, daily, "off", day + 1800, "off"},
        {"UTC", time_base_daily, daily, "off", day + 3600, "on"},
        {"UTC", time_base_daily, daily, "off", day + 7199, "on"},
        {"UTC", time_base_daily, daily, "off", day + 7200, "eco"},
        {"UTC", time_base_daily, daily, "off", day + 10800, "off"},
        {"UTC", time_base_daily, "", "off", day + 3600, "off"},
        {"UTC", time_base_once, once, "off", 1699999999, "off"},
        {"UTC", time_base_once, once, "off", 1700000000, "on"},
        {"UTC", time_base_once, once, "off", 1700003600, "off"},
        {"UTC", time_base_daily, event, "quiet", day + 3600, "quiet"},
        {"UTC", time_base_daily, event, "quiet", day + 3601, "quiet"},
        // Offsets are signed: an entry from -10 covers the start of the hour.
        {"UTC", time_base_hourly, "-10 10 on", "off", day + 5, "on"},
        {"UTC", time_base_hourly, "-20 -10 on", "off", day + 5, "off"},
        // The period starts at local midnight: 01:30 CEST is 23:30 UTC.
        {"Europe/Berlin", time_base_daily, daily, "off", 1689377400, "on"},
        {"UTC", time_base_daily, daily, "off", 1689377400, "off"},
        // The walk stops at the first entry beginning later, before the bad
        // element; past the entry it reaches the bad element.
        {"UTC", time_base_daily, trailingJunk, "off", day + 1800, "off"},
        {"UTC", time_base_daily, trailingJunk, "off", day + 9000, nullptr},
    };
    for (const row_t& row : rows) {
        scoped_time_zone_t zone(row.zone);
        std::optional<std::string> state =
            schedule_currentState(entries(row.entries), row.base, row.t, row.def);
        const std::string context = std::string(row.zone) + " t=" + std::to_string(row.t);
        ASSERT_EQ(state.has_value(), row.expected != nullptr) << context << " " << row.entries;
        if (row.expected != nullptr) {
            EXPECT_EQ(*state, row.expected) << context << " " << row.entries;
        }
    }
    expectLines({{"entryMap", "Not a variant map"},
                 {"schedule_currentState", "invalid overlapping detected in schedule"}},
                "x", "bad element");
}

TEST_F(ScheduleTest, PrintScheduleTracesEachElement) {
    schedule_printSchedule({});
    EXPECT_TRUE(lines_.empty());
    schedule_printSchedule(entries("1 2 on, junk"));
    expectLines({{"schedule_printSchedule", R"(v2s JSON = {"state":"on","begin":1,"end":2})"},
                 {"schedule_printSchedule", R"(v2s JSON = "junk")"}},
                "i", "print");
}

}  // namespace
