// The operations that enable, disable and override schedules.
#include "change_notice.h"
#include "dispatcher.h"
#include "operations.h"
#include "operations_internal.h"
#include "schedules.h"
#include "types.h"

namespace {

// Plans an enabled schedule without a permanent override for now and tells
// its client the state it holds now, or the override's state.
void resume(service_t& service, object_t* instance, schedule_record_t& record) {
    const time_t now = service_now();
    if (!record.override.empty()) {
        dispatch_unplan(service, instance, record);
        orv_plugin_setStateRPC(service, instance, record, record.override);
        return;
    }
    dispatch_plan(service, instance, record, now);
    orv_plugin_setStateRPC(service, instance, record, schedule_stateAt(record.spec, now));
}

// Publishes a changed schedule, applies what fell due and announces it.
void settle(service_t& service, object_t* instance, const schedule_record_t& record,
            const std::string& type) {
    schedules_publish(instance, record);
    dispatch_run(service, false);
    scheduleModified(service, type);
}

bool enable(service_t& service, const std::string& type, const std::string& id, bool on) {
    object_t* instance = operations_findSchedule(service, type, id);
    if (instance == nullptr) {
        return false;
    }
    schedule_record_t& record = *schedules_record(instance);
    // Switching an active schedule off brings its client to the default.
    if (!on && record.enabled) {
        orv_plugin_setStateRPC(service, instance, record, record.spec.defaultState);
    }
    record.enabled = on;
    // Enabling, and disabling, end a temporary state.
    record.status.temporary = false;
    if (on) {
        resume(service, instance, record);
    } else {
        dispatch_unplan(service, instance, record);
    }
    settle(service, instance, record, type);
    return true;
}

bool override(service_t& service, const std::string& type, const std::string& id,
              const std::string& state) {
    object_t* typeInstance = operations_findType(service, type);
    if (typeInstance == nullptr) {
        return false;
    }
    if (!state.empty() && !schedule_isState(types_record(typeInstance)->stateNames, state)) {
        tolvTrace(TRACE_LEVEL_WARNING, "Invalid override value(%s)", state.c_str());
        return false;
    }
    object_t* instance = operations_findSchedule(service, type, id);
    if (instance == nullptr) {
        return false;
    }
    schedule_record_t& record = *schedules_record(instance);
    record.override = state;
    record.status.temporary = false;
    if (record.enabled) {
        resume(service, instance, record);
    }
    settle(service, instance, record, type);
    return true;
}

// Why a temporary state may not be set, or null: it is a state of the type,
// for a schedule that runs on its entries.
const char* temporaryRefusal(const object_t* typeInstance, const schedule_record_t& record,
                             const std::string& state) {
    if (!schedule_isState(types_record(typeInstance)->stateNames, state)) {
        return "the state is not one of the type's";
    }
    if (!record.enabled) {
        return "the schedule is disabled";
    }
    if (!record.override.empty()) {
        return "the schedule has a permanent override";
    }
    return nullptr;
}

// A temporary state is not announced; it lasts until the schedule itself next
// changes the state.
bool overrideTemporarily(service_t& service, const std::string& type, const std::string& id,
                         const std::string& state) {
    object_t* instance = operations_findSchedule(service, type, id);
    if (instance == nullptr) {
        return false;
    }
    schedule_record_t& record = *schedules_record(instance);
    if (const char* reason = temporaryRefusal(schedules_typeOf(instance), record, state)) {
        tolvTrace(TRACE_LEVEL_WARNING, "overrideState %s of %s refused: %s", state.c_str(),
                  id.c_str(), reason);
        return false;
    }
    record.temporaryState = state;
    record.status.temporary = true;
    record.status.current = state;
    const bool planned = dispatch_plan(service, instance, record, service_now());
    if (planned) {
        orv_plugin_setStateRPC(service, instance, record, state);
    }
    schedules_publish(instance, record);
    dispatch_run(service, false);
    return planned;
}

}  // namespace

bool enableSchedule(service_t& service, const std::optional<std::string>& type,
                    const std::optional<std::string>& id, bool enabled) {
    if (!type || !id) {
        tolvTrace(TRACE_LEVEL_WARNING, "enableSchedule: type and ID are needed");
        return false;
    }
    return enable(service, *type, *id, enabled);
}

bool overrideSchedule(service_t& service, const std::optional<std::string>& type,
                      const std::optional<std::string>& id,
                      const std::optional<std::string>& state) {
    if (!type || !id || !state) {
        tolvTrace(TRACE_LEVEL_WARNING, "overrideSchedule: type, ID and override are needed");
        return false;
    }
    return override(service, *type, *id, *state);
}

bool overrideState(service_t& service, const std::optional<std::string>& type,
                   const std::optional<std::string>& id, const std::optional<std::string>& state) {
    if (!type || !id || !state) {
        tolvTrace(TRACE_LEVEL_WARNING, "overrideState: type, ID and State are needed");
        return false;
    }
    return overrideTemporarily(service, *type, *id, *state);
}
