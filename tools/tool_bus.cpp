#include "tool_bus.h"

#include <cstdio>
#include <cstring>

bus_ptr tool_openBus(const std::string& which, const char* description, int* r) {
    sd_bus* raw = nullptr;
    if (which == "session") {
        *r = sd_bus_open_user_with_description(&raw, description);
        return bus_ptr(raw);
    }
    if (which == "system") {
        *r = sd_bus_open_system_with_description(&raw, description);
        return bus_ptr(raw);
    }
    *r = sd_bus_new(&raw);
    bus_ptr bus(raw);
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

void tool_complain(std::string_view program, std::string_view what, int r) {
    std::fprintf(stderr, "%.*s: %.*s: %s\n", static_cast<int>(program.size()), program.data(),
                 static_cast<int>(what.size()), what.data(), std::strerror(-r));
}
