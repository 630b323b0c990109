// Short forms of the bus calls that component tests make again and again:
// schedules written as JSON, the type Light with its client Device.Light,
// the setState calls as readable lines and simulations as their text lines.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orv/variant.h"
#include "virtual_host.h"

namespace scheduler_calls {

using lines_t = std::vector<std::string>;

inline std::string entryJson(std::string_view state, std::int64_t begin, std::int64_t end) {
    return R"({"state":")" + std::string(state) + R"(","begin":)" + std::to_string(begin) +
           R"(,"end":)" + std::to_string(end) + "}";
}

// A schedule record; entries is a comma-separated list of entryJson texts.
inline std::string scheduleJson(std::string_view id, std::string_view base, std::string_view def,
                                const std::string& entries, std::string_view override = "",
                                bool enable = true) {
    return R"({"ID":")" + std::string(id) + R"(","enable":)" + (enable ? "true" : "false") +
           R"(,"base":")" + std::string(base) + R"(","def":")" + std::string(def) +
           R"(","override":")" + std::string(override) + R"(","schedule":[)" + entries + "]}";
}

inline std::optional<bool> callBool(virtual_host_t& host, std::string_view function,
                                    std::string_view arguments) {
    const virtual_host_t::call_result_t result = host.call(function, arguments);
    return variant_toBool(&result.retval);
}

// Registers Light (on, off, eco) whose client object is Device.Light.
inline std::optional<bool> registerLight(virtual_host_t& host) {
    host.addClient("Device.Light");
    return callBool(host, "registerScheduleType",
                    R"({"type":"Light","path":"Device.Light","states":["on","off","eco"]})");
}

inline std::optional<bool> addToLight(virtual_host_t& host, const std::string& info) {
    return callBool(host, "addSchedule", R"({"type":"Light","info":)" + info + "}");
}

// Calls a function on one of Light's schedules with one more argument.
inline std::optional<bool> onSchedule(virtual_host_t& host, std::string_view function,
                                      std::string_view id, std::string_view argument) {
    return callBool(
        host, function,
        R"({"type":"Light","ID":")" + std::string(id) + R"(",)" + std::string(argument) + "}");
}

// A parameter of one of Light's schedules as text; date-times read as ISO
// 8601 in UTC.
inline std::optional<std::string> parameterText(virtual_host_t& host, std::string_view id,
                                                std::string_view name) {
    return variant_char(host.parameter("Scheduler.Types.Light.Schedules." + std::string(id), name));
}

// The setState calls from the index-th on, as "<UTC time> <state>".
inline lines_t changesSince(const virtual_host_t& host, std::size_t index = 0) {
    lines_t lines;
    const std::vector<virtual_host_t::set_state_t> calls = host.setStateCalls();
    for (std::size_t i = index; i < calls.size(); ++i) {
        lines.push_back(orv_isoTime(calls[i].time) + " " + calls[i].state);
    }
    return lines;
}

// Runs a simulation; arguments are the named arguments besides the span,
// each followed by a comma.
inline lines_t simulate(virtual_host_t& host, std::string_view function,
                        const std::string& arguments, std::int64_t start, std::int64_t stop) {
    virtual_host_t::call_result_t result =
        host.call(function, "{" + arguments + R"("start":)" + std::to_string(start) +
                                R"(,"stop":)" + std::to_string(stop) + "}");
    lines_t lines;
    if (const variant_list_t* list = variant_da_list(&result.retval)) {
        for (const variant_t& line : *list) {
            lines.push_back(variant_char(&line).value_or("<not a text>"));
        }
    } else {
        lines.push_back("<not a list>");
    }
    return lines;
}

}  // namespace scheduler_calls
