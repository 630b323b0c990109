// Ordering and verification of a schedule's entries, and the state a
// schedule holds at a given time.
//
// Entry lists hold entry maps ("state", "begin", "end"). Ordering and overlap
// compare begin and end as signed 32-bit numbers; only the boundary check
// reads them unsigned, so that the -1 boundary of "Once" sets no limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "orv/variant.h"
#include "scheduler_plugin_common.h"

// A new list ordered by begin, without the entries that set the default
// state. Entries with equal begin come out in the reverse of their input
// order. Elements that are not valid entries are kept, at the end, so that
// verification refuses them.
std::optional<variant_list_t> schedule_order(const variant_list_t& entries,
                                             std::string_view defaultState);
// Checks an ordered list against the base's boundary and the allowed states:
// no bad element, no mix of event and state entries, no end before begin,
// nothing beyond the boundary, no unknown state, no overlap. Traces exactly
// one reason when it refuses.
bool schedule_verify(const variant_list_t& entries, int base, const variant_list_t* states);
// False when the element at index overlaps its predecessor or its successor.
bool schedule_checkOverlappings(const variant_list_t& entries, std::size_t index);
// True when state is the text of an element of states (exact comparison).
bool schedule_validateState(const variant_list_t* states, std::string_view state);
// The state the schedule holds at t: that of the state entry covering t's
// offset in its period, else the default. The entries are ordered by begin.
std::string schedule_currentState(std::span<const schedule_entry_t> entries, int base, time_t t,
                                  std::string_view defaultState);
// The same for an offset from the reference time that is already known.
std::string schedule_stateAtOffset(std::span<const schedule_entry_t> entries, std::int32_t rel,
                                   std::string_view defaultState);
// Traces each element of a list as JSON (a diagnostic).
void schedule_printSchedule(const variant_list_t& list);
