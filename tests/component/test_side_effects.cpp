// Calls that must leave the client and the schedules alone: simulations,
// which only describe what would happen, and replacements that are refused.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "scheduler_calls.h"
#include "time_zone.h"
#include "virtual_host.h"

namespace {

using namespace scheduler_calls;

constexpr std::int64_t kDay = 86400;

// The host starts on Tuesday 2023-11-14 at 22:13:20 UTC; s1 is on from six
// to twelve seconds later and off otherwise.
constexpr std::int64_t kStart = 1700000000;
constexpr std::int64_t kOn = kStart + 6;
constexpr std::int64_t kOff = kStart + 12;
const std::string kShortSpan =
    scheduleJson("s1", "Daily", "off", entryJson("on", kOn % kDay, kOff % kDay));

// What a simulation must not touch.
struct schedule_view_t {
    std::optional<std::string> current;
    std::optional<std::string> next;
    std::optional<std::string> temporary;
    bool operator==(const schedule_view_t&) const = default;
};

schedule_view_t view(virtual_host_t& host, std::string_view id = "s1") {
    return {parameterText(host, id, "CurrentState"), parameterText(host, id, "NextStateChange"),
            parameterText(host, id, "TemporaryOverride")};
}

void PrintTo(const schedule_view_t& view, std::ostream* out) {
    *out << "CurrentState " << view.current.value_or("-") << ", NextStateChange "
         << view.next.value_or("-") << ", TemporaryOverride " << view.temporary.value_or("-");
}

// Without this a user who previews tomorrow's plan switches the device now,
// and the real change that was due is then skipped.
TEST(SimulationSideEffects, AllSchedulesSimulationLeavesDeviceAndScheduleAlone) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host(virtual_host_t::options_t{.start = kStart});
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(host, kShortSpan), true);
    const std::size_t before = host.setStateCalls().size();
    const schedule_view_t unchanged = view(host);

    EXPECT_EQ(simulate(host, "simulateSchedules", "", kStart + 8, kStart + 60),
              (lines_t{"Simulation starts",
                       "ID s1; simtime: 1700000012 (Tue Nov 14 22:13:32 2023); state on",
                       "ID s1; Between events; Event setStateRPC; Value off", "Simulation ends"}));
    EXPECT_EQ(changesSince(host, before), lines_t{});
    EXPECT_EQ(view(host), unchanged);

    // The real changes still go out at their second, each exactly once.
    host.advanceTo(kStart + 60);
    EXPECT_EQ(changesSince(host, before),
              (lines_t{"2023-11-14T22:13:26Z on", "2023-11-14T22:13:32Z off"}));
}

// A simulation of s1 alone, with or without a temporary state.
struct one_schedule_row_t {
    const char* temporary;  // "" for none
    lines_t lines;
    // With a temporary state only the lines up to its end are pinned: which
    // change follows depends on how the end of the override is planned.
    bool onlyHead;
    // The real changes after the simulation.
    lines_t changes;
};

const lines_t kHead = {"Simulation starts",
                       "1700000008 (Tue Nov 14 22:13:28 2023) starttime with state on",
                       "1700000012 (Tue Nov 14 22:13:32 2023) switch state to off"};
const std::vector<one_schedule_row_t> kOneScheduleRows = {
    {"",
     {kHead[0], kHead[1], kHead[2], "1700086406 (Wed Nov 15 22:13:26 2023) switch state to on",
      "Simulation ends"},
     false,
     {"2023-11-14T22:13:26Z on", "2023-11-14T22:13:32Z off"}},
    // The change to on finds the state held already; off ends it.
    {"on", kHead, true, {"2023-11-14T22:13:32Z off"}},
};

