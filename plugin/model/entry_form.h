// The stored entries of a schedule instance.
//
// A schedule's entries arrive as a list of entry maps and are read many times
// afterwards: each next-change search, each recomputation and each simulation
// step walks them. They are therefore converted once, when the instance is
// made, into packed records. A read-back must still return the maps exactly
// as the client sent them (key order and number types included), so the list
// also remembers how to rebuild them; only a list that cannot be rebuilt that
// way keeps the maps themselves.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "orv/variant.h"
#include "scheduler_plugin_common.h"

// How every entry map of a list was written: the position of "state",
// "begin" and "end" among its three keys, and the number types of the times.
struct entrylist_form_t {
    std::array<std::uint8_t, 3> keyAt{};
    variant_type_t beginType = variant_type_unknown;
    variant_type_t endType = variant_type_unknown;
};

// How to give a schedule's entries back.
struct entry_form_t {
    // Set when the maps can be rebuilt from the records.
    std::optional<entrylist_form_t> form;
    // The maps as given (ordered), kept only when they follow no single form.
    std::shared_ptr<const variant_list_t> given;
};

struct parsed_entries_t {
    // Every entry as written, ordered by begin.
    std::vector<schedule_entry_t> entries;
    // The position in the list as sent of each entry.
    std::vector<std::size_t> order;
    entry_form_t form;
};

// Parses and orders the entry maps of a schedule. When an element is not an
// entry map, its position in the list.
struct entries_result_t {
    std::optional<parsed_entries_t> parsed;
    std::size_t badElement = 0;
};
entries_result_t entries_parse(const variant_list_t& maps);
// The entry maps as they were given to entries_parse, in order.
std::shared_ptr<const variant_list_t> entries_maps(std::span<const schedule_entry_t> entries,
                                                   const entry_form_t& form);
