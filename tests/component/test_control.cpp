// Enabling and overriding schedules, the watch on the bus object "Time" and
// the change notifications, driven through the bus functions of "Scheduler".
#include <gtest/gtest.h>

#include <utility>

#include "orv/notification.h"
#include "time_zone.h"
#include "virtual_host.h"

namespace {

using changes_t = std::vector<std::string>;

// Daily, on from 18:00 to 23:00 and off otherwise. The host starts on
// Tuesday 2023-11-14 at 22:13:20 UTC, inside the entry.
constexpr const char* kEvening =
    R"({"ID":"s1","enable":true,"base":"Daily","def":"off","override":"",)"
    R"("schedule":[{"state":"on","begin":64800,"end":82800}]})";
constexpr std::int64_t kTue2300 = 1700002800;
constexpr std::int64_t kWed1900 = 1700074800;
constexpr const char* kRecalculated = "recomputed ";

std::optional<bool> call(virtual_host_t& host, std::string_view function,
                         const std::string& arguments) {
    const virtual_host_t::call_result_t result = host.call(function, arguments);
    return variant_toBool(&result.retval);
}

// Calls a function on the schedule s1 of a type with one more argument.
std::optional<bool> onS1(virtual_host_t& host, std::string_view function,
                         const std::string& argument, const std::string& type = "Light") {
    return call(host, function, R"({"type":")" + type + R"(","ID":"s1",)" + argument + "}");
}

// Registers a type whose client is Device.<type>, and adds s1 to it.
void addType(virtual_host_t& host, const std::string& type) {
    host.addClient("Device." + type);
    const std::string head = R"({"type":")" + type;
    ASSERT_EQ(call(host, "registerScheduleType",
                   head + R"(","path":"Device.)" + type + R"(","states":["on","off","eco"]})"),
              true);
    ASSERT_EQ(call(host, "addSchedule", head + R"(","info":)" + kEvening + "}"), true);
}

// A parameter of Light's s1 as text; date-times read as ISO 8601 in UTC.
std::optional<std::string> text(virtual_host_t& host, const char* name) {
    return variant_char(host.parameter("Scheduler.Types.Light.Schedules.s1", name));
}

// The "setState" calls so far, as "<UTC time> <state>".
changes_t changes(const virtual_host_t& host) {
    changes_t lines;
    for (const virtual_host_t::set_state_t& call : host.setStateCalls()) {
        lines.push_back(orv_isoTime(call.time) + " " + call.state);
    }
    return lines;
}

TEST(Control, OverridesAndEnableDecideWhatTheClientReceives) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host;
    addType(host, "Light");
    EXPECT_EQ(onS1(host, "overrideSchedule", R"("override":"eco")"), true);
    // Neither 23:00 nor 18:00 is sent while the override holds.
    host.advanceTo(kWed1900);
    EXPECT_EQ(changes(host).size(), 2u);

    // Refused: a state the type does not list, no override, "state" for
    // "State", and an ID that is not there.
    EXPECT_EQ(onS1(host, "overrideSchedule", R"("override":"dim")"), false);
    EXPECT_EQ(call(host, "overrideSchedule", R"({"type":"Light","ID":"s1"})"), false);
    EXPECT_EQ(onS1(host, "overrideState", R"("state":"on")"), false);
    EXPECT_EQ(call(host, "overrideState", R"({"type":"Light","ID":"s9","State":"on"})"), false);
    EXPECT_EQ(text(host, "Override"), "eco");
    EXPECT_EQ(text(host, "TemporaryOverride"), "false");
    // Only the add and the override were announced, in one notification.
    host.advance(60);
    EXPECT_EQ(host.bus().notifications().size(), 1u);

    // Clearing the override resumes the schedule where it stands now;
    // disabling sends the default once and drops the pending change.
    EXPECT_EQ(onS1(host, "overrideSchedule", R"("override":"")"), true);
    EXPECT_EQ(text(host, "NextStateChange"), "2023-11-15T23:00:00Z");
    EXPECT_EQ(onS1(host, "enableSchedule", R"("enable":false)"), true);
    EXPECT_EQ(onS1(host, "enableSchedule", R"("enable":false)"), true);
    host.advanceTo(kWed1900 + 86400);
    EXPECT_EQ(onS1(host, "enableSchedule", R"("enable":true)"), true);
    EXPECT_EQ(text(host, "NextStateChange"), "2023-11-16T23:00:00Z");
    EXPECT_EQ(changes(host), (changes_t{"2023-11-14T22:13:20Z on", "2023-11-14T22:13:20Z eco",
                                        "2023-11-15T19:01:00Z on", "2023-11-15T19:01:00Z off",
                                        "2023-11-16T19:00:00Z on"}));

    // Enabling or overriding the schedule ends a temporary state, and the
    // client gets the schedule's own state back.
    for (const auto& [function, argument] : std::vector<std::pair<const char*, const char*>>{
             {"enableSchedule", R"("enable":true)"}, {"overrideSchedule", R"("override":"")"}}) {
        EXPECT_EQ(onS1(host, "overrideState", R"("State":"eco")"), true);
        EXPECT_EQ(onS1(host, function, argument), true);
        EXPECT_EQ(text(host, "TemporaryOverride"), "false") << function;
        EXPECT_EQ(changes(host).back(), "2023-11-16T19:00:00Z on") << function;
    }

    // A disabled schedule takes no temporary state: it would wake up and
    // drive the client again at its next change.
    EXPECT_EQ(onS1(host, "enableSchedule", R"("enable":false)"), true);
    EXPECT_EQ(onS1(host, "overrideState", R"("State":"eco")"), false);
    EXPECT_EQ(changes(host).back(), "2023-11-16T19:00:00Z off");
    EXPECT_EQ(text(host, "TemporaryOverride"), "false");
    EXPECT_EQ(text(host, "NextStateChange"), "1970-01-01T00:00:00Z");
}

