// Simulations of one schedule and of all schedules, read back as the text
// lines that the bus functions return.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <tuple>
#include <vector>

#include "orv/variant.h"
#include "orv/variant_map.h"
#include "time_zone.h"
#include "virtual_host.h"

namespace {

using lines_t = std::vector<std::string>;

constexpr std::int64_t kTuesday = 1699920000;  // 2023-11-14 00:00 UTC
constexpr std::int64_t kWednesday = 1700006400;
constexpr std::int64_t kDay = 86400;

// Registers the type Light unless told not to, and adds the schedules.
void setUp(virtual_host_t& host, const std::vector<std::string>& schedules, bool first = true) {
    if (first) {
        host.addClient("Device.Light");
        virtual_host_t::call_result_t registered =
            host.call("registerScheduleType",
                      R"({"type":"Light","path":"Device.Light","states":["on","off","eco"]})");
        ASSERT_EQ(variant_toBool(&registered.retval), true);
    }
    for (const std::string& schedule : schedules) {
        virtual_host_t::call_result_t added =
            host.call("addSchedule", R"({"type":"Light","info":)" + schedule + "}");
        ASSERT_EQ(variant_toBool(&added.retval), true) << schedule;
    }
}

std::string schedule(const char* id, bool enable, const char* base, const char* def,
                     const std::string& entries, const char* override = "") {
    return R"({"ID":")" + std::string(id) + R"(","enable":)" + (enable ? "true" : "false") +
           R"(,"base":")" + base + R"(","def":")" + def + R"(","override":")" + override +
           R"(","schedule":[)" + entries + "]}";
}

std::string entry(const char* state, std::int64_t begin, std::int64_t end) {
    return R"({"state":")" + std::string(state) + R"(","begin":)" + std::to_string(begin) +
           R"(,"end":)" + std::to_string(end) + "}";
}

// Runs a simulation; arguments are the named arguments besides the span.
lines_t simulate(virtual_host_t& host, const char* function, const std::string& arguments,
                 std::int64_t start, std::int64_t stop) {
    virtual_host_t::call_result_t result =
        host.call(function, "{" + arguments + R"("start":)" + std::to_string(start) +
                                R"(,"stop":)" + std::to_string(stop) + "}");
    const variant_list_t* list = variant_da_list(&result.retval);
    EXPECT_NE(list, nullptr) << "the return value is a list";
    lines_t lines;
    for (const variant_t& line : list ? *list : variant_list_t{}) {
        lines.push_back(variant_char(&line).value_or("<not a text>"));
    }
    return lines;
}

// The local time as the simulation prints it.
std::string ctimeText(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::string text = std::ctime(&time);
    text.pop_back();
    return text;
}

const std::string kNightHour = entry("on", 3600, 7200);
const lines_t kNightHourLines = {"Simulation starts",
                                 "1699920000 (Tue Nov 14 00:00:00 2023) starttime with state off",
                                 "1699923600 (Tue Nov 14 01:00:00 2023) switch state to on",
                                 "1699927200 (Tue Nov 14 02:00:00 2023) switch state to off",
                                 "1700010000 (Wed Nov 15 01:00:00 2023) switch state to on",
                                 "Simulation ends"};

// Each run starts on Tuesday at 00:00.
const std::vector<std::tuple<const char*, std::int64_t, lines_t>> kSingleRuns = {
    {"night", kWednesday, kNightHourLines},
    // Neither Enable nor Override enters a simulation.
    {"held", kWednesday, kNightHourLines},
    // A stop before the start still lists the first change.
    {"night",
     kTuesday - 20000,
     {kNightHourLines[0], kNightHourLines[1], kNightHourLines[2], "Simulation ends"}},
    {"events",
     kTuesday + 10000,
     {"Simulation starts", "1699920000 (Tue Nov 14 00:00:00 2023) starttime with state off",
      "1699923600 (Tue Nov 14 01:00:00 2023) send event on",
      "1699927200 (Tue Nov 14 02:00:00 2023) send event eco",
      "1700010000 (Wed Nov 15 01:00:00 2023) send event on", "Simulation ends"}},
    {"empty",
     kWednesday,
     {"Simulation starts", "1699920000 (Tue Nov 14 00:00:00 2023) starttime with state eco",
      "No entries in schedule, stopping"}},
    // The Once entry is inside the span: after its end nothing follows.
    {"once",
     kWednesday,
     {kNightHourLines[0], kNightHourLines[1], kNightHourLines[2], kNightHourLines[3],
      "No entries in schedule, stopping"}},
    {"missing", kWednesday, {"Simulation starts", "could not get the default value, stopping"}},
};

