#include "scheduler_peeklist.h"

#include <algorithm>
#include <compare>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "orv/object.h"
#include "orv/trace.h"
#include "scheduler_entry.h"
#include "scheduler_peekindex.h"
#include "scheduler_plugin.h"
#include "scheduler_plugin_common.h"
#include "scheduler_schedule.h"
#include "scheduler_time.h"

namespace {

// The agenda. Entries run in ascending time; among equal times the entry
// added last comes first. Each entry is filed under the time it was added
// with, so that peeklist_setNextEventTime can move the head's time without
// moving the head.
struct agenda_key_t {
    time_t time;
    // Descending insertion order: later entries sort first among equals.
    std::uint64_t order;
    auto operator<=>(const agenda_key_t&) const = default;
};

using agenda_t = std::map<agenda_key_t, peeklist_entry_ptr>;
agenda_t agenda;
// Each schedule's entries in the agenda, so that removing one neither walks
// nor searches the agenda: the tree's own iterators stay valid until their
// entry is erased.
peekindex_t<agenda_t::iterator> bySchedule;
std::uint64_t added = 0;

constexpr std::int64_t kLongestTimeoutMs = std::numeric_limits<std::uint32_t>::max();

bool earlier(const agenda_t::iterator& a, const agenda_t::iterator& b) {
    return a->first < b->first;
}

// The key of an entry added now.
agenda_key_t keyFor(time_t time) {
    return {time, std::numeric_limits<std::uint64_t>::max() - added++};
}

using filed_entry_t = std::pair<agenda_key_t, peeklist_entry_ptr>;

// Files keyed entries in the agenda and the index, sorted first: a rebuild of
// the whole agenda then appends to the tree instead of searching it for each
// position. The nodes of spare are reused, so that a rebuild does not free
// and allocate one node per schedule.
void fileInOrder(std::vector<filed_entry_t> entries, agenda_t& spare) {
    std::sort(entries.begin(), entries.end(),
              [](const filed_entry_t& a, const filed_entry_t& b) { return a.first < b.first; });
    for (auto& [key, entry] : entries) {
        const object_t* object = entry->object;
        agenda_t::iterator filed;
        if (spare.empty()) {
            filed = agenda.emplace_hint(agenda.end(), key, std::move(entry));
        } else {
            agenda_t::node_type node = spare.extract(spare.begin());
            node.key() = key;
            node.mapped() = std::move(entry);
            filed = agenda.insert(agenda.end(), std::move(node));
        }
        bySchedule.insert(object, filed);
    }
}

}  // namespace

bool peeklist_addEntry(peeklist_entry_ptr entry) {
    if (!entry) {
        tolvTrace(100, "Cannot add a NULL pointer to the peek list");
        return false;
    }
    const object_t* object = entry->object;
    bySchedule.insert(object, agenda.emplace(keyFor(entry->time), std::move(entry)).first);
    return true;
}

void peeklist_removeEntry(const object_t* object) {
    // The schedule's first entry in agenda order.
    if (std::optional<agenda_t::iterator> first = bySchedule.first(object, earlier)) {
        bySchedule.erase(object, *first);
        agenda.erase(*first);
    }
}

void peeklist_removeComleteList() {
    agenda.clear();
    bySchedule.clear();
}

peeklist_entry_ptr peeklist_takeFirstTimedOutEntry(time_t now) {
    if (agenda.empty() || agenda.begin()->second->time > now) {
        return nullptr;
    }
    peeklist_entry_ptr head = std::move(agenda.begin()->second);
    bySchedule.erase(head->object, agenda.begin());
    agenda.erase(agenda.begin());
    return head;
}

std::int64_t peeklist_getNextTimeOut(time_t now) {
    if (agenda.empty()) {
        return -1;
    }
    std::int64_t seconds =
        static_cast<std::int64_t>(agenda.begin()->second->time) - static_cast<std::int64_t>(now);
    if (seconds > kLongestTimeoutMs / 1000) {
        return kLongestTimeoutMs;
    }
    return seconds * 1000;
}

const peeklist_entry_t* peeklist_getGlobalPeeklist() {
    return agenda.empty() ? nullptr : agenda.begin()->second.get();
}

const peeklist_entry_t* peeklist_getNextEntry() {
    if (agenda.size() < 2) {
        return nullptr;
    }
    return std::next(agenda.begin())->second.get();
}

bool peeklist_setNextEventTime(time_t t) {
    if (agenda.empty()) {
        return false;
    }
    agenda.begin()->second->time = t;
    return true;
}

