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

// A schedule as the search reads it: its entries ordered by begin and
// verified, without the spans that set the default state (they change
// nothing), and the state between them. Events are all kept: each is sent.
struct schedule_spec_t {
    int base = time_base_unknown;
    std::vector<schedule_entry_t> entries;
    std::string defaultState;
};

// The positions of the entries ordered by begin; entries with equal begins
// keep the order they were written in.
std::vector<std::size_t> schedule_order(std::span<const schedule_entry_t> entries);
// The entries that the search reads: all but the spans in the default state.
std::vector<schedule_entry_t> schedule_searched(std::span<const schedule_entry_t> ordered,
                                                std::string_view defaultState);

// The rule an entry breaks, and where: at and other are positions in the
// ordered list.
struct breach_t {
    enum rule_t {
        // other is the first entry of the other kind.
        mixed,
        reversed,
        beyond,
        unknownState,
        // other is the entry at overlaps.
        overlap,
    } rule;
    std::size_t at = 0;
    std::size_t other = 0;
};
// The first rule an ordered list breaks in a schedule of base whose type
// allows states, or nothing: one schedule holds events or spans, not both;
// no span ends before it begins; every time lies within the base's
// boundary; every state is the type's; no two entries overlap.
std::optional<breach_t> schedule_verify(std::span<const schedule_entry_t> ordered, int base,
                                        std::span<const std::string> states);
// True when state is one of states (exact comparison).
bool schedule_isState(std::span<const std::string> states, std::string_view state);
// The state the schedule holds at t: that of the span covering t's offset in
// its period, else the default.
std::string schedule_stateAt(const schedule_spec_t& spec, time_t t);
// The same for an offset from the period's start that is already known.
std::string schedule_stateAtOffset(std::span<const schedule_entry_t> entries, std::int32_t rel,
                                   std::string_view defaultState);
