// The list threaded through its elements: after any mix of appends and
// removals it must hold the same elements, in the same order forwards and
// backwards, as a plain list given the same steps.
#include "orv/intrusive_list.h"

#include <gtest/gtest.h>

#include <array>
#include <list>
#include <vector>

namespace {

struct element_t {
    int id = 0;
    orv_list_links_t<element_t> links;
};

using list_t = orv_intrusive_list_t<element_t, &element_t::links>;

// A step: append the element with that id (1 to 5), or remove it when
// negative.
struct case_t {
    const char* name;
    std::vector<int> steps;
};

std::vector<int> forwards(const list_t& list) {
    std::vector<int> ids;
    for (element_t* e = list.front(); e != nullptr; e = list_t::next(*e)) {
        ids.push_back(e->id);
    }
    return ids;
}

std::vector<int> backwards(const list_t& list) {
    std::vector<int> ids;
    for (element_t* e = list.back(); e != nullptr; e = list_t::prev(*e)) {
        ids.push_back(e->id);
    }
    return ids;
}

TEST(IntrusiveList, KeepsTheOrderOfAPlainListThroughAppendsAndRemovals) {
    const case_t cases[] = {
        {"empty", {}},
        {"appends", {1, 2, 3}},
        {"the only element goes", {1, -1}},
        {"the head goes", {1, 2, 3, -1}},
        {"the tail goes", {1, 2, 3, -3}},
        {"a middle element goes", {1, 2, 3, -2}},
        {"all go, then one comes back", {1, 2, 3, -2, -1, -3, 2}},
        {"a removed element returns at the end", {1, 2, 3, -1, 1}},
        {"removals from both ends in turn", {1, 2, 3, 4, 5, -1, -5, -2, -4}},
    };
    for (const case_t& c : cases) {
        std::array<element_t, 6> elements;
        for (std::size_t i = 0; i < elements.size(); ++i) {
            elements[i].id = static_cast<int>(i);
        }
        list_t list;
        std::list<int> model;
        for (const int step : c.steps) {
            element_t& e = elements[static_cast<std::size_t>(step < 0 ? -step : step)];
            if (step < 0) {
                list.erase(e);
                model.remove(e.id);
            } else {
                list.pushBack(e);
                model.push_back(e.id);
            }
        }
        const std::vector<int> expected(model.begin(), model.end());
        EXPECT_EQ(forwards(list), expected) << c.name;
        EXPECT_EQ(backwards(list), std::vector<int>(expected.rbegin(), expected.rend())) << c.name;
        EXPECT_EQ(list.size(), expected.size()) << c.name;
        EXPECT_EQ(list.empty(), expected.empty()) << c.name;
    }
}

}  // namespace
