#include "schedule_rules.h"

#include <algorithm>


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

// The rule an entry breaks on its own, given the kind of the first entry.
std::optional<breach_t::rule_t> entryBreach(const schedule_entry_t& entry, entry_kind_t first,
                                            std::uint32_t boundary,
                                            std::span<const std::string> states) {
    if (kindOf(entry) != first) {
        return breach_t::mixed;
    }
    if (first == entry_kind_t::state && signedOffset(entry.end) < signedOffset(entry.begin)) {
        return breach_t::reversed;
    }
    // Unsigned on purpose: negative offsets exceed every limit but that of
    // "Once", which is -1 and so the largest unsigned number.
    if (entry.begin > boundary || entry.end > boundary) {
        return breach_t::beyond;
    }
    if (!schedule_isState(states, entry.state)) {
        return breach_t::unknownState;
    }
    return std::nullopt;
}

bool overlaps(const schedule_entry_t& earlier, const schedule_entry_t& later) {
    return signedOffset(later.begin) < signedOffset(earlier.end);
}

}  // namespace

std::vector<std::size_t> schedule_order(std::span<const schedule_entry_t> entries) {
    std::vector<std::size_t> order(entries.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return signedOffset(entries[a].begin) < signedOffset(entries[b].begin);
    });
    return order;
}

std::vector<schedule_entry_t> schedule_searched(std::span<const schedule_entry_t> ordered,
                                                std::string_view defaultState) {
    std::vector<schedule_entry_t> searched;
    searched.reserve(ordered.size());
    for (const schedule_entry_t& entry : ordered) {
        if (kindOf(entry) == entry_kind_t::event || entry.state != defaultState) {
            searched.push_back(entry);
        }
    }
    return searched;
}

std::optional<breach_t> schedule_verify(std::span<const schedule_entry_t> ordered, int base,
                                        std::span<const std::string> states) {
    const auto boundary = static_cast<std::uint32_t>(time_getMaxBoundary(base));
    const entry_kind_t first = ordered.empty() ? entry_kind_t::none : kindOf(ordered.front());
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        if (std::optional<breach_t::rule_t> rule =
                entryBreach(ordered[i], first, boundary, states)) {
            return breach_t{*rule, i, 0};
        }
        if (i + 1 < ordered.size() && overlaps(ordered[i], ordered[i + 1])) {
            return breach_t{breach_t::overlap, i, i + 1};
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