std::size_t peeklist_size() {
    return agenda.size();
}

// ---------------------------------------------------------------------------
// The next change of one schedule.

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
    std::string defaultState;
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

// The run that starts with entry e continues while entries follow without a
// gap and with the same state; the change is at the run's end. shift places
// the run in a later period. nullopt: the whole period is one run.
std::optional<found_t> followRun(const search_t& search, std::size_t e, std::int64_t shift) {
    const schedule_entry_t& first = search.entries[e];
    std::int64_t runEnd = shift + endOf(first);
    tolvTraceZ(400, ME, "endtime = %ld < max = %ld", static_cast<long>(runEnd),
               static_cast<long>(search.period));
    for (std::size_t f = e + 1; f < search.entries.size() && belowRunBound(search, runEnd); ++f) {
        const schedule_entry_t& next = search.entries[f];
        tolvTraceZ(400, ME, "Next event detected in current timeslot");
        if (shift + beginOf(next) != runEnd) {
            return found_t{runEnd, search.defaultState};
        }
        if (next.state != first.state) {
            return found_t{runEnd, next.state};
        }
        runEnd = shift + endOf(next);
    }
    tolvTrace(200, "next timeslot");
    for (const schedule_entry_t& next : search.entries) {
        std::int64_t nextBegin = shift + search.period + beginOf(next);
        tolvTrace(200, "endtime=%ld e2+m=%ld", static_cast<long>(runEnd),
                  static_cast<long>(nextBegin));
        if (nextBegin != runEnd) {
            return found_t{runEnd, search.defaultState};
        }
        if (next.state != first.state) {
            return found_t{runEnd, next.state};
        }
        runEnd = shift + search.period + endOf(next);
    }
    return std::nullopt;
}

std::optional<found_t> nextPeriodSearch(const search_t& search, std::int64_t shift, int depth);

// The first change after rel inside the current period, or the end of the
// run in force at rel.
std::optional<found_t> currentPeriodSearch(const search_t& search) {
    for (std::size_t x = 0; x < search.entries.size(); ++x) {
        const schedule_entry_t& entry = search.entries[x];
        if (search.rel < beginOf(entry)) {
            tolvTrace(200, "now=before begin");
            bool isEvent = beginOf(entry) == endOf(entry);
            if (isEvent) {
                tolvTrace(200, "isEvent:begin==end");
            }
            return found_t{beginOf(entry), entry.state, isEvent};
        }
        if (search.rel < endOf(entry)) {
            tolvTrace(200, "before end (%ld - %ld)", static_cast<long>(search.rel),
                      static_cast<long>(endOf(entry)));
            if (std::optional<found_t> found = followRun(search, x, 0)) {
                return found;
            }
            return nextPeriodSearch(search, 0, 0);
        }
    }
    return nextPeriodSearch(search, 0, 0);
}

// The entries repeat one period later: the first one that begins after rel,
// or the run in force at rel in that later period.
std::optional<found_t> nextPeriodSearch(const search_t& search, std::int64_t shift, int depth) {
    tolvTrace(200, "No more entry found in this timeslot, try next timeslot");
    if (search.entries.empty() || depth >= kMaxPeriodShifts) {
        return std::nullopt;
    }
    const std::int64_t next = shift + search.period;
    for (std::size_t h = 0; h < search.entries.size(); ++h) {
        const schedule_entry_t& entry = search.entries[h];
        tolvTrace(200, "main loop");
        tolvTrace(200, "%ld - %ld", static_cast<long>(search.rel),
                  static_cast<long>(next + beginOf(entry)));
        if (search.rel < next + beginOf(entry)) {
            tolvTrace(200, "now=before begin");
            return found_t{next + beginOf(entry), entry.state, beginOf(entry) == endOf(entry)};
        }
        if (search.rel < next + endOf(entry)) {
            tolvTrace(200, "before end (%ld - %ld)", static_cast<long>(search.rel),
                      static_cast<long>(next + endOf(entry)));
            if (std::optional<found_t> found = followRun(search, h, next)) {
                return found;
            }
            return nextPeriodSearch(search, next, depth + 1);
        }
    }
    return std::nullopt;
}

