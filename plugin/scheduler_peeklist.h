// The agenda: the next state change of every active schedule, in one list
// ordered by due time, and the computation of a schedule's next change.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

class object_t;

struct peeklist_entry_t {
    // When the change is due, seconds since the epoch.
    time_t time = 0;
    // The schedule instance; not owned.
    object_t* object = nullptr;
    // The state to apply.
    std::string state;
    // 1 when the change is a momentary event (an entry whose begin equals its
    // end) rather than the start or end of a span.
    std::uint8_t isEvent = 0;
};

using peeklist_entry_ptr = std::unique_ptr<peeklist_entry_t>;

// Inserts in time order, in front of the entries with the same time. False
// (with a trace) for a null entry.
bool peeklist_addEntry(peeklist_entry_ptr entry);
// Unlinks and frees the first entry of the object, if it has one.
void peeklist_removeEntry(const object_t* object);
void peeklist_removeComleteList();
// The head, unlinked, when it is due (its time is not after now).
peeklist_entry_ptr peeklist_takeFirstTimedOutEntry(time_t now);
// Milliseconds until the head is due, computed in 64 bits: negative when it
// is overdue, clamped to 4294967295 when it lies further ahead than that;
// -1 for an empty list.
std::int64_t peeklist_getNextTimeOut(time_t now);
// The head and the entry after it; null when there is none.
const peeklist_entry_t* peeklist_getGlobalPeeklist();
const peeklist_entry_t* peeklist_getNextEntry();
// Overwrites the head's time without re-sorting; false for an empty list.
bool peeklist_setNextEventTime(time_t t);
std::size_t peeklist_size();

// The schedule's first state change strictly after t, or null when it has
// none (no entries, or a "Once" schedule that is over).
peeklist_entry_ptr peeklist_createNextEntry(object_t* object, time_t t);

// The entry to plan once a temporary override is taken into account: when the
// change would set the state the override already holds, the change after it
// replaces it and becomes NextStateChange. Accepts null.
peeklist_entry_ptr adjust_for_temporary_override(object_t* object, peeklist_entry_ptr entry);
// Recomputes every planned change for now and brings each of those schedules
// to the state it holds at now. False after the first failure.
bool peeklist_recalculate(time_t now);
