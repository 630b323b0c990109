// The agenda (a time-ordered list of pending state changes) and the
// computation of a schedule's next state change. Schedule instances come from
// the plug-in's real data-model definition; times are checked as seconds since
// the epoch, with the local time in each row's comment.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orv/object.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "scheduler_entry.h"
#include "scheduler_peeklist.h"
#include "time_zone.h"

namespace {

// Loads the definition and gives schedule instances below one type.
class ScheduleModel : public ::testing::Test {
  protected:
    void SetUp() override {
        peeklist_removeComleteList();
        tolvTraceReset();
        tolvTraceSetSink([this](std::string_view line) { lines_.emplace_back(line); });
        ASSERT_FALSE(model_.loadFile(SCHEDULER_DEFINITION_FILE));
        bool match = false;
        object_t* types = object_getObject(model_.root(), "Scheduler.Types", 0, &match);
        ASSERT_TRUE(match);
        object_t* type = object_createInstance(types, -1, "Light");
        object_commit(type);
        schedules_ = object_getObject(type, "Schedules", 0, &match);
        ASSERT_TRUE(match);
    }
    void TearDown() override {
        peeklist_removeComleteList();
        tolvTraceSetSink({});
    }
    // Whether a trace line so far contained text.
    bool traced(std::string_view text) const {
        return std::any_of(lines_.begin(), lines_.end(),
                           [&](const std::string& line) { return line.find(text) != line.npos; });
    }

    // The instance with this key, created on first use.
    object_t* instance(const std::string& key) {
        if (object_t* existing = schedules_->instance(key)) {
            return existing;
        }
        object_t* created = object_createInstance(schedules_, -1, key);
        EXPECT_NE(created, nullptr) << key;
        object_commit(created);
        return created;
    }

    datamodel_t model_;
    object_t* schedules_ = nullptr;
    std::vector<std::string> lines_;
};

class Peeklist : public ScheduleModel {
  protected:
    void add(const char* key, time_t time) {
        auto entry = std::make_unique<peeklist_entry_t>();
        entry->time = time;
        entry->object = instance(key);
        entry->state = key;
        ASSERT_TRUE(peeklist_addEntry(std::move(entry)));
    }
    // Empties the list through its front and returns the keys in list order.
    std::vector<std::string> drain() {
        std::vector<std::string> keys;
        while (peeklist_entry_ptr entry =
                   peeklist_takeFirstTimedOutEntry(std::numeric_limits<time_t>::max())) {
            keys.push_back(entry->object->name());
        }
        return keys;
    }
    // P at 100, Q and R at 200, S at 300. Q is added after R, so it lands in
    // front of R; P goes in front of the head.
    void fillPQRS() {
        add("S", 300);
        add("R", 200);
        add("P", 100);
        add("Q", 200);
    }
};

TEST_F(Peeklist, InsertionKeepsTimeOrderNewestFirstAmongEqualTimes) {
    fillPQRS();
    EXPECT_EQ(drain(), (std::vector<std::string>{"P", "Q", "R", "S"}));

    struct row_t {
        const char* key;
        time_t time;
        std::vector<std::string> expected;
    };
    const std::vector<row_t> rows = {
        {"E", 200, {"P", "E", "Q", "R", "S"}},  // in front of both entries at 200
        {"F", 100, {"F", "P", "Q", "R", "S"}},  // equal to the head: becomes the head
        {"G", 400, {"P", "Q", "R", "S", "G"}},  // after the last
        {"H", 50, {"H", "P", "Q", "R", "S"}},   // before the head
        {"I", 250, {"P", "Q", "R", "I", "S"}},  // between two times
        {"J", 300, {"P", "Q", "R", "J", "S"}},  // equal to the last
    };
    for (const row_t& row : rows) {
        fillPQRS();
        add(row.key, row.time);
        EXPECT_EQ(peeklist_size(), 5u) << row.key;
        EXPECT_EQ(drain(), row.expected) << row.key << " at " << row.time;
    }
}

TEST_F(Peeklist, NullEntryIsRefused) {
    EXPECT_FALSE(peeklist_addEntry(nullptr));
    EXPECT_TRUE(traced("Cannot add a NULL pointer to the peek list"));
    EXPECT_EQ(peeklist_getGlobalPeeklist(), nullptr);
    EXPECT_EQ(peeklist_getNextEntry(), nullptr);
    add("P", 100);
    EXPECT_FALSE(peeklist_addEntry(nullptr));
    EXPECT_EQ(peeklist_getNextEntry(), nullptr);  // a single entry has no successor
    EXPECT_EQ(drain(), (std::vector<std::string>{"P"}));
}

TEST_F(Peeklist, TakeFirstTimedOutEntry) {
    const time_t now = 1700000000;
    EXPECT_EQ(peeklist_takeFirstTimedOutEntry(now), nullptr);
    add("P", now + 1);
    EXPECT_EQ(peeklist_takeFirstTimedOutEntry(now), nullptr);  // one second early
    add("Q", now);
    add("R", now - 10);
    // Only due entries come off, oldest first, each with its own fields.
    peeklist_entry_ptr first = peeklist_takeFirstTimedOutEntry(now);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->object, instance("R"));
    EXPECT_EQ(first->time, now - 10);
    EXPECT_EQ(first->state, "R");
    peeklist_entry_ptr second = peeklist_takeFirstTimedOutEntry(now);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->object, instance("Q"));  // due exactly at now
    EXPECT_EQ(peeklist_takeFirstTimedOutEntry(now), nullptr);
    EXPECT_EQ(peeklist_size(), 1u);
    EXPECT_EQ(drain(), (std::vector<std::string>{"P"}));
}

