// The change a schedule announces in NextStateChange, and changes that come
// one second apart.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "scheduler_calls.h"
#include "time_zone.h"
#include "virtual_host.h"

namespace {

using namespace scheduler_calls;

// What NextStateChange reads when no change is pending.
const std::string kNoChange = "1970-01-01T00:00:00Z";

// The host starts on Tuesday 2023-11-14 at 22:13:20 UTC; s1 is on from
// 22:23:20 to 22:30:00 every day, so its next change is ten minutes away.
const std::string kPending = entryJson("on", 80600, 81000);
const std::string kPendingAt = "2023-11-14T22:23:20Z";

std::string nextChange(virtual_host_t& host, std::string_view id = "s1") {
    return parameterText(host, id, "NextStateChange").value_or("<missing>");
}

std::string currentState(virtual_host_t& host) {
    return parameterText(host, "s1", "CurrentState").value_or("<missing>");
}

// A call that stops the schedule from changing, and the one that lets it go.
struct hold_row_t {
    const char* function;
    const char* hold;
    const char* release;
};

const std::vector<hold_row_t> kHolds = {
    {"enableSchedule", R"("enable":false)", R"("enable":true)"},
    {"overrideSchedule", R"("override":"eco")", R"("override":"")"},
    {"overrideSchedule", R"("override":"on")", R"("override":"")"},
};

// Without this a user who switched a schedule off is still shown a change
// that will never come.
TEST(NextStateChange, ShowsNoChangeWhileTheScheduleIsHeld) {
    for (const hold_row_t& row : kHolds) {
        SCOPED_TRACE(std::string(row.function) + " " + row.hold);
        scoped_time_zone_t zone("UTC");
        virtual_host_t host;
        ASSERT_EQ(registerLight(host), true);
        ASSERT_EQ(addToLight(host, scheduleJson("s1", "Daily", "off", kPending)), true);
        ASSERT_EQ(nextChange(host), kPendingAt);

        EXPECT_EQ(onSchedule(host, row.function, "s1", row.hold), true);
        EXPECT_EQ(nextChange(host), kNoChange);
        EXPECT_EQ(onSchedule(host, row.function, "s1", row.release), true);
        EXPECT_EQ(nextChange(host), kPendingAt);
    }
}

// Without this a schedule that starts out held announces a change it will
// not make.
TEST(NextStateChange, ShowsNoChangeForAScheduleAddedHeld) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host;
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(host, scheduleJson("idle", "Daily", "off", kPending, "", false)), true);
    ASSERT_EQ(addToLight(host, scheduleJson("held", "Daily", "off", kPending, "eco")), true);
    EXPECT_EQ(nextChange(host, "idle"), kNoChange);
    EXPECT_EQ(nextChange(host, "held"), kNoChange);
}

// Without this a finished one-off plan keeps showing its last change as if
// it were still to come.
TEST(NextStateChange, ShowsNoChangeOnceAOnceScheduleHasRunOut) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host;
    const std::int64_t start = host.now();
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(
                  host, scheduleJson("s1", "Once", "off", entryJson("on", start + 10, start + 20))),
              true);
    EXPECT_EQ(nextChange(host), "2023-11-14T22:13:30Z");
    host.advanceTo(start + 10);
    EXPECT_EQ(nextChange(host), "2023-11-14T22:13:40Z");
    host.advanceTo(start + 30);
    EXPECT_EQ(currentState(host), "off");
    EXPECT_EQ(nextChange(host), kNoChange);
}

// Something that makes the plug-in compute every planned change anew.
struct recompute_row_t {
    const char* cause;
    void (*apply)(virtual_host_t& host);
    // NextStateChange of "evening" and of "week" afterwards.
    const char* evening;
    const char* week;
    // The states told because of it.
    lines_t told;
};

// Wednesday 00:30 in Berlin, when "evening" has ended.
constexpr std::int64_t kAfterMidnight = 1700004600;  // 2023-11-14T23:30:00Z

const std::vector<recompute_row_t> kRecomputes = {
    {"the zone changes to New York",
     [](virtual_host_t& host) {
         // TZ stands in for a replaced /etc/localtime; the plug-in reads the
         // zone again when 927 comes.
         setenv("TZ", "America/New_York", 1);
         host.emitTime({927});
     },
     "2023-11-14T23:00:00Z",
     "2023-11-15T11:00:00Z",
     {"2023-11-14T21:00:00Z off"}},
    {"the clock is set",
     [](virtual_host_t& host) {
         host.setClock(kAfterMidnight);
         host.emitTime({926});
     },
     "2023-11-15T17:00:00Z",
     "2023-11-15T05:00:00Z",
     {"2023-11-14T23:30:00Z off"}},
    {"the clock is set while Time is not synchronised",
     [](virtual_host_t& host) {
         host.setTimeStatus("Unsynchronized");
         host.setClock(kAfterMidnight);
         host.setTimeStatus("Synchronized");
     },
     "2023-11-15T17:00:00Z",
     "2023-11-15T05:00:00Z",
     {"2023-11-14T23:30:00Z off"}},
};

