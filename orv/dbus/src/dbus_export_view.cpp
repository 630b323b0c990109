// What the bus sees of the data model: which objects are visible, their
// object paths and the introspection data generated from the definitions.
#include <string>
#include <string_view>

#include "dbus_export_internal.h"
#include "orv/dbus_value.h"
#include "orv/definition.h"

using export_detail::forEachVisibleChild;
using export_detail::kObjectManager;

// Instances become visible with their first commit, and everything below
// them with them.
bool export_detail::isVisible(const object_t* object) {
    for (; object != nullptr; object = object->parent()) {
        if (object->kind() == object_t::kind_t::instance && !object->isCommitted()) {
            return false;
        }
    }
    return true;
}

// Walks the labels of the object path one by one, so that keys holding dots
// resolve to the instance they name.
object_t* export_detail::findObject(datamodel_t* model, std::string_view objectPath) {
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

std::string export_detail::objectPathOf(const object_t* object) {
    std::string path;
    for (; object != nullptr && object->parent() != nullptr; object = object->parent()) {
        path.insert(0, "/" + orv_dbus_escapeLabel(object->name()));
    }
    return path.empty() ? "/" : path;
}

variant_map_t export_detail::committedParameters(const object_t* object) {
    variant_map_t parameters;
    const std::span<const variant_t> values = object->committedValues();
    parameters.reserve(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        parameters.push_back({object->definition()->parameters[i].name, values[i]});
    }
    return parameters;
}

namespace {

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

}  // namespace

std::string export_detail::introspectionXml(const object_t* object, bool isRoot) {
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
