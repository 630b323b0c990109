// The private records of the data model's instances: what the plug-in knows
// of a type and of a schedule, typed and parsed once. The instances'
// parameters are written from these records and never read back into them.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "entry_form.h"
#include "next_change.h"
#include "orv/variant.h"
#include "schedule_rules.h"

// A registered type, attached to its instance of Scheduler.Types.
struct type_record_t {
    std::string name;
    // The data-model path of the client object that receives "setState".
    std::string path;
    // The allowed states as registered, and each of them as text.
    variant_list_t states;
    std::vector<std::string> stateNames;
};

// What a schedule shows of its state; simulations work on copies of it.
struct schedule_status_t {
    // CurrentState: the state the client was last told, "Unsynchronized" when
    // it could not be told; nothing before the first attempt.
    std::optional<std::string> current;
    // TemporaryOverride.
    bool temporary = false;
};

// A schedule, attached to its instance of Scheduler.Types.<type>.Schedules.
struct schedule_record_t {
    std::string id;
    schedule_spec_t spec;
    // Every entry as written, ordered by begin, when the search reads fewer
    // (spans in the default state); empty when it reads them all.
    std::vector<schedule_entry_t> written;
    // How the entries were written, to give them back as they came.
    entry_form_t form;
    bool enabled = false;
    // The permanent override; empty when there is none.
    std::string override;
    schedule_status_t status;
    // The state of the latest temporary override; it counts while
    // status.temporary holds.
    std::string temporaryState;
    // NextStateChange: the pending change, 0 when none is pending.
    time_t next = 0;
};

// The state a schedule holds while it stands still: its permanent override,
// its temporary state, or the default when it is disabled; nothing when its
// entries decide.
inline const std::string* schedule_fixedState(const schedule_record_t& record) {
    if (!record.enabled) {
        return &record.spec.defaultState;
    }
    if (!record.override.empty()) {
        return &record.override;
    }
    if (record.status.temporary && !record.temporaryState.empty()) {
        return &record.temporaryState;
    }
    return nullptr;
}

// Every entry of the schedule as written, ordered by begin.
inline const std::vector<schedule_entry_t>& schedule_written(const schedule_record_t& record) {
    return record.written.empty() ? record.spec.entries : record.written;
}

// The state a temporary override holds against the next change, if any.
inline const std::string* schedule_heldState(const schedule_status_t& status) {
    return status.temporary && status.current ? &*status.current : nullptr;
}
