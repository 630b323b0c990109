// The operations on schedule types.
#include <utility>

#include "dispatcher.h"
#include "operations.h"
#include "operations_internal.h"
#include "schedules.h"
#include "types.h"

namespace {

// Schedules that come with a registration are the owner's own: its client
// already knows them, so a disabled one is not pushed, and no change is
// announced. An ID the type holds already keeps its schedule.
void addRegisteredSchedules(service_t& service, object_t* typeInstance,
                            const variant_list_t& schedules) {
    const type_record_t& type = *types_record(typeInstance);
    for (const variant_t& element : schedules) {
        std::unique_ptr<schedule_t> schedule = variant2schedule_t(&element);
        if (!schedule) {
            tolvTrace(TRACE_LEVEL_WARNING, "Failed to add instance for type %s", type.name.c_str());
            continue;
        }
        schedule_parse_t parsed = schedules_parse(*schedule, type);
        if (!parsed.record) {
            tolvTrace(TRACE_LEVEL_WARNING, "Schedule %s of type %s refused: %s",
                      schedule->ID.value_or("").c_str(), type.name.c_str(), parsed.reason.c_str());
            continue;
        }
        operations_start(service, typeInstance, std::move(parsed.record), *schedule->base, true);
    }
}

}  // namespace

outcome_t registerScheduleType(service_t& service, const text_arg_t& type, const text_arg_t& path,
                               std::optional<variant_list_t> states,
                               const std::optional<variant_list_t>& schedules) {
    const char* missing = !type ? "type" : !path ? "path" : !states ? "states" : nullptr;
    if (missing != nullptr) {
        return outcome_t::refused(__func__, outcome_missing(missing));
    }
    // A type registered again keeps its schedules; its owner restarted, so
    // each of them tells the client its present state once. Schedules that
    // come with the call tell it when they are added.
    object_t* existing = types_find(service.scheduler, *type);
    std::vector<object_t*> kept = existing ? schedules_of(existing) : std::vector<object_t*>{};
    std::string reason;
    object_t* typeInstance =
        types_register(service.scheduler, *type, *path, std::move(*states), &reason);
    if (typeInstance == nullptr) {
        return outcome_t::refused(__func__, std::move(reason));
    }
    if (service.synchronized) {
        dispatch_reassert(service, kept, service_now());
    }
    if (schedules) {
        addRegisteredSchedules(service, typeInstance, *schedules);
    }
    return outcome_t::done();
}

outcome_t unregisterScheduleType(service_t& service, const text_arg_t& type) {
    std::string reason;
    object_t* typeInstance = operations_typeArgument(service, type, &reason);
    if (typeInstance == nullptr) {
        return outcome_t::refused(__func__, std::move(reason));
    }
    // The type takes its schedules with it, and their planned changes go.
    for (object_t* instance : schedules_of(typeInstance)) {
        dispatch_unplan(service, instance, *schedules_record(instance));
    }
    types_delete(typeInstance);
    return outcome_t::done();
}

std::vector<std::string> getScheduleTypes(service_t& service) {
    return types_names(service.scheduler);
}
