// The agenda's index by schedule, checked against an ordered multimap that
// plays the same random sequence of operations. Few distinct schedules on a
// small table make long probe runs that wrap around the end of the table, and
// the growing population makes the table grow several times on the way.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "scheduler_peekindex.h"

namespace {

// Positions are plain numbers here, ordered as numbers.
using position_t = std::uint64_t;
using model_t = std::multimap<const object_t*, position_t>;

std::optional<position_t> modelFirst(const model_t& model, const object_t* object) {
    std::optional<position_t> earliest;
    auto [from, to] = model.equal_range(object);
    for (auto it = from; it != to; ++it) {
        if (!earliest || it->second < *earliest) {
            earliest = it->second;
        }
    }
    return earliest;
}

std::string text(const std::optional<position_t>& position) {
    return position ? std::to_string(*position) : "-";
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
        peekindex_t<position_t> index;
        auto first = [&](const object_t* object) { return index.first(object, std::less<>()); };
        model_t model;
        std::uint64_t order = 0;
        for (int step = 0; step < 30000; ++step) {
            const object_t* object = objectAt(random() % schedules);
            auto [from, to] = model.equal_range(object);
            const bool has = from != to;
            // Fresh positions in a scattered order.
            const position_t position = (++order * 7919) % 1000003;
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
            ASSERT_EQ(text(first(object)), text(modelFirst(model, object))) << step;
        }
        for (std::size_t i = 0; i < schedules; ++i) {
            ASSERT_EQ(text(first(objectAt(i))), text(modelFirst(model, objectAt(i)))) << i;
        }
        index.clear();
        EXPECT_EQ(index.size(), 0U);
        EXPECT_FALSE(first(objectAt(0)));
    }
}

}  // namespace