TEST_F(Peeklist, NextTimeOut) {
    const time_t now = 1700000000;
    EXPECT_EQ(peeklist_getNextTimeOut(now), -1);  // empty list

    struct row_t {
        time_t ahead;  // head time - now, seconds
        std::int64_t expected;
    };
    const std::vector<row_t> rows = {
        {5, 5000},
        {0, 0},
        {-2, -2000},                   // overdue
        {2147484, 2147484000},         // beyond a signed 32-bit millisecond count
        {4294967, 4294967000},         // the largest exact value
        {4294968, 4294967295},         // one second further: clamped
        {50 * 86400, 4294967295},      // 50 days ahead: clamped, no wrap
        {-50 * 86400, -4320000000LL},  // long overdue: no wrap either
    };
    for (const row_t& row : rows) {
        peeklist_removeComleteList();
        add("P", now + row.ahead + 100);
        add("Q", now + row.ahead);  // the head decides
        EXPECT_EQ(peeklist_getNextTimeOut(now), row.expected) << "ahead " << row.ahead;
    }
}

TEST_F(Peeklist, RemoveEntryAndCompleteList) {
    peeklist_removeEntry(instance("P"));  // empty list: nothing happens
    EXPECT_EQ(peeklist_size(), 0u);

    add("P", 100);
    add("Q", 200);
    add("R", 300);
    peeklist_removeEntry(instance("X"));  // an instance without entry
    EXPECT_EQ(peeklist_size(), 3u);
    peeklist_removeEntry(instance("P"));  // the head: Q follows up
    ASSERT_NE(peeklist_getGlobalPeeklist(), nullptr);
    EXPECT_EQ(peeklist_getGlobalPeeklist()->object, instance("Q"));
    peeklist_removeEntry(instance("R"));  // the last
    EXPECT_EQ(drain(), (std::vector<std::string>{"Q"}));

    // Only the first entry of an instance goes per call.
    add("P", 100);
    add("Q", 200);
    add("P", 300);
    peeklist_removeEntry(instance("P"));
    ASSERT_NE(peeklist_getGlobalPeeklist(), nullptr);
    EXPECT_EQ(peeklist_getGlobalPeeklist()->time, 200);
    ASSERT_NE(peeklist_getNextEntry(), nullptr);
    EXPECT_EQ(peeklist_getNextEntry()->time, 300);
    EXPECT_EQ(peeklist_size(), 2u);

    peeklist_removeComleteList();
    EXPECT_EQ(peeklist_getGlobalPeeklist(), nullptr);
    peeklist_removeComleteList();  // empty: stays empty
    EXPECT_EQ(peeklist_size(), 0u);
}