std::optional<search_t> prepareSearch(const object_t* object, time_t t) {
    const auto* properties = object_getUserData<scheduleentry_properties_t>(object);
    if (properties == nullptr) {
        tolvTrace(100, "could not get schedule user data");
        return std::nullopt;
    }
    search_t search;
    search.base = time_baseToEnum(variant_char(object_parameterValue(object, "Base")).value_or(""));
    std::optional<std::string> defaultState =
        variant_char(object_parameterValue(object, "Default"));
    if (!defaultState) {
        tolvTrace(100, "could not get the default value");
        return std::nullopt;
    }
    search.defaultState = std::move(*defaultState);
    search.ref = time_calculateReferenceTime(search.base, t);
    search.period = time_getPeriodLength(search.base, t, search.ref);
    tolvTrace(200, "now=%ld, ref=%ld", static_cast<long>(t), static_cast<long>(search.ref));
    search.rel = static_cast<std::int64_t>(t) - search.ref;
    search.entries = properties->entries.entries;
    return search;
}

}  // namespace

namespace {

// The next change that a prepared search finds.
peeklist_entry_ptr nextEntry(object_t* object, const search_t& search) {
    std::optional<found_t> found = currentPeriodSearch(search);
    if (!found) {
        return nullptr;
    }
    auto entry = std::make_unique<peeklist_entry_t>();
    entry->object = object;
    entry->time = static_cast<time_t>(search.ref + found->offset);
    entry->state = std::move(found->state);
    entry->isEvent = found->isEvent ? 1 : 0;
    return entry;
}

}  // namespace

peeklist_entry_ptr peeklist_createNextEntry(object_t* object, time_t t) {
    tolvTraceZ(400, ME, "\"peeklist_createNextEntry\" called");
    std::optional<search_t> search = prepareSearch(object, t);
    if (!search) {
        return nullptr;
    }
    return nextEntry(object, *search);
}

// ---------------------------------------------------------------------------
// Temporary overrides and the rebuild of the whole agenda.

namespace {

bool hasTemporaryOverride(const object_t* object) {
    return variant_bool(object_parameterValue(object, "TemporaryOverride"));
}

// Plans the schedule's next change for now into planned and applies the
// state it holds at now when that differs from its current state. One search
// serves both.
bool recalculateOne(object_t* object, time_t now, std::vector<filed_entry_t>& planned) {
    tolvTraceZ(400, ME, "\"peeklist_createNextEntry\" called");
    std::optional<search_t> search = prepareSearch(object, now);
    peeklist_entry_ptr entry =
        adjust_for_temporary_override(object, search ? nextEntry(object, *search) : nullptr);
    if (!entry) {
        tolvTrace(100, "Cannot add a NULL pointer to the peek list");
        tolvTrace(100, "Error calculating the next event time");
        return false;
    }
    const agenda_key_t key = keyFor(entry->time);
    planned.emplace_back(key, std::move(entry));
    std::optional<std::string> current =
        variant_char(object_parameterValue(object, "CurrentState"));
    if (!current) {
        tolvTrace(100, "could not get the currentstate");
        return false;
    }
    std::string state = schedule_stateAtOffset(
        search->entries, static_cast<std::int32_t>(search->rel), search->defaultState);
    if (state != *current && !orv_plugin_setStateRPC(object, state)) {
        tolvTrace(100, "Could not call the setState() RPC");
    }
    return true;
}

}  // namespace

peeklist_entry_ptr adjust_for_temporary_override(object_t* object, peeklist_entry_ptr entry) {
    tolvTraceIn(ME);
    if (!entry || !hasTemporaryOverride(object)) {
        tolvTraceOut(ME);
        return entry;
    }
    tolvTraceZ(400, ME, "Adjusting peeklist for temporary override");
    std::optional<std::string> current =
        variant_char(object_parameterValue(object, "CurrentState"));
    if (!current || *current != entry->state) {
        tolvTraceOut(ME);
        return entry;
    }
    // The change would set the state the override holds already, so it would
    // not end the override: the change after it does.
    peeklist_entry_ptr next = peeklist_createNextEntry(object, entry->time);
    if (next) {
        scheduleentry_setNextStateChange(object, next->time);
        object_commit(object);
    }
    tolvTraceOut(ME);
    return next;
}

bool peeklist_recalculate(time_t now) {
    agenda_t old;
    old.swap(agenda);
    bySchedule.clear();
    std::vector<filed_entry_t> planned;
    planned.reserve(old.size());
    bool complete = true;
    for (auto& [key, entry] : old) {
        object_t* object = entry->object;
        // Freed before its successor is made, so that the allocator hands
        // the same memory back instead of piling up freed entries.
        entry.reset();
        if (!recalculateOne(object, now, planned)) {
            complete = false;
            break;
        }
    }
    fileInOrder(std::move(planned), old);
    return complete;
}
