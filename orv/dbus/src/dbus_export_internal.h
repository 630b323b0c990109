// Library-internal parts of the D-Bus export, shared by its files: what the
// bus sees of the model, and the replies to its calls. Not installed.
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <string_view>

#include "orv/object.h"
#include "orv/protocol.h"

namespace export_detail {

inline constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
inline constexpr const char* kIntrospectable = "org.freedesktop.DBus.Introspectable";
inline constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";

// Instances become visible with their first commit, and everything below
// them with them.
bool isVisible(const object_t* object);
// The visible object at an object path, or null.
object_t* findObject(datamodel_t* model, std::string_view objectPath);
std::string objectPathOf(const object_t* object);
variant_map_t committedParameters(const object_t* object);
// The introspection data of an object: its interfaces and its children.
std::string introspectionXml(const object_t* object, bool isRoot);

// The children an object shows on the bus: its objects, then its committed
// instances.
template <typename Fn>
void forEachVisibleChild(const object_t* object, Fn&& fn) {
    for (const auto& child : object->children()) {
        fn(child.get());
    }
    for (object_t* instance = object_firstInstance(object); instance != nullptr;
         instance = object_nextInstance(instance)) {
        if (instance->isCommitted()) {
            fn(instance);
        }
    }
}

// One "a{sa{sv}}": the object's interface with its parameters.
int appendInterfaces(sd_bus_message* m, const object_t* object);

// The answers to the calls of each interface. Each returns 1 once the reply
// is queued, or a negative errno.
int replyManagedObjects(sd_bus_message* call, object_t* root);
int replyProperties(sd_bus_message* call, const object_t* object, sd_bus_error* error);
int replyCall(sd_bus_message* call, object_t* object, sd_bus_error* error);
int replyIntrospection(sd_bus_message* call, const object_t* object, bool isRoot);

}  // namespace export_detail