TEST_F(Peeklist, SetNextEventTimeDoesNotResort) {
    EXPECT_FALSE(peeklist_setNextEventTime(500));
    add("P", 100);
    add("Q", 200);
    add("R", 300);
    EXPECT_TRUE(peeklist_setNextEventTime(500));
    ASSERT_NE(peeklist_getGlobalPeeklist(), nullptr);
    EXPECT_EQ(peeklist_getGlobalPeeklist()->object, instance("P"));
    EXPECT_EQ(peeklist_getGlobalPeeklist()->time, 500);
    ASSERT_NE(peeklist_getNextEntry(), nullptr);
    EXPECT_EQ(peeklist_getNextEntry()->time, 200);
    // Q is due at 400 but hides behind the head, which is not.
    EXPECT_EQ(peeklist_takeFirstTimedOutEntry(400), nullptr);
    EXPECT_EQ(drain(), (std::vector<std::string>{"P", "Q", "R"}));
}

// Next state change of a schedule. The default state is "off" throughout.

struct next_row_t {
    const char* zone;
    const char* base;
    const char* entries;  // JSON list, in begin order
    time_t t;
    time_t time;        // expected due time
    const char* state;  // expected state; null when there is no next change
    int isEvent;
};

class NextEvent : public ScheduleModel {
  protected:
    // A new instance with Base, Default "off" and, unless entries is null,
    // the user data holding the entries.
    object_t* schedule(const char* base, const char* entries) {
        object_t* inst = instance("s" + std::to_string(++count_));
        object_parameterSetCharValue(inst, "Base", base);
        object_parameterSetCharValue(inst, "Default", "off");
        object_commit(inst);
        attach(inst, entries);
        return inst;
    }
    static void attach(object_t* inst, const char* entries) {
        std::optional<variant_t> list = entries ? variant_fromJSON(entries) : std::nullopt;
        if (list && list->list()) {
            auto props = std::make_unique<scheduleentry_properties_t>();
            props->entries = std::make_shared<const variant_list_t>(*list->list());
            object_setUserData(inst, std::move(props));
        }
    }

    void check(const std::vector<next_row_t>& rows) {
        for (const next_row_t& row : rows) {
            scoped_time_zone_t zone(row.zone);
            object_t* inst = schedule(row.base, row.entries);
            peeklist_entry_ptr next = peeklist_createNextEntry(inst, row.t);
            const std::string where = std::string(row.zone) + " " + row.base + " " + row.entries +
                                      " t=" + std::to_string(row.t);
            if (row.state == nullptr) {
                EXPECT_EQ(next, nullptr) << where << " gave " << next->time << " " << next->state;
                continue;
            }
            ASSERT_NE(next, nullptr) << where;
            EXPECT_EQ(next->time, row.time) << where;
            EXPECT_EQ(next->state, row.state) << where;
            EXPECT_EQ(next->isEvent, row.isEvent) << where;
            EXPECT_EQ(next->object, inst) << where;
        }
        EXPECT_EQ(peeklist_size(), 0u);  // the computation leaves the agenda alone
    }

    int count_ = 0;
};

// Tuesday 2023-11-14, UTC; the day starts at 1699920000.
constexpr const char* kDay =
    R"([{"state":"on","begin":0,"end":3600},{"state":"on","begin":21600,"end":28800},)"
    R"({"state":"on","begin":28800,"end":36000},{"state":"eco","begin":64800,"end":82800},)"
    R"({"state":"on","begin":82800,"end":86400}])";

