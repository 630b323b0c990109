// Adding, replacing, refusing and dispatching schedules, registering types
// again and reading types and schedules back, driven through the bus
// functions of "Scheduler" on the virtual clock.
#include <gtest/gtest.h>

#include <tuple>
#include <utility>

#include "orv/variant_map.h"
#include "time_zone.h"
#include "virtual_host.h"

namespace {

constexpr const char* kS1 = "Scheduler.Types.Light.Schedules.s1";

// An entry: begin, end, state.
using span_t = std::tuple<std::int64_t, std::int64_t, std::string>;

std::string scheduleJson(const std::string& id, const std::string& base,
                         const std::vector<span_t>& spans, const std::string& def = "off",
                         const std::string& override = "", bool enable = true) {
    std::string json = R"({"ID":")" + id + R"(","enable":)" + (enable ? "true" : "false") +
                       R"(,"base":")" + base + R"(","def":")" + def + R"(","override":")" +
                       override + R"(","schedule":[)";
    for (const auto& [begin, end, state] : spans) {
        json += std::string(json.back() == '[' ? "" : ",") + R"({"state":")" + state +
                R"(","begin":)" + std::to_string(begin) + R"(,"end":)" + std::to_string(end) + "}";
    }
    return json + "]}";
}

std::optional<bool> returned(const virtual_host_t::call_result_t& result) {
    return variant_toBool(&result.retval);
}

// Registers a type (Light unless told otherwise) whose client object is path.
std::optional<bool> registerType(virtual_host_t& host, const std::string& schedules = "",
                                 const std::string& states = R"("on","off","eco")",
                                 const std::string& path = "Device.Light",
                                 const std::string& type = "Light") {
    host.addClient(path);
    return returned(host.call("registerScheduleType", R"({"type":")" + type + R"(","path":")" +
                                                          path + R"(","states":[)" + states +
                                                          R"(],"schedules":[)" + schedules + "]}"));
}

std::optional<bool> addSchedule(virtual_host_t& host, const std::string& info) {
    return returned(host.call("addSchedule", R"({"type":"Light","info":)" + info + "}"));
}

std::optional<std::string> text(virtual_host_t& host, const char* name) {
    return variant_char(host.parameter(kS1, name));
}

// The "setState" calls so far, as "<UTC time> <state>".
std::vector<std::string> changes(const virtual_host_t& host) {
    std::vector<std::string> lines;
    for (const virtual_host_t::set_state_t& call : host.setStateCalls()) {
        lines.push_back(orv_isoTime(call.time) + " " + call.state);
    }
    return lines;
}

// The time at the start of a text such as "2023-11-14T22:13:20Z on".
std::int64_t at(const std::string& text) {
    return orv_parseIsoTime(text.substr(0, text.find(' '))).value_or(-1);
}

// The answer to a call as "<return value> <arguments after the call>" in JSON.
std::string answer(virtual_host_t& host, std::string_view function, std::string_view arguments) {
    virtual_host_t::call_result_t result = host.call(function, arguments);
    const variant_t after(std::move(result.arguments));
    return variant_toJSON(&result.retval) + " " + variant_toJSON(&after);
}

// The schedule is added at the time of the first expected call and runs
// until the last one; next is its NextStateChange then, and nextAfter its
// NextStateChange after each of the first calls.
struct run_row_t {
    const char* zone;
    std::string schedule;
    const char* next;
    std::vector<std::string> expected;
    std::vector<const char*> nextAfter = {};
};

// Berlin rows: offsets count from the reference time taken with the
// daylight-saving flag of the moment of computation. The evening entry of the
// switch day is computed at 01:30, before the switch, so it comes one hour
// off: 19:00 summer time in March, 17:00 standard time in October. The
// following day is back at 18:00.
const std::vector<span_t> kBerlinDaily = {{1800, 5400, "eco"}, {64800, 82800, "on"}};
// Monday and Wednesday, 08:00 to 17:00.
const std::vector<span_t> kWorkDays = {{28800, 61200, "on"}, {201600, 234000, "on"}};