TEST(Simulation, OneScheduleListsItsChangesWithoutTouchingTheClient) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host;
    setUp(host,
          {schedule("night", true, "Daily", "off", kNightHour),
           schedule("held", false, "Daily", "off", kNightHour, "eco"),
           schedule("events", true, "Daily", "off",
                    entry("on", 3600, 3600) + "," + entry("eco", 7200, 7200)),
           schedule("empty", true, "Daily", "eco", ""),
           schedule("once", true, "Once", "off", entry("on", kTuesday + 3600, kTuesday + 7200))});
    const std::size_t calls = host.setStateCalls().size();
    for (const auto& [id, stop, expected] : kSingleRuns) {
        const std::string arguments = R"("type":"Light","ID":")" + std::string(id) + R"(",)";
        EXPECT_EQ(simulate(host, "simulateSchedule", arguments, kTuesday, stop), expected) << id;
    }
    // Without an ID there is nothing to simulate, and the list is empty.
    EXPECT_EQ(simulate(host, "simulateSchedule", R"("type":"Light",)", kTuesday, kWednesday),
              lines_t{});
    EXPECT_EQ(host.setStateCalls().size(), calls);

    // A temporary state skips the changes into it only until the schedule
    // next changes; the days after it are listed as they come.
    host.call("overrideState", R"({"type":"Light","ID":"night","State":"on"})");
    EXPECT_EQ(
        simulate(host, "simulateSchedule", R"("type":"Light","ID":"night",)", kTuesday, kWednesday),
        (lines_t{kNightHourLines[0], kNightHourLines[1], kNightHourLines[3], kNightHourLines[4],
                 kNightHourLines[5]}));
}

TEST(Simulation, AllSchedulesRunTheAgendaAndRebuildItForTheStart) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host;  // Tuesday 22:13:20: the night hour is off
    // Neither a disabled schedule nor one held by an override has a change
    // pending, so the agenda is empty.
    setUp(host, {schedule("idle", false, "Daily", "off", kNightHour),
                 schedule("held", true, "Daily", "off", kNightHour, "eco")});
    EXPECT_EQ(simulate(host, "simulateSchedules", "", kTuesday, kWednesday),
              (lines_t{"Simulation starts", "Simulation ends"}));

    setUp(host, {schedule("night", true, "Daily", "off", kNightHour)}, false);
    const std::size_t calls = host.setStateCalls().size();
    // Wednesday 00:00 to 01:33:20 holds the change to on at 01:00 only.
    EXPECT_EQ(
        simulate(host, "simulateSchedules", "", kWednesday, kWednesday + 5600),
        (lines_t{"Simulation starts",
                 "ID night; simtime: 1700010000 (Wed Nov 15 01:00:00 2023); state off",
                 "ID night; Between events; Event setStateRPC; Value on", "Simulation ends"}));
    // A simulation tells no client anything; the real change still goes out.
    ASSERT_EQ(host.setStateCalls().size(), calls);
    host.advanceTo(kWednesday + 3600);
    ASSERT_EQ(host.setStateCalls().size(), calls + 1);
    EXPECT_EQ(host.setStateCalls().back().state, "on");
}

