// Adding, replacing, refusing and dispatching schedules, driven through the
// bus functions of "Scheduler" on the virtual clock.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orv/object.h"
#include "orv/variant.h"
#include "orv/variant_map.h"
#include "time_zone.h"
#include "virtual_host.h"

namespace {

constexpr const char* kS1 = "Scheduler.Types.Light.Schedules.s1";

struct span_t {
    std::int64_t begin;
    std::int64_t end;
    std::string state;
};

std::string scheduleJson(const std::string& id, const std::string& base,
                         const std::vector<span_t>& spans, const std::string& def = "off",
                         const std::string& override = "", bool enable = true) {
    std::string json = R"({"ID":")" + id + R"(","enable":)" + (enable ? "true" : "false");
    json += R"(,"base":")" + base + R"(","def":")" + def + R"(","override":")" + override;
    json += R"(","schedule":[)";
    for (const span_t& span : spans) {
        json += R"({"state":")" + span.state + R"(","begin":)" + std::to_string(span.begin);
        json += R"(,"end":)" + std::to_string(span.end) + "},";
    }
    if (!spans.empty()) {
        json.pop_back();
    }
    return json + "]}";
}

virtual_host_t::options_t startingAt(std::int64_t start) {
    virtual_host_t::options_t options;
    options.start = start;
    return options;
}

std::optional<bool> returned(const virtual_host_t::call_result_t& result) {
    return variant_toBool(&result.retval);
}

// Registers the type Light, which drives the client object Device.Light.
bool registerLight(virtual_host_t& host, const std::vector<std::string>& schedules = {}) {
    host.addClient("Device.Light");
    std::string arguments = R"({"type":"Light","path":"Device.Light","states":["on","off","eco"])";
    for (const std::string& schedule : schedules) {
        arguments += &schedule == &schedules.front() ? R"(,"schedules":[)" : ",";
        arguments += schedule;
    }
    arguments += schedules.empty() ? "}" : "]}";
    return returned(host.call("registerScheduleType", arguments)) == true;
}

virtual_host_t::call_result_t addSchedule(virtual_host_t& host, const std::string& info,
                                          const std::string& type = "Light") {
    return host.call("addSchedule", R"({"type":")" + type + R"(","info":)" + info + "}");
}

std::optional<std::string> text(virtual_host_t& host, const char* name) {
    return variant_char(host.parameter(kS1, name));
}

std::optional<std::int64_t> nextChange(virtual_host_t& host) {
    return variant_toDateTime(host.parameter(kS1, "NextStateChange"));
}

std::optional<std::string> field(const variant_t* map, const char* key) {
    return variant_char(variant_map_find(variant_da_map(map), key));
}

