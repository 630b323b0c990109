// What the command-line programs share: owners of the sd-bus handles, opening
// the bus that --bus names, and reporting an errno-style failure.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>
#include <string_view>

struct tool_bus_close {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct tool_slot_unref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
struct tool_message_unref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
struct tool_source_unref {
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using bus_ptr = std::unique_ptr<sd_bus, tool_bus_close>;
using slot_ptr = std::unique_ptr<sd_bus_slot, tool_slot_unref>;
using message_ptr = std::unique_ptr<sd_bus_message, tool_message_unref>;
using source_ptr = std::unique_ptr<sd_event_source, tool_source_unref>;

// Opens "session", "system" or, for anything else, the bus at that address.
// *r is negative on failure; the returned owner may then hold a half-made bus.
bus_ptr tool_openBus(const std::string& which, const char* description, int* r);

// "<program>: <what>: <strerror>" on stderr. Takes views so that reporting
// from a C callback never allocates or throws.
void tool_complain(std::string_view program, std::string_view what, int r);
