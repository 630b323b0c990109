#include "web_bus.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <stdexcept>

#include "orv/dbus_value.h"
#include "orv/variant.h"

namespace {

// A console waits for people, not for thousands of schedules.
constexpr std::uint64_t kReadTimeoutUs = 10'000'000;

web_refusal_t unreachable(const std::string& why) {
    return {502, "the scheduler is not on the bus (" + why + ")"};
}

scheduler::json readAll(sd_bus_message* reply) {
    variant_t value;
    if (orv_dbus_readValue(reply, &value) < 0) {
        throw unreachable("its answer has an unexpected form");
    }
    return scheduler::json::parse(variant_toJSON(&value), nullptr, false);
}

}  // namespace

web_bus_t::web_bus_t(std::string address) : address_(std::move(address)) {
    int r = 0;
    bus_ = orv_dbus_open(address_, "orv-web", &r);
    if (r < 0) {
        throw std::runtime_error("cannot connect to the bus " + address_ + ": " +
                                 std::strerror(-r));
    }
}

// A bus daemon that restarted leaves a closed connection; the next request
// opens a new one instead of failing for ever.
sd_bus* web_bus_t::connection() {
    if (!bus_ || sd_bus_is_open(bus_.get()) <= 0) {
        int r = 0;
        bus_ = orv_dbus_open(address_, "orv-web", &r);
        if (r < 0) {
            bus_.reset();
            throw unreachable(std::string("no bus: ") + std::strerror(-r));
        }
    }
    return bus_.get();
}

scheduler::call_result_t web_bus_t::call(const std::string& function,
                                         const scheduler::json& arguments) {
    std::lock_guard lock(mutex_);
    scheduler::call_result_t result = scheduler::scheduler_call(connection(), function, arguments);
    if (!result.ok) {
        const bool refused = result.returned.is_boolean() || result.returned.is_array();
        throw refused ? web_refusalOf(result.error) : unreachable(result.error);
    }
    return result;
}

scheduler::json web_bus_t::objects() {
    std::lock_guard lock(mutex_);
    orv_bus_error_t error;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(connection(), scheduler::kSchedulerName, "/",
                                     "org.freedesktop.DBus.ObjectManager", "GetManagedObjects",
                                     error.get(), &raw, "");
    orv_message_ptr reply(raw);
    if (r < 0) {
        throw unreachable(error.message()[0] != '\0' ? error.message() : std::strerror(-r));
    }
    return readAll(reply.get());
}

scheduler::json web_bus_t::properties(const std::string& objectPath) {
    std::lock_guard lock(mutex_);
    orv_bus_error_t error;
    sd_bus_message* raw = nullptr;
    sd_bus* bus = connection();
    orv_message_ptr call;
    int r = sd_bus_message_new_method_call(bus, &raw, scheduler::kSchedulerName, objectPath.c_str(),
                                           "org.freedesktop.DBus.Properties", "GetAll");
    call.reset(raw);
    if (r >= 0) {
        r = sd_bus_message_append(call.get(), "s", scheduler::kObjectInterface);
    }
    raw = nullptr;
    if (r >= 0) {
        r = sd_bus_call(bus, call.get(), kReadTimeoutUs, error.get(), &raw);
    }
    orv_message_ptr reply(raw);
    if (r < 0) {
        if (sd_bus_error_has_names(error.get(), SD_BUS_ERROR_UNKNOWN_OBJECT,
                                   SD_BUS_ERROR_UNKNOWN_INTERFACE)) {
            return scheduler::json::object();
        }
        throw unreachable(error.message()[0] != '\0' ? error.message() : std::strerror(-r));
    }
    return readAll(reply.get());
}

web_refusal_t web_refusalOf(const std::string& reason) {
    const bool missing = reason.find("is not registered") != std::string::npos ||
                         reason.find("has no schedule") != std::string::npos;
    return {missing ? 404 : 400, reason};
}
