// The agenda (a time-ordered list of pending state changes) and the
// computation of a schedule's next state change. Schedule instances come from
// the plug-in's real data-model definition; times are checked as seconds since
// the epoch, with the local time in each row's comment.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "orv/object.h"
#include "orv/trace.h"
#include "scheduler_entry.h"
#include "scheduler_peeklist.h"
#include "time_zone.h"

namespace {

using keys_t = std::vector<std::string>;
using ::testing::Contains;
using ::testing::HasSubstr;

// Loads the definition and gives schedule instances below one type.
class Peeklist : public ::testing::Test {
  protected:
    void SetUp() override {
        peeklist_removeComleteList();
        tolvTraceReset();
        tolvTraceSetSink([this](std::string_view line) { lines_.emplace_back(line); });
        ASSERT_FALSE(model_.loadFile(SCHEDULER_DEFINITION_FILE));
        object_t* type =
            object_createInstance(model_.root()->child("Scheduler")->child("Types"), -1, "Light");
        object_commit(type);
        schedules_ = type->child("Schedules");
    }
    void TearDown() override {
        peeklist_removeComleteList();
        tolvTraceSetSink({});
    }
    // The instance with this key, created on first use.
    object_t* instance(const std::string& key) {
        object_t* inst = schedules_->instance(key);
        if (inst == nullptr) {
            inst = object_createInstance(schedules_, -1, key);
            EXPECT_NE(inst, nullptr) << key;
            object_commit(inst);
        }
        return inst;
    }
    // Adds (key, time) entries in the given order; the state is the key.
    void add(std::initializer_list<std::pair<const char*, time_t>> entries) {
        for (const auto& [key, time] : entries) {
            ASSERT_TRUE(peeklist_addEntry(
                std::make_unique<peeklist_entry_t>(peeklist_entry_t{time, instance(key), key})));
        }
    }
    // The first entry due at now as "key time state", or "-" for none.
    static std::string take(time_t now) {
        peeklist_entry_ptr e = peeklist_takeFirstTimedOutEntry(now);
        return e ? e->object->name() + " " + std::to_string(e->time) + " " + e->state : "-";
    }
    // Empties the list through its front and returns the keys in list order.
    static keys_t drain() {
        keys_t keys;
        while (auto e = peeklist_takeFirstTimedOutEntry(std::numeric_limits<time_t>::max())) {
            keys.push_back(e->object->name());
        }
        return keys;
    }

