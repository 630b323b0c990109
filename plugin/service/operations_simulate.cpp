// The simulation operations.
#include "operations.h"
#include "schedules.h"
#include "simulation.h"
#include "types.h"

std::optional<variant_list_t> simulateSchedule(service_t& service,
                                               const std::optional<std::string>& type,
                                               const std::optional<std::string>& id, time_t start,
                                               time_t stop) {
    if (!type || !id) {
        tolvTrace(TRACE_LEVEL_WARNING, "simulateSchedule: type and ID are needed");
        return std::nullopt;
    }
    object_t* typeInstance = types_find(service.scheduler, *type);
    const object_t* instance = typeInstance ? schedules_find(typeInstance, *id) : nullptr;
    return simulation_schedule(instance, start, stop);
}

variant_list_t simulateSchedules(service_t& service, time_t start, time_t stop) {
    return simulation_all(service, start, stop);
}
