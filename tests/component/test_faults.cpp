// Faults around the schedules: the clock set forward and back, the
// daylight-saving switches, a client that goes away and a Time service that
// restarts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orv/variant.h"
#include "time_zone.h"
#include "virtual_host.h"

namespace {

constexpr const char* kS1 = "Scheduler.Types.Light.Schedules.s1";
// Daily, on from 01:30 to 02:30 and eco from 02:30 to 03:30: both entries
// straddle the hour that the switches skip or repeat.
constexpr const char* kNight =
    R"({"ID":"s1","enable":true,"base":"Daily","def":"off","override":"","schedule":[)"
    R"({"state":"on","begin":5400,"end":9000},{"state":"eco","begin":9000,"end":12600}]})";
// Daily, on from 18:00 to 23:00.
constexpr const char* kEvening =
    R"({"ID":"s1","enable":true,"base":"Daily","def":"off","override":"",)"
    R"("schedule":[{"state":"on","begin":64800,"end":82800}]})";

std::int64_t at(const char* iso) {
    return orv_parseIsoTime(iso).value_or(0);
}

void setUp(virtual_host_t& host, const std::string& info) {
    host.addClient("Device.Light");
    host.call("registerScheduleType",
              R"({"type":"Light","path":"Device.Light","states":["on","off","eco"]})");
    // Refused as well when the type is missing.
    const auto added = host.call("addSchedule", R"({"type":"Light","info":)" + info + "}");
    ASSERT_EQ(variant_toBool(&added.retval), true);
}

// The setState calls so far as "<UTC day>T<hh:mm> <state>", joined by commas.
std::string pushed(const virtual_host_t& host) {
    std::string lines;
    for (const virtual_host_t::set_state_t& call : host.setStateCalls()) {
        lines +=
            (lines.empty() ? "" : ",") + orv_isoTime(call.time).substr(8, 8) + " " + call.state;
    }
    return lines;
}

std::string text(virtual_host_t& host, const char* name) {
    return variant_char(host.parameter(kS1, name)).value_or("-");
}

struct jump_row_t {
    const char* zone;
    const char* start;
    std::int64_t jump;  // the clock is set by this much, announced with 926
    const char* until;  // then runs to this time
    const char* pushed;
    const char* next;
};

// The offsets count from the day's start read with the daylight-saving flag
// of the moment they are computed, so across a switch a change can come an
// hour off, and a computed change may repeat the state already sent. A clock
// set brings every schedule to its state at once and NextStateChange shows
// the change planned anew.
const std::vector<jump_row_t> kJumps = {
    {"UTC", "2023-11-14T01:00:00Z", 3600, "2023-11-14T02:10:00Z", "14T01:00 off,14T02:00 on",
     "2023-11-14T02:30:00Z"},
    {"UTC", "2023-11-14T01:00:00Z", 3600, "2023-11-14T02:30:00Z",
     "14T01:00 off,14T02:00 on,14T02:30 eco", "2023-11-14T03:30:00Z"},
    {"UTC", "2023-11-14T02:45:00Z", -3600, "2023-11-14T01:55:00Z", "14T02:45 eco,14T01:45 on",
     "2023-11-14T02:30:00Z"},
    {"UTC", "2023-11-14T02:45:00Z", -3600, "2023-11-14T02:30:00Z",
     "14T02:45 eco,14T01:45 on,14T02:30 eco", "2023-11-14T03:30:00Z"},
    // 01:45 standard time. eco starts at 01:30 UTC, counted from the
    // standard-time midnight; the change after it is searched from the
    // summer-time midnight, an hour earlier, which puts 01:30 UTC at eco's
    // end already: eco holds until the next day's on.
    {"Europe/Berlin", "2023-03-26T00:45:00Z", 0, "2023-03-26T02:00:00Z", "26T00:45 on,26T01:30 eco",
     "2023-03-26T23:30:00Z"},
    {"Europe/Berlin", "2023-03-26T00:45:00Z", 3600, "2023-03-26T02:00:00Z",
     "26T00:45 on,26T01:45 off", "2023-03-26T23:30:00Z"},
    // 02:15 summer time; the change planned for 02:30 standard time repeats
    // off and is not sent.
    {"Europe/Berlin", "2023-10-29T00:15:00Z", 0, "2023-10-29T02:45:00Z",
     "29T00:15 on,29T00:30 eco,29T01:30 off", "2023-10-30T00:30:00Z"},
    {"Europe/Berlin", "2023-10-29T01:45:00Z", -3600, "2023-10-29T01:45:00Z",
     "29T01:45 eco,29T01:30 off", "2023-10-29T02:30:00Z"},
};

TEST(Faults, ClockJumpsAndDaylightSavingSwitches) {
    for (const jump_row_t& row : kJumps) {
        SCOPED_TRACE(std::string(row.zone) + " " + row.start + " " + std::to_string(row.jump));
        scoped_time_zone_t zone(row.zone);
        virtual_host_t host(virtual_host_t::options_t{.start = at(row.start)});
        setUp(host, kNight);
        if (row.jump != 0) {
            host.setClock(host.now() + row.jump);
            host.emitTime({926});
        }
        host.advanceTo(at(row.until));
        const std::string lines = pushed(host);
        EXPECT_EQ(lines, row.pushed);
        EXPECT_EQ(text(host, "CurrentState"), lines.substr(lines.rfind(' ') + 1));
        EXPECT_EQ(text(host, "NextStateChange"), row.next);
    }
}

TEST(Faults, ClientThatWentAwayIsToldItsStateWhenBack) {
    virtual_host_t host;  // Tuesday 22:13:20 UTC
    setUp(host, kEvening);
    host.removeClient("Device.Light");
    host.advanceTo(at("2023-11-14T23:00:00Z"));
    EXPECT_EQ(text(host, "CurrentState"), "Unsynchronized");
    EXPECT_EQ(text(host, "NextStateChange"), "2023-11-15T18:00:00Z");
    host.advanceTo(at("2023-11-15T01:00:00Z"));
    host.addClient("Device.Light");
    EXPECT_EQ(text(host, "CurrentState"), "off");
    host.advanceTo(at("2023-11-15T18:00:00Z"));
    EXPECT_EQ(pushed(host), "14T22:13 on,15T01:00 off,15T18:00 on");
    EXPECT_EQ(text(host, "CurrentState"), "on");
    EXPECT_EQ(text(host, "NextStateChange"), "2023-11-15T23:00:00Z");
}

TEST(Faults, TimeServiceRestartKeepsTheProcessing) {
    virtual_host_t host;
    setUp(host, kEvening);
    host.bus().unpublish("Time");
    host.advanceTo(at("2023-11-14T23:00:00Z"));
    // A new Time service that has not synchronised yet: the plug-in stays
    // synchronised, and it still hears that the clock was set.
    host.publishTime("Unsynchronized");
    host.setTimeStatus("Synchronized");
    host.setClock(at("2023-11-15T19:00:00Z"));
    host.emitTime({926});
    host.advanceTo(at("2023-11-15T23:00:00Z"));
    EXPECT_EQ(pushed(host), "14T22:13 on,14T23:00 off,15T19:00 on,15T23:00 off");
    EXPECT_EQ(text(host, "NextStateChange"), "2023-11-16T18:00:00Z");
}

}  // namespace
