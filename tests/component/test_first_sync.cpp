// What a schedule's client is told when the clock is first synchronised or
// set, and what a temporary state may and may not do.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "scheduler_calls.h"
#include "time_zone.h"
#include "virtual_host.h"

namespace {

using namespace scheduler_calls;

constexpr std::int64_t kStart = 1700000000;  // Tuesday 2023-11-14 22:13:20 UTC

// The setState calls from the index-th on, as "<ID> <state>", sorted.
lines_t toldSince(const virtual_host_t& host, std::size_t index = 0) {
    lines_t lines;
    const std::vector<virtual_host_t::set_state_t> calls = host.setStateCalls();
    for (std::size_t i = index; i < calls.size(); ++i) {
        lines.push_back(calls[i].id + " " + calls[i].state);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Four schedules that hold a state without a pending change, or with one.
void addHeldSchedules(virtual_host_t& host) {
    ASSERT_EQ(registerLight(host), true);
    const std::string night = entryJson("on", 0, 3600);
    for (const std::string& info :
         {scheduleJson("held", "Daily", "off", night, "eco"),
          scheduleJson("idle", "Daily", "eco", night, "", false),
          scheduleJson("empty", "Daily", "eco", ""),
          scheduleJson("once", "Once", "off", entryJson("on", kStart - 60, kStart + 3600))}) {
        ASSERT_EQ(addToLight(host, info), true) << info;
    }
}

// A gateway without a battery-backed clock boots unsynchronised: nothing can
// be sent then, so the first sync must tell every schedule, or a Wi-Fi a
// parent switched off by an override stays on after every reboot.
TEST(FirstSync, TellsEveryScheduleItsPresentStateOnce) {
    virtual_host_t host(virtual_host_t::options_t{.timeStatus = "Unsynchronized"});
    addHeldSchedules(host);
    ASSERT_TRUE(host.setStateCalls().empty());
    host.setTimeStatus("Synchronized");
    EXPECT_EQ(toldSince(host), (lines_t{"empty eco", "held eco", "idle eco", "once on"}));
    for (const char* id : {"held", "idle", "empty"}) {
        EXPECT_EQ(parameterText(host, id, "CurrentState"), "eco") << id;
    }
    // A clock notification at an unchanged time tells nobody again.
    const std::size_t told = host.setStateCalls().size();
    host.emitTime({926});
    EXPECT_EQ(toldSince(host, told), lines_t{});
}

// At the default level the log grows with events, not with schedules: a
// gateway that adds thousands of schedules before its clock is set, then
// syncs and runs their changes, writes one line for the sync and nothing per
// schedule or per change.
TEST(FirstSync, TheDefaultLogHasNoLinePerScheduleOrChange) {
    virtual_host_t host(virtual_host_t::options_t{
        .traceZone = std::nullopt, .traceLevel = 200, .timeStatus = "Unsynchronized"});
    ASSERT_EQ(registerLight(host), true);
    constexpr int kSchedules = 500;
    for (int i = 0; i < kSchedules; ++i) {
        // Each on for a minute, at its own minute after the start.
        const std::int64_t begin = 60 * (i % 60);
        const std::string info = scheduleJson("s" + std::to_string(i), "Hourly", "off",
                                              entryJson("on", begin, begin + 60));
        ASSERT_EQ(addToLight(host, info), true) << i;
    }
    EXPECT_EQ(host.traces(), lines_t{});
    host.setTimeStatus("Synchronized");
    host.advanceTo(kStart + 3600);
    ASSERT_GE(host.setStateCalls().size(), static_cast<std::size_t>(2 * kSchedules));
    ASSERT_EQ(host.traces().size(), 1U);
    EXPECT_TRUE(
        host.traces()[0].find("recomputed 500 planned changes at 2023-11-14T22:13:20Z in ") !=
        std::string::npos)
        << host.traces()[0];
}

// A Time service that restarted and synchronises again may bring a clock
// that moved while it was away: the schedules follow it.
TEST(FirstSync, SynchronisedAgainAfterTimeRestartedFollowsTheClock) {
    virtual_host_t host;
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(host, scheduleJson("night", "Daily", "off", entryJson("on", 0, 3600))),
              true);
    host.bus().unpublish("Time");
    // 00:30 the next day, set while nothing announced it.
    host.setClock(kStart + 8000);
    const std::size_t told = host.setStateCalls().size();
    host.publishTime("Unsynchronized");
    host.setTimeStatus("Synchronized");
    EXPECT_EQ(toldSince(host, told), lines_t{"night on"});
    EXPECT_EQ(parameterText(host, "night", "NextStateChange"), "2023-11-15T01:00:00Z");
}

// A temporary state is a moment's change of a schedule that runs: it may not
// send a state the type does not have, wake a disabled schedule or push
// aside a parent's permanent override.
TEST(TemporaryState, RefusedWhereNoOtherCallWouldBeAllowed) {
    virtual_host_t host;
    addHeldSchedules(host);
    ASSERT_EQ(addToLight(host, scheduleJson("evening", "Daily", "off", entryJson("on", 0, 86399))),
              true);
    const std::size_t told = host.setStateCalls().size();
    for (const auto& [id, state] : std::vector<std::pair<const char*, const char*>>{
             {"evening", "purple"}, {"idle", "on"}, {"held", "on"}}) {
        EXPECT_EQ(onSchedule(host, "overrideState", id, R"("State":")" + std::string(state) + "\""),
                  false)
            << id;
        EXPECT_EQ(parameterText(host, id, "TemporaryOverride"), "false") << id;
    }
    EXPECT_EQ(toldSince(host, told), lines_t{});
    for (const char* id : {"idle", "held"}) {
        EXPECT_EQ(parameterText(host, id, "NextStateChange"), "1970-01-01T00:00:00Z")
            << id << " plans nothing";
    }
}

// A clock notification that finds the time unchanged leaves a temporary
// state as it is.
TEST(TemporaryState, SurvivesARecomputeAtAnUnchangedTime) {
    virtual_host_t host;
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(host, scheduleJson("evening", "Daily", "off", entryJson("on", 0, 86399))),
              true);
    ASSERT_EQ(onSchedule(host, "overrideState", "evening", R"("State":"eco")"), true);
    const std::size_t told = host.setStateCalls().size();
    host.emitTime({926});
    EXPECT_EQ(toldSince(host, told), lines_t{});
    EXPECT_EQ(parameterText(host, "evening", "CurrentState"), "eco");
    EXPECT_EQ(parameterText(host, "evening", "TemporaryOverride"), "true");
}

}  // namespace
