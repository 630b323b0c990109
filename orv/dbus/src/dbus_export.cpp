// The data model on D-Bus: one fallback handler on "/" answers every object
// path, so that instances need no registration of their own and the bus
// always shows the model as it is committed.
#include "orv/dbus_export.h"

#include <cstring>
#include <new>

#include "dbus_export_internal.h"
#include "orv/dbus_value.h"

using export_detail::appendInterfaces;
using export_detail::findObject;
using export_detail::forEachVisibleChild;
using export_detail::kIntrospectable;
using export_detail::kObjectManager;
using export_detail::kProperties;
using export_detail::objectPathOf;
using export_detail::replyCall;
using export_detail::replyIntrospection;
using export_detail::replyManagedObjects;
using export_detail::replyProperties;

namespace {

// A new signal from path, or null.
orv_message_ptr newSignal(sd_bus* bus, const char* path, const char* interface,
                          const char* member) {
    sd_bus_message* m = nullptr;
    sd_bus_message_new_signal(bus, &m, path, interface, member);
    return orv_message_ptr(m);
}

void emitAdded(sd_bus* bus, const object_t* object) {
    orv_message_ptr m = newSignal(bus, "/", kObjectManager, "InterfacesAdded");
    if (m && sd_bus_message_append_basic(m.get(), 'o', objectPathOf(object).c_str()) >= 0 &&
        appendInterfaces(m.get(), object) >= 0) {
        orv_dbus_send(m.get());
    }
}

void emitRemoved(sd_bus* bus, const object_t* object) {
    orv_message_ptr m = newSignal(bus, "/", kObjectManager, "InterfacesRemoved");
    if (m && sd_bus_message_append(m.get(), "oas", objectPathOf(object).c_str(), 1,
                                   orv_dbus_interface) >= 0) {
        orv_dbus_send(m.get());
    }
}

// A new instance comes with the objects below it; instances below it are
// announced by their own commit.
void emitAddedTree(sd_bus* bus, const object_t* object) {
    emitAdded(bus, object);
    for (const auto& child : object->children()) {
        emitAddedTree(bus, child.get());
    }
}

// A removed instance takes everything below it along, deepest first.
void emitRemovedTree(sd_bus* bus, const object_t* object) {
    forEachVisibleChild(object, [&](const object_t* child) { emitRemovedTree(bus, child); });
    emitRemoved(bus, object);
}

constexpr const char* kPeer = "org.freedesktop.DBus.Peer";

// The signature each method served here takes, or null for a method that is
// not ours: the handlers then say it is unknown.
const char* expectedSignature(std::string_view interface, std::string_view member) {
    struct method_t {
        std::string_view interface;
        std::string_view member;
        const char* signature;
    };
    static constexpr method_t kMethods[] = {
        {kIntrospectable, "Introspect", ""},
        {kProperties, "Get", "ss"},
        {kProperties, "GetAll", "s"},
        {kProperties, "Set", "ssv"},
        {kObjectManager, "GetManagedObjects", ""},
        {kPeer, "Ping", ""},
        {kPeer, "GetMachineId", ""},
    };
    for (const method_t& method : kMethods) {
        if (method.interface == interface && method.member == member) {
            return method.signature;
        }
    }
    // Every function of the data model takes its arguments as one map.
    return interface.empty() || interface == orv_dbus_interface ? "a{sv}" : nullptr;
}

// Refuses a call whose arguments do not have the method's signature, with
// the one it takes; 0 when they have it.
int checkSignature(sd_bus_message* m, std::string_view interface, sd_bus_error* error) {
    const char* member = sd_bus_message_get_member(m);
    const char* expected = expectedSignature(interface, member != nullptr ? member : "");
    const char* actual = sd_bus_message_get_signature(m, 1);
    if (expected == nullptr || std::string_view(actual != nullptr ? actual : "") == expected) {
        return 0;
    }
    return sd_bus_error_setf(
        error, SD_BUS_ERROR_INVALID_ARGS, "%s takes the signature \"%s\", not \"%s\".",
        member != nullptr ? member : "", expected, actual != nullptr ? actual : "");
}

}  // namespace

