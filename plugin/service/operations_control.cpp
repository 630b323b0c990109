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

outcome_t enable(service_t& service, const std::string& type, const std::string& id, bool on) {
    std::string reason;
    object_t* instance = operations_findSchedule(service, type, id, &reason);
    if (instance == nullptr) {
        return outcome_t::refused("enableSchedule", std::move(reason));
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
    return outcome_t::done();
}

outcome_t override(service_t& service, const std::string& type, const std::string& id,
                   const std::string& state) {
    std::string reason;
    object_t* instance = operations_findSchedule(service, type, id, &reason);
    if (instance == nullptr) {
        return outcome_t::refused("overrideSchedule", std::move(reason));
    }
    if (!state.empty() &&
        !schedule_isState(types_record(schedules_typeOf(instance))->stateNames, state)) {
        return outcome_t::refused("overrideSchedule",
                                  "state '" + state + "' is not a state of type '" + type + "'");
    }
    schedule_record_t& record = *schedules_record(instance);
    record.override = state;
    record.status.temporary = false;
    if (record.enabled) {
        resume(service, instance, record);
    }
    settle(service, instance, record, type);
    return outcome_t::done();
}

// Why a temporary state may not be set, or nothing: it is a state of the
// type, for a schedule that runs on its entries.
std::optional<std::string> temporaryRefusal(const object_t* typeInstance,
                                            const schedule_record_t& record,
                                            const std::string& state) {
    const type_record_t& type = *types_record(typeInstance);
    if (!schedule_isState(type.stateNames, state)) {
        return "state '" + state + "' is not a state of type '" + type.name + "'";
    }
    if (!record.enabled) {
        return "schedule '" + record.id + "' is disabled";
    }
    if (!record.override.empty()) {
        return "schedule '" + record.id + "' has the permanent override '" + record.override + "'";
    }
    return std::nullopt;
}

// A temporary state is not announced; it lasts until the schedule itself next
// changes the state.
outcome_t overrideTemporarily(service_t& service, const std::string& type, const std::string& id,
                              const std::string& state) {
    std::string reason;
    object_t* instance = operations_findSchedule(service, type, id, &reason);
    if (instance == nullptr) {
        return outcome_t::refused("overrideState", std::move(reason));
    }
    schedule_record_t& record = *schedules_record(instance);
    if (std::optional<std::string> refusal =
            temporaryRefusal(schedules_typeOf(instance), record, state)) {
        return outcome_t::refused("overrideState", std::move(*refusal));
    }
    record.temporaryState = state;
    record.status.temporary = true;
    record.status.current = state;
    const bool planned = dispatch_plan(service, instance, record, service_now());
    orv_plugin_setStateRPC(service, instance, record, state);
    schedules_publish(instance, record);
    if (planned) {
        dispatch_run(service, false);
    }
    return outcome_t::done();
}

}  // namespace

outcome_t enableSchedule(service_t& service, const text_arg_t& type, const text_arg_t& id,
                         std::optional<bool> enabled) {
    const char* missing = !type ? "type" : !id ? "ID" : !enabled ? "enable" : nullptr;
    if (missing != nullptr) {
        return outcome_t::refused(__func__, outcome_missing(missing));
    }
    return enable(service, *type, *id, *enabled);
}

outcome_t overrideSchedule(service_t& service, const text_arg_t& type, const text_arg_t& id,
                           const text_arg_t& state) {
    const char* missing = !type ? "type" : !id ? "ID" : !state ? "override" : nullptr;
    if (missing != nullptr) {
        return outcome_t::refused(__func__, outcome_missing(missing));
    }
    return override(service, *type, *id, *state);
}

outcome_t overrideState(service_t& service, const text_arg_t& type, const text_arg_t& id,
                        const text_arg_t& state) {
    const char* missing = !type ? "type" : !id ? "ID" : !state ? "State" : nullptr;
    if (missing != nullptr) {
        return outcome_t::refused(__func__, outcome_missing(missing));
    }
    return overrideTemporarily(service, *type, *id, *state);
}
