// Getting states to the clients when things go wrong or pile up: the clock
// not yet synchronised, changes due together, far ahead, skipped by a
// temporary override or jumped over by the clock.
#include <gtest/gtest.h>

#include <memory>
#include <tuple>

#include "virtual_host.h"

namespace {

using lines_t = std::vector<std::string>;
// An entry: begin, end, state.
using span_t = std::tuple<std::int64_t, std::int64_t, std::string>;

constexpr const char* kS1 = "Scheduler.Types.Light.Schedules.s1";
constexpr const char* kS2 = "Scheduler.Types.Light.Schedules.s2";
// Tuesday 2023-11-14 22:13:20 UTC, the virtual host's default start, and the
// changes of an entry from 18:00 to 23:00 after it.
constexpr std::int64_t kStart = 1700000000;
constexpr std::int64_t kTue2300 = 1700002800;
constexpr std::int64_t kWed1800 = 1700071200;
const std::vector<span_t> kEvening = {{64800, 82800, "on"}};

std::string scheduleJson(const std::string& id, const std::string& base,
                         const std::vector<span_t>& spans, const std::string& def = "off") {
    std::string json = R"({"ID":")" + id + R"(","enable":true,"base":")" + base;
    json += R"(","def":")" + def + R"(","override":"","schedule":[)";
    for (const auto& [begin, end, state] : spans) {
        json += std::string(json.back() == '[' ? "" : ",") + R"({"state":")" + state;
        json += R"(","begin":)" + std::to_string(begin) + R"(,"end":)" + std::to_string(end) + "}";
    }
    return json + "]}";
}

std::optional<bool> returned(const virtual_host_t::call_result_t& result) {
    return variant_toBool(&result.retval);
}

// A host with the type Light, which drives the client object Device.Light.
std::unique_ptr<virtual_host_t> lightHost(std::int64_t start = kStart,
                                          const char* timeStatus = "Synchronized") {
    auto host = std::make_unique<virtual_host_t>(
        virtual_host_t::options_t{.start = start, .timeStatus = timeStatus});
    host->addClient("Device.Light");
    const char* light = R"({"type":"Light","path":"Device.Light","states":["on","off","eco"]})";
    EXPECT_EQ(returned(host->call("registerScheduleType", light)), true);
    return host;
}

std::optional<bool> add(virtual_host_t& host, const std::string& info) {
    return returned(host.call("addSchedule", R"({"type":"Light","info":)" + info + "}"));
}

std::optional<std::int64_t> nextChange(virtual_host_t& host, const char* path = kS1) {
    return variant_toDateTime(host.parameter(path, "NextStateChange"));
}

// The "setState" calls so far, as "<UTC day of month>T<hh:mm:ss> <ID> <state>".
lines_t changes(const virtual_host_t& host) {
    lines_t lines;
    for (const virtual_host_t::set_state_t& call : host.setStateCalls()) {
        lines.push_back(orv_isoTime(call.time).substr(8, 11) + " " + call.id + " " + call.state);
    }
    return lines;
}

TEST(Delivery, NothingIsSentBeforeTheClockIsSynchronised) {
    std::unique_ptr<virtual_host_t> host = lightHost(kStart, "Unsynchronized");
    ASSERT_EQ(add(*host, scheduleJson("s1", "Daily", kEvening)), true);
    EXPECT_EQ(variant_char(host->parameter(kS1, "CurrentState")), "Unsynchronized");
    EXPECT_TRUE(host->traced("The clock is not synchronised: holding s1 [on]"));
    EXPECT_EQ(nextChange(*host), kTue2300) << "the change is planned all the same";
    host->advanceTo(kTue2300 + 60);
    EXPECT_FALSE(host->traced("with ID:[s1] and value:[off]")) << "no run before synchronisation";
    // Synchronisation sends the state for the present time, and the changes
    // go on from there.
    host->setTimeStatus("Synchronized");
    host->advanceTo(kWed1800);
    EXPECT_EQ(changes(*host), (lines_t{"14T23:01:00 s1 off", "15T18:00:00 s1 on"}));
}

TEST(Delivery, SchedulesWithoutFurtherChangesLeaveTheAgenda) {
    std::unique_ptr<virtual_host_t> host = lightHost();
    // s1 is empty once its entries that set the default are dropped, s3 has
    // no entries at all; s2 runs once, from 22:30:00 to 22:46:40.
    const std::vector<span_t> defaultsOnly = {{0, 3600, "eco"}, {7200, 9000, "eco"}};
    ASSERT_EQ(add(*host, scheduleJson("s1", "Daily", defaultsOnly, "eco")), true);
    ASSERT_EQ(add(*host, scheduleJson("s3", "Daily", {}, "eco")), true);
    EXPECT_EQ(host->countTraced("Could not update peeklist, this is an empty schedule"), 2u);
    EXPECT_EQ(nextChange(*host), 0) << "nothing is pending";
    ASSERT_EQ(add(*host, scheduleJson("s2", "Once", {{kStart + 1000, kStart + 2000, "on"}})), true);
    host->advanceTo(kStart + 1999);
    host->clearTraces();
    host->advanceTo(kStart + 2000);
    EXPECT_TRUE(host->traced("No next event found"));
    EXPECT_TRUE(host->traced("Starting peeklist timer with timeout 4294967295000 us"));
    host->advance(400 * 86400);
    // A schedule that has run out shows no change that will never come, and
    // a schedule without changes is told its state once.
    EXPECT_EQ(nextChange(*host, kS2), 0);
    EXPECT_EQ(changes(*host),
              (lines_t{"14T22:13:20 s1 eco", "14T22:13:20 s3 eco", "14T22:13:20 s2 off",
                       "14T22:30:00 s2 on", "14T22:46:40 s2 off"}));
}