const std::vector<run_row_t> kRuns = {
    // On over night and morning, eco in the evening. The 23:00 entry runs
    // into the first entry of the next day, so the change after it is at
    // 01:00, not at midnight.
    {"UTC",
     scheduleJson("s1", "Daily",
                  {{0, 3600, "on"},
                   {21600, 28800, "on"},
                   {28800, 36000, "on"},
                   {64800, 82800, "eco"},
                   {82800, 86400, "on"}}),
     "2023-11-16T01:00:00Z",
     {"2023-11-14T22:13:20Z eco", "2023-11-14T23:00:00Z on", "2023-11-15T01:00:00Z off",
      "2023-11-15T06:00:00Z on", "2023-11-15T10:00:00Z off", "2023-11-15T18:00:00Z eco",
      "2023-11-15T23:00:00Z on"},
     {"2023-11-14T23:00:00Z", "2023-11-15T01:00:00Z", "2023-11-15T06:00:00Z"}},
    {"UTC",
     scheduleJson("s1", "Weekly", kWorkDays),
     "2023-11-22T08:00:00Z",
     {"2023-11-13T00:00:00Z off", "2023-11-13T08:00:00Z on", "2023-11-13T17:00:00Z off",
      "2023-11-15T08:00:00Z on", "2023-11-15T17:00:00Z off", "2023-11-20T08:00:00Z on",
      "2023-11-20T17:00:00Z off"}},
    // Each starts at 00:30 local time on the switch day, inside the eco entry.
    {"Europe/Berlin",
     scheduleJson("s1", "Daily", kBerlinDaily),
     "2023-03-27T22:30:00Z",
     {"2023-03-25T23:30:00Z eco", "2023-03-26T00:30:00Z off",
      "2023-03-26T17:00:00Z on",  // Sun 19:00 CEST
      "2023-03-26T21:00:00Z off", "2023-03-26T22:30:00Z eco", "2023-03-26T23:30:00Z off",
      "2023-03-27T16:00:00Z on",  // Mon 18:00 CEST
      "2023-03-27T21:00:00Z off"}},
    // In October the entry at 17:00 CET is followed by a computed change at
    // 18:00 CET to the same state, which is not sent again.
    {"Europe/Berlin",
     scheduleJson("s1", "Daily", kBerlinDaily),
     "2023-10-30T23:30:00Z",
     {"2023-10-28T22:30:00Z eco", "2023-10-28T23:30:00Z off",
      "2023-10-29T16:00:00Z on",  // Sun 17:00 CET
      "2023-10-29T22:00:00Z off", "2023-10-29T23:30:00Z eco", "2023-10-30T00:30:00Z off",
      "2023-10-30T17:00:00Z on",  // Mon 18:00 CET
      "2023-10-30T22:00:00Z off"}},
    // Computed on Thursday in the old offset, Monday 08:00 lands at 09:00
    // CEST in March; in October at 07:00 CET, with the 08:00 change then
    // finding the state already on.
    {"Europe/Berlin",
     scheduleJson("s1", "Weekly", kWorkDays),
     "2023-04-03T06:00:00Z",
     {"2023-03-23T11:00:00Z off", "2023-03-27T07:00:00Z on", "2023-03-27T15:00:00Z off",
      "2023-03-29T06:00:00Z on", "2023-03-29T15:00:00Z off"}},
    {"Europe/Berlin",
     scheduleJson("s1", "Weekly", kWorkDays),
     "2023-11-06T07:00:00Z",
     {"2023-10-26T10:00:00Z off", "2023-10-30T06:00:00Z on", "2023-10-30T16:00:00Z off",
      "2023-11-01T07:00:00Z on", "2023-11-01T16:00:00Z off"}},
};

TEST(SchedulesRun, DailyAndWeeklyOverSeveralDays) {
    for (const run_row_t& row : kRuns) {
        SCOPED_TRACE(std::string(row.zone) + " " + row.expected.front());
        scoped_time_zone_t zone(row.zone);
        virtual_host_t host(virtual_host_t::options_t{.start = at(row.expected.front())});
        ASSERT_EQ(registerType(host), true);
        ASSERT_EQ(addSchedule(host, row.schedule), true);
        // Each call is due at its exact second, and CurrentState follows it.
        for (std::size_t i = 0; i < row.expected.size(); ++i) {
            host.advanceTo(at(row.expected[i]));
            EXPECT_EQ(text(host, "CurrentState"), row.expected[i].substr(21));
            if (i < row.nextAfter.size()) {
                EXPECT_EQ(text(host, "NextStateChange"), row.nextAfter[i]) << row.expected[i];
            }
        }
        EXPECT_EQ(changes(host), row.expected);
        EXPECT_EQ(text(host, "NextStateChange"), row.next);
        for (const virtual_host_t::set_state_t& call : host.setStateCalls()) {
            EXPECT_EQ(call.path + " " + call.id, "Device.Light s1");
        }
    }
}

