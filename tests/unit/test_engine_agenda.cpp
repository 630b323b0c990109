// The agenda (a time-ordered list of pending state changes) and its index by
// owner. Owners are pointers to one-letter names; a drained agenda is shown
// as its owners' letters in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "agenda.h"

namespace {

using owner_t = const char*;
using agenda = agenda_t<owner_t>;

owner_t owner(char name) {
    static const std::string kNames = "EFGHIJPQRSTX";
    return &kNames.at(kNames.find(name));
}

// Adds (owner, time) changes in the given order; the state is the name.
void add(agenda& list, std::initializer_list<std::pair<char, time_t>> changes) {
    for (const auto& [name, time] : changes) {
        list.add(owner(name), change_t{time, std::string(1, name)});
    }
}

// The first change due at now as "name time state", or "-" for none.
std::string take(agenda& list, time_t now) {
    std::optional<agenda::item_t> item = list.takeDue(now);
    return item
               ? *item->owner + (" " + std::to_string(item->change.time)) + " " + item->change.state
               : "-";
}

std::string names(const agenda& list) {
    std::string names;
    for (owner_t each : list.owners()) {
        names += *each;
    }
    return names;
}

// Empties the agenda through its front; the owners in the order taken.
std::string drain(agenda& list) {
    std::string names;
    while (std::optional<agenda::item_t> item = list.takeDue(std::numeric_limits<time_t>::max())) {
        names += *item->owner;
    }
    return names;
}

TEST(EngineAgenda, TimeOrderNewestFirstAmongEqualTimes) {
    const std::vector<std::tuple<char, time_t, const char*>> rows = {
        {'E', 200, "PEQRS"},  // in front of both changes at 200
        {'F', 100, "FPQRS"},  // equal to the head: becomes the head
        {'G', 400, "PQRSG"},  // after the last
        {'H', 50, "HPQRS"},   // before the head
        {'I', 250, "PQRIS"},  // between two times
        {'J', 300, "PQRJS"},  // equal to the last
    };
    for (const auto& [name, time, expected] : rows) {
        agenda list;
        // Q is added after R at the same time, so it lands in front of R.
        add(list, {{'S', 300}, {'R', 200}, {'P', 100}, {'Q', 200}, {name, time}});
        EXPECT_EQ(names(list), expected);
        EXPECT_EQ(drain(list), expected) << name << " at " << time;
    }
}

TEST(EngineAgenda, TakesOnlyDueChanges) {
    const time_t now = 1700000000;
    agenda list;
    EXPECT_EQ(take(list, now), "-");
    EXPECT_EQ(list.head(), nullptr);
    add(list, {{'P', now + 1}});
    EXPECT_EQ(take(list, now), "-");  // one second early
    add(list, {{'Q', now}, {'R', now - 10}});
    EXPECT_EQ(take(list, now), "R 1699999990 R");
    EXPECT_EQ(take(list, now), "Q 1700000000 Q");  // due exactly at now
    EXPECT_EQ(take(list, now), "-");
    EXPECT_EQ(drain(list), "P");
    EXPECT_EQ(list.size(), 0U);
}

TEST(EngineAgenda, DelayRunsToTheStartOfTheHeadsSecondAndSaturates) {
    constexpr std::int64_t kMicro = 1'000'000;
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    constexpr time_t kSecond = 1700000000;
    const std::int64_t at = kSecond * kMicro;
    EXPECT_EQ(agenda().delayUs(at), std::nullopt);  // empty agenda
    struct row_t {
        const char* what;
        time_t head;
        std::int64_t nowUs;
        std::int64_t delayUs;
    };
    const std::vector<row_t> rows = {
        {"now on a second", kSecond + 5, at, 5 * kMicro},
        {"now within its second", kSecond + 1, at + 123456, 876544},
        {"now in the last microsecond", kSecond + 1, at + 999999, 1},
        {"200 us before the head", kSecond, at - 200, 200},
        {"the head's second has begun", kSecond, at, 0},
        {"within the head's second", kSecond, at + 999999, 0},
        {"overdue", kSecond - 50 * 86400, at + 1, 0},
        {"78 days ahead, beyond 32-bit milliseconds", kSecond + 78 * 86400, at + 1,
         78 * 86400 * kMicro - 1},
        {"before the epoch", -1, -1'500'000, 500000},
        {"a head too far to count in microseconds", kMax / 1000, at, kMax},
        {"from far before the epoch", kMax / kMicro - 1, -kMax, kMax},
        {"a head far before the epoch", -(kMax / 1000), at, 0},
    };
    for (const row_t& row : rows) {
        agenda list;
        add(list, {{'P', row.head + 100}, {'Q', row.head}});  // the head decides
        EXPECT_EQ(list.delayUs(row.nowUs), row.delayUs) << row.what;
    }
}

TEST(EngineAgenda, RemoveTakesTheOwnersFirstChange) {
    agenda list;
    list.remove(owner('P'));  // empty agenda: nothing happens
    add(list, {{'P', 100}, {'Q', 200}, {'R', 300}, {'P', 400}});
    list.remove(owner('X'));  // an owner without changes
    list.remove(owner('P'));  // the head: only its first change goes
    list.remove(owner('R'));
    ASSERT_NE(list.head(), nullptr);
    EXPECT_EQ(list.head()->change.time, 200);
    EXPECT_EQ(take(list, 450), "Q 200 Q");
    EXPECT_EQ(take(list, 450), "P 400 P");
    EXPECT_EQ(list.size(), 0U);
}

// A replacement plans all changes at once, in the order given, into the old
// nodes or new ones; the owners are found again afterwards, and a change
// planned later still comes first among equal times.
TEST(EngineAgenda, ReplacePlansInTheOrderGiven) {
    agenda list;
    add(list, {{'E', 1}, {'F', 2}});
    auto item = [](char name, time_t time) {
        return agenda::item_t{owner(name), change_t{time, std::string(1, name)}};
    };
    list.replace({item('P', 100), item('Q', 200), item('R', 100), item('S', 50)});
    EXPECT_EQ(names(list), "SRPQ");  // more items than old nodes
    list.replace({item('P', 300), item('Q', 300)});
    EXPECT_EQ(names(list), "QP");  // fewer
    list.replace({});
    EXPECT_EQ(list.size(), 0U);
    list.replace({item('P', 100), item('R', 100), item('Q', 200)});
    list.remove(owner('R'));
    add(list, {{'T', 100}});
    EXPECT_EQ(drain(list), "TPQ");
}

// A long random sequence of additions, removals, takes and replacements,
// checked against an ordered map that plays the same sequence. Enough changes
// for a tree several levels deep; few owners and few distinct times make
// owners with several changes and long runs of equal times.
TEST(EngineAgenda, AgreesWithAnOrderedMapOverManyChanges) {
    struct row_t {
        std::size_t owners;
        time_t times;
    };
    for (const row_t row : {row_t{3, 4}, row_t{50, 20}, row_t{2000, 100000}}) {
        std::vector<char> storage(row.owners);
        std::mt19937_64 random(row.owners);
        // Key: time, then planning order descending, as the agenda orders.
        std::map<std::pair<time_t, std::int64_t>, agenda::item_t> model;
        std::int64_t planned = 0;
        agenda list;
        auto plan = [&](owner_t who, time_t time) {
            change_t change{time, std::to_string(planned)};
            model.emplace(std::pair(time, -planned++), agenda::item_t{who, change});
            return change;
        };
        auto removeFromModel = [&](owner_t who) {
            auto it = std::find_if(model.begin(), model.end(),
                                   [&](const auto& entry) { return entry.second.owner == who; });
            if (it != model.end()) {
                model.erase(it);
            }
        };
        for (int step = 0; step < 20000; ++step) {
            const owner_t who = &storage[random() % row.owners];
            const time_t time = static_cast<time_t>(random() % row.times);
            switch (random() % 8) {
                case 0:
                case 1:
                    list.remove(who);
                    removeFromModel(who);
                    break;
                case 2: {
                    std::optional<agenda::item_t> taken = list.takeDue(time);
                    const bool due = !model.empty() && model.begin()->first.first <= time;
                    ASSERT_EQ(taken.has_value(), due) << step;
                    if (due) {
                        EXPECT_EQ(taken->owner, model.begin()->second.owner) << step;
                        EXPECT_EQ(taken->change.state, model.begin()->second.change.state) << step;
                        model.erase(model.begin());
                    }
                    break;
                }
                case 3:
                    if (step % 1000 == 3) {
                        // Replans everything present in a shuffled order.
                        std::vector<agenda::item_t> items;
                        for (const auto& entry : model) {
                            items.push_back(entry.second);
                        }
                        std::shuffle(items.begin(), items.end(), random);
                        model.clear();
                        for (agenda::item_t& item : items) {
                            item.change = plan(item.owner, item.change.time);
                        }
                        list.replace(std::move(items));
                        break;
                    }
                    [[fallthrough]];
                default:
                    list.add(who, plan(who, time));
            }
            ASSERT_EQ(list.size(), model.size()) << step;
            ASSERT_EQ(list.head() == nullptr, model.empty()) << step;
            if (!model.empty()) {
                ASSERT_EQ(list.head()->change.state, model.begin()->second.change.state) << step;
            }
        }
        std::vector<owner_t> expected;
        for (const auto& entry : model) {
            expected.push_back(entry.second.owner);
        }
        EXPECT_EQ(list.owners(), expected);
        for (const auto& entry : model) {
            std::optional<agenda::item_t> taken = list.takeDue(entry.first.first);
            ASSERT_TRUE(taken);
            EXPECT_EQ(taken->change.state, entry.second.change.state);
        }
        EXPECT_EQ(list.size(), 0U);
    }
}

using position_t = std::uint64_t;
using model_t = std::multimap<owner_t, position_t>;

std::optional<position_t> modelFirst(const model_t& model, owner_t object) {
    std::optional<position_t> earliest;
    auto [from, to] = model.equal_range(object);
    for (auto it = from; it != to; ++it) {
        earliest = std::min(it->second, earliest.value_or(it->second));
    }
    return earliest;
}

// The index by owner, checked against an ordered multimap that plays the same
// random sequence of operations. Few distinct owners on a small table make
// long probe runs that wrap around the end of the table, and the growing
// population makes the table grow several times on the way.
TEST(EngineAgendaIndex, AgreesWithAnOrderedMultimap) {
    for (std::size_t owners : {3, 40, 5000}) {
        // Neighbouring addresses hash to clusters the way real owners do.
        std::vector<char> storage(owners * 64);
        auto objectAt = [&](std::size_t i) { return storage.data() + i * 64; };
        std::mt19937_64 random(owners);
        agenda_index_t<owner_t, position_t> index;
        auto first = [&](owner_t object) { return index.first(object, std::less<>()); };
        model_t model;
        std::uint64_t order = 0;
        for (int step = 0; step < 30000; ++step) {
            const owner_t object = objectAt(random() % owners);
            auto [from, to] = model.equal_range(object);
            const bool has = from != to;
            const position_t position = (++order * 7919) % 1000003;  // scattered
            if (random() % 2 != 0) {
                index.insert(object, position);
                model.emplace(object, position);
            } else {
                // Erase a filed pair, or one that never was.
                ASSERT_EQ(index.erase(object, has ? from->second : position), has) << step;
                if (has) {
                    model.erase(from);
                }
            }
            ASSERT_EQ(index.size(), model.size()) << step;
            ASSERT_EQ(first(object), modelFirst(model, object)) << step;
        }
        for (std::size_t i = 0; i < owners; ++i) {
            ASSERT_EQ(first(objectAt(i)), modelFirst(model, objectAt(i))) << i;
        }
        index.clear();
        EXPECT_EQ(index.size(), 0U);
        EXPECT_FALSE(first(objectAt(0)));
    }
}

}  // namespace
