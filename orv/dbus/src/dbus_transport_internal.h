// Library-internal parts of the D-Bus transport, shared by its files: the
// records of open requests and calls in flight, and the handlers of what the
// bus sends. Not installed.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "orv/dbus_transport.h"
#include "orv/protocol.h"

namespace transport_detail {

inline constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
inline constexpr const char* kDBus = "org.freedesktop.DBus";

constexpr std::uint32_t kStayOpen =
    request_notify_subscribe | request_notify_values_changed | request_notify_custom | request_wait;

// What a pending GetAll or method call is for.
enum pending_kind_t : int {
    kRootObject,       // an item of the root lookup
    kRequestedObject,  // the first answer of a get-object request
    kRefreshedObject,  // a subscribed root got a new owner
    kFunctionResult,   // an execute-function request that expects a reply
};

inline std::string_view rootOf(std::string_view path) {
    return path.substr(0, path.find('.'));
}

}  // namespace transport_detail

// A request the bus side still answers.
struct orv_dbus_transport_t::open_t {
    orv_dbus_transport_t* self;
    request_t* request;
    orv_request_sink_t* sink;
    bool stayOpen;
    // The subscribed object's values as last reported, to tell what changed
    // when its service comes back.
    variant_map_t known;
    orv_slot_ptr propertiesMatch;
    orv_slot_ptr notificationMatch;
};

// A call in flight. The transport owns it, so no answer arrives once the
// transport is gone.
struct orv_dbus_transport_t::pending_t {
    orv_dbus_transport_t* self;
    std::uint64_t key;
    std::uint32_t id;
    int kind;
    std::string path;
    orv_slot_ptr slot;
};

// The sd-bus callbacks. They run inside sd-bus and never throw; what they
// deliver reaches the context on the loop.
struct orv_dbus_transport_t::dispatch_t {
    static int onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept;
    static int onReply(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept;
    static int onPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept;
    static int onNotification(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept;

  private:
    static void answered(orv_dbus_transport_t* self, sd_bus_message* m, const pending_t& pending);
    static std::vector<reply_item_t> refreshed(open_t& open, const std::string& path,
                                               variant_map_t parameters);
    static bool fromOwner(const open_t& open, sd_bus_message* m);
};