TEST_F(NextEvent, DailyTable) {
    const char* hour = R"([{"state":"on","begin":600,"end":1200}])";
    check({
        {"UTC", "Daily", kDay, 1699920000, 1699923600, "off", 0},  // 00:00, a begin is in force
        {"UTC", "Daily", kDay, 1699921800, 1699923600, "off", 0},  // 00:30
        {"UTC", "Daily", kDay, 1699923600, 1699941600, "on", 0},   // 01:00, just after the end
        {"UTC", "Daily", kDay, 1699930800, 1699941600, "on", 0},   // 03:00
        {"UTC", "Daily", kDay, 1699941600, 1699956000, "off", 0},  // 06:00, run 06-10
        {"UTC", "Daily", kDay, 1699956000, 1699984800, "eco", 0},  // 10:00, the run's end
        {"UTC", "Daily", kDay, 1699963200, 1699984800, "eco", 0},  // 12:00
        {"UTC", "Daily", kDay, 1699988400, 1700002800, "on", 0},   // 19:00, other state follows
        {"UTC", "Daily", kDay, 1700002800, 1700010000, "off", 0},  // 23:00
        // 23:30: the run crosses midnight into entry 1, ends Wed 01:00.
        {"UTC", "Daily", kDay, 1700004600, 1700010000, "off", 0},
        {"UTC", "Hourly", hour, 1700000000, 1700000400, "off", 0},  // 22:13:20, inside
        {"UTC", "Hourly", hour, 1700001000, 1700003400, "on", 0},   // 22:30 -> 23:10
    });
}

TEST_F(NextEvent, RunsAndWrapAround) {
    const char* sameState = R"([{"state":"on","begin":21600,"end":28800},)"
                            R"({"state":"on","begin":28800,"end":36000}])";
    const char* otherState = R"([{"state":"on","begin":21600,"end":28800},)"
                             R"({"state":"eco","begin":28800,"end":36000}])";
    const char* wholeDay = R"([{"state":"on","begin":0,"end":43200},)"
                           R"({"state":"on","begin":43200,"end":86400}])";
    const char* wrapOther = R"([{"state":"on","begin":0,"end":3600},)"
                            R"({"state":"eco","begin":82800,"end":86400}])";
    const char* wrapGap = R"([{"state":"on","begin":3600,"end":7200},)"
                          R"({"state":"on","begin":82800,"end":86400}])";
    check({
        {"UTC", "Daily", sameState, 1699945200, 1699956000, "off", 0},   // 07:00: one event at 10
        {"UTC", "Daily", otherState, 1699945200, 1699948800, "eco", 0},  // 07:00: boundary at 08
        {"UTC", "Daily", otherState, 1699948800, 1699956000, "off", 0},  // 08:00
        // One state all day: the run wraps through every entry; next midnight.
        {"UTC", "Daily", wholeDay, 1699956000, 1700006400, "on", 0},
        // 23:30: midnight continues with another state.
        {"UTC", "Daily", wrapOther, 1700004600, 1700006400, "on", 0},
        // 23:30: the next day starts with a gap, so the default returns at midnight.
        {"UTC", "Daily", wrapGap, 1700004600, 1700006400, "off", 0},
        // 12:00 with everything over today: tomorrow's first begin.
        {"UTC", "Daily", sameState, 1699963200, 1700028000, "on", 0},
    });
}