// Without this a preview of a schedule that holds a temporary state moves
// its announced next change a day ahead.
TEST(SimulationSideEffects, OneScheduleSimulationLeavesTheScheduleAlone) {
    for (const one_schedule_row_t& row : kOneScheduleRows) {
        SCOPED_TRACE(std::string("temporary state '") + row.temporary + "'");
        scoped_time_zone_t zone("UTC");
        virtual_host_t host(virtual_host_t::options_t{.start = kStart});
        ASSERT_EQ(registerLight(host), true);
        ASSERT_EQ(addToLight(host, kShortSpan), true);
        if (*row.temporary != '\0') {
            ASSERT_EQ(onSchedule(host, "overrideState", "s1",
                                 R"("State":")" + std::string(row.temporary) + R"(")"),
                      true);
        }
        const std::size_t before = host.setStateCalls().size();
        const schedule_view_t unchanged = view(host);

        lines_t lines = simulate(host, "simulateSchedule", R"("type":"Light","ID":"s1",)",
                                 kStart + 8, kStart + 60);
        if (row.onlyHead && lines.size() > row.lines.size()) {
            lines.resize(row.lines.size());
        }
        EXPECT_EQ(lines, row.lines);
        EXPECT_EQ(changesSince(host, before), lines_t{});
        EXPECT_EQ(view(host), unchanged);

        host.advanceTo(kStart + 60);
        EXPECT_EQ(changesSince(host, before), row.changes);
    }
}

// x is on from 22:23:20 to 22:30:00.
const std::string kX = scheduleJson("x", "Daily", "off", entryJson("on", 80600, 81000));

// getSchedule's answer for x: the return value and the arguments after it.
std::string record(virtual_host_t& host) {
    virtual_host_t::call_result_t result = host.call("getSchedule", R"({"type":"Light","ID":"x"})");
    const variant_t after(std::move(result.arguments));
    return variant_toJSON(&result.retval) + " " + variant_toJSON(&after);
}

// Without this a client that sends a bad edit loses the schedule it had,
// and the device silently stops following it.
TEST(Replacement, RefusedKeepsTheOldScheduleAndSaysNothing) {
    const std::vector<std::pair<const char*, std::string>> refused = {
        {"overlapping entries",
         scheduleJson("x", "Daily", "off",
                      entryJson("on", 80600, 81000) + "," + entryJson("eco", 80900, 81200))},
        {"a default the type lacks", scheduleJson("x", "Daily", "dim", entryJson("on", 0, 60))},
        {"an unknown base", scheduleJson("x", "Fortnightly", "off", entryJson("on", 0, 60))},
    };
    for (const auto& [what, info] : refused) {
        SCOPED_TRACE(what);
        scoped_time_zone_t zone("UTC");
        virtual_host_t host;
        ASSERT_EQ(registerLight(host), true);
        ASSERT_EQ(addToLight(host, kX), true);
        // Lets the announcement of the add go out first.
        host.advance(10);
        const std::string kept = record(host);
        const std::size_t announced = host.bus().notifications().size();
        const std::size_t before = host.setStateCalls().size();

        EXPECT_EQ(addToLight(host, info), false);
        EXPECT_EQ(record(host), kept);
        EXPECT_EQ(changesSince(host, before), lines_t{});
        host.advance(10);
        EXPECT_EQ(host.bus().notifications().size(), announced);

        host.advanceTo(1700001000);
        EXPECT_EQ(changesSince(host, before),
                  (lines_t{"2023-11-14T22:23:20Z on", "2023-11-14T22:30:00Z off"}));
    }
}

// Without this a client that edits a schedule either misses the change or
// is told of it more than once.
TEST(Replacement, AcceptedIsAnnouncedOnceAndApplied) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host;
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(host, kX), true);
    host.advance(10);
    const std::size_t announced = host.bus().notifications().size();
    const std::size_t before = host.setStateCalls().size();
    const std::int64_t replaced = host.now();

    // eco from 22:10:00 to 22:25:00 covers the present.
    ASSERT_EQ(addToLight(host, scheduleJson("x", "Daily", "off", entryJson("eco", 79800, 80700))),
              true);
    EXPECT_EQ(changesSince(host, before), lines_t{"2023-11-14T22:13:30Z eco"});
    EXPECT_EQ(record(host),
              R"(true {"scheduleInfo":{"ID":"x","enable":true,"base":"Daily","def":"off",)"
              R"("override":"","value":"eco","schedule":[{"state":"eco","begin":79800,)"
              R"("end":80700}]},"type":"Light","ID":"x"})");
    host.advance(10);
    const auto& sent = host.bus().notifications();
    ASSERT_EQ(sent.size(), announced + 1);
    EXPECT_EQ(sent.back().type, 920u);
    EXPECT_EQ(sent.back().path, "Scheduler.Types.Light");
    EXPECT_EQ(sent.back().time_us, (replaced + 5) * 1000000);
}

}  // namespace