TEST(Schedules, SameIdReplacesTheSchedule) {
    // 22:13:20 UTC: the old schedule is on until 23:00, the new one on until
    // 22:30 and then on again for the first half of every hour.
    virtual_host_t host;
    ASSERT_EQ(registerType(host), true);
    ASSERT_EQ(addSchedule(host, scheduleJson("s1", "Daily", {{64800, 82800, "on"}})), true);
    ASSERT_EQ(addSchedule(host, scheduleJson("s1", "Hourly", {{0, 1800, "on"}}, "eco")), true);
    const std::vector<std::pair<const char*, std::string>> recorded = {
        {"ID", "s1"},       {"Enable", "true"}, {"Base", "Hourly"},
        {"Default", "eco"}, {"Override", ""},   {"CurrentState", "on"}};
    for (const auto& [name, value] : recorded) {
        EXPECT_EQ(text(host, name), value) << name;
    }
    EXPECT_EQ(text(host, "NextStateChange"), "2023-11-14T22:30:00Z");

    host.advanceTo(1700004600);
    // The old schedule would have switched off at 23:00.
    EXPECT_EQ(changes(host),
              (std::vector<std::string>{"2023-11-14T22:13:20Z on", "2023-11-14T22:13:20Z on",
                                        "2023-11-14T22:30:00Z eco", "2023-11-14T23:00:00Z on",
                                        "2023-11-14T23:30:00Z eco"}));

    // A refused replacement leaves the schedule it was to replace running:
    // one typo in an edit must not lose it.
    EXPECT_EQ(addSchedule(host, scheduleJson("s1", "Hourly", {{0, 1800, "dim"}})), false);
    EXPECT_EQ(text(host, "Base"), "Hourly");
    host.advance(7200);
    EXPECT_EQ(host.setStateCalls().size(), 9u);
}

// A schedule and the reason its refusal gives, which names the entries by
// their place in the list as sent.
const std::vector<std::pair<std::string, const char*>> kRefusals = {
    {scheduleJson("s1", "daily", {{0, 3600, "on"}}),
     "base 'daily' is not one of Once, Hourly, Daily, Weekly, Monthly, Yearly"},
    {scheduleJson("s1", "Daily", {{0, 3600, "on"}}, "dim"),
     "default state 'dim' is not a state of type 'Light'"},
    {scheduleJson("s1", "Daily", {{0, 3600, "on"}}, "off", "dim"),
     "override state 'dim' is not a state of type 'Light'"},
    {scheduleJson("s1", "Daily", {{0, 3600, "On"}}),
     "entry 1: state 'On' is not a state of type 'Light'"},
    {scheduleJson("s1", "Daily", {{100, 200, "eco"}, {0, 101, "on"}}), "entries 1 and 2 overlap"},
    {scheduleJson("s1", "Daily", {{0, 10, "on"}, {20, 20, "eco"}}),
     "entries 1 and 2 mix a span and an event: a schedule holds one kind"},
    {scheduleJson("s1", "Daily", {{100, 50, "on"}}), "entry 1 ends before it begins"},
    {scheduleJson("s1", "Daily", {{0, 86401, "on"}}),
     "entry 1 lies outside the Daily period of 86400 s"},
    {scheduleJson("s1", "Hourly", {{0, 60, "on"}, {3000, 3601, "on"}}),
     "entry 2 lies outside the Hourly period of 3600 s"},
};