    datamodel_t model_;
    object_t* schedules_ = nullptr;
    std::vector<std::string> lines_;
};

TEST_F(Peeklist, InsertionKeepsTimeOrderNewestFirstAmongEqualTimes) {
    const std::vector<std::tuple<const char*, time_t, keys_t>> rows = {
        {"E", 200, {"P", "E", "Q", "R", "S"}},  // in front of both entries at 200
        {"F", 100, {"F", "P", "Q", "R", "S"}},  // equal to the head: becomes the head
        {"G", 400, {"P", "Q", "R", "S", "G"}},  // after the last
        {"H", 50, {"H", "P", "Q", "R", "S"}},   // before the head
        {"I", 250, {"P", "Q", "R", "I", "S"}},  // between two times
        {"J", 300, {"P", "Q", "R", "J", "S"}},  // equal to the last
    };
    for (const auto& [key, time, expected] : rows) {
        // Q is added after R at the same time, so it lands in front of R.
        add({{"S", 300}, {"R", 200}, {"P", 100}, {"Q", 200}, {key, time}});
        EXPECT_EQ(drain(), expected) << key << " at " << time;
    }
}

TEST_F(Peeklist, TakeOnlyDueEntriesAndRefuseNull) {
    const time_t now = 1700000000;
    EXPECT_FALSE(peeklist_addEntry(nullptr));
    EXPECT_THAT(lines_, Contains(HasSubstr("Cannot add a NULL pointer to the peek list")));
    EXPECT_EQ(take(now), "-");
    add({{"P", now + 1}});
    EXPECT_EQ(take(now), "-");  // one second early
    add({{"Q", now}, {"R", now - 10}});
    EXPECT_EQ(take(now), "R 1699999990 R");
    EXPECT_EQ(take(now), "Q 1700000000 Q");  // due exactly at now
    EXPECT_EQ(take(now), "-");
    EXPECT_EQ(drain(), keys_t{"P"});
}

TEST_F(Peeklist, NextTimeOutIsClampedWithoutWrapping) {
    const time_t now = 1700000000;
    EXPECT_EQ(peeklist_getNextTimeOut(now), -1);  // empty list
    const std::vector<std::pair<time_t, std::int64_t>> rows = {
        // head time - now in seconds, time-out in milliseconds
        {5, 5000},
        {-2, -2000},                   // overdue
        {2147484, 2147484000},         // beyond a signed 32-bit millisecond count
        {4294967, 4294967000},         // the largest exact value
        {4294968, 4294967295},         // one second further: clamped
        {50 * 86400, 4294967295},      // 50 days ahead: clamped, no wrap
        {-50 * 86400, -4320000000LL},  // long overdue: no wrap either
    };
    for (const auto& [ahead, expected] : rows) {
        peeklist_removeComleteList();
        add({{"P", now + ahead + 100}, {"Q", now + ahead}});  // the head decides
        EXPECT_EQ(peeklist_getNextTimeOut(now), expected) << "ahead " << ahead;
    }
}

TEST_F(Peeklist, RemoveEntryAndSetNextEventTime) {
    peeklist_removeEntry(instance("P"));  // empty list: nothing happens
    EXPECT_FALSE(peeklist_setNextEventTime(500));
    add({{"P", 100}, {"Q", 200}, {"R", 300}, {"P", 400}});
    peeklist_removeEntry(instance("X"));  // an instance without entry
    peeklist_removeEntry(instance("P"));  // the head: only its first entry goes
    peeklist_removeEntry(instance("R"));
    ASSERT_NE(peeklist_getNextEntry(), nullptr);
    EXPECT_EQ(peeklist_getNextEntry()->time, 400);
    // The new head time is not sorted in: P is due at 400 but hides behind Q.
    EXPECT_TRUE(peeklist_setNextEventTime(500));
    EXPECT_EQ(peeklist_getGlobalPeeklist()->time, 500);
    EXPECT_EQ(take(450), "-");
    EXPECT_EQ(drain(), (keys_t{"Q", "P"}));
    EXPECT_EQ(peeklist_getNextEntry(), nullptr);
}

// Next state change of a schedule. The default state is "off" throughout.
// Entries are (state, begin, end), in begin order.
using spans_t = std::vector<schedule_entry_t>;

struct next_row_t {
    const char* zone;
    const char* base;
    const spans_t* entries;
    time_t t;
    time_t time;        // expected due time
    const char* state;  // expected state; null when there is no next change
    int isEvent;
};

class NextEvent : public Peeklist {
  protected:
    // A new instance with Base, Default "off" and, unless entries is null,
    // the user data holding the entries.
    object_t* schedule(const char* base, const spans_t* entries) {
        object_t* inst = instance("s" + std::to_string(++count_));
        object_parameterSetCharValue(inst, "Base", base);
        object_parameterSetCharValue(inst, "Default", "off");
        object_commit(inst);
        if (entries != nullptr) {
            auto props = std::make_unique<scheduleentry_properties_t>();
            props->entries.entries = *entries;
            object_setUserData(inst, std::move(props));
        }
        return inst;
    }
    void check(const std::vector<next_row_t>& rows) {
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const next_row_t& row = rows[i];
            SCOPED_TRACE("row " + std::to_string(i) + ": " + row.zone + " " + row.base +
                         " t=" + std::to_string(row.t));
            scoped_time_zone_t zone(row.zone);
            object_t* inst = schedule(row.base, row.entries);
            peeklist_entry_ptr next = peeklist_createNextEntry(inst, row.t);
            if (row.state == nullptr) {
                EXPECT_EQ(next, nullptr) << next->time << " " << next->state;
                continue;
            }
            ASSERT_NE(next, nullptr);
            EXPECT_EQ(std::make_tuple(next->time, next->state, int{next->isEvent}, next->object),
                      std::make_tuple(row.time, std::string(row.state), row.isEvent, inst));
        }
        EXPECT_EQ(peeklist_size(), 0u);  // the computation leaves the agenda alone
    }

