// The operations behind the bus functions of "Scheduler". A missing
// argument arrives as nullopt and is refused by the operation that needs it,
// with the reason. Each operation changes the records, tells the clients
// through the dispatcher, and publishes the records; none of them calls
// another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "orv/variant.h"
#include "outcome.h"
#include "scheduler_plugin_common.h"
#include "service.h"
#include "simulation.h"

// A part of a long list: from offset, at most limit items (all without one).
struct page_t {
    std::uint32_t offset = 0;
    std::optional<std::uint32_t> limit;
};

// What a reply may carry, well below what the bus takes in one message
// (32 MiB on the usual system bus).
inline constexpr std::size_t kReplyBytesMax = 8 * 1024 * 1024;

using text_arg_t = std::optional<std::string>;

outcome_t registerScheduleType(service_t& service, const text_arg_t& type, const text_arg_t& path,
                               std::optional<variant_list_t> states,
                               const std::optional<variant_list_t>& schedules);
outcome_t unregisterScheduleType(service_t& service, const text_arg_t& type);
std::vector<std::string> getScheduleTypes(service_t& service);

// A schedule whose ID exists replaces it only once it is found valid.
outcome_t addSchedule(service_t& service, const text_arg_t& type, const schedule_t* schedule);
// Without IDs every schedule of the type goes.
outcome_t removeSchedules(service_t& service, const text_arg_t& type,
                          const std::optional<variant_list_t>& ids);
// A page of the type's schedules, in the order they were added; refused,
// with the reason, when it would not fit in one reply.
outcome_t getSchedules(service_t& service, const text_arg_t& type, const page_t& page,
                       variant_list_t* list, bool complete);
outcome_t getSchedule(service_t& service, const text_arg_t& type, const text_arg_t& id,
                      schedule_t* out);

outcome_t enableSchedule(service_t& service, const text_arg_t& type, const text_arg_t& id,
                         std::optional<bool> enabled);
// An empty override clears it.
outcome_t overrideSchedule(service_t& service, const text_arg_t& type, const text_arg_t& id,
                           const text_arg_t& state);
outcome_t overrideState(service_t& service, const text_arg_t& type, const text_arg_t& id,
                        const text_arg_t& state);

// The lines of a simulated run of one schedule; none without a type or an
// ID. An unknown schedule is simulated all the same: the lines say so.
outcome_t simulateSchedule(service_t& service, const text_arg_t& type, const text_arg_t& id,
                           time_t start, time_t stop, simulation_t* run);
simulation_t simulateSchedules(service_t& service, time_t start, time_t stop);
