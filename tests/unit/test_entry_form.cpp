// Entry maps parsed once into records: a read-back gives the maps exactly as
// they were sent (ordered, without the entries that set the default), whether
// the records can rebuild them or the maps had to be kept.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "entry_form.h"
#include "orv/variant.h"

namespace {

variant_t entryMap(std::vector<std::pair<const char*, variant_t>> pairs) {
    variant_map_t result;
    for (auto& [key, value] : pairs) {
        result.push_back({key, std::move(value)});
    }
    return variant_t(std::move(result));
}

variant_t onAt(variant_t begin, variant_t end, const char* state = "on") {
    return entryMap({{"state", variant_t(state)}, {"begin", begin}, {"end", end}});
}

std::string json(const variant_list_t& list) {
    const variant_t value(list);
    return variant_toJSON(&value);
}

// The maps a list reads back as after parsing, null when it is refused; kept
// tells whether the maps themselves had to be kept.
std::shared_ptr<const variant_list_t> readBack(const variant_list_t& sent, bool* kept) {
    std::optional<parsed_entries_t> parsed = entries_parse(sent).parsed;
    if (!parsed) {
        return nullptr;
    }
    *kept = parsed->form.given != nullptr;
    return entries_maps(parsed->entries, parsed->form);
}

struct read_row_t {
    const char* name;
    variant_list_t sent;
    variant_list_t back;  // empty: the list as sent
    bool kept;
};

std::vector<read_row_t> readBackRows() {
    using i64 = std::int64_t;
    const variant_t on("on");
    const variant_t first = onAt(variant_t(1U), variant_t(2U));
    const variant_t five = onAt(variant_t(5U), variant_t(5U), "b");
    const variant_t alsoFive = onAt(variant_t(5U), variant_t(5U), "c");
    const variant_t textTime = onAt(variant_t("7"), variant_t(8U));
    return {
        {"uint32, usual order", {first}, {}, false},
        {"unsigned 64-bit",
         {onAt(variant_t(std::uint64_t{3}), variant_t(std::uint64_t{4}))},
         {},
         false},
        // Kept as sent: a form that differs between entries, a value that its
        // type cannot hold after packing, a key too many, a text time.
        {"mixed forms", {first, onAt(variant_t(3), variant_t(4U))}, {}, true},
        {"beyond 32 bits",
         {onAt(variant_t(i64{3000000000}), variant_t(i64{3000000001}))},
         {},
         true},
        {"extra key",
         {entryMap({{"state", on}, {"begin", variant_t(1U)}, {"end", variant_t(2U)}, {"n", on}})},
         {},
         true},
        {"text time", {textTime}, {}, true},
        // Read back in begin order, equal begins as written, an entry in the
        // default state too: a lunch break must not vanish.
        {"reordered",
         {five, onAt(variant_t(1U), variant_t(2U), "off"), alsoFive},
         {onAt(variant_t(1U), variant_t(2U), "off"), five, alsoFive},
         false},
        {"entries in two forms",
         {onAt(variant_t(-1), variant_t(i64{0}), "off"), first},
         {},
         true},
        {"kept and reordered", {textTime, first}, {first, textTime}, true},
        {"nothing", {}, {}, false},
    };
}

TEST(EntryForm, ReadBackAsSent) {
    for (const read_row_t& row : readBackRows()) {
        const variant_list_t& expected = row.back.empty() ? row.sent : row.back;
        bool kept = false;
        std::shared_ptr<const variant_list_t> back = readBack(row.sent, &kept);
        ASSERT_TRUE(back) << row.name;
        EXPECT_EQ(json(*back), json(expected)) << row.name;
        EXPECT_TRUE(*back == expected) << row.name;
        EXPECT_EQ(kept, row.kept) << row.name;
    }
}

// Two entries with signed 32-bit begins and signed 64-bit ends, their keys in
// each of the six orders.
std::vector<variant_list_t> everyKeyOrder() {
    std::vector<variant_list_t> lists;
    std::array<int, 3> order = {0, 1, 2};
    do {
        variant_list_t list;
        for (const auto& [begin, end] : {std::pair{-10, -5}, std::pair{7, 9}}) {
            const variant_t values[] = {variant_t("on"), variant_t(begin),
                                        variant_t(std::int64_t{end})};
            const char* const keys[] = {"state", "begin", "end"};
            list.push_back(entryMap({{keys[order[0]], values[order[0]]},
                                     {keys[order[1]], values[order[1]]},
                                     {keys[order[2]], values[order[2]]}}));
        }
        lists.push_back(std::move(list));
    } while (std::next_permutation(order.begin(), order.end()));
    return lists;
}

TEST(EntryForm, EveryKeyOrderReadsBackAsSent) {
    for (const variant_list_t& sent : everyKeyOrder()) {
        bool kept = false;
        std::shared_ptr<const variant_list_t> back = readBack(sent, &kept);
        ASSERT_TRUE(back) << json(sent);
        EXPECT_TRUE(*back == sent) << json(*back) << " sent " << json(sent);
    }
}

// Any order of the three keys can be rebuilt from the records, so none needs
// the maps kept. The state's type once passed for the end's when "state"
// came after "end", and such lists kept their maps.
TEST(EntryForm, EveryKeyOrderIsRebuilt) {
    for (const variant_list_t& sent : everyKeyOrder()) {
        bool kept = true;
        readBack(sent, &kept);
        EXPECT_FALSE(kept) << json(sent);
    }
}

TEST(EntryForm, RefusesAnElementThatIsNoEntry) {
    const variant_t entry = onAt(variant_t(1U), variant_t(2U));
    bool kept = false;
    for (const variant_list_t& list :
         {variant_list_t{entry, variant_t("junk")}, variant_list_t{variant_t()},
          variant_list_t{entryMap({{"state", variant_t("on")}, {"begin", variant_t(1U)}})}}) {
        EXPECT_FALSE(readBack(list, &kept)) << json(list);
    }
}

}  // namespace
