// What the schedule commands of orv-cli ask the scheduler, as plain records.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orv/dbus_handle.h"
#include "scheduler/schedule.h"

// A failure to reach the scheduler or a refusal, with its exit code.
struct cli_failure_t {
    int code;
    std::string message;
};

// The scheduler's simulation of one schedule from a moment on.
struct cli_simulation_t {
    std::string stateNow;
    // The changes after that moment: when, and the state (or event).
    std::vector<std::pair<std::time_t, std::string>> changes;
};

// Each throws cli_failure_t.
orv_bus_ptr cli_connect(const std::string& bus);
std::vector<std::string> cli_typeStates(sd_bus* bus, const std::string& type);
// One schedule, or every schedule of the type when id is empty.
std::vector<scheduler::schedule_status_t> cli_schedules(sd_bus* bus, const std::string& type,
                                                        const std::string& id);
cli_simulation_t cli_simulate(sd_bus* bus, const std::string& type, const std::string& id,
                              std::time_t from, std::time_t to);
void cli_addSchedule(sd_bus* bus, const std::string& type, const scheduler::schedule_t& schedule);
