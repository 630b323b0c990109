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

struct entrylist_t {
    std::vector<schedule_entry_t> entries;
    // Set when the maps can be rebuilt from the records.
    std::optional<entrylist_form_t> form;
    // The maps as given, kept only when they follow no single form.
    std::shared_ptr<const variant_list_t> given;
};

// Packs an ordered, verified list; nullopt when an element is not an entry.
std::optional<entrylist_t> entrylist_pack(std::shared_ptr<const variant_list_t> list);
// The entry maps as they were given to entrylist_pack.
std::shared_ptr<const variant_list_t> entrylist_variants(const entrylist_t& list);
