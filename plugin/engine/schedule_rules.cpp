#include "schedule_rules.h"

#include <algorithm>

#include "orv/string.h"

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

// Why an entry cannot stand in a schedule whose earlier entries are of the
// given kind, or nothing when it can. Updates the kind.
std::optional<std::string> entryProblem(const schedule_entry_t& entry, std::uint32_t boundary,
                                        std::span<const std::string> states, entry_kind_t* kind) {
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
    if (!schedule_isState(states, entry.state)) {
        return "invalid state detected in schedule";
    }
    return std::nullopt;
}

bool overlaps(const schedule_entry_t& earlier, const schedule_entry_t& later) {
    return signedOffset(later.begin) < signedOffset(earlier.end);
}

}  // namespace

std::vector<std::size_t> schedule_order(std::span<const schedule_entry_t> entries,
                                        std::string_view defaultState) {
    std::vector<std::size_t> kept;
    kept.reserve(entries.size());
    // Walking the input backwards and sorting stably puts the later of two
    // equal begins first.
    for (std::size_t i = entries.size(); i-- > 0;) {
        if (entries[i].state != defaultState) {
            kept.push_back(i);
        }
    }
    std::stable_sort(kept.begin(), kept.end(), [&](std::size_t a, std::size_t b) {
        return signedOffset(entries[a].begin) < signedOffset(entries[b].begin);
    });
    return kept;
}

std::optional<std::string> schedule_verify(std::span<const schedule_entry_t> ordered, int base,
                                           std::span<const std::string> states) {
    const auto boundary = static_cast<std::uint32_t>(time_getMaxBoundary(base));
    entry_kind_t kind = entry_kind_t::none;
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        if (std::optional<std::string> problem =
                entryProblem(ordered[i], boundary, states, &kind)) {
            return problem;
        }
        if (i + 1 < ordered.size() && overlaps(ordered[i], ordered[i + 1])) {
            return string_format("overlapping detected: entries at %ld and %ld",
                                 static_cast<long>(signedOffset(ordered[i].begin)),
                                 static_cast<long>(signedOffset(ordered[i + 1].begin)));
        }
    }
    return std::nullopt;
}

bool schedule_isState(std::span<const std::string> states, std::string_view state) {
    return std::find(states.begin(), states.end(), state) != states.end();
}

std::string schedule_stateAt(const schedule_spec_t& spec, time_t t) {
    const time_t ref = time_calculateReferenceTime(spec.base, t);
    return schedule_stateAtOffset(spec.entries, static_cast<std::int32_t>(t - ref),
                                  spec.defaultState);
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
