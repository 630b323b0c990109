#include "scheduler/schedule.h"

#include <algorithm>
#include <array>
#include <string>

namespace scheduler {

namespace {

constexpr std::array<std::string_view, 6> kBaseNames = {"Once",   "Hourly",  "Daily",
                                                        "Weekly", "Monthly", "Yearly"};
// The longest period of each base: Monthly and Yearly take the longest month
// and year; a Once schedule's entries may hold any time.
constexpr std::array<std::uint32_t, 6> kBoundaries = {UINT32_MAX, 3600,    86400,
                                                      604800,     2678400, 31622400};

// The scheduler refuses a whole call that carries a longer text or a longer
// list of entries, so one such schedule would keep a registration out.
constexpr std::size_t kMaxTextBytes = 4096;
constexpr std::size_t kMaxEntries = 1024;

bool allowed(const std::vector<std::string>& states, const std::string& state) {
    return std::find(states.begin(), states.end(), state) != states.end();
}

std::string span(const entry_t& entry) {
    return entry.state + " " + std::to_string(entry.begin) + "-" + std::to_string(entry.end);
}

// The scheduler leaves out the entries that hold the default state, so the
// order and overlap rules apply to the others only.
std::vector<entry_t> effectiveEntries(const schedule_t& schedule) {
    std::vector<entry_t> kept;
    for (const entry_t& entry : schedule.entries) {
        if (entry.state != schedule.default_state) {
            kept.push_back(entry);
        }
    }
    std::stable_sort(kept.begin(), kept.end(),
                     [](const entry_t& a, const entry_t& b) { return a.begin < b.begin; });
    return kept;
}

std::optional<std::string> entryProblem(const entry_t& entry, std::uint32_t boundary,
                                        const std::vector<std::string>& states) {
    if (!allowed(states, entry.state)) {
        return "entry " + span(entry) + ": the state \"" + entry.state +
               "\" is not one of the type's states";
    }
    if (entry.end < entry.begin) {
        return "entry " + span(entry) + ": it ends before it begins";
    }
    if (entry.end > boundary) {
        return "entry " + span(entry) + ": it ends after the period's " + std::to_string(boundary) +
               " seconds";
    }
    return std::nullopt;
}

std::optional<std::string> entriesProblem(const schedule_t& schedule,
                                          const std::vector<std::string>& states) {
    const std::uint32_t boundary = kBoundaries[static_cast<std::size_t>(schedule.base)];
    for (const entry_t& entry : schedule.entries) {
        if (auto problem = entryProblem(entry, boundary, states)) {
            return problem;
        }
    }
    const std::vector<entry_t> kept = effectiveEntries(schedule);
    for (std::size_t i = 1; i < kept.size(); ++i) {
        const entry_t& earlier = kept[i - 1];
        const entry_t& later = kept[i];
        if ((earlier.begin == earlier.end) != (later.begin == later.end)) {
            return "entries " + span(earlier) + " and " + span(later) +
                   ": events and spans cannot be mixed";
        }
        if (later.begin < earlier.end) {
            return "entries " + span(earlier) + " and " + span(later) + " overlap";
        }
    }
    return std::nullopt;
}

}  // namespace

std::string_view base_name(base_t base) {
    return kBaseNames[static_cast<std::size_t>(base)];
}

std::optional<base_t> base_from_name(std::string_view name) {
    for (std::size_t i = 0; i < kBaseNames.size(); ++i) {
        if (kBaseNames[i] == name) {
            return static_cast<base_t>(i);
        }
    }
    return std::nullopt;
}

std::optional<std::string> validate(const schedule_t& schedule,
                                    const std::vector<std::string>& states) {
    if (schedule.id.empty()) {
        return "the schedule has no ID";
    }
    if (schedule.id.size() > kMaxTextBytes) {
        return "the ID is longer than 4096 bytes";
    }
    if (schedule.entries.size() > kMaxEntries) {
        return "the schedule has more than 1024 entries";
    }
    if (!allowed(states, schedule.default_state)) {
        return "the default state \"" + schedule.default_state +
               "\" is not one of the type's states";
    }
    if (!schedule.override_state.empty() && !allowed(states, schedule.override_state)) {
        return "the override \"" + schedule.override_state + "\" is not one of the type's states";
    }
    return entriesProblem(schedule, states);
}

}  // namespace scheduler