TEST(Delivery, YearlyChangeBeyondTheTimerRangeArrivesInItsSecond) {
    // 2024-02-01 00:00 UTC, 78 days ahead: more milliseconds than 32 bits hold.
    constexpr std::int64_t kFebFirst = 1706745600;
    std::unique_ptr<virtual_host_t> host = lightHost();
    ASSERT_EQ(add(*host, scheduleJson("s1", "Yearly", {{31 * 86400, 32 * 86400, "on"}})), true);
    EXPECT_EQ(nextChange(*host), kFebFirst);
    for (std::int64_t t = kStart; t < kFebFirst; t += 3 * 86400 + 7) {
        host->advanceTo(t);
        ASSERT_EQ(host->setStateCalls().size(), 1u) << orv_isoTime(t);
    }
    // The change comes at the very start of its second, not a microsecond
    // before it.
    host->loop().advanceTo(kFebFirst * 1'000'000 - 1);
    EXPECT_EQ(host->setStateCalls().size(), 1u);
    host->loop().advance(1);
    EXPECT_EQ(host->setStateCalls().back().time_us, kFebFirst * 1'000'000);
    EXPECT_EQ(changes(*host).back(), "01T00:00:00 s1 on");
}

TEST(Delivery, TemporaryOverrideSkipsTheChangeThatKeepsItsState) {
    // Tuesday 10:00 UTC. s1 is on from 08:00 and s2 from 09:00, both until
    // 17:00. s1 is forced off, which the 17:00 change would not alter; s2 is
    // forced to eco, which the 17:00 change ends.
    std::unique_ptr<virtual_host_t> host = lightHost(1699956000);
    ASSERT_EQ(add(*host, scheduleJson("s1", "Daily", {{28800, 61200, "on"}})), true);
    ASSERT_EQ(add(*host, scheduleJson("s2", "Daily", {{32400, 61200, "on"}})), true);
    for (const char* forced : {R"("off","ID":"s1"})", R"("eco","ID":"s2"})"}) {
        const std::string arguments = std::string(R"({"type":"Light","State":)") + forced;
        EXPECT_EQ(returned(host->call("overrideState", arguments)), true) << forced;
    }
    EXPECT_EQ(nextChange(*host, kS1), 1700035200) << "Wednesday 08:00";
    EXPECT_EQ(nextChange(*host, kS2), 1699981200) << "Tuesday 17:00";
    EXPECT_EQ(variant_toBool(host->parameter(kS1, "TemporaryOverride")), true);
    host->advanceTo(1700038800);
    EXPECT_EQ(changes(*host),
              (lines_t{"14T10:00:00 s1 on", "14T10:00:00 s2 on", "14T10:00:00 s1 off",
                       "14T10:00:00 s2 eco", "14T17:00:00 s2 off", "15T08:00:00 s1 on",
                       "15T09:00:00 s2 on"}));
    for (const char* path : {kS1, kS2}) {
        EXPECT_EQ(variant_toBool(host->parameter(path, "TemporaryOverride")), false) << path;
        EXPECT_EQ(nextChange(*host, path), 1700067600) << "Wednesday 17:00";
    }
}

TEST(Delivery, ClockJumpPlansOnlyTheNextChangesAndDueChangesShareOneRun) {
    constexpr std::int64_t kThu1200 = 1700136000;
    std::unique_ptr<virtual_host_t> host = lightHost();
    const std::vector<span_t> s1 = {{28800, 61200, "on"}, {64800, 82800, "eco"}};
    ASSERT_EQ(add(*host, scheduleJson("s1", "Daily", s1)), true);
    ASSERT_EQ(add(*host, scheduleJson("s2", "Daily", {{82800, 86400, "on"}})), true);
    host->setClock(kThu1200);
    host->emitTime({926});
    // s1 is on at noon and is sent at once; s2 is off, as it already reads,
    // and is not sent. None of the missed changes is replayed. At 23:00 both
    // change in one run; among equal times the change planned last (s1's, at
    // 18:00) comes first.
    host->advanceTo(kThu1200 + 6 * 3600);
    host->clearTraces();
    host->advanceTo(kThu1200 + 11 * 3600);
    EXPECT_EQ(host->countTraced("Starting peeklist timer with timeout"), 1u);
    EXPECT_EQ(changes(*host),
              (lines_t{"14T22:13:20 s1 eco", "14T22:13:20 s2 off", "16T12:00:00 s1 on",
                       "16T17:00:00 s1 off", "16T18:00:00 s1 eco", "16T23:00:00 s1 off",
                       "16T23:00:00 s2 on"}));
    EXPECT_EQ(nextChange(*host, kS2), kThu1200 + 12 * 3600) << "Friday 00:00";
}

}  // namespace
