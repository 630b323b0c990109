// The simulation operations.
#include "operations.h"
#include "operations_internal.h"
#include "schedules.h"
#include "simulation.h"
#include "types.h"

outcome_t simulateSchedule(service_t& service, const text_arg_t& type, const text_arg_t& id,
                           time_t start, time_t stop, simulation_t* run) {
    if (!type || !id) {
        return outcome_t::refused(__func__, outcome_missing(type ? "ID" : "type"));
    }
    std::string reason;
    const object_t* instance = operations_findSchedule(service, *type, *id, &reason);
    *run = simulation_schedule(instance, start, stop);
    return instance != nullptr ? outcome_t::done() : outcome_t::refused(__func__, reason);
}

simulation_t simulateSchedules(service_t& service, time_t start, time_t stop) {
    return simulation_all(service, start, stop);
}
