// A client that comes back, or whose owner registers its type again, is told
// the present state of each of its schedules once.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "orv/variant.h"
#include "virtual_host.h"

namespace {

// The virtual host starts on Tuesday 2023-11-14 22:13:20 UTC.
constexpr std::int64_t kMidnight = 1700006400;  // Wednesday 00:00 UTC

std::string schedule(const std::string& id, bool enable, const std::string& override) {
    // Daily: on until 23:00, so that it changes while the client is away.
    return R"({"ID":")" + id + R"(","enable":)" + (enable ? "true" : "false") +
           R"(,"base":"Daily","def":"off","override":")" + override +
           R"(","schedule":[{"state":"on","begin":0,"end":82800}]})";
}

void registerType(virtual_host_t& host, const std::string& type, const std::string& path) {
    host.call("registerScheduleType",
              R"({"type":")" + type + R"(","path":")" + path + R"(","states":["on","off","eco"]})");
}

// The Light schedules: plain, disabled, overridden, temporarily overridden,
// and one of another type on another root object.
void setUp(virtual_host_t& host) {
    host.addClient("Device.Light");
    host.addClient("Heating.Valve");
    registerType(host, "Light", "Device.Light");
    registerType(host, "Valve", "Heating.Valve");
    for (const auto& [type, info] : std::vector<std::pair<std::string, std::string>>{
             {"Light", schedule("plain", true, "")},
             {"Light", schedule("disabled", false, "")},
             {"Light", schedule("overridden", true, "eco")},
             {"Light", schedule("temporary", true, "")},
             {"Valve", schedule("valve", true, "")}}) {
        host.call("addSchedule", R"({"type":")" + type + R"(","info":)" + info + "}");
    }
    host.call("overrideState", R"({"type":"Light","ID":"temporary","State":"eco"})");
}

// The setState calls since the mark, by ID (one state per call, in order).
std::map<std::string, std::vector<std::string>> since(const virtual_host_t& host,
                                                      std::size_t mark) {
    std::map<std::string, std::vector<std::string>> calls;
    const auto all = host.setStateCalls();
    for (std::size_t i = mark; i < all.size(); ++i) {
        calls[all[i].id].push_back(all[i].state);
    }
    return calls;
}

std::string current(virtual_host_t& host, const std::string& id) {
    return variant_char(host.parameter("Scheduler.Types.Light.Schedules." + id, "CurrentState"))
        .value_or("-");
}

// The present states before 23:00, when "plain" switches off and that
// change ends the temporary override.
const std::map<std::string, std::vector<std::string>> kBefore = {
    {"plain", {"on"}}, {"disabled", {"off"}}, {"overridden", {"eco"}}, {"temporary", {"eco"}}};
const std::map<std::string, std::vector<std::string>> kAfter = {
    {"plain", {"off"}}, {"disabled", {"off"}}, {"overridden", {"eco"}}, {"temporary", {"off"}}};

TEST(Reassert, ClientBackAcrossADueChangeIsToldEveryPresentStateOnce) {
    virtual_host_t host;
    setUp(host);
    host.removeClient("Device.Light");
    // From the moment the client is gone, none of its schedules is known to
    // show anything; the other client's schedule is not touched.
    for (const auto& [id, states] : kBefore) {
        EXPECT_EQ(current(host, id), "Unsynchronized") << id;
    }
    EXPECT_EQ(variant_char(host.parameter("Scheduler.Types.Valve.Schedules.valve", "CurrentState")),
              "on");
    host.advanceTo(kMidnight - 3600 + 1);  // "plain" switched off at 23:00
    EXPECT_EQ(current(host, "plain"), "Unsynchronized");
    const std::size_t mark = host.setStateCalls().size();
    host.addClient("Device.Light");
    EXPECT_EQ(since(host, mark), kAfter);
    for (const auto& [id, states] : kAfter) {
        EXPECT_EQ(current(host, id), states.front()) << id;
    }
    // Nothing more follows until the next change, and then only that.
    host.advanceTo(kMidnight - 1);
    EXPECT_EQ(since(host, mark), kAfter);
}

TEST(Reassert, RegisteringAgainTellsEachScheduleOnce) {
    virtual_host_t host;
    setUp(host);
    const std::size_t mark = host.setStateCalls().size();
    registerType(host, "Light", "Device.Light");
    // A new schedule that comes with the registration tells its own state.
    host.call("registerScheduleType",
              R"({"type":"Valve","path":"Heating.Valve","states":["on","off","eco"],)"
              R"("schedules":[)" +
                  schedule("extra", true, "") + "]}");
    auto expected = kBefore;
    expected["valve"] = {"on"};
    expected["extra"] = {"on"};
    EXPECT_EQ(since(host, mark), expected);
}

TEST(Reassert, NothingIsSentBeforeTheClockIsSynchronised) {
    virtual_host_t::options_t options;
    options.timeStatus = "Unsynchronized";
    virtual_host_t host(options);
    setUp(host);
    host.removeClient("Device.Light");
    host.addClient("Device.Light");
    registerType(host, "Light", "Device.Light");
    EXPECT_TRUE(host.setStateCalls().empty());
    EXPECT_EQ(current(host, "plain"), "Unsynchronized");
    // The first synchronisation brings the client its states as before.
    host.setTimeStatus("Synchronized");
    EXPECT_EQ(current(host, "plain"), "on");
}

}  // namespace