TEST_F(NextEvent, WeeklyTableAndMomentaryEvents) {
    // Monday 2023-11-13 is 1699833600; entries Monday and Wednesday 08:00-17:00.
    const char* week = R"([{"state":"on","begin":28800,"end":61200},)"
                       R"({"state":"on","begin":201600,"end":234000}])";
    const char* rings = R"([{"state":"ring","begin":28800,"end":28800},)"
                        R"({"state":"ring","begin":43200,"end":43200}])";
    check({
        {"UTC", "Weekly", week, 1699833600, 1699862400, "on", 0},   // Monday 00:00
        {"UTC", "Weekly", week, 1699862400, 1699894800, "off", 0},  // Monday 08:00
        {"UTC", "Weekly", week, 1700038800, 1700067600, "off", 0},  // Wednesday 09:00
        {"UTC", "Weekly", week, 1700128800, 1700467200, "on", 0},   // Thursday 10:00
        {"UTC", "Weekly", week, 1700424000, 1700467200, "on", 0},   // Sunday 20:00
        // Momentary entries, Daily.
        {"UTC", "Daily", rings, 1699923600, 1699948800, "ring", 1},  // 01:00
        {"UTC", "Daily", rings, 1699948800, 1699963200, "ring", 1},  // 08:00: not t itself
        {"UTC", "Daily", rings, 1699970000, 1700035200, "ring", 1},  // 13:53:20: tomorrow 08:00
    });
}

TEST_F(NextEvent, DaylightSavingSwitches) {
    const char* evening = R"([{"state":"on","begin":64800,"end":72000}])";
    check({
        // Offsets count from midnight read with t's flag, so a switch later
        // that day moves the 18:00 begin by an hour.
        {"Europe/Berlin", "Daily", evening, 1679788800, 1679850000, "on", 0},  // 03-26 -> 19 CEST
        {"Europe/Berlin", "Daily", evening, 1698534000, 1698595200, "on", 0},  // 10-29 -> 17 CET
        // After the switch the begin is 18:00 again.
        {"Europe/Berlin", "Daily", evening, 1679824800, 1679846400, "on", 0},  // 12:00 CEST
        {"Europe/Berlin", "Daily", evening, 1698577200, 1698598800, "on", 0},  // 12:00 CET
    });
}

TEST_F(NextEvent, MonthlyAndYearlyFollowTheCalendar) {
    const char* firstDay = R"([{"state":"on","begin":0,"end":86400}])";
    // First and last day on: in a leap February the last day is the 29th.
    const char* monthEnds = R"([{"state":"on","begin":0,"end":86400},)"
                            R"({"state":"on","begin":2419200,"end":2505600}])";
    // Jan 1 and day 365 (Dec 31 in a common year).
    const char* yearEnds = R"([{"state":"on","begin":0,"end":86400},)"
                           R"({"state":"on","begin":31449600,"end":31536000}])";
    check({
        {"UTC", "Monthly", firstDay, 1700006400, 1701388800, "on", 0},   // Nov 15 -> Dec 1 (30 d)
        {"UTC", "Monthly", firstDay, 1701388800, 1701475200, "off", 0},  // Dec 1 -> Dec 2
        {"UTC", "Monthly", firstDay, 1706745600, 1706832000, "off", 0},  // 2024-02-01 -> 02-02
        {"UTC", "Monthly", firstDay, 1706832000, 1709251200, "on", 0},   // Feb 2 -> Mar 1 (29 d)
        {"UTC", "Monthly", firstDay, 1675296000, 1677628800, "on", 0},   // 2023-02 (28 d)
        {"UTC", "Monthly", firstDay, 1680393600, 1682899200, "on", 0},   // Apr 2 -> May 1 (30 d)
        {"UTC", "Monthly", firstDay, 1704153600, 1706745600, "on", 0},   // Jan 2 -> Feb 1 (31 d)
        // Feb 29 12:00: runs into Mar 1, whose entry has the same state.
        {"UTC", "Monthly", monthEnds, 1709208000, 1709337600, "off", 0},
        // Across a switch the next month's midnight is read with the
        // daylight-saving flag of t, like the reference time, so it lies one
        // hour off: Apr 1 01:00 CEST, and Oct 31 23:00 CET.
        {"Europe/Berlin", "Monthly", firstDay, 1678878000, 1680303600, "on", 0},
        {"Europe/Berlin", "Monthly", firstDay, 1697364000, 1698789600, "on", 0},
        {"UTC", "Yearly", firstDay, 1688169600, 1704067200, "on", 0},   // 2023-07-01 -> 2024-01-01
        {"UTC", "Yearly", firstDay, 1704067200, 1704153600, "off", 0},  // 2024-01-01 -> 01-02
        {"UTC", "Yearly", firstDay, 1709251200, 1735689600, "on", 0},   // leap 2024 -> 2025-01-01
        // 2023-12-31 12:00: runs into New Year's Day, off on Jan 2.
        {"UTC", "Yearly", yearEnds, 1704024000, 1704153600, "off", 0},
    });
}

