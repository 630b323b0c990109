// A schedule as the engine reads it, and the rules its entries obey.
//
// Entries count seconds from the start of the period of their base
// ("Once": seconds since the epoch). Ordering and overlap compare begin and
// end as signed 32-bit numbers; only the boundary check reads them unsigned,
// so that the -1 boundary of "Once" sets no limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "scheduler_plugin_common.h"
#include "time_base.h"

// A schedule parsed once, when it is added: its entries ordered by begin and
// verified, and the state between them.
struct schedule_spec_t {
    int base = time_base_unknown;
    std::vector<schedule_entry_t> entries;
    std::string defaultState;
};

// The positions of the entries to keep, ordered by begin: entries that set
// the default state change nothing and are left out, and entries with equal
// begins come out in the reverse of their input order.
std::vector<std::size_t> schedule_order(std::span<const schedule_entry_t> entries,
                                        std::string_view defaultState);
// Why an ordered list cannot stand in a schedule of base whose type allows
// states, or nothing when it can: a mix of events and spans, an end before
// its begin, a time beyond the base's boundary, an unknown state, or an
// overlap.
std::optional<std::string> schedule_verify(std::span<const schedule_entry_t> ordered, int base,
                                           std::span<const std::string> states);
// True when state is one of states (exact comparison).
bool schedule_isState(std::span<const std::string> states, std::string_view state);
// The state the schedule holds at t: that of the span covering t's offset in
// its period, else the default.
std::string schedule_stateAt(const schedule_spec_t& spec, time_t t);
// The same for an offset from the period's start that is already known.
std::string schedule_stateAtOffset(std::span<const schedule_entry_t> entries, std::int32_t rel,
                                   std::string_view defaultState);
