// What the command-line programs share: the bus owners of liborv under short
// names, and reporting an errno-style failure.
#pragma once

#include <string>
#include <string_view>

#include "orv/dbus_handle.h"

using bus_ptr = orv_bus_ptr;
using slot_ptr = orv_slot_ptr;
using message_ptr = orv_message_ptr;
using source_ptr = orv_source_ptr;
using bus_error_t = orv_bus_error_t;

// Opens "session", "system" or, for anything else, the bus at that address.
inline bus_ptr tool_openBus(const std::string& which, const char* description, int* r) {
    return orv_dbus_open(which, description, r);
}

// "<program>: <what>: <strerror>" on stderr. Takes views so that reporting
// from a C callback never allocates or throws.
void tool_complain(std::string_view program, std::string_view what, int r);
