// The operations behind the bus functions of "Scheduler". A missing
// argument arrives as nullopt and is refused by the operation that needs it.
// Each operation changes the records, tells the clients through the
// dispatcher, and publishes the records; none of them calls another.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "orv/variant.h"
#include "scheduler_plugin_common.h"
#include "service.h"

bool registerScheduleType(service_t& service, const std::optional<std::string>& type,
                          const std::optional<std::string>& path,
                          std::optional<variant_list_t> states,
                          const std::optional<variant_list_t>& schedules);
bool unregisterScheduleType(service_t& service, const std::optional<std::string>& type);
std::vector<std::string> getScheduleTypes(service_t& service);

// A schedule whose ID exists replaces it only once it is found valid.
bool addSchedule(service_t& service, const std::optional<std::string>& type,
                 const schedule_t* schedule);
// Without IDs every schedule of the type goes.
bool removeSchedules(service_t& service, const std::optional<std::string>& type,
                     const std::optional<variant_list_t>& ids);
bool getSchedules(service_t& service, const std::optional<std::string>& type, variant_list_t* list,
                  bool complete);
std::optional<schedule_t> getSchedule(service_t& service, const std::optional<std::string>& type,
                                      const std::optional<std::string>& id);

bool enableSchedule(service_t& service, const std::optional<std::string>& type,
                    const std::optional<std::string>& id, bool enabled);
// An empty override clears it.
bool overrideSchedule(service_t& service, const std::optional<std::string>& type,
                      const std::optional<std::string>& id,
                      const std::optional<std::string>& state);
bool overrideState(service_t& service, const std::optional<std::string>& type,
                   const std::optional<std::string>& id, const std::optional<std::string>& state);

// The lines of a simulated run of one schedule; nullopt without a type or an
// ID. An unknown schedule is simulated all the same: the lines say so.
std::optional<variant_list_t> simulateSchedule(service_t& service,
                                               const std::optional<std::string>& type,
                                               const std::optional<std::string>& id, time_t start,
                                               time_t stop);
variant_list_t simulateSchedules(service_t& service, time_t start, time_t stop);
