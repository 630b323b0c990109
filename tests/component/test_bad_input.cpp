// Malformed calls: each one is answered false (or, by the simulations, with
// an empty list) and leaves the schedules that were there alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "orv/variant.h"
#include "virtual_host.h"

namespace {

constexpr const char* kS1 = "Scheduler.Types.Light.Schedules.s1";
constexpr const char* kS2 = "Scheduler.Types.Light.Schedules.s2";
constexpr const char* kLight = R"({"type":"Light","path":"Device.Light","states":["on","off"])";
// Tuesday 22:13:20 UTC: s1 is on until 23:00, s2 on until 22:30 and again from 23:00.
constexpr const char* kHealthy =
    R"(,"schedules":[{"ID":"s1","enable":true,"base":"Daily","def":"off","override":"",)"
    R"("schedule":[{"state":"on","begin":64800,"end":82800}]},)"
    R"({"ID":"s2","enable":true,"base":"Hourly","def":"off","override":"",)"
    R"("schedule":[{"state":"on","begin":0,"end":1800}]}]})";
constexpr std::int64_t kStart = 1700000000;
// Placeholders in the rows: @X@ completes an "info" after its ID, @I@ is the
// start of an addSchedule for the ID x up to its entries, @E@ an entry.
constexpr const char* kX = R"("enable":true,"base":"Daily","def":"off","override":"")";
constexpr const char* kEntry = R"({"state":"on","begin":0,"end":60})";

// The expected return value as JSON, the function and its arguments. A row
// with a text of 1 MiB (@BIG@) or with 100,000 entries (@MANY@) must be
// refused before any handler reads it, with the reason traced.
const std::vector<std::string> kRows = {
    R"(false registerScheduleType {"type":"Light","path":"Device.Light","states":"on,off"})",
    R"(false registerScheduleType {"type":["Light"],"path":"Device.D","states":["on"]})",
    R"(false registerScheduleType {"type":"Light","path":{"p":1},"states":["on","off"]})",
    R"(false registerScheduleType {"type":"Light","states":["on","off"]})",
    // An empty path is still a path: the type registers, and reaches no one.
    R"(true registerScheduleType {"type":"E","path":"","states":["on"]})",
    R"(false registerScheduleType {"type":"D","path":"Device.D","states":["on"],"schedules":"x"})",
    R"(false registerScheduleType {"type":"","path":"Device.D","states":["on"]})",
    R"(false registerScheduleType {"type":"a.b","path":"Device.D","states":["on"]})",
    R"(false registerScheduleType {"type":"@BIG@","path":"Device.D","states":["on"]})",
    // Names outside [A-Za-z0-9] are escaped on the bus, so they may stand.
    R"(true registerScheduleType {"type":"a/b","path":"Device.D","states":["on"]})",
    R"(true registerScheduleType {"type":"é","path":"Device.D","states":["on"]})",
    R"(false unregisterScheduleType {"type":["Light"]})",
    R"(false unregisterScheduleType {"type":"Nope"})",
    R"(false enableSchedule {"type":"Light","ID":"s1","enable":{"on":true}})",
    R"(false enableSchedule {"type":"Light","ID":["s1"],"enable":true})",
    R"(false enableSchedule {"type":"Light","ID":"nope","enable":true})",
    R"(false enableSchedule {"type":"Nope","ID":"s1","enable":true})",
    R"(false enableSchedule {"type":"Light","ID":"@BIG@","enable":true})",
    R"(false overrideSchedule {"type":"Light","ID":"s1","override":["on"]})",
    R"(false overrideSchedule {"type":"Light","ID":"s1","override":5})",
    R"(false overrideSchedule {"type":"Light","ID":"s1","override":"@BIG@"})",
    R"(false overrideState {"type":"Light","ID":"s1","State":{"s":"on"}})",
    R"(false overrideState {"type":"Light","ID":"s1","State":"@BIG@"})",
    R"(false removeSchedules {"type":"Light","ID":"s1"})",
    // IDs that are not there are skipped, for an unknown type as well.
    R"(true removeSchedules {"type":"Nope","ID":["s1"]})",
    R"(false removeSchedules {"type":{"t":"Light"},"ID":["s1"]})",
    R"(false removeSchedules {"type":"Light","ID":["@BIG@"]})",
    R"(false getSchedule {"type":"Light","ID":5})",
    R"(false getSchedule {"type":"Light"})",
    R"(false getSchedules {"type":["Light"]})",
    R"(false getCompleteSchedules {"type":null})",
    R"(false addSchedule {"type":"Light","info":"x"})",
    R"(false addSchedule {"type":"Light","info":[[{"ID":"x"}]]})",
    R"(false addSchedule {"type":"Light"})",
    R"(false addSchedule {"type":["Light"],"info":{"ID":"x",@X@,"schedule":[]}})",
    R"(false addSchedule {"type":"Light","info":{"ID":"x",@X@}})",
    R"(false addSchedule {"type":"Light","info":{"ID":{"i":1},@X@,"schedule":[]}})",
    R"(false addSchedule {"type":"Light","info":{"ID":"x","enable":{"b":1},"base":"Daily",)"
    R"("def":"off","override":"","schedule":[]}})",
    R"(false addSchedule {"type":"Light","info":{"ID":"x","enable":true,"base":["Daily"],)"
    R"("def":"off","override":"","schedule":[]}})",
    // Keys it does not know are ignored.
    R"(true addSchedule {"type":"Light","info":{"ID":"x1","colour":"red",@X@,"schedule":[]}})",
    // An ID named twice is removed once.
    R"(true removeSchedules {"type":"Light","ID":["x1","x1"]})",
    R"(false addSchedule {@I@"schedule":"on"}})",
    R"(false addSchedule {@I@"schedule":{"state":"on"}}})",
    R"(false addSchedule {@I@"schedule":[[@E@]]}})",
    R"(false addSchedule {@I@"schedule":[{"state":"on","begin":-1,"end":60}]}})",
    R"(false addSchedule {@I@"schedule":[{"state":"on","begin":0,"end":4294967296}]}})",
    R"(false addSchedule {@I@"schedule":[{"state":"on","begin":0,"end":1e300}]}})",
    R"(false addSchedule {@I@"schedule":[{"state":"on","begin":null,"end":60}]}})",
    R"(false addSchedule {@I@"schedule":[{"state":"@BIG@","begin":0,"end":60}]}})",
    R"(false addSchedule {@I@"schedule":@MANY@}})",
    R"(false addSchedule {@I@"@BIG@":1,"schedule":[]}})",
    R"(false addSchedule {"type":"@BIG@","info":{}})",
    R"(false addSchedule {"type":"Light","info":{"ID":"@BIG@",@X@,"schedule":[@E@]}})",
    R"(false addSchedule {"type":"Light","info":{"ID":"",@X@,"schedule":[@E@]}})",
    R"(false addSchedule {"type":"Light","info":{"ID":"a.b",@X@,"schedule":[@E@]}})",
    R"(false addSchedule {"type":"Light","info":{"ID":"../x",@X@,"schedule":[@E@]}})",
    R"(true addSchedule {"type":"Light","info":{"ID":"a/b",@X@,"schedule":[@E@]}})",
    R"(true addSchedule {"type":"Light","info":{"ID":"é",@X@,"schedule":[@E@]}})",
    R"(false addSchedule {"type":"Nope","info":{"ID":"x",@X@,"schedule":[@E@]}})",
    R"([] simulateSchedule {"type":"Light","ID":"s1","start":"99999-01-01T00:00:00",)"
    R"("stop":"99999-01-02T00:00:00"})",
    R"([] simulateSchedule {"type":"Light","ID":"s1","start":1e300,"stop":2e300})",
    R"([] simulateSchedule {"type":["Light"],"ID":"s1","start":1700000000,"stop":1700086400})",
    R"([] simulateSchedule {"type":"Light","ID":"@BIG@","start":0,"stop":1})",
    R"([] simulateSchedules {"start":"99999-01-01T00:00:00","stop":"99999-01-02T00:00:00"})",
    R"([] simulateSchedules {"start":{"t":1},"stop":[1]})",
    R"([] simulateSchedules {"start":null,"stop":null})",
};

std::string expand(std::string text) {
    std::string many = "[";
    for (int i = 0; i < 100000 && text.find("@MANY@") != std::string::npos; ++i) {
        many += std::string(kEntry) + ",";
    }
    many.back() = ']';
    const std::pair<std::string, std::string> placeholders[] = {
        {"@I@", R"("type":"Light","info":{"ID":"x",)" + std::string(kX) + ","},
        {"@X@", kX},
        {"@E@", kEntry},
        {"@BIG@", std::string(1 << 20, 'x')},
        {"@MANY@", many}};
    for (const auto& [name, value] : placeholders) {
        for (std::size_t at = 0; (at = text.find(name, at)) != std::string::npos;) {
            text.replace(at, name.size(), value);
        }
    }
    return text;
}

// What the healthy schedules and their type read.
std::string snapshot(virtual_host_t& host) {
    std::string text = variant_char(host.parameter("Scheduler.Types.Light", "Path")).value_or("-");
    for (const char* path : {kS1, kS2}) {
        for (const char* name : {"CurrentState", "NextStateChange"}) {
            text += " " + variant_char(host.parameter(path, name)).value_or("-");
        }
    }
    return text;
}

void setUp(virtual_host_t& host) {
    host.call("unregisterScheduleType", R"({"type":"Light"})");
    const auto result = host.call("registerScheduleType", kLight + std::string(kHealthy));
    ASSERT_EQ(variant_toJSON(&result.retval), "true");
}

TEST(BadInput, MalformedCallsAreRefusedAndLeaveTheSchedulesAlone) {
    virtual_host_t host;
    host.addClient("Device.Light");
    setUp(host);
    const std::string healthy = snapshot(host);
    ASSERT_EQ(healthy, "Device.Light on 2023-11-14T23:00:00Z on 2023-11-14T22:30:00Z");
    for (const std::string& row : kRows) {
        SCOPED_TRACE(row);
        const std::size_t space = row.find(' '), brace = row.find(' ', space + 1);
        const std::string function = row.substr(space + 1, brace - space - 1);
        host.clearTraces();
        const auto result = host.call(function, expand(row.substr(brace + 1)));
        EXPECT_EQ(variant_toJSON(&result.retval), row.substr(0, space));
        const char* reason =
            row.find("@BIG@") != std::string::npos    ? "a text is longer than 4096 bytes"
            : row.find("@MANY@") != std::string::npos ? "a schedule has more than 1024 entries"
                                                      : nullptr;
        if (reason) {
            EXPECT_TRUE(host.traced("[x]__" + function + " refused: " + reason));
        }
        if (snapshot(host) != healthy) {
            ADD_FAILURE() << "the healthy schedules now read " << snapshot(host);
            // Put them back, so that the rows after it are judged on their own.
            setUp(host);
        }
    }
    ASSERT_EQ(host.now(), kStart);
    host.advanceTo(kStart + 2800);
    std::vector<std::string> delivered;
    for (const virtual_host_t::set_state_t& call : host.setStateCalls()) {
        if (call.time > kStart && (call.id == "s1" || call.id == "s2")) {
            delivered.push_back(std::to_string(call.time) + " " + call.path + "/" + call.id + " " +
                                call.state);
        }
    }
    std::sort(delivered.begin(), delivered.end());
    EXPECT_EQ(delivered, (std::vector<std::string>{"1700001000 Device.Light/s2 off",
                                                   "1700002800 Device.Light/s1 off",
                                                   "1700002800 Device.Light/s2 on"}));
}

}  // namespace
