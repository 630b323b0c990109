#include "cli_schedule_bus.h"

#include <systemd/sd-bus.h>

#include <cstdlib>

#include "orv/dbus_value.h"
#include "orv/protocol.h"
#include "orv/variant.h"
#include "schedule_json.h"
#include "scheduler_call.h"

namespace {

constexpr int kRefused = 1;
constexpr int kFailed = 2;

scheduler::call_result_t call(sd_bus* bus, const std::string& function,
                              const scheduler::json& arguments) {
    scheduler::call_result_t result = scheduler::scheduler_call(bus, function, arguments);
    if (!result.ok) {
        // A reply with "return" false is a refusal; anything else failed.
        const bool refused = result.returned.is_boolean() || result.returned.is_array();
        throw cli_failure_t{refused ? kRefused : kFailed, result.error};
    }
    return result;
}

scheduler::schedule_status_t statusOf(const scheduler::json& value) {
    scheduler::json_problem_t problem;
    std::optional<scheduler::schedule_status_t> status =
        scheduler::schedule_from_json(value, "", &problem);
    if (!status) {
        throw cli_failure_t{kFailed, "the scheduler's answer is not a schedule: " + problem.text()};
    }
    return std::move(*status);
}

}  // namespace

orv_bus_ptr cli_connect(const std::string& bus) {
    int r = 0;
    orv_bus_ptr opened = orv_dbus_open(bus, "orv-cli", &r);
    if (r < 0) {
        throw cli_failure_t{kFailed, "cannot connect to the " + bus + " bus: " + std::strerror(-r)};
    }
    return opened;
}

std::vector<std::string> cli_typeStates(sd_bus* bus, const std::string& type) {
    orv_bus_error_t error;
    char* raw = nullptr;
    const std::string path = orv_dbus_objectPath("Scheduler.Types." + type);
    const int r = sd_bus_get_property_string(bus, scheduler::kSchedulerName, path.c_str(),
                                             orv_dbus_interface, "States", error.get(), &raw);
    std::unique_ptr<char, decltype(&std::free)> states(raw, &std::free);
    if (r < 0) {
        throw cli_failure_t{kFailed, "no schedule type \"" + type + "\": " + error.message()};
    }
    std::vector<std::string> list;
    std::string_view text(states.get());
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t comma = std::min(text.find(',', at), text.size());
        list.emplace_back(text.substr(at, comma - at));
        at = comma + 1;
    }
    return list;
}

std::vector<scheduler::schedule_status_t> cli_schedules(sd_bus* bus, const std::string& type,
                                                        const std::string& id) {
    std::vector<scheduler::schedule_status_t> schedules;
    if (!id.empty()) {
        scheduler::call_result_t result;
        try {
            result = call(bus, "getSchedule", {{"type", type}, {"ID", id}});
        } catch (const cli_failure_t& failure) {
            throw failure.code == kRefused
                ? cli_failure_t{kRefused, "no schedule \"" + id + "\" of the type " + type}
                : failure;
        }
        schedules.push_back(statusOf(result.out.value("scheduleInfo", scheduler::json())));
        return schedules;
    }
    auto result = call(bus, "getCompleteSchedules", {{"type", type}});
    for (const auto& value : result.out.value("scheduleInfo", scheduler::json::array())) {
        schedules.push_back(statusOf(value));
    }
    return schedules;
}

cli_simulation_t cli_simulate(sd_bus* bus, const std::string& type, const std::string& id,
                              std::time_t from, std::time_t to) {
    auto result =
        call(bus, "simulateSchedule",
             {{"type", type}, {"ID", id}, {"start", orv_isoTime(from)}, {"stop", orv_isoTime(to)}});
    cli_simulation_t simulation;
    if (!result.returned.is_array()) {
        throw cli_failure_t{kFailed, "the scheduler's simulation has an unexpected form"};
    }
    for (const auto& line : result.returned) {
        if (line.is_string()) {
            if (auto change =
                    scheduler::simulation_line(line.get<std::string>(), &simulation.stateNow)) {
                simulation.changes.push_back(std::move(*change));
            }
        }
    }
    return simulation;
}

void cli_addSchedule(sd_bus* bus, const std::string& type, const scheduler::schedule_t& schedule) {
    call(bus, "addSchedule", {{"type", type}, {"info", scheduler::schedule_to_json(schedule)}});
}
