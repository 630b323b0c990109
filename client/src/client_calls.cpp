// client_t's schedule calls: typed arguments in, typed answers out.
#include <ctime>

#include "client_impl.h"
#include "orv/variant.h"

namespace scheduler {

namespace {

bool answer(const call_result_t& result, std::string* error) {
    if (!result.ok && error != nullptr) {
        *error = result.error;
    }
    return result.ok;
}

bool refuse(std::string reason, std::string* error) {
    if (error != nullptr) {
        *error = std::move(reason);
    }
    return false;
}

std::optional<schedule_status_t> statusOf(const json& value, std::string* error) {
    json_problem_t problem;
    std::optional<schedule_status_t> status = schedule_from_json(value, "", &problem);
    if (!status) {
        refuse("the scheduler's answer is not a schedule: " + problem.text(), error);
    }
    return status;
}

}  // namespace

bool client_t::add(const schedule_t& schedule, std::string* error) {
    if (auto problem = validate(schedule, impl_->options_.type.states)) {
        return refuse("schedule \"" + schedule.id + "\": " + *problem, error);
    }
    return answer(impl_->call("addSchedule", {{"info", schedule_to_json(schedule)}}), error);
}

bool client_t::remove(const std::string& id, std::string* error) {
    return answer(impl_->call("removeSchedules", {{"ID", json::array({id})}}), error);
}

bool client_t::enable(const std::string& id, bool enabled, std::string* error) {
    return answer(impl_->call("enableSchedule", {{"ID", id}, {"enable", enabled}}), error);
}

bool client_t::override_schedule(const std::string& id, const std::string& state,
                                 std::string* error) {
    return answer(impl_->call("overrideSchedule", {{"ID", id}, {"override", state}}), error);
}

bool client_t::override_state(const std::string& id, const std::string& state, std::string* error) {
    if (!impl_->allowedState(state)) {
        return refuse("the state \"" + state + "\" is not one of the type's states", error);
    }
    return answer(impl_->call("overrideState", {{"ID", id}, {"State", state}}), error);
}

std::optional<schedule_status_t> client_t::get(const std::string& id, std::string* error) {
    const call_result_t result = impl_->call("getSchedule", {{"ID", id}});
    if (!answer(result, error)) {
        return std::nullopt;
    }
    auto info = result.out.find("scheduleInfo");
    return statusOf(info != result.out.end() ? *info : json(), error);
}

std::optional<std::vector<schedule_status_t>> client_t::list(std::string* error) {
    const call_result_t result = impl_->call("getCompleteSchedules", json::object());
    if (!answer(result, error)) {
        return std::nullopt;
    }
    auto info = result.out.find("scheduleInfo");
    if (info == result.out.end() || !info->is_array()) {
        refuse("the scheduler's answer holds no list of schedules", error);
        return std::nullopt;
    }
    std::vector<schedule_status_t> schedules;
    for (const json& value : *info) {
        std::optional<schedule_status_t> status = statusOf(value, error);
        if (!status) {
            return std::nullopt;
        }
        schedules.push_back(std::move(*status));
    }
    return schedules;
}

std::optional<std::vector<std::string>> client_t::simulate(const std::string& id, std::time_t start,
                                                           std::time_t stop, std::string* error) {
    const call_result_t result =
        impl_->call("simulateSchedule",
                    {{"ID", id}, {"start", orv_isoTime(start)}, {"stop", orv_isoTime(stop)}});
    if (!answer(result, error)) {
        return std::nullopt;
    }
    if (!result.returned.is_array()) {
        refuse("the scheduler's answer holds no lines", error);
        return std::nullopt;
    }
    std::vector<std::string> lines;
    for (const json& line : result.returned) {
        lines.push_back(line.is_string() ? line.get<std::string>() : line.dump());
    }
    return lines;
}

}  // namespace scheduler
