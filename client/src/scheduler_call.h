// Synchronous calls of the scheduler's bus functions with JSON arguments,
// mapped to D-Bus as orv-cli maps them.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "orv/protocol.h"
#include "schedule_json.h"

struct sd_bus;

namespace scheduler {

inline constexpr const char* kSchedulerName = "org.orv.Scheduler";
inline constexpr const char* kObjectInterface = orv_dbus_interface;

struct call_result_t {
    // The call went through and the function did what was asked.
    bool ok = false;
    json returned;
    json out = json::object();
    // Why not, in one sentence, when !ok.
    std::string error;
};

// Calls FUNCTION of the object "Scheduler". A false return is a refusal: its
// "error" out-argument, when the scheduler gives one, becomes the reason.
call_result_t scheduler_call(sd_bus* bus, const std::string& function, const json& arguments);

// One line of a simulation, "1795562089 (Tue Nov 24 23:14:49 2026) switch
// state to on": the time and the state (or event). The line that gives the
// state at the start fills *startState instead; other lines give nothing.
std::optional<std::pair<std::time_t, std::string>> simulation_line(const std::string& line,
                                                                   std::string* startState);

}  // namespace scheduler
