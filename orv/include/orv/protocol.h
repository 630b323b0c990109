// The names and numbers that the services on the bus agree on: orvd, the
// tools, the client library and the plug-ins all read them from here, so
// that a change reaches every side at once.
#pragma once

#include <cstdint>
#include <string_view>

// The interface of every object served on the bus.
inline constexpr char orv_dbus_interface[] = "org.orv.Object";

// The process that serves root object A owns the bus name "org.orv.A".
inline constexpr std::string_view orv_dbus_name_prefix = "org.orv.";

// Notification types.
enum : std::uint32_t {
    // A parameter of the object changed: "parameter" and "newvalue".
    notification_value_changed = 1,
    // The scheduler tells the owner of a schedule type that its schedules
    // changed.
    notification_schedules_changed = 920,
    // The Time service: the clock was set, the local time zone changed, or
    // the time changed in some other way. Time-based plans are computed anew.
    notification_time_set = 926,
    notification_time_zone_changed = 927,
    notification_time_changed = 928,
};