struct orv_dbus_export_t::dispatch_t {
    static int handle(orv_dbus_export_t* self, sd_bus_message* m, sd_bus_error* error) {
        if (sd_bus_message_is_method_call(m, nullptr, nullptr) <= 0) {
            return 0;
        }
        const char* path = sd_bus_message_get_path(m);
        const char* interface = sd_bus_message_get_interface(m);
        const std::string_view iface = interface != nullptr ? interface : "";
        object_t* object = findObject(self->model_, path != nullptr ? path : "");
        if (object == nullptr) {
            return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_OBJECT, "Unknown object %s.",
                                     path != nullptr ? path : "");
        }
        const bool isRoot = object == self->model_->root();
        if (const int r = checkSignature(m, iface, error); r < 0) {
            return r;
        }
        if (iface == kIntrospectable) {
            return replyIntrospection(m, object, isRoot);
        }
        if (iface == kProperties) {
            return replyProperties(m, object, error);
        }
        if (isRoot && iface == kObjectManager) {
            return replyManagedObjects(m, object);
        }
        if (!isRoot && (iface.empty() || iface == orv_dbus_interface)) {
            return replyCall(m, object, error);
        }
        return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_INTERFACE, "Unknown interface %s.",
                                 interface != nullptr ? interface : "");
    }

    // sd-bus answers Peer itself, whatever the arguments: a filter, which
    // runs first, refuses a wrong signature the same way as the others.
    static int onPeer(sd_bus_message* m, void*, sd_bus_error*) noexcept {
        if (sd_bus_message_is_method_call(m, kPeer, nullptr) <= 0) {
            return 0;
        }
        sd_bus_error error = SD_BUS_ERROR_NULL;
        const int r = checkSignature(m, kPeer, &error);
        if (r < 0) {
            sd_bus_reply_method_error(m, &error);
        }
        sd_bus_error_free(&error);
        return r < 0 ? 1 : 0;
    }

    static int onMessage(sd_bus_message* m, void* userdata, sd_bus_error* error) noexcept {
        try {
            return handle(static_cast<orv_dbus_export_t*>(userdata), m, error);
        } catch (const std::bad_alloc&) {
            return -ENOMEM;
        } catch (...) {
            return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "Internal error.");
        }
    }
};

orv_dbus_export_t::orv_dbus_export_t(sd_bus* bus, datamodel_t* model) : bus_(bus), model_(model) {}

std::unique_ptr<orv_dbus_export_t> orv_dbus_export_t::create(sd_bus* bus, datamodel_t* model,
                                                             std::string* error) {
    std::unique_ptr<orv_dbus_export_t> bridge(new orv_dbus_export_t(bus, model));
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_add_fallback(bus, &slot, "/", dispatch_t::onMessage, bridge.get());
    if (r < 0) {
        if (error != nullptr) {
            *error = std::string("cannot serve the data model: ") + strerror(-r);
        }
        return nullptr;
    }
    bridge->slot_.reset(slot);
    slot = nullptr;
    if (sd_bus_add_filter(bus, &slot, dispatch_t::onPeer, nullptr) < 0) {
        if (error != nullptr) {
            *error = "cannot check the calls of org.freedesktop.DBus.Peer";
        }
        return nullptr;
    }
    bridge->peerSlot_.reset(slot);
    model->setObserver(bridge.get());
    return bridge;
}

orv_dbus_export_t::~orv_dbus_export_t() {
    if (model_->observer() == this) {
        model_->setObserver(nullptr);
    }
}

// Signals are announcements: a failure to build or queue one must not undo
// the commit that caused it, so the observers swallow every error.
void orv_dbus_export_t::instanceAdded(object_t& instance) {
    try {
        emitAddedTree(bus_, &instance);
    } catch (...) {
    }
}

void orv_dbus_export_t::instanceRemoved(object_t& instance) {
    try {
        emitRemovedTree(bus_, &instance);
    } catch (...) {
    }
}

void orv_dbus_export_t::parametersChanged(object_t& object, const std::vector<std::string>& names) {
    try {
        const std::string path = objectPathOf(&object);
        orv_message_ptr m = newSignal(bus_, path.c_str(), kProperties, "PropertiesChanged");
        if (!m) {
            return;
        }
        variant_map_t changed;
        for (const std::string& name : names) {
            if (const variant_t* value = object_parameterCommittedValue(&object, name)) {
                changed.push_back({name, *value});
            }
        }
        if (sd_bus_message_append_basic(m.get(), 's', orv_dbus_interface) >= 0 &&
            orv_dbus_appendMap(m.get(), changed) >= 0 &&
            sd_bus_message_append(m.get(), "as", 0) >= 0) {
            orv_dbus_send(m.get());
        }
    } catch (...) {
    }
}
