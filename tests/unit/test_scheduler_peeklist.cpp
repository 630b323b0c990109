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
#include <tuple>
#include <utility>
#include <vector>

#include "orv/object.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "scheduler_entry.h"
#include "scheduler_peeklist.h"
#include "time_zone.h"

namespace {

using keys_t = std::vector<std::string>;

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
    void add(const char* key, time_t time) {
        auto entry = std::make_unique<peeklist_entry_t>();
        entry->time = time;
        entry->object = instance(key);
        entry->state = key;
        ASSERT_TRUE(peeklist_addEntry(std::move(entry)));
    }
    // The first entry due at now as "key time state", or "-" for none.
    static std::string take(time_t now) {
        peeklist_entry_ptr e = peeklist_takeFirstTimedOutEntry(now);
        return e ? e->object->name() + " " + std::to_string(e->time) + " " + e->state : "-";
    }
    // Empties the list through its front and returns the keys in list order.
    static keys_t drain() {
        keys_t keys;
        for (std::string e; (e = take(std::numeric_limits<time_t>::max())) != "-";) {
            keys.push_back(e.substr(0, e.find(' ')));
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
        add("S", 300);
        add("R", 200);
        add("P", 100);
        add("Q", 200);
        add(key, time);
        EXPECT_EQ(drain(), expected) << key << " at " << time;
    }
}

TEST_F(Peeklist, TakeOnlyDueEntriesAndRefuseNull) {
    const time_t now = 1700000000;
    EXPECT_FALSE(peeklist_addEntry(nullptr));
    EXPECT_TRUE(traced("Cannot add a NULL pointer to the peek list"));
    EXPECT_EQ(take(now), "-");
    add("P", now + 1);
    EXPECT_EQ(take(now), "-");  // one second early
    add("Q", now);
    add("R", now - 10);
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
        add("P", now + ahead + 100);
        add("Q", now + ahead);  // the head decides
        EXPECT_EQ(peeklist_getNextTimeOut(now), expected) << "ahead " << ahead;
    }
}

TEST_F(Peeklist, RemoveEntryAndSetNextEventTime) {
    peeklist_removeEntry(instance("P"));  // empty list: nothing happens
    EXPECT_FALSE(peeklist_setNextEventTime(500));
    add("P", 100);
    add("Q", 200);
    add("R", 300);
    add("P", 400);
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
struct next_row_t {
    const char* zone;
    const char* base;
    const char* entries;  // JSON list, in begin order
    time_t t;
    time_t time;        // expected due time
    const char* state;  // expected state; null when there is no next change
    int isEvent;
};

class NextEvent : public Peeklist {
  protected:
    // A new instance with Base, Default "off" and, unless entries is null,
    // the user data holding the entries.
    object_t* schedule(const char* base, const char* entries) {
        object_t* inst = instance("s" + std::to_string(++count_));
        object_parameterSetCharValue(inst, "Base", base);
        object_parameterSetCharValue(inst, "Default", "off");
        object_commit(inst);
        std::optional<variant_t> list = entries ? variant_fromJSON(entries) : std::nullopt;
        std::optional<entrylist_t> packed =
            list && list->list()
                ? entrylist_pack(std::make_shared<const variant_list_t>(*list->list()))
                : std::nullopt;
        if (packed) {
            auto props = std::make_unique<scheduleentry_properties_t>();
            props->entries = std::move(*packed);
            object_setUserData(inst, std::move(props));
        }
        return inst;
    }
    void check(const std::vector<next_row_t>& rows) {
        for (const next_row_t& row : rows) {
            scoped_time_zone_t zone(row.zone);
            object_t* inst = schedule(row.base, row.entries);
            peeklist_entry_ptr next = peeklist_createNextEntry(inst, row.t);
            SCOPED_TRACE(std::string(row.zone) + " " + row.base + " " + row.entries +
                         " t=" + std::to_string(row.t));
            if (row.state == nullptr) {
                EXPECT_EQ(next, nullptr) << next->time << " " << next->state;
                continue;
            }
            ASSERT_NE(next, nullptr);
            EXPECT_EQ(next->time, row.time);
            EXPECT_EQ(next->state, row.state);
            EXPECT_EQ(next->isEvent, row.isEvent);
            EXPECT_EQ(next->object, inst);
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

TEST_F(NextEvent, DailyRunsAndWrapAround) {
    const char* hour = R"([{"state":"on","begin":600,"end":1200}])";
    const char* sameState = R"([{"state":"on","begin":21600,"end":28800},)"
                            R"({"state":"on","begin":28800,"end":36000}])";
    const char* wholeDay = R"([{"state":"on","begin":0,"end":43200},)"
                           R"({"state":"on","begin":43200,"end":86400}])";
    const char* wrapOther = R"([{"state":"on","begin":0,"end":3600},)"
                            R"({"state":"eco","begin":82800,"end":86400}])";
    const char* wrapGap = R"([{"state":"on","begin":3600,"end":7200},)"
                          R"({"state":"on","begin":82800,"end":86400}])";
    check({
        {"UTC", "Daily", kDay, 1699920000, 1699923600, "off", 0},  // 00:00, a begin is in force
        {"UTC", "Daily", kDay, 1699941600, 1699956000, "off", 0},  // 06:00, run 06-10
        {"UTC", "Daily", kDay, 1699956000, 1699984800, "eco", 0},  // 10:00, the run's end
        // 23:30: the run crosses midnight into entry 1, ends Wed 01:00.
        {"UTC", "Daily", kDay, 1700004600, 1700010000, "off", 0},
        {"UTC", "Hourly", hour, 1700001000, 1700003400, "on", 0},  // 22:30 -> 23:10
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

TEST_F(NextEvent, WeeklyAndMomentaryEvents) {
    // Monday 2023-11-13 is 1699833600; entries Monday and Wednesday 08:00-17:00.
    const char* week = R"([{"state":"on","begin":28800,"end":61200},)"
                       R"({"state":"on","begin":201600,"end":234000}])";
    const char* rings = R"([{"state":"ring","begin":28800,"end":28800},)"
                        R"({"state":"ring","begin":43200,"end":43200}])";
    check({
        {"UTC", "Weekly", week, 1700424000, 1700467200, "on", 0},    // Sunday 20:00
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
        {"UTC", "Monthly", firstDay, 1706745600, 1706832000, "off", 0},  // 2024-02-01 -> 02-02
        {"UTC", "Monthly", firstDay, 1706832000, 1709251200, "on", 0},   // Feb 2 -> Mar 1 (29 d)
        {"UTC", "Monthly", firstDay, 1675296000, 1677628800, "on", 0},   // 2023-02 (28 d)
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
        {"UTC", "Once", R"([{"state":"ring","begin":1700001000,"end":1700001000}])", 1700000000,
         1700001000, "ring", 1},
    });
}

TEST_F(NextEvent, NoNextChange) {
    check({
        {"UTC", "Daily", "[]", 1700000000, 0, nullptr, 0},
    });
    EXPECT_EQ(peeklist_createNextEntry(schedule("Daily", nullptr), 1700000000), nullptr);
    EXPECT_TRUE(traced("could not get schedule user data"));
}

}  // namespace
