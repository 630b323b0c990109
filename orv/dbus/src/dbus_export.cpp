// The data model on D-Bus: one fallback handler on "/" answers every object
// path, so that instances need no registration of their own and the bus
// always shows the model as it is committed.
#include "orv/dbus_export.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "orv/dbus_value.h"
#include "orv/definition.h"
#include "orv/function.h"
#include "orv/protocol.h"
#include "orv/request.h"

namespace {

constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kIntrospectable = "org.freedesktop.DBus.Introspectable";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";

// Instances become visible with their first commit, and everything below
// them with them.
bool isVisible(const object_t* object) {
    for (; object != nullptr; object = object->parent()) {
        if (object->kind() == object_t::kind_t::instance && !object->isCommitted()) {
            return false;
        }
    }
    return true;
}

// Walks the labels of the object path one by one, so that keys holding dots
// resolve to the instance they name.
object_t* findObject(datamodel_t* model, std::string_view objectPath) {
    if (objectPath.empty() || objectPath.front() != '/') {
        return nullptr;
    }
    object_t* object = model->root();
    std::string_view rest = objectPath.substr(1);
    while (object != nullptr && !rest.empty()) {
        const std::size_t slash = rest.find('/');
        const auto label = orv_dbus_unescapeLabel(rest.substr(0, slash));
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        if (!label || (slash != std::string_view::npos && rest.empty())) {
            return nullptr;
        }
        object_t* next = object->child(*label);
        object = next != nullptr ? next : object->instance(*label);
    }
    return object != nullptr && isVisible(object) ? object : nullptr;
}

std::string objectPathOf(const object_t* object) {
    std::string path;
    for (; object != nullptr && object->parent() != nullptr; object = object->parent()) {
        path.insert(0, "/" + orv_dbus_escapeLabel(object->name()));
    }
    return path.empty() ? "/" : path;
}

// The children an object shows on the bus: its objects, then its committed
// instances.
template <typename Fn>
void forEachVisibleChild(const object_t* object, Fn&& fn) {
    for (const auto& child : object->children()) {
        fn(child.get());
    }
    for (const auto& instance : object->instances()) {
        if (instance->isCommitted()) {
            fn(instance.get());
        }
    }
}

variant_map_t committedParameters(const object_t* object) {
    variant_map_t parameters;
    parameters.reserve(object->parameters().size());
    for (const object_parameter_t& parameter : object->parameters()) {
        parameters.push_back({parameter.definition->name, parameter.value});
    }
    return parameters;
}

// --- Introspection ------------------------------------------------------

std::string xmlEscape(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

constexpr const char* kStandardInterfaces =
    " <interface name=\"org.freedesktop.DBus.Peer\">\n"
    "  <method name=\"Ping\"/>\n"
    "  <method name=\"GetMachineId\"><arg type=\"s\" name=\"machine_uuid\" "
    "direction=\"out\"/></method>\n"
    " </interface>\n"
    " <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "  <method name=\"Introspect\"><arg name=\"xml_data\" type=\"s\" "
    "direction=\"out\"/></method>\n"
    " </interface>\n"
    " <interface name=\"org.freedesktop.DBus.Properties\">\n"
    "  <method name=\"Get\"><arg name=\"interface_name\" direction=\"in\" type=\"s\"/>"
    "<arg name=\"property_name\" direction=\"in\" type=\"s\"/>"
    "<arg name=\"value\" direction=\"out\" type=\"v\"/></method>\n"
    "  <method name=\"GetAll\"><arg name=\"interface_name\" direction=\"in\" type=\"s\"/>"
    "<arg name=\"props\" direction=\"out\" type=\"a{sv}\"/></method>\n"
    "  <method name=\"Set\"><arg name=\"interface_name\" direction=\"in\" type=\"s\"/>"
    "<arg name=\"property_name\" direction=\"in\" type=\"s\"/>"
    "<arg name=\"value\" direction=\"in\" type=\"v\"/></method>\n"
    "  <signal name=\"PropertiesChanged\"><arg type=\"s\" name=\"interface_name\"/>"
    "<arg type=\"a{sv}\" name=\"changed_properties\"/>"
    "<arg type=\"as\" name=\"invalidated_properties\"/></signal>\n"
    " </interface>\n";

constexpr const char* kObjectManagerInterface =
    " <interface name=\"org.freedesktop.DBus.ObjectManager\">\n"
    "  <method name=\"GetManagedObjects\"><arg type=\"a{oa{sa{sv}}}\" "
    "name=\"object_paths_interfaces_and_properties\" direction=\"out\"/></method>\n"
    "  <signal name=\"InterfacesAdded\"><arg type=\"o\" name=\"object_path\"/>"
    "<arg type=\"a{sa{sv}}\" name=\"interfaces_and_properties\"/></signal>\n"
    "  <signal name=\"InterfacesRemoved\"><arg type=\"o\" name=\"object_path\"/>"
    "<arg type=\"as\" name=\"interfaces\"/></signal>\n"
    " </interface>\n";

std::string objectInterfaceXml(const object_definition_t& definition) {
    std::string xml = std::string(" <interface name=\"") + orv_dbus_interface + "\">\n";
    for (const auto& function : definition.functions) {
        xml += "  <method name=\"" + xmlEscape(function->name) +
               "\"><arg name=\"arguments\" type=\"a{sv}\" direction=\"in\"/>"
               "<arg name=\"retval\" type=\"v\" direction=\"out\"/>"
               "<arg name=\"out\" type=\"a{sv}\" direction=\"out\"/></method>\n";
    }
    for (const parameter_definition_t& parameter : definition.parameters) {
        const char* signature = orv_dbus_signature(parameter.type);
        xml += "  <property name=\"" + xmlEscape(parameter.name) + "\" type=\"" +
               (signature != nullptr ? signature : "v") + "\" access=\"read\"/>\n";
    }
    xml +=
        "  <signal name=\"Notification\"><arg type=\"u\" name=\"type\"/>"
        "<arg type=\"a{sv}\" name=\"parameters\"/></signal>\n"
        " </interface>\n";
    return xml;
}

std::string introspectionXml(const object_t* object, bool isRoot) {
    std::string xml =
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n<node>\n";
    xml += kStandardInterfaces;
    if (isRoot) {
        xml += kObjectManagerInterface;
    } else if (object->definition() != nullptr) {
        xml += objectInterfaceXml(*object->definition());
    }
    forEachVisibleChild(object, [&](const object_t* child) {
        xml += " <node name=\"" + orv_dbus_escapeLabel(child->name()) + "\"/>\n";
    });
    xml += "</node>\n";
    return xml;
}

// --- Replies ------------------------------------------------------------

// 1 once the reply is queued: the call is handled.
int sendReply(const orv_message_ptr& reply) {
    const int r = sd_bus_send(nullptr, reply.get(), nullptr);
    return r < 0 ? r : 1;
}

// A method return, or null with *r set.
orv_message_ptr newReturn(sd_bus_message* call, int* r) {
    sd_bus_message* reply = nullptr;
    *r = sd_bus_message_new_method_return(call, &reply);
    return orv_message_ptr(reply);
}

// One "a{sa{sv}}": the object's interface with its parameters.
int appendInterfaces(sd_bus_message* m, const object_t* object) {
    int r = sd_bus_message_open_container(m, 'a', "{sa{sv}}");
    if (r >= 0) {
        r = sd_bus_message_open_container(m, 'e', "sa{sv}");
    }
    if (r >= 0) {
        r = sd_bus_message_append_basic(m, 's', orv_dbus_interface);
    }
    if (r >= 0) {
        r = orv_dbus_appendMap(m, committedParameters(object));
    }
    if (r >= 0) {
        r = sd_bus_message_close_container(m);
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int appendManagedObject(sd_bus_message* m, const object_t* object) {
    int r = sd_bus_message_open_container(m, 'e', "oa{sa{sv}}");
    if (r >= 0) {
        r = sd_bus_message_append_basic(m, 'o', objectPathOf(object).c_str());
    }
    if (r >= 0) {
        r = appendInterfaces(m, object);
    }
    if (r >= 0) {
        r = sd_bus_message_close_container(m);
    }
    if (r < 0) {
        return r;
    }
    forEachVisibleChild(object, [&](const object_t* child) {
        if (r >= 0) {
            r = appendManagedObject(m, child);
        }
    });
    return r;
}

int replyManagedObjects(sd_bus_message* call, object_t* root) {
    int r = 0;
    orv_message_ptr reply = newReturn(call, &r);
    if (reply == nullptr) {
        return r;
    }
    r = sd_bus_message_open_container(reply.get(), 'a', "{oa{sa{sv}}}");
    forEachVisibleChild(root, [&](const object_t* child) {
        if (r >= 0) {
            r = appendManagedObject(reply.get(), child);
        }
    });
    if (r >= 0) {
        r = sd_bus_message_close_container(reply.get());
    }
    return r < 0 ? r : sendReply(reply);
}

int replyProperties(sd_bus_message* call, const object_t* object, sd_bus_error* error) {
    const char* interface = nullptr;
    const char* name = nullptr;
    const char* member = sd_bus_message_get_member(call);
    const std::string_view method = member != nullptr ? member : "";
    if (method == "Set") {
        return sd_bus_error_set(error, SD_BUS_ERROR_PROPERTY_READ_ONLY,
                                "The parameters of the data model are read-only.");
    }
    int r = 0;
    if (method == "GetAll") {
        if ((r = sd_bus_message_read(call, "s", &interface)) < 0) {
            return r;
        }
        orv_message_ptr reply = newReturn(call, &r);
        if (reply == nullptr) {
            return r;
        }
        // Other interfaces have no properties.
        const bool ours = interface[0] == '\0' || std::string_view(interface) == orv_dbus_interface;
        r = orv_dbus_appendMap(reply.get(), ours ? committedParameters(object) : variant_map_t{});
        return r < 0 ? r : sendReply(reply);
    }
    if (method != "Get") {
        return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_METHOD, "Unknown method %s.",
                                 member != nullptr ? member : "");
    }
    if ((r = sd_bus_message_read(call, "ss", &interface, &name)) < 0) {
        return r;
    }
    if (std::string_view(interface) != orv_dbus_interface) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_INTERFACE, "Unknown interface %s.",
                                 interface);
    }
    const variant_t* value = object_parameterCommittedValue(object, name);
    if (value == nullptr) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_PROPERTY, "Unknown property %s.",
                                 name);
    }
    orv_message_ptr reply = newReturn(call, &r);
    if (reply == nullptr) {
        return r;
    }
    r = orv_dbus_appendVariant(reply.get(), *value);
    return r < 0 ? r : sendReply(reply);
}

