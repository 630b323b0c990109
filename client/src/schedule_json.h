// Schedules as JSON: the form the scheduler's functions take and return
// (keys ID, enable, base, def, override, schedule, and value when read
// back), and the form the store keeps.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "scheduler/schedule.h"

namespace scheduler {

using json = nlohmann::ordered_json;

// Where a JSON value is wrong: a JSON pointer ("/schedules/3/def") and why.
struct json_problem_t {
    std::string pointer;
    std::string reason;

    std::string text() const { return (pointer.empty() ? "/" : pointer) + ": " + reason; }
};

json schedule_to_json(const schedule_t& schedule);
// The schedule at pointer, or nullopt with *problem filled. Only the form is
// checked here; validate() judges the content.
std::optional<schedule_status_t> schedule_from_json(const json& value, const std::string& pointer,
                                                    json_problem_t* problem);

}  // namespace scheduler
