// The next state change of a schedule, as a pure function of the schedule
// and a time.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "schedule_rules.h"

struct change_t {
    // When the change is due, seconds since the epoch.
    time_t time = 0;
    // The state it sets.
    std::string state;
    // A momentary event (an entry whose begin equals its end) rather than
    // the start or end of a span.
    bool isEvent = false;
};

// The schedule's first state change strictly after t, or nothing when it has
// none (no entries, or a "Once" schedule that is over). The end of every
// span is a change, however short the span.
std::optional<change_t> schedule_nextChange(const schedule_spec_t& spec, time_t t);

// The change to plan after t while a temporary state holds: a change that
// would set the state the schedule already shows does not end the temporary
// state, so the change after it is planned instead. Without a held state it
// is schedule_nextChange.
std::optional<change_t> schedule_nextChangeHeld(const schedule_spec_t& spec, time_t t,
                                                const std::string* heldState);

// The next change after t and the state in force at t, from one search.
struct position_t {
    std::optional<change_t> next;
    std::string state;
};
position_t schedule_position(const schedule_spec_t& spec, time_t t, const std::string* heldState);