    int count_ = 0;
};

// Hourly to yearly bases: runs of one state, wraps at the period end, momentary
// events, daylight-saving switches and the lengths of months and years.
TEST_F(NextEvent, RepeatingBases) {
    // Tuesday 2023-11-14, UTC; the day starts at 1699920000.
    const spans_t day = {{"on", 0, 3600},
                         {"on", 21600, 28800},
                         {"on", 28800, 36000},
                         {"eco", 64800, 82800},
                         {"on", 82800, 86400}};
    const spans_t hour = {{"on", 600, 1200}};
    const spans_t sameState = {{"on", 21600, 28800}, {"on", 28800, 36000}};
    const spans_t wholeDay = {{"on", 0, 43200}, {"on", 43200, 86400}};
    const spans_t wrapOther = {{"on", 0, 3600}, {"eco", 82800, 86400}};
    const spans_t wrapGap = {{"on", 3600, 7200}, {"on", 82800, 86400}};
    // Monday 2023-11-13 is 1699833600; entries Monday and Wednesday 08:00-17:00.
    const spans_t week = {{"on", 28800, 61200}, {"on", 201600, 234000}};
    const spans_t rings = {{"ring", 28800, 28800}, {"ring", 43200, 43200}};
    const spans_t evening = {{"on", 64800, 72000}};
    const spans_t firstDay = {{"on", 0, 86400}};
    // First and last day on: in a leap February the last day is the 29th.
    const spans_t monthEnds = {{"on", 0, 86400}, {"on", 2419200, 2505600}};
    // Jan 1 and day 365 (Dec 31 in a common year).
    const spans_t yearEnds = {{"on", 0, 86400}, {"on", 31449600, 31536000}};
    check({
        {"UTC", "Daily", &day, 1699920000, 1699923600, "off", 0},  // 00:00, a begin is in force
        {"UTC", "Daily", &day, 1699941600, 1699956000, "off", 0},  // 06:00, run 06-10
        {"UTC", "Daily", &day, 1699956000, 1699984800, "eco", 0},  // 10:00, the run's end
        // 23:30: the run crosses midnight into entry 1, ends Wed 01:00.
        {"UTC", "Daily", &day, 1700004600, 1700010000, "off", 0},
        {"UTC", "Hourly", &hour, 1700001000, 1700003400, "on", 0},  // 22:30 -> 23:10
        // One state all day: the run wraps through every entry; next midnight.
        {"UTC", "Daily", &wholeDay, 1699956000, 1700006400, "on", 0},
        // 23:30: midnight continues with another state.
        {"UTC", "Daily", &wrapOther, 1700004600, 1700006400, "on", 0},
        // 23:30: the next day starts with a gap, so the default returns at midnight.
        {"UTC", "Daily", &wrapGap, 1700004600, 1700006400, "off", 0},
        // 12:00 with everything over today: tomorrow's first begin.
        {"UTC", "Daily", &sameState, 1699963200, 1700028000, "on", 0},
        {"UTC", "Weekly", &week, 1700424000, 1700467200, "on", 0},    // Sunday 20:00
        {"UTC", "Daily", &rings, 1699948800, 1699963200, "ring", 1},  // 08:00: not t itself
        {"UTC", "Daily", &rings, 1699970000, 1700035200, "ring", 1},  // 13:53:20: tomorrow 08:00
        // Offsets count from midnight read with t's flag, so a switch later
        // that day moves the 18:00 begin by an hour.
        {"Europe/Berlin", "Daily", &evening, 1679788800, 1679850000, "on", 0},  // 03-26 -> 19 CEST
        {"Europe/Berlin", "Daily", &evening, 1698534000, 1698595200, "on", 0},  // 10-29 -> 17 CET
        // After the switch the begin is 18:00 again.
        {"Europe/Berlin", "Daily", &evening, 1679824800, 1679846400, "on", 0},  // 12:00 CEST
        {"Europe/Berlin", "Daily", &evening, 1698577200, 1698598800, "on", 0},  // 12:00 CET
        {"UTC", "Monthly", &firstDay, 1700006400, 1701388800, "on", 0},   // Nov 15 -> Dec 1 (30 d)
        {"UTC", "Monthly", &firstDay, 1706745600, 1706832000, "off", 0},  // 2024-02-01 -> 02-02
        {"UTC", "Monthly", &firstDay, 1706832000, 1709251200, "on", 0},   // Feb 2 -> Mar 1 (29 d)
        {"UTC", "Monthly", &firstDay, 1675296000, 1677628800, "on", 0},   // 2023-02 (28 d)
        {"UTC", "Monthly", &firstDay, 1704153600, 1706745600, "on", 0},   // Jan 2 -> Feb 1 (31 d)
        // Feb 29 12:00: runs into Mar 1, whose entry has the same state.
        {"UTC", "Monthly", &monthEnds, 1709208000, 1709337600, "off", 0},
        // Across a switch the next month's midnight is read with the
        // daylight-saving flag of t, like the reference time, so it lies one
        // hour off: Apr 1 01:00 CEST, and Oct 31 23:00 CET.
        {"Europe/Berlin", "Monthly", &firstDay, 1678878000, 1680303600, "on", 0},
        {"Europe/Berlin", "Monthly", &firstDay, 1697364000, 1698789600, "on", 0},
        {"UTC", "Yearly", &firstDay, 1688169600, 1704067200, "on", 0},   // 2023-07-01 -> 2024-01-01
        {"UTC", "Yearly", &firstDay, 1704067200, 1704153600, "off", 0},  // 2024-01-01 -> 01-02
        {"UTC", "Yearly", &firstDay, 1709251200, 1735689600, "on", 0},   // leap 2024 -> 2025-01-01
        // 2023-12-31 12:00: runs into New Year's Day, off on Jan 2.
        {"UTC", "Yearly", &yearEnds, 1704024000, 1704153600, "off", 0},
    });
}