TEST(SchedulesRefused, EachRefusalSaysWhyAndLeavesNothing) {
    for (const auto& [info, reason] : kRefusals) {
        SCOPED_TRACE(reason);
        virtual_host_t host;
        ASSERT_EQ(registerType(host), true);
        const std::string expected = std::string(R"(false {"error":")") + reason + R"(",)";
        EXPECT_EQ(answer(host, "addSchedule", R"({"type":"Light","info":)" + info + "}")
                      .substr(0, expected.size()),
                  expected);
        EXPECT_TRUE(host.traced(reason));
        EXPECT_EQ(host.object(kS1), nullptr);
        host.advance(86400);
        EXPECT_TRUE(host.setStateCalls().empty());
    }
}

// The answers about the types and schedules of the test below: an incoming
// scheduleInfo is replaced, and the out-argument comes first. A disabled
// schedule that was never pushed reads no value.
const std::string kS1Info = R"({"ID":"s1","enable":true,"base":"Daily","def":"off","override":"",)"
                            R"("value":"off")";
const std::string kS1Entries = R"(,"schedule":[{"state":"eco","begin":0,"end":1800},)"
                               R"({"state":"off","begin":3600,"end":7200},)"
                               R"({"state":"on","begin":64800,"end":82800}]})";
// s3 was told its default when its type was registered again.
const std::string kS3Info =
    R"({"ID":"s3","enable":false,"base":"Weekly","def":"off","override":"","value":"off")";
const std::vector<std::tuple<const char*, const char*, std::string>> kQueries = {
    {"getSchedules", R"({"type":"Light","scheduleInfo":[{"ID":"x"}]})",
     R"(true {"scheduleInfo":[)" + kS1Info + "}," + kS3Info + R"(}],"type":"Light"})"},
    {"getCompleteSchedules", R"({"scheduleInfo":[],"type":"Light"})",
     R"(true {"scheduleInfo":[)" + kS1Info + kS1Entries + "," + kS3Info +
         R"(,"schedule":[{"state":"on","begin":0,"end":1800}]}],"type":"Light"})"},
    {"getSchedule", R"({"type":"Light","ID":"s1"})",
     R"(true {"scheduleInfo":)" + kS1Info + kS1Entries + R"(,"type":"Light","ID":"s1"})"},
    {"getSchedule", R"({"type":"Light","ID":"S1"})",
     R"(false {"error":"type 'Light' has no schedule 'S1'","type":"Light","ID":"S1"})"},
    {"getSchedule", R"({"type":"Light","ID":"h1"})",
     R"(false {"error":"type 'Light' has no schedule 'h1'","type":"Light","ID":"h1"})"},
    {"getSchedule", R"({"type":"Dimmer","ID":"s1"})",
     R"(false {"error":"type 'Dimmer' is not registered","type":"Dimmer","ID":"s1"})"},
    {"getSchedule", R"({"type":"Heater","ID":"h1"})",
     R"(true {"scheduleInfo":{"ID":"h1","enable":false,"base":"Hourly","def":"off",)"
     R"("override":"","value":"","schedule":[{"state":"on","begin":0,"end":60}]},)"
     R"("type":"Heater","ID":"h1"})"},
    {"getSchedules", R"({"type":"Dimmer","scheduleInfo":[{"ID":"x"}]})",
     R"(false {"error":"type 'Dimmer' is not registered","scheduleInfo":[],"type":"Dimmer"})"},
    {"getScheduleTypes", "{}", R"(true {"types":["Light","Heater"]})"},
};

TEST(Schedules, RegistrationReadBackAndUnregistration) {
    virtual_host_t host;
    EXPECT_EQ(answer(host, "getScheduleTypes", "{}"), R"(true {"types":[]})");
    // s1 is given out of order with an entry that sets the default state; s2
    // is refused without failing the registration; s3 is disabled and is not
    // pushed at registration.
    ASSERT_EQ(
        registerType(host,
                     scheduleJson("s1", "Daily",
                                  {{64800, 82800, "on"}, {3600, 7200, "off"}, {0, 1800, "eco"}}) +
                         "," + scheduleJson("s2", "Daily", {{0, 1800, "dim"}}) + "," +
                         scheduleJson("s3", "Weekly", {{0, 1800, "on"}}, "off", "", false)),
        true);
    EXPECT_EQ(changes(host), std::vector<std::string>{"2023-11-14T22:13:20Z on"});
    EXPECT_EQ(host.setStateCalls().at(0).id, "s1");

    // Registering again replaces the states and the path. s1 switches on, so
    // "on" may not go, and the schedule s4 of the refused call is not added;
    // s1's entry in its default state "off" counts like any other entry.
    const auto states = [&host] {
        return variant_char(host.parameter("Scheduler.Types.Light", "States"));
    };
    EXPECT_EQ(registerType(host, "", R"("on","off","eco","dim")"), true);
    EXPECT_EQ(states(), "on,off,eco,dim");
    EXPECT_EQ(
        registerType(host, scheduleJson("s4", "Daily", {{0, 3600, "dim"}}), R"("off","eco","dim")"),
        false);
    EXPECT_EQ(states(), "on,off,eco,dim");
    EXPECT_EQ(host.object("Scheduler.Types.Light.Schedules.s4"), nullptr);
    EXPECT_EQ(registerType(host, "", R"("on","eco","dim")", "Device.Lamp"), false);
    EXPECT_EQ(registerType(host, "", R"("on","off","eco","dim")", "Device.Lamp"), true);
    EXPECT_EQ(states(), "on,off,eco,dim");
    host.advanceTo(1700002800);
    EXPECT_EQ(changes(host).back(), "2023-11-14T23:00:00Z off");
    EXPECT_EQ(host.setStateCalls().back().path, "Device.Lamp");

    // h1 is disabled, so that only Light's schedules could send anything.
    const std::string h1 = scheduleJson("h1", "Hourly", {{0, 60, "on"}}, "off", "", false);
    ASSERT_EQ(registerType(host, h1, R"("on","off")", "Device.Heater", "Heater"), true);
    for (const auto& [function, arguments, expected] : kQueries) {
        EXPECT_EQ(answer(host, function, arguments), expected) << function << " " << arguments;
    }

    // Each registration again told s1 and s3 their states.
    EXPECT_EQ(host.setStateCalls().size(), 6u);
    EXPECT_EQ(returned(host.call("unregisterScheduleType", R"({"type":"Light"})")), true);
    EXPECT_EQ(host.object("Scheduler.Types.Light"), nullptr);
    host.advance(2 * 86400);
    EXPECT_EQ(host.setStateCalls().size(), 6u) << "the removed schedules send nothing";
    EXPECT_EQ(returned(host.call("getSchedules", R"({"type":"Light"})")), false);
}

// Long lists come in parts: "offset" and "limit" page through the schedules
// in the order they were added, and an answer too large for one message is
// refused with a reason that names them.
TEST(Schedules, ReadBackInPagesAndNeverLargerThanAMessage) {
    virtual_host_t host;
    ASSERT_EQ(registerType(host), true);
    // Each with the most entries a schedule may have: 100 of them take more
    // than the 8 MiB a reply may carry.
    std::vector<span_t> spans;
    for (std::int64_t i = 0; i < 1024; ++i) {
        spans.emplace_back(60 * i, 60 * i + 30, "on");
    }
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(addSchedule(host, scheduleJson("s" + std::to_string(i), "Weekly", spans)), true);
    }
    const auto ids = [&host](const std::string& arguments) {
        virtual_host_t::call_result_t result =
            host.call("getSchedules", R"({"type":"Light")" + arguments + "}");
        std::string listed;
        const variant_t* info = variant_map_find(&result.arguments, "scheduleInfo");
        for (const variant_t& item : info ? *variant_da_list(info) : variant_list_t{}) {
            listed += (listed.empty() ? "" : ",") +
                      variant_char(variant_map_find(variant_da_map(&item), "ID")).value_or("?");
        }
        return listed;
    };
    const std::pair<const char*, const char*> pages[] = {
        {R"(,"limit":3)", "s0,s1,s2"},
        {R"(,"offset":98)", "s98,s99"},
        {R"(,"offset":97,"limit":2)", "s97,s98"},
        {R"(,"offset":100)", ""},
        {R"(,"limit":0)", ""},
    };
    for (const auto& [arguments, expected] : pages) {
        EXPECT_EQ(ids(arguments), expected) << arguments;
    }
    const std::string tooLarge = answer(host, "getCompleteSchedules", R"({"type":"Light"})");
    EXPECT_TRUE(tooLarge.starts_with(
        R"(false {"error":"the answer would not fit in one message: ask for parts of the 100 )"
        R"(schedules with 'offset' and 'limit', )"))
        << tooLarge.substr(0, 300);
    const std::string part =
        answer(host, "getCompleteSchedules", R"({"type":"Light","offset":10,"limit":20})");
    EXPECT_TRUE(part.starts_with(R"(true {"scheduleInfo":[{"ID":"s10",)")) << part.substr(0, 80);
}

}  // namespace
