// Synchronous calls of the scheduler's bus functions with JSON arguments,
// mapped to D-Bus as orv-cli maps them.
#pragma once

#include <string>

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

}  // namespace scheduler