TEST(Simulation, YearlySchedulesAdvanceFromChangeToChangeOverYears) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host;
    // January 10 to 20 on, February 10 to 15 eco: both before any leap day.
    setUp(host, {schedule("y1", true, "Yearly", "off", entry("on", 9 * kDay, 19 * kDay)),
                 schedule("y2", true, "Yearly", "off", entry("eco", 40 * kDay, 45 * kDay))});
    const std::vector<std::tuple<const char*, std::int64_t, const char*, const char*>> changes = {
        {"y1", 9 * kDay, "off", "on"},
        {"y1", 19 * kDay, "on", "off"},
        {"y2", 40 * kDay, "off", "eco"},
        {"y2", 45 * kDay, "eco", "off"}};
    lines_t expected = {"Simulation starts"};
    // January 1 of 2024 (a leap year), 2025 and 2026.
    for (std::int64_t year : {1704067200, 1735689600, 1767225600}) {
        for (const auto& [id, offset, before, after] : changes) {
            const std::string head = "ID " + std::string(id) + "; ";
            expected.push_back(head + "simtime: " + std::to_string(year + offset) + " (" +
                               ctimeText(year + offset) + "); state " + before);
            expected.push_back(head + "Between events; Event setStateRPC; Value " + after);
        }
    }
    expected.push_back("Simulation ends");
    // From January 1, 2024 to January 1, 2027.
    EXPECT_EQ(simulate(host, "simulateSchedules", "", 1704067200, 1798761600), expected);
}

// A change every five seconds over twenty days would list 345,600 changes;
// the runs stop at 10,000, say where, and set "truncated". A run that ends
// by itself says it is not truncated, and one without both ends is refused.
TEST(Simulation, RunsStopAtTenThousandChangesAndNeedBothEnds) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host;
    std::string entries;
    for (int i = 0; i < 360; ++i) {
        entries += (i ? "," : "") + entry("on", 10 * i, 10 * i + 5);
    }
    setUp(host, {schedule("busy", true, "Hourly", "off", entries)});
    const auto run = [&](const char* function, const std::string& arguments) {
        return host.call(function, "{" + arguments + "}");
    };
    const std::string span = R"("start":)" + std::to_string(kTuesday) + R"(,"stop":)" +
                             std::to_string(kTuesday + 20 * kDay);
    struct row_t {
        const char* function;
        std::string arguments;
        std::size_t lines;
        std::string last;
        bool truncated;
        const char* error;
    };
    // The run starts on; the k-th change comes 5k s after the start, so the
    // 10,001st at 13:53:25.
    const std::string cut =
        "Simulation truncated after 10000 changes at 1699970005 (Tue Nov 14 13:53:25 2023)";
    const row_t rows[] = {
        {"simulateSchedule", R"("type":"Light","ID":"busy",)" + span, 10003, cut, true, nullptr},
        {"simulateSchedules", span, 20002, cut, true, nullptr},
        {"simulateSchedules",
         R"("start":)" + std::to_string(kTuesday) + R"(,"stop":)" + std::to_string(kTuesday + 10),
         6, "Simulation ends", false, nullptr},
        {"simulateSchedule", R"("type":"Light","ID":"busy","stop":1700000000)", 0, "", false,
         "'start' is missing"},
        {"simulateSchedules", R"("start":1700000000)", 0, "", false, "'stop' is missing"},
    };
    for (const row_t& row : rows) {
        virtual_host_t::call_result_t result = run(row.function, row.arguments);
        const variant_list_t* lines = variant_da_list(&result.retval);
        ASSERT_NE(lines, nullptr) << row.arguments;
        EXPECT_EQ(lines->size(), row.lines) << row.arguments;
        if (!lines->empty()) {
            EXPECT_EQ(variant_char(&lines->back()), row.last) << row.arguments;
        }
        const variant_t* truncated = variant_map_find(&result.arguments, "truncated");
        ASSERT_NE(truncated, nullptr) << row.arguments;
        EXPECT_EQ(variant_toBool(truncated), row.truncated) << row.arguments;
        const variant_t* error = variant_map_find(&result.arguments, "error");
        EXPECT_EQ(error ? variant_char(error) : std::nullopt,
                  row.error ? std::optional<std::string>(row.error) : std::nullopt)
            << row.arguments;
    }
}

}  // namespace