// Once entries hold absolute times, and a Once schedule ends.
TEST_F(NextEvent, OnceAndNoNextChange) {
    const spans_t adjacentOther = {{"on", 1700001000, 1700002000}, {"eco", 1700002000, 1700003000}};
    const spans_t adjacentSame = {{"on", 1700001000, 1700002000}, {"on", 1700002000, 1700003000}};
    const spans_t withGap = {{"on", 1700001000, 1700002000}, {"on", 1700002500, 1700003000}};
    const spans_t ring = {{"ring", 1700001000, 1700001000}};
    const spans_t none;
    check({
        {"UTC", "Once", &adjacentOther, 1700000500, 1700001000, "on", 0},
        {"UTC", "Once", &adjacentOther, 1700001500, 1700002000, "eco", 0},  // own boundary event
        {"UTC", "Once", &adjacentOther, 1700002000, 1700003000, "off", 0},
        {"UTC", "Once", &adjacentOther, 1700003000, 0, nullptr, 0},        // over at its last end
        {"UTC", "Once", &adjacentSame, 1700001500, 1700003000, "off", 0},  // one run
        {"UTC", "Once", &withGap, 1700001500, 1700002000, "off", 0},
        {"UTC", "Once", &withGap, 1700002200, 1700002500, "on", 0},
        {"UTC", "Once", &ring, 1700000000, 1700001000, "ring", 1},
        {"UTC", "Daily", &none, 1700000000, 0, nullptr, 0},  // no entries at all
    });
    EXPECT_EQ(peeklist_createNextEntry(schedule("Daily", nullptr), 1700000000), nullptr);
    EXPECT_THAT(lines_, Contains(HasSubstr("could not get schedule user data")));
}

}  // namespace