TEST_F(NextEvent, OnceUsesAbsoluteTimes) {
    const char* adjacentOther = R"([{"state":"on","begin":1700001000,"end":1700002000},)"
                                R"({"state":"eco","begin":1700002000,"end":1700003000}])";
    const char* adjacentSame = R"([{"state":"on","begin":1700001000,"end":1700002000},)"
                               R"({"state":"on","begin":1700002000,"end":1700003000}])";
    const char* withGap = R"([{"state":"on","begin":1700001000,"end":1700002000},)"
                          R"({"state":"on","begin":1700002500,"end":1700003000}])";
    check({
        {"UTC", "Once", adjacentOther, 1700000500, 1700001000, "on", 0},
        {"UTC", "Once", adjacentOther, 1700001500, 1700002000, "eco", 0},  // own boundary event
        {"UTC", "Once", adjacentOther, 1700002000, 1700003000, "off", 0},
        {"UTC", "Once", adjacentOther, 1700003000, 0, nullptr, 0},        // over at its last end
        {"UTC", "Once", adjacentSame, 1700001500, 1700003000, "off", 0},  // one run
        {"UTC", "Once", withGap, 1700001500, 1700002000, "off", 0},
        {"UTC", "Once", withGap, 1700002200, 1700002500, "on", 0},
        {"UTC", "Once", withGap, 1800000000, 0, nullptr, 0},
        {"UTC", "Once", R"([{"state":"ring","begin":1700001000,"end":1700001000}])", 1700000000,
         1700001000, "ring", 1},
    });
}

TEST_F(NextEvent, NoNextChange) {
    check({
        {"UTC", "Daily", "[]", 1700000000, 0, nullptr, 0},
        // Elements that are not entries, met first or during run following.
        {"UTC", "Daily", "[5]", 1700000000, 0, nullptr, 0},
        {"UTC", "Daily", R"([{"state":"on","begin":0,"end":3600},5])", 1699921800, 0, nullptr, 0},
    });
    EXPECT_TRUE(traced("not a valid variant entry"));
    EXPECT_EQ(peeklist_createNextEntry(schedule("Daily", nullptr), 1700000000), nullptr);
    EXPECT_TRUE(traced("could not get schedule user data"));

    // A schedule object whose definition has no Default parameter.
    ASSERT_FALSE(
        model_.load(R"({"objects":[{"name":"Bare","objects":[{"name":"Items",)"
                    R"("template":true,"parameters":[{"name":"Base","type":"string"}]}]}]})"));
    bool match = false;
    object_t* items = object_getObject(model_.root(), "Bare.Items", 0, &match);
    ASSERT_TRUE(match);
    object_t* bare = object_createInstance(items, -1, "b");
    object_parameterSetCharValue(bare, "Base", "Daily");
    object_commit(bare);
    attach(bare, R"([{"state":"on","begin":0,"end":3600}])");
    ASSERT_NE(object_getUserData<scheduleentry_properties_t>(bare), nullptr);
    EXPECT_EQ(peeklist_createNextEntry(bare, 1700000000), nullptr);
    EXPECT_TRUE(traced("could not get the default value"));
}

}  // namespace
