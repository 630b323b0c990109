#include "load_client.h"

#include <time.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "orv/dbus_value.h"
#include "orv/protocol.h"

namespace load {

namespace {

constexpr const char* kScheduler = "org.orv.Scheduler";
constexpr const char* kSchedulerPath = "/Scheduler";
constexpr const char* kClientName = "org.orv.Bench";
constexpr const char* kClientPath = "/Bench/Client";
constexpr std::uint64_t kCallTimeoutUs = 60000000;

std::int64_t clockNs(clockid_t clock) {
    struct timespec now {};
    clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * kNsPerSecond + now.tv_nsec;
}

}  // namespace

std::int64_t realtimeNs() {
    return clockNs(CLOCK_REALTIME);
}

std::int64_t monotonicNs() {
    return clockNs(CLOCK_MONOTONIC);
}

void complain(const std::string& what, int r) {
    if (r < 0) {
        std::fprintf(stderr, "orv-load: %s: %s\n", what.c_str(), std::strerror(-r));
    } else {
        std::fprintf(stderr, "orv-load: %s\n", what.c_str());
    }
}

const sd_bus_vtable load_t::kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("setState", "a{sv}", "va{sv}", load_t::onSetState, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

bool load_t::open(const std::string& address) {
    int r = 0;
    bus_ = orv_dbus_open(address, "orv-load", &r);
    if (r < 0) {
        complain("cannot connect to the bus " + address, r);
        return false;
    }
    sd_bus_slot* slot = nullptr;
    r = sd_bus_add_object_vtable(bus_.get(), &slot, kClientPath, orv_dbus_interface, kVtable, this);
    object_.reset(slot);
    if (r < 0) {
        complain("cannot serve " + std::string(kClientPath), r);
        return false;
    }
    r = sd_bus_request_name(bus_.get(), kClientName, 0);
    if (r < 0) {
        complain("cannot own " + std::string(kClientName), r);
        return false;
    }
    return true;
}

void load_t::close() {
    if (bus_) {
        sd_bus_release_name(bus_.get(), kClientName);
    }
    object_.reset();
    bus_.reset();
}

std::optional<bool> load_t::call(const char* function, const variant_map_t& arguments,
                                 std::int64_t* elapsedNs) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus_.get(), &raw, kScheduler, kSchedulerPath,
                                           orv_dbus_interface, function);
    orv_message_ptr m(raw);
    if (r >= 0) {
        r = orv_dbus_appendMap(raw, arguments);
    }
    if (r < 0) {
        complain(std::string("cannot build ") + function, r);
        return std::nullopt;
    }
    orv_message_ptr reply;
    if (!roundTrip(raw, &reply, function, elapsedNs)) {
        return std::nullopt;
    }
    variant_t retval;
    r = orv_dbus_readVariant(reply.get(), &retval);
    if (r < 0) {
        complain(std::string("cannot read the reply of ") + function, r);
        return std::nullopt;
    }
    return variant_toBool(&retval).value_or(false);
}

bool load_t::ping(std::int64_t* elapsedNs) {
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_message_new_method_call(bus_.get(), &raw, kScheduler, "/",
                                                 "org.freedesktop.DBus.Peer", "Ping");
    orv_message_ptr m(raw);
    if (r < 0) {
        complain("cannot build Ping", r);
        return false;
    }
    orv_message_ptr reply;
    return roundTrip(raw, &reply, "Ping", elapsedNs);
}

bool load_t::drain() {
    int r = 0;
    while ((r = sd_bus_process(bus_.get(), nullptr)) > 0) {
    }
    if (r < 0) {
        complain("lost the bus", r);
        return false;
    }
    return true;
}

bool load_t::roundTrip(sd_bus_message* m, orv_message_ptr* reply, const char* what,
                       std::int64_t* elapsedNs) {
    orv_bus_error_t error;
    sd_bus_message* raw = nullptr;
    const std::int64_t start = monotonicNs();
    const int r = sd_bus_call(bus_.get(), m, kCallTimeoutUs, error.get(), &raw);
    const std::int64_t end = monotonicNs();
    reply->reset(raw);
    if (r < 0) {
        complain(std::string(what) + " failed: " + error.name() + " " + error.message());
        return false;
    }
    if (elapsedNs != nullptr) {
        *elapsedNs = end - start;
    }
    return true;
}

int load_t::onSetState(sd_bus_message* m, void* userdata, sd_bus_error*) {
    // The time is taken first: the rest is the tool's own work.
    const std::int64_t arrived = realtimeNs();
    auto* self = static_cast<load_t*>(userdata);
    variant_map_t arguments;
    const int r = orv_dbus_readMap(m, &arguments);
    if (r < 0) {
        return r;
    }
    arrival_t arrival{"", "", arrived};
    for (const variant_map_entry_t& entry : arguments) {
        if (entry.key == "ID") {
            arrival.id = variant_char(&entry.value).value_or("");
        } else if (entry.key == "state") {
            arrival.state = variant_char(&entry.value).value_or("");
        }
    }
    self->arrivals_.push_back(std::move(arrival));
    if (sd_bus_message_get_expect_reply(m) > 0) {
        return sd_bus_reply_method_return(m, "va{sv}", "b", 1, 0);
    }
    return 1;
}

}  // namespace load
