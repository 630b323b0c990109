// The requests of plug-ins, carried over D-Bus: method calls, GetAll and
// subscriptions to the signals of remote objects.
#include "orv/dbus_transport.h"

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "dbus_transport_internal.h"
#include "orv/dbus_value.h"
#include "orv/error.h"
#include "orv/request.h"

using transport_detail::kDBus;
using transport_detail::kFunctionResult;
using transport_detail::kProperties;
using transport_detail::kRefreshedObject;
using transport_detail::kRequestedObject;
using transport_detail::kRootObject;
using transport_detail::kStayOpen;
using transport_detail::rootOf;

orv_dbus_transport_t::orv_dbus_transport_t(sd_bus* bus, orv_loop_t* loop)
    : bus_(bus), loop_(loop) {}

orv_dbus_transport_t::~orv_dbus_transport_t() {
    // Matches and calls go before the maps that their callbacks read.
    pending_.clear();
    open_.clear();
}

std::unique_ptr<orv_dbus_transport_t> orv_dbus_transport_t::create(sd_bus* bus, orv_loop_t* loop,
                                                                   std::string* error) {
    std::unique_ptr<orv_dbus_transport_t> transport(new orv_dbus_transport_t(bus, loop));
    std::string reason;
    if (!transport->start(&reason)) {
        if (error != nullptr) {
            *error = reason;
        }
        return nullptr;
    }
    return transport;
}

namespace {

// NameOwnerChanged for every name under the org.orv prefix: arg0namespace
// names the prefix without its final dot.
std::string ownerChangesMatch() {
    const std::string_view prefix = orv_dbus_name_prefix.substr(0, orv_dbus_name_prefix.size() - 1);
    return "type='signal',sender='org.freedesktop.DBus',"
           "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
           "arg0namespace='" +
           std::string(prefix) + "'";
}

// The unique name that owns a bus name, or "" when it cannot be had.
std::string ownerOf(sd_bus* bus, const char* name) {
    const char* owner = nullptr;
    orv_bus_error_t error;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(bus, kDBus, "/org/freedesktop/DBus", kDBus, "GetNameOwner", error.get(),
                           &reply, "s", name) < 0) {
        return std::string();
    }
    orv_message_ptr owned(reply);
    return sd_bus_message_read_basic(reply, 's', &owner) > 0 ? owner : "";
}

}  // namespace

// Watches the names before listing them, so that no change falls between.
bool orv_dbus_transport_t::start(std::string* error) {
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_match(bus_, &slot, ownerChangesMatch().c_str(), dispatch_t::onOwnerChanged,
                             this);
    ownerWatch_.reset(slot);
    if (r < 0) {
        *error = std::string("cannot watch the bus names: ") + std::strerror(-r);
        return false;
    }
    orv_bus_error_t callError;
    sd_bus_message* raw = nullptr;
    r = sd_bus_call_method(bus_, kDBus, "/org/freedesktop/DBus", kDBus, "ListNames",
                           callError.get(), &raw, "");
    orv_message_ptr names(raw);
    if (r < 0 || (r = sd_bus_message_enter_container(raw, 'a', "s")) < 0) {
        *error = std::string("cannot list the bus names: ") + std::strerror(-r);
        return false;
    }
    const char* name = nullptr;
    while (sd_bus_message_read_basic(raw, 's', &name) > 0) {
        const auto root = orv_dbus_rootOfBusName(name);
        std::string owner = root ? ownerOf(bus_, name) : std::string();
        if (!owner.empty()) {
            owners_[*root] = std::move(owner);
        }
    }
    return true;
}

bool orv_dbus_transport_t::hasOwner(std::string_view root) const {
    return owners_.find(root) != owners_.end();
}

orv_dbus_transport_t::open_t* orv_dbus_transport_t::find(std::uint32_t id) const {
    auto it = open_.find(id);
    return it == open_.end() ? nullptr : it->second.get();
}

bool orv_dbus_transport_t::send(request_t* request, orv_request_sink_t* sink) {
    if (request == nullptr || sink == nullptr) {
        return false;
    }
    if (request->type() == request_type_exec_function) {
        return call(request, sink);
    }
    if (request->type() != request_type_get_object) {
        return false;
    }
    const bool stayOpen = request->path().empty() || (request->attributes() & kStayOpen) != 0;
    auto open = std::make_unique<open_t>(open_t{this, request, sink, stayOpen, {}, {}, {}});
    open_t& added = *open;
    open_[request->id()] = std::move(open);
    if (request->path().empty()) {
        // The root lookup: one item per root on the bus, and more later.
        for (const auto& entry : owners_) {
            fetch(request->id(), kRootObject, entry.first);
        }
        return true;
    }
    if (stayOpen) {
        subscribe(added);
    }
    if (hasOwner(rootOf(request->path()))) {
        fetch(request->id(), kRequestedObject, request->path());
    } else {
        std::vector<reply_item_t> items;
        items.push_back(
            reply_item_t::error(orv_error_not_found, "object not found", request->path()));
        post(request->id(), std::move(items));
    }
    return true;
}

