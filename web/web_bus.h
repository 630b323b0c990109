// The console's side of the bus: calls of the scheduler's functions and
// reads of its objects, one at a time on one connection, from any of the
// server's threads. Failures are thrown as web_refusal_t: 502 when the
// scheduler cannot be reached, 400 or 404 when it refused.
#pragma once

#include <mutex>
#include <string>

#include "orv/dbus_handle.h"
#include "schedule_json.h"
#include "scheduler_call.h"
#include "web_route.h"

class web_bus_t {
  public:
    // Connects at once; throws std::runtime_error when the bus is not there.
    explicit web_bus_t(std::string address);

    // The function's answer when it did what was asked.
    scheduler::call_result_t call(const std::string& function, const scheduler::json& arguments);
    // Every object the scheduler serves: object path -> interface ->
    // property -> value, as ObjectManager gives them.
    scheduler::json objects();
    // The properties of one object, {} when it does not exist.
    scheduler::json properties(const std::string& objectPath);

  private:
    sd_bus* connection();

    std::mutex mutex_;
    std::string address_;
    orv_bus_ptr bus_;
};

// The refusal for a scheduler's reason: 404 when it names a type or a
// schedule that does not exist, else 400.
web_refusal_t web_refusalOf(const std::string& reason);