// The out-arguments the definition declares, as the handler left them.
variant_map_t outArguments(const function_definition_t& function,
                           const argument_value_list_t& args) {
    variant_map_t out;
    for (const argument_definition_t& argument : function.arguments) {
        if (!argument.out) {
            continue;
        }
        for (const argument_value_t& value : args.values()) {
            if (value.name == argument.name) {
                out.push_back({value.name, value.value});
                break;
            }
        }
    }
    return out;
}

int replyCall(sd_bus_message* call, object_t* object, sd_bus_error* error) {
    // Declared first, so that what the call caused goes out after the reply.
    const orv_dbus_reply_first_t replyFirst;
    const char* member = sd_bus_message_get_member(call);
    const function_definition_t* function =
        object->definition() != nullptr ? object->definition()->function(member) : nullptr;
    if (function == nullptr) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_METHOD, "Unknown function %s.",
                                 member);
    }
    variant_map_t in;
    if (orv_dbus_readMap(call, &in) < 0) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS,
                                "The arguments must be one a{sv} of named values.");
    }
    argument_value_list_t args;
    for (variant_map_entry_t& entry : in) {
        args.values().push_back({std::move(entry.key), std::move(entry.value)});
    }
    const std::unique_ptr<request_t> request =
        request_create_executeFunction(object_path(object, path_attr_default), member, 0);
    variant_t retval;
    if (!object_callFunction(object, member, &args, &retval, request.get())) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "The function %s is not available.",
                                 member);
    }
    // A function without a result answers true, as a "v" cannot be empty.
    if (retval.type() == variant_type_unknown) {
        retval = variant_t(true);
    }
    int r = 0;
    orv_message_ptr reply = newReturn(call, &r);
    if (reply == nullptr) {
        return r;
    }
    r = orv_dbus_appendVariant(reply.get(), retval);
    if (r >= 0) {
        r = orv_dbus_appendMap(reply.get(), outArguments(*function, args));
    }
    if (r < 0) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "The result of %s has no D-Bus form.",
                                 member);
    }
    return sendReply(reply);
}

int replyIntrospection(sd_bus_message* call, const object_t* object, bool isRoot) {
    int r = 0;
    orv_message_ptr reply = newReturn(call, &r);
    if (reply == nullptr) {
        return r;
    }
    const std::string xml = introspectionXml(object, isRoot);
    r = sd_bus_message_append_basic(reply.get(), 's', xml.c_str());
    return r < 0 ? r : sendReply(reply);
}

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
