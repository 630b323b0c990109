#include "orv/dbus_handle.h"

#include <cerrno>

namespace {

// The holder of the call being handled; calls are handled one at a time on
// the loop's thread.
thread_local orv_dbus_reply_first_t* holding = nullptr;

}  // namespace

orv_dbus_reply_first_t::orv_dbus_reply_first_t() : outer_(holding) {
    holding = this;
}

orv_dbus_reply_first_t::~orv_dbus_reply_first_t() {
    holding = outer_;
    for (const orv_message_ptr& m : held_) {
        orv_dbus_send(m.get());
    }
}

int orv_dbus_send(sd_bus_message* m) {
    if (m == nullptr) {
        return -EINVAL;
    }
    if (holding == nullptr) {
        return sd_bus_send(nullptr, m, nullptr);
    }
    holding->held_.emplace_back(sd_bus_message_ref(m));
    return 0;
}

orv_bus_ptr orv_dbus_open(const std::string& which, const char* description, int* r) {
    sd_bus* raw = nullptr;
    if (which == "session") {
        *r = sd_bus_open_user_with_description(&raw, description);
        return orv_bus_ptr(raw);
    }
    if (which == "system") {
        *r = sd_bus_open_system_with_description(&raw, description);
        return orv_bus_ptr(raw);
    }
    *r = sd_bus_new(&raw);
    orv_bus_ptr bus(raw);
    if (*r < 0) {
        return bus;
    }
    if ((*r = sd_bus_set_address(raw, which.c_str())) < 0 ||
        (*r = sd_bus_set_bus_client(raw, 1)) < 0 ||
        (*r = sd_bus_set_description(raw, description)) < 0) {
        return bus;
    }
    *r = sd_bus_start(raw);
    return bus;
}
