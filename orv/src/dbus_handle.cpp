#include "orv/dbus_handle.h"

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
