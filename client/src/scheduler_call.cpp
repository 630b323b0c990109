#include "scheduler_call.h"

#include <systemd/sd-bus.h>

#include <cstdlib>
#include <cstring>

#include "orv/dbus_handle.h"
#include "orv/dbus_value.h"
#include "orv/variant.h"

namespace scheduler {

namespace {

// Long enough for a registration of thousands of schedules on a slow
// gateway, short enough that a hung scheduler is reported.
constexpr std::uint64_t kCallTimeoutUs = 30'000'000;

call_result_t failed(std::string error) {
    call_result_t result;
    result.error = std::move(error);
    return result;
}

std::string bySd(const std::string& function, int r) {
    return function + ": " + std::strerror(-r);
}

call_result_t readReply(const std::string& function, sd_bus_message* reply) {
    variant_t returned;
    variant_map_t out;
    int r = orv_dbus_readVariant(reply, &returned);
    if (r >= 0) {
        r = orv_dbus_readMap(reply, &out);
    }
    if (r < 0) {
        return failed(function + ": the scheduler's answer has an unexpected form");
    }
    call_result_t result;
    const variant_t outVariant(std::move(out));
    result.returned = json::parse(variant_toJSON(&returned), nullptr, false);
    result.out = json::parse(variant_toJSON(&outVariant), nullptr, false);
    result.ok = !(result.returned.is_boolean() && !result.returned.get<bool>());
    if (!result.ok) {
        auto reason = result.out.find("error");
        result.error = reason != result.out.end() && reason->is_string()
                           ? reason->get<std::string>()
                           : "the scheduler refused " + function;
    }
    return result;
}

}  // namespace

call_result_t scheduler_call(sd_bus* bus, const std::string& function, const json& arguments) {
    std::optional<variant_t> parsed = variant_fromJSON(arguments.dump());
    if (!parsed || parsed->map() == nullptr) {
        return failed(function + ": the arguments cannot be sent");
    }
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, kSchedulerName, "/Scheduler",
                                           kObjectInterface, function.c_str());
    orv_message_ptr call(raw);
    if (r >= 0) {
        r = sd_bus_message_set_auto_start(call.get(), 0);
    }
    if (r >= 0) {
        r = orv_dbus_appendMap(call.get(), *parsed->map());
    }
    if (r < 0) {
        return failed(bySd(function, r));
    }
    orv_bus_error_t error;
    raw = nullptr;
    r = sd_bus_call(bus, call.get(), kCallTimeoutUs, error.get(), &raw);
    orv_message_ptr reply(raw);
    if (r < 0) {
        return failed(function + ": " +
                      (error.message()[0] != '\0' ? std::string(error.message())
                                                  : std::string(std::strerror(-r))));
    }
    return readReply(function, reply.get());
}

std::optional<std::pair<std::time_t, std::string>> simulation_line(const std::string& line,
                                                                   std::string* startState) {
    char* end = nullptr;
    const long long t = std::strtoll(line.c_str(), &end, 10);
    const auto close = line.find(") ");
    if (end == line.c_str() || close == std::string::npos) {
        return std::nullopt;
    }
    const std::string what = line.substr(close + 2);
    for (const char* phrase : {"switch state to ", "send event ", "starttime with state "}) {
        if (what.rfind(phrase, 0) == 0) {
            std::string state = what.substr(std::strlen(phrase));
            if (std::strcmp(phrase, "starttime with state ") == 0) {
                *startState = std::move(state);
                return std::nullopt;
            }
            return std::pair(static_cast<std::time_t>(t), std::move(state));
        }
    }
    return std::nullopt;
}

}  // namespace scheduler
