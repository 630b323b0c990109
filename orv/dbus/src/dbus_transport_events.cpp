// What the bus sends to the transport: answers to its calls, owners of the
// org.orv.* names coming and going, and the signals of subscribed objects.
#include <utility>

#include "dbus_transport_internal.h"
#include "orv/dbus_value.h"
#include "orv/error.h"
#include "orv/request.h"
#include "orv/variant_map.h"

using transport_detail::kFunctionResult;
using transport_detail::kRefreshedObject;
using transport_detail::kRootObject;
using transport_detail::rootOf;

namespace {

notification_t valueChanged(const std::string& path, const std::string& name,
                            const variant_t& value) {
    notification_t notification(notification_value_changed);
    notification.setObjectPath(path);
    notification.parameters().push_back({"parameter", variant_t(name)});
    notification.parameters().push_back({"newvalue", variant_t(variant_char(&value).value_or(""))});
    return notification;
}

// Reads one "s"; "" when the message holds no text there.
std::string readText(sd_bus_message* m) {
    const char* text = nullptr;
    return sd_bus_message_read_basic(m, 's', &text) > 0 && text != nullptr ? text : "";
}

reply_item_t errorItem(sd_bus_message* m, const std::string& path) {
    const sd_bus_error* error = sd_bus_message_get_error(m);
    std::string description = error != nullptr && error->name != nullptr ? error->name : "";
    if (error != nullptr && error->message != nullptr) {
        description += std::string(": ") + error->message;
    }
    const bool unknown = sd_bus_message_is_method_error(m, SD_BUS_ERROR_UNKNOWN_OBJECT) > 0 ||
                         sd_bus_message_is_method_error(m, SD_BUS_ERROR_SERVICE_UNKNOWN) > 0 ||
                         sd_bus_message_is_method_error(m, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0;
    return reply_item_t::error(unknown ? orv_error_not_found : orv_error_invalid_value,
                               std::move(description), path);
}

// The return value and out-arguments of a call, as one object item.
reply_item_t functionResult(sd_bus_message* m, const std::string& path) {
    variant_t retval;
    variant_map_t parameters;
    if (orv_dbus_readVariant(m, &retval) < 0 || orv_dbus_readMap(m, &parameters) < 0) {
        return reply_item_t::error(orv_error_invalid_value, "unexpected reply", path);
    }
    parameters.insert(parameters.begin(), variant_map_entry_t{"retval", std::move(retval)});
    return reply_item_t::object(remote_object_t{path, std::move(parameters)});
}

}  // namespace

int orv_dbus_transport_t::dispatch_t::onOwnerChanged(sd_bus_message* m, void* userdata,
                                                     sd_bus_error*) noexcept {
    try {
        const std::string name = readText(m);
        const std::string oldOwner = readText(m);
        const std::string newOwner = readText(m);
        if (const auto root = orv_dbus_rootOfBusName(name)) {
            static_cast<orv_dbus_transport_t*>(userdata)->ownerChanged(*root, oldOwner, newOwner);
        }
    } catch (...) {
    }
    return 0;
}

int orv_dbus_transport_t::dispatch_t::onReply(sd_bus_message* m, void* userdata,
                                              sd_bus_error*) noexcept {
    auto* pending = static_cast<pending_t*>(userdata);
    orv_dbus_transport_t* self = pending->self;
    const std::uint64_t key = pending->key;
    try {
        answered(self, m, *pending);
    } catch (...) {
    }
    // sd-bus keeps its own reference to the slot while this runs.
    self->pending_.erase(key);
    return 0;
}

void orv_dbus_transport_t::dispatch_t::answered(orv_dbus_transport_t* self, sd_bus_message* m,
                                                const pending_t& pending) {
    open_t* open = self->find(pending.id);
    if (open == nullptr) {
        return;
    }
    const bool failed = sd_bus_message_is_method_error(m, nullptr) > 0;
    std::vector<reply_item_t> items;
    if (pending.kind == kFunctionResult) {
        items.push_back(failed ? errorItem(m, pending.path) : functionResult(m, pending.path));
        self->post(pending.id, std::move(items));
        return;
    }
    variant_map_t parameters;
    if (!failed && orv_dbus_readMap(m, &parameters) < 0) {
        parameters.clear();
    }
    if (failed && pending.kind != kRootObject) {
        items.push_back(errorItem(m, pending.path));
    } else if (pending.kind == kRefreshedObject) {
        items = refreshed(*open, pending.path, std::move(parameters));
    } else {
        open->known = parameters;
        items.push_back(reply_item_t::object(remote_object_t{pending.path, std::move(parameters)}));
    }
    self->post(pending.id, std::move(items));
}

// The object read again: its values, then a value change for each one
// that differs from what was reported before.
std::vector<reply_item_t> orv_dbus_transport_t::dispatch_t::refreshed(open_t& open,
                                                                      const std::string& path,
                                                                      variant_map_t parameters) {
    std::vector<reply_item_t> items;
    items.push_back(reply_item_t::object(remote_object_t{path, parameters}));
    if (open.request->attributes() & request_notify_values_changed) {
        for (const variant_map_entry_t& entry : parameters) {
            const variant_t* before = variant_map_find(&open.known, entry.key);
            if (before == nullptr || !(*before == entry.value)) {
                items.push_back(
                    reply_item_t::notification(valueChanged(path, entry.key, entry.value)));
            }
        }
    }
    open.known = std::move(parameters);
    return items;
}

// Signals of a subscribed object count only from the current owner of
// its root's name: anyone may send a signal with any path.
bool orv_dbus_transport_t::dispatch_t::fromOwner(const open_t& open, sd_bus_message* m) {
    const char* sender = sd_bus_message_get_sender(m);
    auto it = open.self->owners_.find(rootOf(open.request->path()));
    return sender != nullptr && it != open.self->owners_.end() && it->second == sender;
}

int orv_dbus_transport_t::dispatch_t::onPropertiesChanged(sd_bus_message* m, void* userdata,
                                                          sd_bus_error*) noexcept {
    try {
        auto* open = static_cast<open_t*>(userdata);
        variant_map_t changed;
        if (!fromOwner(*open, m) || readText(m) != orv_dbus_interface ||
            orv_dbus_readMap(m, &changed) < 0) {
            return 0;
        }
        std::vector<reply_item_t> items;
        for (variant_map_entry_t& entry : changed) {
            items.push_back(reply_item_t::notification(
                valueChanged(open->request->path(), entry.key, entry.value)));
            variant_map_t& known = open->known;
            std::erase_if(known, [&](const auto& old) { return old.key == entry.key; });
            known.push_back(std::move(entry));
        }
        open->self->post(open->request->id(), std::move(items));
    } catch (...) {
    }
    return 0;
}

int orv_dbus_transport_t::dispatch_t::onNotification(sd_bus_message* m, void* userdata,
                                                     sd_bus_error*) noexcept {
    try {
        auto* open = static_cast<open_t*>(userdata);
        std::uint32_t type = 0;
        variant_map_t parameters;
        if (!fromOwner(*open, m) || sd_bus_message_read_basic(m, 'u', &type) < 0 ||
            orv_dbus_readMap(m, &parameters) < 0) {
            return 0;
        }
        notification_t notification(type);
        notification.setObjectPath(open->request->path());
        notification.parameters() = std::move(parameters);
        std::vector<reply_item_t> items;
        items.push_back(reply_item_t::notification(std::move(notification)));
        open->self->post(open->request->id(), std::move(items));
    } catch (...) {
    }
    return 0;
}
