// Ordering and verification of entry lists, and the state a schedule holds at
// a time.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "orv/trace.h"
#include "orv/variant.h"
#include "orv/variant_map.h"
#include "scheduler_entrylist.h"
#include "scheduler_schedule.h"
#include "scheduler_time.h"
#include "time_zone.h"

namespace {

// Entries in the short form "begin end state, ..." as JSON; negative offsets
// are stored as their unsigned 32-bit value, and "junk" is an element that is
// not an entry.
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

std::string json(const variant_list_t& list) {
    const variant_t value(list);
    return variant_toJSON(&value);
}

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
    // The messages traced so far, in order, joined with "; ".
    std::string messages() const {
        std::string out;
        for (const std::string& line : lines_) {
            const std::size_t begin = line.find(']') + 1;
            out += (out.empty() ? "" : "; ") + line.substr(begin, line.find(" - (") - begin);
        }
        return out;
    }
    long count(std::string_view text) const {
        return std::count_if(lines_.begin(), lines_.end(),
                             [&](const std::string& line) { return line.find(text) != line.npos; });
    }
    std::vector<std::string> lines_;
};

TEST_F(ScheduleTest, OrderSortsByBeginAndDropsTheDefault) {
    // entries, default, ordered entries, entries removed as default
    const std::vector<std::tuple<const char*, const char*, const char*, long>> rows = {
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
    for (const auto& [input, def, expected, removed] : rows) {
        lines_.clear();
        std::optional<variant_list_t> ordered = schedule_order(entries(input), def);
        ASSERT_TRUE(ordered.has_value()) << input;
        EXPECT_EQ(json(*ordered), json(entries(expected))) << input;
        EXPECT_EQ(count("[n]found a schedule entry setting the default value"), removed) << input;
    }
}

TEST_F(ScheduleTest, VerifyRefusesWithExactlyOneReason) {
    const char* overlap = "overlapping detected; invalid overlapping detected in schedule";
    // base, whether the type lists states, entries, trace (none: accepted)
    const std::vector<std::tuple<int, bool, const char*, const char*>> rows = {
        {time_base_daily, false, "", ""},
        {time_base_daily, true, "0 86400 on", ""},
        {time_base_hourly, true, "-10 10 on",
         "schedule out of boundary begin=4294967286, end=10, boundary=3600"},
        {time_base_once, true, "-10 10 on", ""},
        // End before begin only when read signed.
        {time_base_once, true, "10 -10 on", "end starts before begin..."},
        {time_base_daily, true, "20 20 on, 30 40 on",
         "Mixed event/state schedules are not allowed"},
        {time_base_daily, true, "20 20 on, 20 20 off", ""},
        {time_base_daily, true, "0 100 on, 100 200 off, 7200 9000 eco", ""},
        {time_base_daily, true, "0 101 on, 100 200 off", overlap},
        // The successor's overlap is found before its unknown state.
        {time_base_daily, true, "0 100 on, 50 60 bogus", overlap},
        {time_base_daily, false, "0 100 on", "invalid state detected in schedule"},
        {time_base_daily, true, "junk", "Not a variant map; error getting schedule entry"},
        {time_base_daily, true, "0 100 on, junk",
         "Not a variant map; error getting schedule entry; invalid overlapping detected in "
         "schedule"},
    };
    const variant_list_t known = {variant_t("on"), variant_t("off"), variant_t("eco")};
    for (const auto& [base, listed, input, trace] : rows) {
        lines_.clear();
        const variant_list_t states = listed ? known : variant_list_t{};
        EXPECT_EQ(schedule_verify(entries(input), base, &states), *trace == '\0') << input;
        EXPECT_EQ(messages(), trace) << input;
    }
}

// Outside verification an element may overlap both neighbours; each conflict
// is traced.
TEST_F(ScheduleTest, CheckOverlappingsLooksBothWays) {
    const variant_list_t list = entries("0 100 a, 50 150 b, 120 200 c, 300 400 d");
    EXPECT_FALSE(schedule_checkOverlappings(list, 1));
    EXPECT_EQ(messages(), "overlapping detected; overlapping detected");
    lines_.clear();
    EXPECT_TRUE(schedule_checkOverlappings(list, 3));
    EXPECT_FALSE(schedule_checkOverlappings(list, 4));
    EXPECT_EQ(messages(), "error getting schedule entry");
}

TEST_F(ScheduleTest, CurrentState) {
    const char* daily = "3600 7200 on, 7200 10800 eco";
    const char* once = "1700000000 1700003600 on";
    const time_t day = 1699920000;  // 2023-11-14 00:00 UTC
    // zone, base, entries, time, state with the default "off" (null: none)
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
        std::optional<entrylist_t> packed =
            entrylist_pack(std::make_shared<const variant_list_t>(entries(input)));
        ASSERT_TRUE(packed) << input;
        EXPECT_EQ(schedule_currentState(packed->entries, base, t, "off"), expected)
            << zoneName << " t=" << t << " " << input;
    }
}

// A read-back returns the entry maps exactly as they were sent, whether the
// packed records can rebuild them or the maps had to be kept.
TEST_F(ScheduleTest, PackedEntriesReadBackAsSent) {
    auto map = [](std::vector<std::pair<const char*, variant_t>> pairs) {
        variant_map_t result;
        for (auto& [key, value] : pairs) {
            result.push_back({key, std::move(value)});
        }
        return variant_t(std::move(result));
    };
    const variant_t on("on");
    const std::vector<std::pair<const char*, variant_list_t>> rows = {
        {"uint32, usual order",
         {map({{"state", on}, {"begin", variant_t(1U)}, {"end", variant_t(2U)}})}},
        {"signed and 64-bit times, other key order",
         {map({{"end", variant_t(std::int64_t{-5})}, {"state", on}, {"begin", variant_t(-10)}}),
          map({{"end", variant_t(std::int64_t{9})}, {"state", on}, {"begin", variant_t(7)}})}},
        {"unsigned 64-bit",
         {map({{"state", on},
               {"begin", variant_t(std::uint64_t{3})},
               {"end", variant_t(std::uint64_t{4})}})}},
        // Kept as sent: a form that differs between entries, a value that its
        // type cannot hold after packing, a key too many, a text time.
        {"mixed forms",
         {map({{"state", on}, {"begin", variant_t(1U)}, {"end", variant_t(2U)}}),
          map({{"state", on}, {"begin", variant_t(3)}, {"end", variant_t(4U)}})}},
        {"64-bit beyond 32 bits",
         {map({{"state", on},
               {"begin", variant_t(std::int64_t{3000000000})},
               {"end", variant_t(std::int64_t{3000000001})}})}},
        {"extra key",
         {map({{"state", on},
               {"begin", variant_t(1U)},
               {"end", variant_t(2U)},
               {"note", variant_t("x")}})}},
        {"text time", {map({{"state", on}, {"begin", variant_t("1")}, {"end", variant_t(2U)}})}},
    };
    for (const auto& [name, list] : rows) {
        std::optional<entrylist_t> packed =
            entrylist_pack(std::make_shared<const variant_list_t>(list));
        ASSERT_TRUE(packed) << name;
        EXPECT_EQ(packed->entries.size(), list.size()) << name;
        std::shared_ptr<const variant_list_t> back = entrylist_variants(*packed);
        ASSERT_TRUE(back) << name;
        EXPECT_EQ(json(*back), json(list)) << name;
        EXPECT_TRUE(*back == list) << name;
    }
    EXPECT_FALSE(entrylist_pack(std::make_shared<const variant_list_t>(entries("1 2 on, junk"))));
}

}  // namespace
