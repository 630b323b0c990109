#include "next_change.h"

#include <cstdint>
#include <span>

namespace {

// A search gives up after this many shifted periods; entries that pass
// verification never need more than one.
constexpr int kMaxPeriodShifts = 4;

// What a step of the search decided.
struct found_t {
    std::int64_t offset;  // from the reference time
    std::string state;
    bool isEvent = false;
};

// The schedule as the search reads it: its entries, its default state, and
// the geometry of the period that contains t.
struct search_t {
    std::span<const schedule_entry_t> entries;
    const std::string* defaultState = nullptr;
    int base = time_base_unknown;
    std::int64_t period = 0;  // max, or the calendar length for Monthly and Yearly
    std::int64_t ref = 0;
    std::int64_t rel = 0;
};

// Entry times are offsets from the reference time, read as signed 32-bit
// numbers ("Once" stores absolute times the same way).
std::int64_t beginOf(const schedule_entry_t& entry) {
    return static_cast<std::int32_t>(entry.begin);
}

std::int64_t endOf(const schedule_entry_t& entry) {
    return static_cast<std::int32_t>(entry.end);
}

// Run following reads the bound unsigned: "Once" has -1, no limit at all.
bool belowRunBound(const search_t& search, std::int64_t runEnd) {
    return search.base == time_base_once || runEnd < search.period;
}

// Where a run that ended at runEnd goes next: a gap falls back to the
// default, another state is a change; the same state continues the run.
std::optional<found_t> runStep(const search_t& search, const schedule_entry_t& first,
                               const schedule_entry_t& next, std::int64_t nextBegin,
                               std::int64_t runEnd) {
    if (nextBegin != runEnd) {
        return found_t{runEnd, *search.defaultState};
    }
    if (next.state != first.state) {
        return found_t{runEnd, next.state};
    }
    return std::nullopt;
}

// The run that starts with entry e continues while entries follow without a
// gap and with the same state; the change is at the run's end. shift places
// the run in a later period. nullopt: the whole period is one run.
std::optional<found_t> followRun(const search_t& search, std::size_t e, std::int64_t shift) {
    const schedule_entry_t& first = search.entries[e];
    std::int64_t runEnd = shift + endOf(first);
    for (std::size_t f = e + 1; f < search.entries.size() && belowRunBound(search, runEnd); ++f) {
        const schedule_entry_t& next = search.entries[f];
        if (auto found = runStep(search, first, next, shift + beginOf(next), runEnd)) {
            return found;
        }
        runEnd = shift + endOf(next);
    }
    for (const schedule_entry_t& next : search.entries) {
        const std::int64_t later = shift + search.period;
        if (auto found = runStep(search, first, next, later + beginOf(next), runEnd)) {
            return found;
        }
        runEnd = later + endOf(next);
    }
    return std::nullopt;
}

// The first change after rel in the period that starts at shift: the next
// begin, or the end of the run in force at rel. Later periods follow while
// nothing is found.
std::optional<found_t> periodSearch(const search_t& search, std::int64_t shift, int depth) {
    if (depth > kMaxPeriodShifts) {
        return std::nullopt;
    }
    for (std::size_t x = 0; x < search.entries.size(); ++x) {
        const schedule_entry_t& entry = search.entries[x];
        if (search.rel < shift + beginOf(entry)) {
            return found_t{shift + beginOf(entry), entry.state, beginOf(entry) == endOf(entry)};
        }
        if (search.rel < shift + endOf(entry)) {
            if (std::optional<found_t> found = followRun(search, x, shift)) {
                return found;
            }
            return periodSearch(search, shift + search.period, depth + 1);
        }
    }
    // Past every entry of the current period the next period follows; past
    // every entry of a later one there is nothing left.
    if (search.entries.empty() || depth > 0) {
        return std::nullopt;
    }
    return periodSearch(search, search.period, 1);
}

search_t prepare(const schedule_spec_t& spec, time_t t) {
    search_t search;
    search.base = spec.base;
    search.defaultState = &spec.defaultState;
    search.entries = spec.entries;
    search.ref = time_calculateReferenceTime(spec.base, t);
    search.period = time_getPeriodLength(spec.base, t, search.ref);
    search.rel = static_cast<std::int64_t>(t) - search.ref;
    return search;
}

std::optional<change_t> nextFrom(const search_t& search) {
    std::optional<found_t> found = periodSearch(search, 0, 0);
    if (!found) {
        return std::nullopt;
    }
    return change_t{static_cast<time_t>(search.ref + found->offset), std::move(found->state),
                    found->isEvent};
}

std::optional<change_t> afterHeld(const schedule_spec_t& spec, std::optional<change_t> next,
                                  const std::string* heldState) {
    if (next && heldState != nullptr && *heldState == next->state) {
        return schedule_nextChange(spec, next->time);
    }
    return next;
}

}  // namespace

std::optional<change_t> schedule_nextChange(const schedule_spec_t& spec, time_t t) {
    return nextFrom(prepare(spec, t));
}

std::optional<change_t> schedule_nextChangeHeld(const schedule_spec_t& spec, time_t t,
                                                const std::string* heldState) {
    return afterHeld(spec, schedule_nextChange(spec, t), heldState);
}

position_t schedule_position(const schedule_spec_t& spec, time_t t, const std::string* heldState) {
    const search_t search = prepare(spec, t);
    position_t position;
    position.next = afterHeld(spec, nextFrom(search), heldState);
    position.state = schedule_stateAtOffset(spec.entries, static_cast<std::int32_t>(search.rel),
                                            spec.defaultState);
    return position;
}
