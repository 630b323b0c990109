// The agenda's index by schedule, checked against an ordered multimap that
// plays the same random sequence of operations. Few distinct schedules on a
// small table make long probe runs that wrap around the end of the table, and
// the growing population makes the table grow several times on the way.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "scheduler_peekindex.h"

namespace {

using model_t = std::multimap<const object_t*, peekindex_key_t>;

std::optional<peekindex_key_t> modelFirst(const model_t& model, const object_t* object) {
    std::optional<peekindex_key_t> earliest;
    auto [from, to] = model.equal_range(object);
    for (auto it = from; it != to; ++it) {
        if (!earliest || it->second < *earliest) {
            earliest = it->second;
        }
    }
    return earliest;
}

std::string text(const std::optional<peekindex_key_t>& key) {
    return key ? std::to_string(key->time) + "/" + std::to_string(key->order) : "-";
}

TEST(PeekIndex, AgreesWithAnOrderedMultimap) {
    for (std::size_t schedules : {3, 40, 5000}) {
        // Addresses only serve as keys: neighbouring ones hash to clusters
        // the same way real instances do.
        std::vector<char> storage(schedules * 64);
        auto objectAt = [&](std::size_t i) {
            return reinterpret_cast<const object_t*>(storage.data() + i * 64);
        };
        std::mt19937_64 random(schedules);
        peekindex_t index;
        model_t model;
        std::uint64_t order = 0;
        for (int step = 0; step < 40000; ++step) {
            const object_t* object = objectAt(random() % schedules);
            auto [from, to] = model.equal_range(object);
            const bool has = from != to;
            const peekindex_key_t key{static_cast<time_t>(random() % 50), ++order};
            switch (random() % 4) {
                case 0:
                case 1:
                    index.insert(object, key);
                    model.emplace(object, key);
                    break;
                case 2:
                    // Erase an existing pair, or one that was never filed.
                    ASSERT_EQ(index.erase(object, has ? from->second : key), has) << step;
                    if (has) {
                        model.erase(from);
                    }
                    break;
                default:
                    ASSERT_EQ(index.rekey(object, has ? from->second : key, key), has) << step;
                    if (has) {
                        from->second = key;
                    }
                    break;
            }
            ASSERT_EQ(index.size(), model.size()) << step;
            ASSERT_EQ(text(index.first(object)), text(modelFirst(model, object))) << step;
        }
        for (std::size_t i = 0; i < schedules; ++i) {
            ASSERT_EQ(text(index.first(objectAt(i))), text(modelFirst(model, objectAt(i)))) << i;
        }
        index.clear();
        EXPECT_EQ(index.size(), 0U);
        EXPECT_FALSE(index.first(objectAt(0)));
    }
}

}  // namespace
