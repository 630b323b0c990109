// The replies of the D-Bus export: managed objects, properties, calls of
// bus functions and introspection.
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "dbus_export_internal.h"
#include "orv/dbus_handle.h"
#include "orv/dbus_value.h"
#include "orv/definition.h"
#include "orv/function.h"
#include "orv/request.h"

using export_detail::appendInterfaces;
using export_detail::committedParameters;
using export_detail::forEachVisibleChild;
using export_detail::introspectionXml;
using export_detail::objectPathOf;

namespace {

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

int replyGetAll(sd_bus_message* call, const object_t* object) {
    const char* interface = nullptr;
    int r = sd_bus_message_read(call, "s", &interface);
    if (r < 0) {
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

int replyGet(sd_bus_message* call, const object_t* object, sd_bus_error* error) {
    const char* interface = nullptr;
    const char* name = nullptr;
    int r = sd_bus_message_read(call, "ss", &interface, &name);
    if (r < 0) {
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

// The named arguments of a call, or false when they are not one "a{sv}".
bool readArguments(sd_bus_message* call, argument_value_list_t* args) {
    variant_map_t in;
    if (orv_dbus_readMap(call, &in) < 0) {
        return false;
    }
    for (variant_map_entry_t& entry : in) {
        args->values().push_back({std::move(entry.key), std::move(entry.value)});
    }
    return true;
}

// The return value, then the out-arguments.
int replyResult(sd_bus_message* call, const function_definition_t& function,
                const argument_value_list_t& args, variant_t retval, sd_bus_error* error) {
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
        r = orv_dbus_appendMap(reply.get(), outArguments(function, args));
    }
    if (r < 0) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "The result of %s has no D-Bus form.",
                                 function.name.c_str());
    }
    return sendReply(reply);
}

}  // namespace

int export_detail::appendInterfaces(sd_bus_message* m, const object_t* object) {
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

int export_detail::replyManagedObjects(sd_bus_message* call, object_t* root) {
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

int export_detail::replyProperties(sd_bus_message* call, const object_t* object,
                                   sd_bus_error* error) {
    const char* member = sd_bus_message_get_member(call);
    const std::string_view method = member != nullptr ? member : "";
    if (method == "Set") {
        return sd_bus_error_set(error, SD_BUS_ERROR_PROPERTY_READ_ONLY,
                                "The parameters of the data model are read-only.");
    }
    if (method == "GetAll") {
        return replyGetAll(call, object);
    }
    if (method == "Get") {
        return replyGet(call, object, error);
    }
    return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_METHOD, "Unknown method %s.",
                             member != nullptr ? member : "");
}

int export_detail::replyCall(sd_bus_message* call, object_t* object, sd_bus_error* error) {
    // Declared first, so that what the call caused goes out after the reply.
    const orv_dbus_reply_first_t replyFirst;
    const char* member = sd_bus_message_get_member(call);
    const function_definition_t* function =
        object->definition() != nullptr ? object->definition()->function(member) : nullptr;
    if (function == nullptr) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_METHOD, "Unknown function %s.",
                                 member);
    }
    argument_value_list_t args;
    if (!readArguments(call, &args)) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS,
                                "The arguments must be one a{sv} of named values.");
    }
    const std::unique_ptr<request_t> request =
        request_create_executeFunction(object_path(object, path_attr_default), member, 0);
    variant_t retval;
    if (!object_callFunction(object, member, &args, &retval, request.get())) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "The function %s is not available.",
                                 member);
    }
    return replyResult(call, *function, args, std::move(retval), error);
}

int export_detail::replyIntrospection(sd_bus_message* call, const object_t* object, bool isRoot) {
    int r = 0;
    orv_message_ptr reply = newReturn(call, &r);
    if (reply == nullptr) {
        return r;
    }
    const std::string xml = introspectionXml(object, isRoot);
    r = sd_bus_message_append_basic(reply.get(), 's', xml.c_str());
    return r < 0 ? r : sendReply(reply);
}
