// Function calls: argument readers, binding and calling handlers.
#include "orv/function.h"

#include <exception>
#include <set>
#include <utility>

#include "orv/error.h"
#include "orv/object.h"

namespace {

const argument_value_t* findFirst(const argument_value_list_t* args, std::string_view name) {
    if (!args) {
        return nullptr;
    }
    for (const auto& value : args->values()) {
        if (value.name == name) {
            return &value;
        }
    }
    return nullptr;
}

// Reads the first argument of that name with a converter; on failure stores
// the default and returns false.
template <typename T, typename Convert>
bool readArgument(T* value, const argument_value_list_t* args, std::string_view name,
                  T defaultValue, Convert convert) {
    if (!value) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    if (const argument_value_t* argument = findFirst(args, name)) {
        if (auto converted = convert(argument->value)) {
            *value = std::move(*converted);
            return true;
        }
        orv_setError(orv_error_invalid_value);
    } else {
        orv_setError(orv_error_not_found);
    }
    *value = std::move(defaultValue);
    return false;
}

void bindDefinition(object_definition_t* definition,
                    const std::function<function_handler_t(const std::string&)>& resolve,
                    std::vector<std::string>* missing, std::set<std::string>* reported) {
    for (auto& function : definition->functions) {
        function->handler = resolve ? resolve(function->name) : nullptr;
        if (!function->handler && reported->insert(function->name).second) {
            missing->push_back(function->name);
        }
    }
    for (auto& child : definition->objects) {
        bindDefinition(child.get(), resolve, missing, reported);
    }
}

}  // namespace

object_t* fcall_object(const function_call_t* call) {
    return call ? call->object() : nullptr;
}

const request_t* fcall_request(const function_call_t* call) {
    return call ? call->request() : nullptr;
}

std::size_t llist_size(const argument_value_list_t* args) {
    return args ? args->values().size() : 0;
}

bool argument_getChar(std::optional<std::string>* value, const argument_value_list_t* args,
                      std::uint32_t /*attributes*/, std::string_view name,
                      std::optional<std::string> defaultValue) {
    return readArgument(value, args, name, std::move(defaultValue),
                        [](const variant_t& v) -> std::optional<std::optional<std::string>> {
                            if (auto text = variant_toChar(&v)) {
                                return std::optional<std::string>(std::move(*text));
                            }
                            return std::nullopt;
                        });
}

bool argument_getBool(bool* value, const argument_value_list_t* args, std::uint32_t /*attributes*/,
                      std::string_view name, bool defaultValue) {
    return readArgument(value, args, name, defaultValue,
                        [](const variant_t& v) { return variant_toBool(&v); });
}

bool argument_getUInt32(std::uint32_t* value, const argument_value_list_t* args,
                        std::uint32_t /*attributes*/, std::string_view name,
                        std::uint32_t defaultValue) {
    return readArgument(value, args, name, defaultValue,
                        [](const variant_t& v) { return variant_toUInt32(&v); });
}

bool argument_getList(std::optional<variant_list_t>* value, const argument_value_list_t* args,
                      std::uint32_t /*attributes*/, std::string_view name,
                      std::optional<variant_list_t> defaultValue) {
    return readArgument(value, args, name, std::move(defaultValue),
                        [](const variant_t& v) -> std::optional<std::optional<variant_list_t>> {
                            if (const variant_list_t* list = v.list()) {
                                return std::optional<variant_list_t>(*list);
                            }
                            return std::nullopt;
                        });
}

bool argument_getDateTime(std::optional<struct tm>* value, const argument_value_list_t* args,
                          std::uint32_t /*attributes*/, std::string_view name,
                          std::optional<struct tm> defaultValue) {
    return readArgument(
        value, args, name, std::move(defaultValue),
        [](const variant_t& v) -> std::optional<std::optional<struct tm>> {
            auto seconds = variant_toDateTime(&v);
            if (!seconds) {
                return std::nullopt;
            }
            std::time_t time = static_cast<std::time_t>(*seconds);
            struct tm broken {};
            if (!localtime_r(&time, &broken)) {
                return std::nullopt;
            }
            return std::optional<struct tm>(broken);
        });
}

bool argument_get(argument_value_t** value, argument_value_list_t* args,
                  std::uint32_t /*attributes*/, std::string_view name) {
    if (!value) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    *value = argument_valueByName(args, name);
    if (!*value) {
        orv_setError(orv_error_not_found);
        return false;
    }
    return true;
}

variant_t* argument_value(argument_value_t* value) {
    return value ? &value->value : nullptr;
}

argument_value_t* argument_valueByName(argument_value_list_t* args, std::string_view name) {
    return const_cast<argument_value_t*>(findFirst(args, name));
}

void argument_valueDestroy(argument_value_list_t* args, argument_value_t* value) {
    if (!args || !value) {
        return;
    }
    auto& values = args->values();
    for (auto it = values.begin(); it != values.end(); ++it) {
        if (&*it == value) {
            values.erase(it);
            return;
        }
    }
}

std::unique_ptr<argument_value_t> argument_valueCreate(std::string_view name) {
    auto value = std::make_unique<argument_value_t>();
    value->name = std::string(name);
    return value;
}

argument_value_t* argument_valuePrepend(argument_value_list_t* args,
                                        std::unique_ptr<argument_value_t> value) {
    if (!args || !value) {
        orv_setError(orv_error_invalid_argument);
        return nullptr;
    }
    args->values().push_front(std::move(*value));
    return &args->values().front();
}

std::vector<std::string> function_bindAll(
    object_definition_t* definition,
    const std::function<function_handler_t(const std::string&)>& resolve) {
    std::vector<std::string> missing;
    if (definition) {
        std::set<std::string> reported;
        bindDefinition(definition, resolve, &missing, &reported);
    }
    return missing;
}

bool object_callFunction(object_t* object, std::string_view name, argument_value_list_t* args,
                         variant_t* retval, const request_t* request) {
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    const object_definition_t* definition = object->definition();
    const function_definition_t* function = definition ? definition->function(name) : nullptr;
    if (!function) {
        orv_setError(orv_error_not_found);
        return false;
    }
    if (!function->handler) {
        orv_setError(orv_error_not_supported);
        return false;
    }
    try {
        argument_value_list_t scratchArgs;
        variant_t scratchResult;
        function_call_t call(object, function, request);
        int rc =
            function->handler(&call, args ? args : &scratchArgs, retval ? retval : &scratchResult);
        return rc == 0;
    } catch (...) {
        return false;
    }
}