// A user reads NextStateChange to know when the light switches next; after
// a recompute it must be the change the plug-in now waits for, not the one
// it planned before.
TEST(NextStateChange, FollowsEveryRecompute) {
    for (const recompute_row_t& row : kRecomputes) {
        SCOPED_TRACE(row.cause);
        scoped_time_zone_t zone("Europe/Berlin");
        // Tuesday 22:00 in Berlin, 16:00 in New York.
        virtual_host_t host(virtual_host_t::options_t{.start = 1699995600});
        ASSERT_EQ(registerLight(host), true);
        // On from 18:00 to 23:00 every day, and on Wednesdays from 06:00 to 07:00.
        ASSERT_EQ(addToLight(
                      host, scheduleJson("evening", "Daily", "off", entryJson("on", 64800, 82800))),
                  true);
        ASSERT_EQ(addToLight(
                      host, scheduleJson("week", "Weekly", "off", entryJson("on", 194400, 198000))),
                  true);
        ASSERT_EQ(nextChange(host, "evening"), "2023-11-14T22:00:00Z");
        ASSERT_EQ(nextChange(host, "week"), "2023-11-15T05:00:00Z");
        const std::size_t before = host.setStateCalls().size();

        row.apply(host);
        EXPECT_EQ(nextChange(host, "evening"), row.evening);
        EXPECT_EQ(nextChange(host, "week"), row.week);
        EXPECT_EQ(changesSince(host, before), row.told);
    }
}

struct span_row_t {
    std::string schedule;
    std::int64_t until;
    lines_t expected;
};

const std::vector<span_row_t> kOneSecondSpans = {
    // 22:15:00 to 22:15:01 on Tuesday.
    {scheduleJson("s1", "Once", "off", entryJson("on", 1700000100, 1700000101)),
     1700000200,
     {"2023-11-14T22:15:00Z on", "2023-11-14T22:15:01Z off"}},
    // 01:00:00 to 01:00:01 every day, followed until Thursday 02:00.
    {scheduleJson("s1", "Daily", "off", entryJson("on", 3600, 3601)),
     1700100000,
     {"2023-11-15T01:00:00Z on", "2023-11-15T01:00:01Z off", "2023-11-16T01:00:00Z on",
      "2023-11-16T01:00:01Z off"}},
};

// Without this a device switched on for a one-second pulse stays on.
TEST(OneSecondSpan, EndsOneSecondAfterItBegins) {
    for (const span_row_t& row : kOneSecondSpans) {
        SCOPED_TRACE(row.schedule);
        scoped_time_zone_t zone("UTC");
        virtual_host_t host;
        ASSERT_EQ(registerLight(host), true);
        ASSERT_EQ(addToLight(host, row.schedule), true);
        const std::size_t before = host.setStateCalls().size();
        host.advanceTo(row.until);
        EXPECT_EQ(changesSince(host, before), row.expected);
        EXPECT_EQ(currentState(host), "off");
    }
}

// Without this the preview of a pulse shows the device left on for good.
TEST(OneSecondSpan, SimulationListsItsEnd) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host;
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(host, scheduleJson("s1", "Daily", "off", entryJson("on", 3600, 3601))),
              true);
    // Tuesday 00:00 to Thursday 00:00; the list runs to the first change
    // after the stop.
    EXPECT_EQ(
        simulate(host, "simulateSchedule", R"("type":"Light","ID":"s1",)", 1699920000, 1700092800),
        (lines_t{"Simulation starts",
                 "1699920000 (Tue Nov 14 00:00:00 2023) starttime with state off",
                 "1699923600 (Tue Nov 14 01:00:00 2023) switch state to on",
                 "1699923601 (Tue Nov 14 01:00:01 2023) switch state to off",
                 "1700010000 (Wed Nov 15 01:00:00 2023) switch state to on",
                 "1700010001 (Wed Nov 15 01:00:01 2023) switch state to off",
                 "1700096400 (Thu Nov 16 01:00:00 2023) switch state to on", "Simulation ends"}));
}

}  // namespace