// A failed match leaves the subscription without those signals; the first
// answer still arrives.
void orv_dbus_transport_t::subscribe(open_t& open) {
    const std::string path = orv_dbus_objectPath(open.request->path());
    const std::uint32_t attributes = open.request->attributes();
    sd_bus_slot* slot = nullptr;
    if (attributes & (request_notify_values_changed | request_notify_subscribe)) {
        sd_bus_match_signal_async(bus_, &slot, nullptr, path.c_str(), kProperties,
                                  "PropertiesChanged", dispatch_t::onPropertiesChanged, nullptr,
                                  &open);
        open.propertiesMatch.reset(slot);
    }
    if (attributes & (request_notify_custom | request_notify_subscribe)) {
        slot = nullptr;
        sd_bus_match_signal_async(bus_, &slot, nullptr, path.c_str(), orv_dbus_interface,
                                  "Notification", dispatch_t::onNotification, nullptr, &open);
        open.notificationMatch.reset(slot);
    }
}

bool orv_dbus_transport_t::call(request_t* request, orv_request_sink_t* sink) {
    const std::string_view root = rootOf(request->path());
    if (root.empty() || !hasOwner(root)) {
        return false;
    }
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &raw, orv_dbus_busName(request->path()).c_str(),
                                           orv_dbus_objectPath(request->path()).c_str(),
                                           orv_dbus_interface, request->function().c_str());
    orv_message_ptr m(raw);
    if (r < 0 || orv_dbus_appendMap(raw, request->parameters()) < 0) {
        return false;
    }
    // Changes of state are announcements: the client's answer is not awaited.
    if (request->function() == "setState") {
        return sd_bus_message_set_expect_reply(raw, 0) >= 0 && orv_dbus_send(raw) >= 0;
    }
    auto pending = std::make_unique<pending_t>(
        pending_t{this, nextPending_++, request->id(), kFunctionResult, request->path(), {}});
    sd_bus_slot* slot = nullptr;
    r = sd_bus_call_async(bus_, &slot, raw, dispatch_t::onReply, pending.get(), 0);
    if (r < 0) {
        return false;
    }
    pending->slot.reset(slot);
    auto open = std::make_unique<open_t>(open_t{this, request, sink, false, {}, {}, {}});
    open_[request->id()] = std::move(open);
    pending_[pending->key] = std::move(pending);
    return true;
}

// Reads an object's parameters with GetAll.
void orv_dbus_transport_t::fetch(std::uint32_t id, int kind, const std::string& path) {
    sd_bus_message* raw = nullptr;
    int r =
        sd_bus_message_new_method_call(bus_, &raw, orv_dbus_busName(path).c_str(),
                                       orv_dbus_objectPath(path).c_str(), kProperties, "GetAll");
    orv_message_ptr m(raw);
    if (r < 0 || sd_bus_message_append_basic(raw, 's', orv_dbus_interface) < 0) {
        return;
    }
    auto pending = std::make_unique<pending_t>(pending_t{this, nextPending_++, id, kind, path, {}});
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_async(bus_, &slot, raw, dispatch_t::onReply, pending.get(), 0) < 0) {
        return;
    }
    pending->slot.reset(slot);
    pending_[pending->key] = std::move(pending);
}

void orv_dbus_transport_t::ownerChanged(const std::string& root, const std::string& oldOwner,
                                        const std::string& newOwner) {
    if (newOwner.empty()) {
        owners_.erase(root);
        rootGone(root);
        return;
    }
    owners_[root] = newOwner;
    std::vector<std::pair<std::uint32_t, int>> fetches;
    for (const auto& [id, open] : open_) {
        const std::string& path = open->request->path();
        if (path.empty() && oldOwner.empty()) {
            fetches.emplace_back(id, kRootObject);
        } else if (!path.empty() && open->stayOpen && rootOf(path) == root) {
            fetches.emplace_back(id, kRefreshedObject);
        }
    }
    for (const auto& [id, kind] : fetches) {
        const std::string& path = find(id)->request->path();
        fetch(id, kind, path.empty() ? root : path);
    }
}

// Every open root lookup that waits for objects hears that root left.
void orv_dbus_transport_t::rootGone(const std::string& root) {
    for (const auto& [id, open] : open_) {
        if (open->request->path().empty() && (open->request->attributes() & request_wait)) {
            std::vector<reply_item_t> items;
            items.push_back(reply_item_t::gone(root));
            post(id, std::move(items));
        }
    }
}

void orv_dbus_transport_t::post(std::uint32_t id, std::vector<reply_item_t> items) {
    std::weak_ptr<bool> token = alive_;
    loop_->defer([this, token, id, items = std::move(items)]() mutable {
        if (token.expired()) {
            return;  // the transport is gone
        }
        auto it = open_.find(id);
        if (it == open_.end()) {
            return;  // forgotten meanwhile
        }
        request_t* request = it->second->request;
        orv_request_sink_t* sink = it->second->sink;
        if (!it->second->stayOpen) {
            open_.erase(it);  // answered once: the bus side is done with it
        }
        if (sink != nullptr) {
            sink->deliver(request, std::move(items));
        }
    });
}

void orv_dbus_transport_t::forget(request_t* request) {
    if (request != nullptr) {
        open_.erase(request->id());
    }
}

bool orv_dbus_transport_t::notify(const notification_t* notification) {
    if (notification == nullptr || !notification->objectPath()) {
        return false;
    }
    sd_bus_message* raw = nullptr;
    const std::string path = orv_dbus_objectPath(*notification->objectPath());
    int r = sd_bus_message_new_signal(bus_, &raw, path.c_str(), orv_dbus_interface, "Notification");
    orv_message_ptr m(raw);
    const std::uint32_t type = notification->type();
    if (r < 0 || sd_bus_message_append_basic(raw, 'u', &type) < 0 ||
        orv_dbus_appendMap(raw, notification->parameters()) < 0) {
        return false;
    }
    return orv_dbus_send(raw) >= 0;
}