std::size_t scheduleCount(virtual_host_t& host) {
    object_t* schedules = host.object("Scheduler.Types.Light.Schedules");
    return schedules ? object_instanceCount(schedules) : 0;
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

// Entries of a read-back schedule map as "begin-end state".
std::vector<std::string> entriesOf(const variant_t* schedule) {
    std::vector<std::string> lines;
    const variant_list_t* entries =
        variant_da_list(variant_map_find(variant_da_map(schedule), "schedule"));
    for (const variant_t& entry : entries ? *entries : variant_list_t{}) {
        std::string line = field(&entry, "begin").value_or("?") + "-";
        line += field(&entry, "end").value_or("?") + " ";
        line += field(&entry, "state").value_or("?");
        lines.push_back(line);
    }
    return lines;
}

const variant_t* findById(const variant_list_t& list, const char* id) {
    for (const variant_t& schedule : list) {
        if (field(&schedule, "ID") == id) {
            return &schedule;
        }
    }
    return nullptr;
}

// The Daily example: on over night and morning, eco in the evening.
const std::vector<span_t> kDailyExample = {{0, 3600, "on"},
                                           {21600, 28800, "on"},
                                           {28800, 36000, "on"},
                                           {64800, 82800, "eco"},
                                           {82800, 86400, "on"}};

TEST(Schedules, AddedScheduleSendsItsStateAndPlansEachChange) {
    // Tuesday 2023-11-14 22:13:20 UTC, inside the evening entry.
    virtual_host_t host(startingAt(1700000000));
    ASSERT_TRUE(registerLight(host));
    virtual_host_t::call_result_t result =
        addSchedule(host, scheduleJson("s1", "Daily", kDailyExample));
    ASSERT_TRUE(result.handled);
    EXPECT_EQ(returned(result), true);

    const std::vector<std::pair<const char*, std::string>> recorded = {
        {"ID", "s1"},       {"Enable", "true"}, {"Base", "Daily"},
        {"Default", "off"}, {"Override", ""},   {"CurrentState", "eco"}};
    for (const auto& [name, value] : recorded) {
        EXPECT_EQ(text(host, name), value) << name;
    }
    EXPECT_EQ(changes(host), std::vector<std::string>{"2023-11-14T22:13:20Z eco"});
    EXPECT_EQ(nextChange(host), 1700002800) << "23:00, where the last entry begins";

    host.advanceTo(1700002799);
    EXPECT_EQ(changes(host).size(), 1u) << "nothing before the change is due";
    host.advanceTo(1700002800);
    EXPECT_EQ(changes(host).back(), "2023-11-14T23:00:00Z on");
    EXPECT_EQ(text(host, "CurrentState"), "on");
    // The 23:00 entry runs into the first entry of Wednesday, so the next
    // change is Wednesday 01:00, not midnight.
    EXPECT_EQ(nextChange(host), 1700010000);

    host.advanceTo(1700010000);
    EXPECT_EQ(changes(host).back(), "2023-11-15T01:00:00Z off");
    EXPECT_EQ(text(host, "CurrentState"), "off");
    EXPECT_EQ(nextChange(host), 1700028000) << "Wednesday 06:00";
    EXPECT_EQ(changes(host).size(), 3u);
    for (const virtual_host_t::set_state_t& call : host.setStateCalls()) {
        EXPECT_EQ(call.path, "Device.Light");
        EXPECT_EQ(call.id, "s1");
    }
}

// The schedule is added at the time of the first expected call and runs
// until the last one; next is its NextStateChange then.
struct run_row_t {
    const char* zone;
    std::string schedule;
    const char* next;
    std::vector<std::string> expected;
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
    {"UTC",
     scheduleJson("s1", "Daily", kDailyExample),
     "2023-11-16T01:00:00Z",
     {"2023-11-14T22:13:20Z eco", "2023-11-14T23:00:00Z on", "2023-11-15T01:00:00Z off",
      "2023-11-15T06:00:00Z on", "2023-11-15T10:00:00Z off", "2023-11-15T18:00:00Z eco",
      "2023-11-15T23:00:00Z on"}},
    {"UTC",
     scheduleJson("s1", "Weekly", kWorkDays),
     "2023-11-22T08:00:00Z",
     {"2023-11-13T00:00:00Z off", "2023-11-13T08:00:00Z on", "2023-11-13T17:00:00Z off",
      "2023-11-15T08:00:00Z on", "2023-11-15T17:00:00Z off", "2023-11-20T08:00:00Z on",
      "2023-11-20T17:00:00Z off"}},
    {"Europe/Berlin",
     scheduleJson("s1", "Daily", kBerlinDaily),
     "2023-03-27T22:30:00Z",
     {"2023-03-25T11:00:00Z off", "2023-03-25T17:00:00Z on",  // Sat 18:00 CET
      "2023-03-25T22:00:00Z off", "2023-03-25T23:30:00Z eco", "2023-03-26T00:30:00Z off",
      "2023-03-26T17:00:00Z on",  // Sun 19:00 CEST
      "2023-03-26T21:00:00Z off", "2023-03-26T22:30:00Z eco", "2023-03-26T23:30:00Z off",
      "2023-03-27T16:00:00Z on",  // Mon 18:00 CEST
      "2023-03-27T21:00:00Z off"}},
    // In October the entry at 17:00 CET is followed by a computed change at
    // 18:00 CET to the same state, which is not sent again.
    {"Europe/Berlin",
     scheduleJson("s1", "Daily", kBerlinDaily),
     "2023-10-30T23:30:00Z",
     {"2023-10-28T10:00:00Z off", "2023-10-28T16:00:00Z on",  // Sat 18:00 CEST
      "2023-10-28T21:00:00Z off", "2023-10-28T22:30:00Z eco", "2023-10-28T23:30:00Z off",
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
        virtual_host_t host(startingAt(at(row.expected.front())));
        ASSERT_TRUE(registerLight(host));
        ASSERT_EQ(returned(addSchedule(host, row.schedule)), true);
        host.advanceTo(at(row.expected.back()));
        EXPECT_EQ(changes(host), row.expected);
        EXPECT_EQ(nextChange(host), at(row.next));
    }
}

TEST(Schedules, SameIdReplacesTheSchedule) {
    // 22:13:20 UTC: the old schedule is on until 23:00, the new one on until
    // 22:30 and then on again for the first half of every hour.
    virtual_host_t host(startingAt(1700000000));
    ASSERT_TRUE(registerLight(host));
    ASSERT_EQ(returned(addSchedule(host, scheduleJson("s1", "Daily", {{64800, 82800, "on"}}))),
              true);
    ASSERT_EQ(returned(addSchedule(host, scheduleJson("s1", "Hourly", {{0, 1800, "on"}}, "eco"))),
              true);
    EXPECT_EQ(scheduleCount(host), 1u);
    EXPECT_EQ(text(host, "Base"), "Hourly");
    EXPECT_EQ(text(host, "Default"), "eco");
    EXPECT_EQ(nextChange(host), 1700001000);

    host.advanceTo(1700004600);
    // The old schedule would have switched off at 23:00.
    EXPECT_EQ(changes(host),
              (std::vector<std::string>{"2023-11-14T22:13:20Z on", "2023-11-14T22:13:20Z on",
                                        "2023-11-14T22:30:00Z eco", "2023-11-14T23:00:00Z on",
                                        "2023-11-14T23:30:00Z eco"}));

    // A refused replacement still removes the schedule it was to replace.
    EXPECT_EQ(returned(addSchedule(host, scheduleJson("s1", "Hourly", {{0, 1800, "dim"}}))), false);
    EXPECT_EQ(host.object(kS1), nullptr);
    EXPECT_EQ(scheduleCount(host), 0u);
    host.advance(7200);
    EXPECT_EQ(host.setStateCalls().size(), 5u);
}

struct refusal_row_t {
    const char* type;
    std::string info;
    const char* reason;  // the trace that names the refusal
};

const std::vector<refusal_row_t> kRefusals = {
    {"Heater", scheduleJson("s1", "Daily", {{0, 3600, "on"}}),
     "Type Heater not found, not adding a schedule instance"},
    {"Light", scheduleJson("s1", "daily", {{0, 3600, "on"}}), "invalid parameter values"},
    {"Light", scheduleJson("s1", "Daily", {{0, 3600, "on"}}, "dim"), "Invalid default value(dim)"},
    {"Light", scheduleJson("s1", "Daily", {{0, 3600, "on"}}, "off", "dim"),
     "Invalid override value(dim)"},
    {"Light", scheduleJson("s1", "Daily", {{0, 3600, "On"}}), "invalid state detected"},
    {"Light", scheduleJson("s1", "Daily", {{100, 200, "eco"}, {0, 101, "on"}}),
     "overlapping detected"},
    {"Light", scheduleJson("s1", "Daily", {{0, 10, "on"}, {20, 20, "eco"}}),
     "Mixed event/state schedules are not allowed"},
    {"Light", scheduleJson("s1", "Daily", {{100, 50, "on"}}), "end starts before begin"},
    {"Light", scheduleJson("s1", "Daily", {{0, 86401, "on"}}),
     "schedule out of boundary begin=0, end=86401, boundary=86400"},
    {"Light", scheduleJson("s1", "Hourly", {{3000, 3601, "on"}}),
     "schedule out of boundary begin=3000, end=3601, boundary=3600"},
    {"Light", R"({"ID":"s1","enable":true,"base":"Daily","def":"off","override":""})",
     "invalid parameter values ; type="},
};

TEST(SchedulesRefused, EachRefusalReturnsFalseAndLeavesNothing) {
    for (const refusal_row_t& row : kRefusals) {
        SCOPED_TRACE(row.reason);
        virtual_host_t host;
        ASSERT_TRUE(registerLight(host));
        virtual_host_t::call_result_t result = addSchedule(host, row.info, row.type);
        EXPECT_TRUE(result.handled);
        EXPECT_EQ(returned(result), false);
        EXPECT_TRUE(host.traced(row.reason));
        EXPECT_EQ(host.object(kS1), nullptr);
        EXPECT_EQ(scheduleCount(host), 0u);
        host.advance(86400);
        EXPECT_TRUE(host.setStateCalls().empty());
    }
}

TEST(Schedules, RegistrationReadBackAndUnregistration) {
    virtual_host_t host(startingAt(1700000000));
    // s1 is given out of order with an entry that sets the default state; s2
    // is refused without failing the registration; s3 is disabled and is not
    // pushed at registration.
    ASSERT_TRUE(registerLight(
        host,
        {scheduleJson("s1", "Daily", {{64800, 82800, "on"}, {3600, 7200, "off"}, {0, 1800, "eco"}}),
         scheduleJson("s2", "Daily", {{0, 1800, "dim"}}),
         scheduleJson("s3", "Weekly", {{0, 1800, "on"}}, "off", "", false)}));
    EXPECT_EQ(scheduleCount(host), 2u);
    EXPECT_EQ(host.object("Scheduler.Types.Light.Schedules.s2"), nullptr);
    EXPECT_EQ(changes(host), std::vector<std::string>{"2023-11-14T22:13:20Z on"});
    EXPECT_EQ(host.setStateCalls().at(0).id, "s1");

    const std::vector<std::string> stored = {"0-1800 eco", "64800-82800 on"};
    for (const char* function : {"getSchedules", "getCompleteSchedules"}) {
        virtual_host_t::call_result_t result = host.call(function, R"({"type":"Light"})");
        EXPECT_EQ(returned(result), true) << function;
        const variant_list_t* list =
            variant_da_list(variant_map_find(&result.arguments, "scheduleInfo"));
        ASSERT_NE(list, nullptr) << function;
        ASSERT_EQ(list->size(), 2u) << function;
        const variant_t* s1 = findById(*list, "s1");
        ASSERT_NE(s1, nullptr) << function;
        EXPECT_EQ(field(s1, "value"), "on") << function;
        const bool complete = std::string(function) == "getCompleteSchedules";
        EXPECT_EQ(variant_map_find(variant_da_map(s1), "schedule") != nullptr, complete)
            << function;
        EXPECT_EQ(entriesOf(s1), complete ? stored : std::vector<std::string>{}) << function;
        EXPECT_NE(findById(*list, "s3"), nullptr) << function;
    }

    virtual_host_t::call_result_t one = host.call("getSchedule", R"({"type":"Light","ID":"s1"})");
    EXPECT_EQ(returned(one), true);
    const variant_t* info = variant_map_find(&one.arguments, "scheduleInfo");
    EXPECT_EQ(field(info, "base"), "Daily");
    EXPECT_EQ(field(info, "value"), "on");
    EXPECT_EQ(entriesOf(info), stored);
    one = host.call("getSchedule", R"({"type":"Light","ID":"S1"})");
    EXPECT_EQ(returned(one), false);
    EXPECT_EQ(variant_map_find(&one.arguments, "scheduleInfo"), nullptr);

    EXPECT_EQ(returned(host.call("unregisterScheduleType", R"({"type":"Light"})")), true);
    EXPECT_EQ(host.object("Scheduler.Types.Light"), nullptr);
    EXPECT_EQ(host.object(kS1), nullptr);
    host.advance(2 * 86400);
    EXPECT_EQ(host.setStateCalls().size(), 1u) << "the removed schedules send nothing";
    EXPECT_EQ(returned(host.call("unregisterScheduleType", R"({"type":"Light"})")), false);
    EXPECT_EQ(returned(host.call("getSchedules", R"({"type":"Light"})")), false);
}

}  // namespace
