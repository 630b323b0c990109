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

// A period of the search, counted from the reference time: Monthly and
// Yearly periods each have their calendar length, the others all have the
// base's.
struct period_t {
    std::int64_t start = 0;
    std::int64_t length = 0;
};

bool isCalendar(const search_t& search) {
    return search.base == time_base_monthly || search.base == time_base_yearly;
}

period_t periodAfter(const search_t& search, const period_t& period) {
    if (!isCalendar(search)) {
        return {period.start + search.period, search.period};
    }
    const std::int64_t start = period.start + period.length;
    const auto at = static_cast<time_t>(search.ref + start);
    return {start, time_getPeriodLength(search.base, at, at)};
}

// A calendar period may lack an entry's day (the 30th in February): the
// entry does not occur in it, and a span that runs past its end stops there.
bool occursIn(const search_t& search, const schedule_entry_t& entry, const period_t& period) {
    return !isCalendar(search) || beginOf(entry) < period.length;
}

std::int64_t endIn(const search_t& search, const schedule_entry_t& entry, const period_t& period) {
    const std::int64_t end = endOf(entry);
    return period.start + (isCalendar(search) && end > period.length ? period.length : end);
}

// Run following reads the bound unsigned: "Once" has -1, no limit at all.
bool belowRunBound(const search_t& search, const period_t& period, std::int64_t runEnd) {
    return search.base == time_base_once || runEnd < period.start + period.length;
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

// The run that starts with entry e of a period continues while entries
// follow without a gap and with the same state, into the next period too;
// the change is at the run's end. nullopt: the whole period is one run.
std::optional<found_t> followRun(const search_t& search, std::size_t e, const period_t& period) {
    const schedule_entry_t& first = search.entries[e];
    std::int64_t runEnd = endIn(search, first, period);
    for (std::size_t f = e + 1;
         f < search.entries.size() && belowRunBound(search, period, runEnd) &&
         occursIn(search, search.entries[f], period);
         ++f) {
        const schedule_entry_t& next = search.entries[f];
        if (auto found = runStep(search, first, next, period.start + beginOf(next), runEnd)) {
            return found;
        }
        runEnd = endIn(search, next, period);
    }
    const period_t later = periodAfter(search, period);
    for (const schedule_entry_t& next : search.entries) {
        if (!occursIn(search, next, later)) {
            break;
        }
        if (auto found = runStep(search, first, next, later.start + beginOf(next), runEnd)) {
            return found;
        }
        runEnd = endIn(search, next, later);
    }
    return std::nullopt;
}

// The first change after rel in a period: the next begin, or the end of the
// run in force at rel. Later periods follow while nothing is found.
std::optional<found_t> periodSearch(const search_t& search, const period_t& period, int depth) {
    if (depth > kMaxPeriodShifts || search.entries.empty()) {
        return std::nullopt;
    }
    for (std::size_t x = 0; x < search.entries.size(); ++x) {
        const schedule_entry_t& entry = search.entries[x];
        if (!occursIn(search, entry, period)) {
            break;
        }
        const std::int64_t begin = period.start + beginOf(entry);
        if (search.rel < begin) {
            return found_t{begin, entry.state, beginOf(entry) == endOf(entry)};
        }
        if (search.rel < endIn(search, entry, period)) {
            if (std::optional<found_t> found = followRun(search, x, period)) {
                return found;
            }
            break;
        }
    }
    return periodSearch(search, periodAfter(search, period), depth + 1);
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
    std::optional<found_t> found = periodSearch(search, period_t{0, search.period}, 0);
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
