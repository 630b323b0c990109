#include "scheduler_schedule.h"

#include <cstdint>
#include <memory>
#include <new>
#include <string>

#include "orv/string.h"
#include "orv/trace.h"
#include "scheduler_plugin_common.h"
#include "scheduler_time.h"

namespace {

enum class entry_kind_t { none, state, event };

// Offsets are stored unsigned but mean signed seconds everywhere except in the
// boundary check.
std::int32_t signedOffset(std::uint32_t offset) {
    return static_cast<std::int32_t>(offset);
}

entry_kind_t kindOf(const schedule_entry_t& entry) {
    return entry.begin == entry.end ? entry_kind_t::event : entry_kind_t::state;
}

// The position in front of the first valid entry that begins at or after
// begin. Invalid elements have no begin to compare, so the walk counts them
// and goes on.
std::size_t insertionIndex(const variant_list_t& ordered, std::int32_t begin) {
    std::size_t index = 0;
    for (const variant_t& element : ordered) {
        std::unique_ptr<schedule_entry_t> placed = variant2schedule_entry_t(&element);
        if (placed && signedOffset(placed->begin) >= begin) {
            break;
        }
        ++index;
    }
    return index;
}

void placeEntry(variant_list_t* ordered, const variant_t& element, std::string_view defaultState) {
    std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&element);
    if (!entry) {
        // Kept so that verification refuses the whole schedule.
        ordered->push_back(element);
        return;
    }
    if (entry->state == defaultState) {
        tolvTraceZ(300, ME, "found a schedule entry setting the default value, removing it");
        return;
    }
    std::size_t index = insertionIndex(*ordered, signedOffset(entry->begin));
    ordered->insert(ordered->begin() + static_cast<std::ptrdiff_t>(index), element);
}

// Why an entry cannot stand in a schedule whose earlier entries are of the
// given kind, or nothing when it can. Updates the kind.
std::optional<std::string> entryProblem(const schedule_entry_t& entry, std::uint32_t boundary,
                                        const variant_list_t* states, entry_kind_t* kind) {
    const entry_kind_t own = kindOf(entry);
    if (*kind != entry_kind_t::none && *kind != own) {
        return "Mixed event/state schedules are not allowed";
    }
    if (own == entry_kind_t::state && signedOffset(entry.end) < signedOffset(entry.begin)) {
        return "end starts before begin...";
    }
    *kind = own;
    // Unsigned on purpose: negative offsets exceed every limit but that of
    // "Once", which is -1 and so the largest unsigned number.
    if (entry.begin > boundary || entry.end > boundary) {
        return string_format("schedule out of boundary begin=%ld, end=%ld, boundary=%d",
                             static_cast<long>(entry.begin), static_cast<long>(entry.end),
                             static_cast<std::int32_t>(boundary));
    }
    if (!schedule_validateState(states, entry.state)) {
        return "invalid state detected in schedule";
    }
    return std::nullopt;
}

// Why a neighbour rules the entry out, or null: the neighbour is not an entry,
// or the later of the two begins before the earlier one ends.
const char* neighbourProblem(const variant_t& neighbour, const schedule_entry_t& entry,
                             bool neighbourIsLater) {
    std::unique_ptr<schedule_entry_t> other = variant2schedule_entry_t(&neighbour);
    if (!other) {
        return "error getting schedule entry";
    }
    const schedule_entry_t& earlier = neighbourIsLater ? entry : *other;
    const schedule_entry_t& later = neighbourIsLater ? *other : entry;
    if (signedOffset(later.begin) < signedOffset(earlier.end)) {
        return "overlapping detected";
    }
    return nullptr;
}

}  // namespace

std::optional<variant_list_t> schedule_order(const variant_list_t& entries,
                                             std::string_view defaultState) {
    // Allocation is the only way ordering can fail; the caller's list is
    // untouched then, and no exception reaches the bus handlers.
    try {
        variant_list_t ordered;
        for (const variant_t& element : entries) {
            placeEntry(&ordered, element, defaultState);
        }
        return ordered;
    } catch (const std::bad_alloc&) {
        tolvTrace(100, "out of memory");
        return std::nullopt;
    }
}

bool schedule_verify(const variant_list_t& entries, int base, const variant_list_t* states) {
    const auto boundary = static_cast<std::uint32_t>(time_getMaxBoundary(base));
    entry_kind_t kind = entry_kind_t::none;
    for (std::size_t index = 0; index < entries.size(); ++index) {
        std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&entries[index]);
        if (!entry) {
            tolvTrace(100, "error getting schedule entry");
            return false;
        }
        if (std::optional<std::string> problem = entryProblem(*entry, boundary, states, &kind)) {
            tolvTrace(100, "%s", problem->c_str());
            return false;
        }
        if (!schedule_checkOverlappings(entries, index)) {
            tolvTrace(100, "invalid overlapping detected in schedule");
            return false;
        }
    }
    return true;
}

bool schedule_checkOverlappings(const variant_list_t& entries, std::size_t index) {
    std::unique_ptr<schedule_entry_t> entry =
        index < entries.size() ? variant2schedule_entry_t(&entries[index]) : nullptr;
    if (!entry) {
        tolvTrace(100, "error getting schedule entry");
        return false;
    }
    // Both neighbours are examined even when the first one fails, so that
    // each conflict is traced.
    bool valid = true;
    if (index > 0) {
        if (const char* problem = neighbourProblem(entries[index - 1], *entry, false)) {
            tolvTrace(100, "%s", problem);
            valid = false;
        }
    }
    if (index + 1 < entries.size()) {
        if (const char* problem = neighbourProblem(entries[index + 1], *entry, true)) {
            tolvTrace(100, "%s", problem);
            valid = false;
        }
    }
    return valid;
}

bool schedule_validateState(const variant_list_t* states, std::string_view state) {
    if (states == nullptr) {
        return false;
    }
    for (const variant_t& allowed : *states) {
        std::optional<std::string> name = variant_toChar(&allowed);
        if (name && *name == state) {
            return true;
        }
    }
    return false;
}

std::string schedule_currentState(std::span<const schedule_entry_t> entries, int base, time_t t,
                                  std::string_view defaultState) {
    return schedule_stateAtOffset(
        entries, static_cast<std::int32_t>(t - time_calculateReferenceTime(base, t)), defaultState);
}

std::string schedule_stateAtOffset(std::span<const schedule_entry_t> entries, std::int32_t rel,
                                   std::string_view defaultState) {
    for (const schedule_entry_t& entry : entries) {
        // The list is ordered by begin: nothing further on can cover rel.
        if (rel < signedOffset(entry.begin)) {
            break;
        }
        if (rel < signedOffset(entry.end)) {
            return entry.state;
        }
    }
    return std::string(defaultState);
}

void schedule_printSchedule(const variant_list_t& list) {
    for (const variant_t& element : list) {
        std::string json = variant_toJSON(&element);
        tolvTraceZ(400, ME, "v2s JSON = %s", json.c_str());
    }
}
