#include "orv/dbus_transport.h"

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "orv/dbus_value.h"
#include "orv/error.h"
#include "orv/protocol.h"
#include "orv/request.h"
#include "orv/variant_map.h"

namespace {

constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kDBus = "org.freedesktop.DBus";

constexpr std::uint32_t kStayOpen =
    request_notify_subscribe | request_notify_values_changed | request_notify_custom | request_wait;

// What a pending GetAll or method call is for.
enum pending_kind_t : int {
    kRootObject,       // an item of the root lookup
    kRequestedObject,  // the first answer of a get-object request
    kRefreshedObject,  // a subscribed root got a new owner
    kFunctionResult,   // an execute-function request that expects a reply
};

std::string_view rootOf(std::string_view path) {
    return path.substr(0, path.find('.'));
}

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

struct orv_dbus_transport_t::dispatch_t {
    static int onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept {
        try {
            const std::string name = readText(m);
            const std::string oldOwner = readText(m);
            const std::string newOwner = readText(m);
            if (const auto root = orv_dbus_rootOfBusName(name)) {
                static_cast<orv_dbus_transport_t*>(userdata)->ownerChanged(*root, oldOwner,
                                                                           newOwner);
            }
        } catch (...) {
        }
        return 0;
    }

    static int onReply(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept {
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

    static void answered(orv_dbus_transport_t* self, sd_bus_message* m, const pending_t& pending) {
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
            items.push_back(
                reply_item_t::object(remote_object_t{pending.path, std::move(parameters)}));
        }
        self->post(pending.id, std::move(items));
    }

    // The object read again: its values, then a value change for each one
    // that differs from what was reported before.
    static std::vector<reply_item_t> refreshed(open_t& open, const std::string& path,
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
    static bool fromOwner(const open_t& open, sd_bus_message* m) {
        const char* sender = sd_bus_message_get_sender(m);
        auto it = open.self->owners_.find(rootOf(open.request->path()));
        return sender != nullptr && it != open.self->owners_.end() && it->second == sender;
    }

    static int onPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept {
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

    static int onNotification(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept {
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
};

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

// Watches the names before listing them, so that no change falls between.
bool orv_dbus_transport_t::start(std::string* error) {
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_match(bus_, &slot,
                             "type='signal',sender='org.freedesktop.DBus',"
                             "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                             "arg0namespace='org.orv'",
                             dispatch_t::onOwnerChanged, this);
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
        if (!root) {
            continue;
        }
        const char* owner = nullptr;
        orv_bus_error_t ownerError;
        sd_bus_message* reply = nullptr;
        if (sd_bus_call_method(bus_, kDBus, "/org/freedesktop/DBus", kDBus, "GetNameOwner",
                               ownerError.get(), &reply, "s", name) >= 0) {
            orv_message_ptr owned(reply);
            if (sd_bus_message_read_basic(reply, 's', &owner) > 0) {
                owners_[*root] = owner;
            }
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
