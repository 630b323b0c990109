// Rules a person relies on: every event is sent, a recompute goes on past a
// schedule that has run out, a missing argument changes nothing, every
// refusal says why, and one change is announced once.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "orv/object.h"
#include "orv/variant_map.h"
#include "scheduler_calls.h"
#include "virtual_host.h"

namespace {

using namespace scheduler_calls;

constexpr std::int64_t kStart = 1700000000;  // Tuesday 2023-11-14 22:13:20 UTC

// A feeder fed twice, and an "off" event that must switch off even though it
// is the default: events are sent whatever the schedule shows.
TEST(Events, EveryEventIsSentAtItsTime) {
    virtual_host_t host;
    ASSERT_EQ(registerLight(host), true);
    const std::string events = entryJson("on", kStart + 2, kStart + 2) + "," +
                               entryJson("on", kStart + 3, kStart + 3) + "," +
                               entryJson("off", kStart + 4, kStart + 4);
    ASSERT_EQ(addToLight(host, scheduleJson("feed", "Once", "off", events)), true);
    EXPECT_EQ(
        simulate(host, "simulateSchedule", R"("type":"Light","ID":"feed",)", kStart, kStart + 10),
        (lines_t{"Simulation starts",
                 "1700000000 (Tue Nov 14 22:13:20 2023) starttime with state off",
                 "1700000002 (Tue Nov 14 22:13:22 2023) send event on",
                 "1700000003 (Tue Nov 14 22:13:23 2023) send event on",
                 "1700000004 (Tue Nov 14 22:13:24 2023) send event off",
                 "No entries in schedule, stopping"}));
    const lines_t all = simulate(host, "simulateSchedules", "", kStart, kStart + 10);
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const std::string& line) {
                                return line.find("EVENT SIGNAL is now") != std::string::npos;
                            }),
              3);
    host.advance(10);
    EXPECT_EQ(changesSince(host), (lines_t{"2023-11-14T22:13:20Z off", "2023-11-14T22:13:22Z on",
                                           "2023-11-14T22:13:23Z on", "2023-11-14T22:13:24Z off"}));
    EXPECT_EQ(parameterText(host, "feed", "CurrentState"), "off");
}

// A Once schedule that has run out once stopped every schedule after it in
// a recompute, and so in a simulation of them all.
TEST(Recompute, GoesOnPastAScheduleThatHasRunOut) {
    virtual_host_t host;
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(host, scheduleJson("once", "Once", "off",
                                            entryJson("on", kStart + 30, kStart + 60))),
              true);
    ASSERT_EQ(addToLight(host, scheduleJson("day", "Daily", "off", entryJson("on", 0, 43200))),
              true);
    const lines_t lines =
        simulate(host, "simulateSchedules", "", kStart + 3600, kStart + 3 * 86400);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) {
                                return line.find("ID day; Between events") != std::string::npos;
                            }),
              6)
        << "on and off on each of three days";
    // The clock is set an hour on while "once" still waits for its start.
    host.setClock(kStart + 3600);
    host.emitTime({926});
    EXPECT_EQ(parameterText(host, "once", "NextStateChange"), "1970-01-01T00:00:00Z");
    EXPECT_EQ(parameterText(host, "day", "NextStateChange"), "2023-11-15T00:00:00Z");
}

// Each refused call answers false, or its empty list, and names the reason
// in the out-argument "error".
TEST(Refusals, EveryRefusedCallSaysWhy) {
    virtual_host_t host;
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(host, scheduleJson("x", "Daily", "off", entryJson("on", 0, 3600))), true);
    const std::vector<std::pair<std::string, std::string>> rows = {
        {R"(addSchedule {"type":"Nope","info":{}})", "type 'Nope' is not registered"},
        {R"(addSchedule {"type":"Light"})",
         "'info' is missing or is not a schedule with ID, enable, base, def and override"},
        {R"(enableSchedule {"type":"Light","ID":"x"})", "'enable' is missing"},
        {R"(enableSchedule {"type":"Light","ID":"x","enable":[1]})", "'enable' has the wrong type"},
        {R"(overrideSchedule {"type":"Light","ID":"x","override":"dim"})",
         "state 'dim' is not a state of type 'Light'"},
        {R"(overrideState {"type":"Light","ID":"y","State":"on"})",
         "type 'Light' has no schedule 'y'"},
        {R"(removeSchedules {"type":"Nope"})", "type 'Nope' is not registered"},
        {R"(registerScheduleType {"type":"Light","states":["on"]})", "'path' is missing"},
        {R"(registerScheduleType {"type":"Light","path":"Device.Light","states":["off"]})",
         "state 'on' is used by schedule 'x' and cannot be dropped"},
        {R"(unregisterScheduleType {})", "'type' is missing"},
        {R"(simulateSchedule {"type":"Light","start":0,"stop":1})", "'ID' is missing"},
        {R"(simulateSchedules {"start":0,"stop":1000000000})",
         "a simulation covers at most five years"},
    };
    for (const auto& [call, reason] : rows) {
        const std::size_t space = call.find(' ');
        virtual_host_t::call_result_t result =
            host.call(call.substr(0, space), call.substr(space + 1));
        const variant_t* error = variant_map_find(&result.arguments, "error");
        EXPECT_EQ(error ? variant_char(error) : std::nullopt, reason) << call;
        EXPECT_NE(variant_toBool(&result.retval), std::optional<bool>(true)) << call;
    }
    EXPECT_EQ(parameterText(host, "x", "Enable"), "true") << "a missing 'enable' disables nothing";
}

// Counts the announcements of each object's parameter changes.
class announcements_t final : public object_observer_t {
  public:
    void instanceAdded(object_t&) override {}
    void instanceRemoved(object_t&) override {}
    void parametersChanged(object_t& object, const std::vector<std::string>& names) override {
        ++count[object_path(&object, 0)];
        last = names;
    }
    std::map<std::string, int> count;
    std::vector<std::string> last;
};

// A dispatched change ends a temporary state and sets the current state: one
// announcement carries both.
TEST(Announcements, OneChangeOneAnnouncement) {
    virtual_host_t host;
    ASSERT_EQ(registerLight(host), true);
    ASSERT_EQ(addToLight(host, scheduleJson("x", "Daily", "off", entryJson("on", 0, 80010))), true);
    ASSERT_EQ(onSchedule(host, "overrideState", "x", R"("State":"eco")"), true);
    announcements_t seen;
    host.model().setObserver(&seen);
    host.advanceTo(kStart + 10);  // 22:13:30, the end of the span
    host.model().setObserver(nullptr);
    EXPECT_EQ(seen.count["Scheduler.Types.Light.Schedules.x"], 1);
    EXPECT_EQ(seen.last,
              (std::vector<std::string>{"TemporaryOverride", "CurrentState", "NextStateChange"}));
}

}  // namespace
