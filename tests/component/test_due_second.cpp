// When a change reaches its client: at the very start of its second, with
// the event timer counted to the microsecond from a moment within a second,
// and never before that second, even when the timer fires early.
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "orv/protocol.h"
#include "scheduler_calls.h"
#include "virtual_host.h"

namespace {

using namespace scheduler_calls;

constexpr std::int64_t kMicro = 1'000'000;
// The virtual host's default start, on a whole second.
constexpr std::int64_t kStart = 1700000000;
constexpr const char* kArmed = "Starting peeklist timer with timeout ";

// Every setState so far as "<microseconds since the epoch> <state>".
lines_t toldAt(const virtual_host_t& host) {
    lines_t lines;
    for (const virtual_host_t::set_state_t& call : host.setStateCalls()) {
        lines.push_back(std::to_string(call.time_us) + " " + call.state);
    }
    return lines;
}

std::string told(std::int64_t us, const char* state) {
    return std::to_string(us) + " " + state;
}

// The time-out of the event timer as the last arming traced it: the number
// and the word after it, its unit.
std::string lastArmed(const virtual_host_t& host) {
    for (auto line = host.traces().rbegin(); line != host.traces().rend(); ++line) {
        if (const std::size_t at = line->find(kArmed); at != std::string::npos) {
            std::istringstream rest(line->substr(at + std::string(kArmed).size()));
            std::string number, unit;
            rest >> number >> unit;
            return number + " " + unit;
        }
    }
    return "<not armed>";
}

// Light's schedule "s1": on for ten seconds from the second due.
std::optional<bool> addOnce(virtual_host_t& host, std::int64_t due) {
    return addToLight(host, scheduleJson("s1", "Once", "off", entryJson("on", due, due + 10)));
}

struct armed_row_t {
    const char* what;
    // Microseconds into the second at which the timer is armed.
    std::int64_t intoSecond;
    // Whole seconds from the start of that second to the change.
    std::int64_t ahead;
    // Armed by the recompute after the clock was set, not by addSchedule.
    bool clockSet;
};

TEST(DueSecond, TimerIsArmedForTheStartOfTheDueSecondToTheMicrosecond) {
    const std::vector<armed_row_t> rows = {
        {"on the second", 0, 1, false},
        {"one microsecond in", 1, 1, false},
        {"within the second", 123456, 1, false},
        {"half a second in, two ahead", 500000, 2, false},
        {"in the last microsecond", 999999, 1, false},
        {"an hour ahead", 654321, 3600, false},
        {"the clock set to within a second", 250001, 2, true},
        {"the clock set to its last microsecond", 999999, 1, true},
    };
    for (const armed_row_t& row : rows) {
        SCOPED_TRACE(row.what);
        virtual_host_t host;
        ASSERT_EQ(registerLight(host), true);
        const std::int64_t armedAt = kStart * kMicro + row.intoSecond;
        const std::int64_t due = kStart + row.ahead;
        if (row.clockSet) {
            ASSERT_EQ(addOnce(host, due), true);
            host.loop().setWallClock(armedAt);
            host.emitTime({notification_time_set});
        } else {
            host.loop().advance(row.intoSecond);
            ASSERT_EQ(addOnce(host, due), true);
        }
        EXPECT_EQ(lastArmed(host), std::to_string(due * kMicro - armedAt) + " us");
        host.advanceTo(due + 11);
        const std::int64_t toldFirst = host.setStateCalls().front().time_us;
        EXPECT_EQ(toldAt(host), (lines_t{told(toldFirst, "off"), told(due * kMicro, "on"),
                                         told((due + 10) * kMicro, "off")}));
        EXPECT_EQ(lastArmed(host), "4294967295000 us") << "nothing left: the longest wait";
    }
}

TEST(DueSecond, ChangeWaitsForItsSecondWhenTheTimerFiresEarly) {
    // How long before the due second the timer fires, in microseconds.
    const std::vector<std::int64_t> rows = {1, 200, 999999, 1234567};
    const std::int64_t due = kStart + 2;
    for (const std::int64_t early : rows) {
        SCOPED_TRACE("fires " + std::to_string(early) + " us early");
        virtual_host_t host;
        ASSERT_EQ(registerLight(host), true);
        host.loop().advance(250000);
        ASSERT_EQ(addOnce(host, due), true);
        // The wall clock goes back a little and nobody says so: the timer
        // keeps its deadline and fires before the due second.
        host.loop().setWallClock(host.loop().now_us() - early);
        host.loop().advanceTo(due * kMicro - early);
        ASSERT_EQ(host.setStateCalls().size(), 1u) << "only the state at the start";
        EXPECT_EQ(lastArmed(host), std::to_string(early) + " us") << "armed for what is left";
        host.advanceTo(due + 1);
        EXPECT_EQ(toldAt(host),
                  (lines_t{told(kStart * kMicro + 250000, "off"), told(due * kMicro, "on")}));
    }
}

}  // namespace