// A notification as if sent by the object at path.
notification_t statusFrom(const char* path, std::uint32_t type = 1) {
    notification_t notification(type);
    notification.setObjectPath(path);
    notification.parameters().push_back({"parameter", variant_t("Status")});
    notification.parameters().push_back({"newvalue", variant_t("Synchronized")});
    return notification;
}

TEST(Control, ClockWatchStartsOnceAndRecomputesOnTimeNotifications) {
    scoped_time_zone_t zone("UTC");
    virtual_host_t host(virtual_host_t::options_t{.timeStatus = "Unsynchronized"});
    addType(host, "Light");

    // None of these starts the processing.
    host.emitTime({926, 927, 928});
    host.bus().setParameter("Time", "Source", variant_t("Synchronized"));
    host.bus().emit("Time", {statusFrom("Time.Source"), statusFrom("TimeServer")});
    host.setTimeStatus("Unsynchronized");
    EXPECT_FALSE(host.traced(kRecalculated));
    EXPECT_TRUE(host.setStateCalls().empty());

    host.setTimeStatus("Synchronized");
    host.setTimeStatus("Synchronized");
    EXPECT_EQ(host.countTraced(kRecalculated), 1u);
    EXPECT_EQ(changes(host), changes_t{"2023-11-14T22:13:20Z on"});
    // The plug-in stays synchronised.
    host.setTimeStatus("Unsynchronized");
    host.advanceTo(kTue2300);
    EXPECT_EQ(changes(host).back(), "2023-11-14T23:00:00Z off");

    // Only exact "Time" counts; one delivery runs the handler per
    // qualifying notification, and a recomputation that finds the state
    // unchanged sends nothing.
    host.bus().emit("Time", {statusFrom("Time.Zone", 926), statusFrom("Timer", 927)});
    EXPECT_EQ(host.countTraced(kRecalculated), 1u);
    host.emitTime({926, 0, 927, 1, 925, 928});
    EXPECT_EQ(host.countTraced(kRecalculated), 4u);
    EXPECT_EQ(changes(host).size(), 2u);
}

TEST(Control, ChangesAreAnnouncedPerTypeAfterTheLastChangeOfABurst) {
    virtual_host_t host;
    const std::int64_t burst = host.now();
    // A, then B (its registration is not announced), then A again.
    addType(host, "A");
    host.advance(2);
    addType(host, "B");
    host.advance(2);
    EXPECT_EQ(onS1(host, "enableSchedule", R"("enable":false)", "A"), true);
    host.advanceMs(4999);
    EXPECT_TRUE(host.bus().notifications().empty());
    host.advanceMs(1);
    const auto& sent = host.bus().notifications();
    ASSERT_EQ(sent.size(), 2u);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].type, 920u);
        EXPECT_EQ(sent[i].path, i == 0 ? "Scheduler.Types.A" : "Scheduler.Types.B");
        EXPECT_EQ(sent[i].time_us, (burst + 9) * 1000000);
        EXPECT_TRUE(sent[i].parameters.empty());
    }

    // A temporary state is not announced.
    EXPECT_EQ(onS1(host, "overrideState", R"("State":"eco")", "B"), true);
    host.advance(60);
    EXPECT_EQ(sent.size(), 2u);
    EXPECT_EQ(onS1(host, "overrideSchedule", R"("override":"on")", "B"), true);
    host.advance(5);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[2].path, "Scheduler.Types.B");

    // A change still pending at clean-up is dropped.
    EXPECT_EQ(onS1(host, "enableSchedule", R"("enable":true)", "A"), true);
    host.advanceMs(4999);
    host.shutdown();
    host.advance(60);
    EXPECT_EQ(sent.size(), 3u);
}

}  // namespace
