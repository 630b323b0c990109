// The operations that add, remove and read schedules.
#include <utility>

#include "change_notice.h"
#include "dispatcher.h"
#include "operations.h"
#include "operations_internal.h"
#include "orv/variant_list.h"
#include "schedules.h"
#include "types.h"

namespace {

// The state a new schedule starts in, or nothing for a disabled schedule of
// a registration, whose client knows it already.
const std::string* initialState(const schedule_record_t& record, bool registering,
                                const std::string& scheduled) {
    if (!record.enabled) {
        return registering ? nullptr : &record.spec.defaultState;
    }
    return record.override.empty() ? &scheduled : &record.override;
}

// Removes a schedule with its planned change.
void removeInstance(service_t& service, object_t* instance) {
    dispatch_unplan(service, instance, *schedules_record(instance));
    schedules_delete(instance);
}

}  // namespace

object_t* operations_findType(service_t& service, const std::string& type) {
    object_t* typeInstance = types_find(service.scheduler, type);
    if (typeInstance == nullptr) {
        tolvTrace(TRACE_LEVEL_WARNING, "Type %s not found", type.c_str());
    }
    return typeInstance;
}

object_t* operations_findSchedule(service_t& service, const std::string& type,
                                  const std::string& id) {
    object_t* typeInstance = operations_findType(service, type);
    object_t* instance = typeInstance ? schedules_find(typeInstance, id) : nullptr;
    if (typeInstance != nullptr && instance == nullptr) {
        tolvTrace(TRACE_LEVEL_WARNING, "ID %s not found in type %s", id.c_str(), type.c_str());
    }
    return instance;
}

bool operations_start(service_t& service, object_t* typeInstance,
                      std::unique_ptr<schedule_record_t> record, std::string_view base,
                      bool registering) {
    const time_t now = service_now();
    object_t* instance = schedules_create(typeInstance, std::move(record), base);
    if (instance == nullptr) {
        return false;
    }
    schedule_record_t& started = *schedules_record(instance);
    const std::string scheduled = schedule_stateAt(started.spec, now);
    if (const std::string* state = initialState(started, registering, scheduled)) {
        orv_plugin_setStateRPC(service, instance, started, *state);
    }
    // A disabled or overridden schedule holds its state and plans nothing.
    const bool planned =
        schedule_fixedState(started) == nullptr && dispatch_plan(service, instance, started, now);
    schedules_publish(instance, started);
    if (planned) {
        dispatch_run(service, false);
    } else if (started.enabled && started.override.empty()) {
        tolvTraceZ(TRACE_LEVEL_INFO, ME,
                   "Could not update peeklist, this is an empty schedule: %s stays in %s",
                   started.id.c_str(), scheduled.c_str());
    }
    return true;
}

bool addSchedule(service_t& service, const std::optional<std::string>& type,
                 const schedule_t* schedule) {
    if (!type || schedule == nullptr || !schedule->schedule) {
        tolvTrace(TRACE_LEVEL_WARNING, "invalid parameter values");
        return false;
    }
    object_t* typeInstance = operations_findType(service, *type);
    if (typeInstance == nullptr) {
        return false;
    }
    // Checked completely before anything changes: a refused replacement
    // leaves the schedule it would have replaced as it was.
    schedule_parse_t parsed = schedules_parse(*schedule, *types_record(typeInstance));
    if (!parsed.record) {
        tolvTrace(TRACE_LEVEL_WARNING, "Schedule %s of type %s refused: %s",
                  schedule->ID.value_or("").c_str(), type->c_str(), parsed.reason.c_str());
        return false;
    }
    if (object_t* replaced = schedules_find(typeInstance, parsed.record->id)) {
        removeInstance(service, replaced);
    }
    if (!operations_start(service, typeInstance, std::move(parsed.record), *schedule->base,
                          false)) {
        return false;
    }
    scheduleModified(service, *type);
    return true;
}

bool removeSchedules(service_t& service, const std::optional<std::string>& type,
                     const std::optional<variant_list_t>& ids) {
    if (!type) {
        tolvTrace(TRACE_LEVEL_WARNING, "removeSchedules: type is needed");
        return false;
    }
    object_t* typeInstance = types_find(service.scheduler, *type);
    if (!ids && typeInstance == nullptr) {
        tolvTrace(TRACE_LEVEL_WARNING, "Type %s not found", type->c_str());
        return false;
    }
    std::vector<object_t*> removed;
    if (!ids) {
        removed = schedules_of(typeInstance);
    } else if (typeInstance != nullptr) {
        for (const variant_t& element : *ids) {
            if (object_t* instance =
                    schedules_find(typeInstance, variant_char(&element).value_or(""))) {
                removed.push_back(instance);
            }
        }
    }
    for (object_t* instance : removed) {
        removeInstance(service, instance);
    }
    dispatch_run(service, false);
    scheduleModified(service, *type);
    return true;
}

bool getSchedules(service_t& service, const std::optional<std::string>& type, variant_list_t* list,
                  bool complete) {
    object_t* typeInstance = type ? operations_findType(service, *type) : nullptr;
    if (typeInstance == nullptr) {
        return false;
    }
    for (const object_t* instance : schedules_of(typeInstance)) {
        const schedule_t record = schedules_read(instance, complete);
        std::optional<variant_t> map = schedule_t2variant(&record);
        variant_list_add(list, map ? &*map : nullptr);
    }
    return true;
}

std::optional<schedule_t> getSchedule(service_t& service, const std::optional<std::string>& type,
                                      const std::optional<std::string>& id) {
    object_t* instance = type && id ? operations_findSchedule(service, *type, *id) : nullptr;
    if (instance == nullptr) {
        return std::nullopt;
    }
    return schedules_read(instance, true);
}
