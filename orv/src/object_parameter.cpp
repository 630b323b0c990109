// Parameters of objects, with their pending values, and the user data that
// plug-ins attach to objects.
#include <cerrno>
#include <ctime>
#include <utility>

#include "object_internal.h"
#include "orv/error.h"

namespace {
void noRelease(void*) {}
}  // namespace

// --------------------------------------------------------------- parameters

const variant_t* object_parameterValue(const object_t* object, std::string_view name) {
    if (!object) {
        return nullptr;
    }
    const object_parameter_t* parameter = object_access::findParameter(object, name);
    if (!parameter) {
        return nullptr;
    }
    return parameter->pending ? parameter->pending.get() : &parameter->value;
}

const variant_t* object_parameterCommittedValue(const object_t* object, std::string_view name) {
    if (!object) {
        return nullptr;
    }
    const object_parameter_t* parameter = object_access::findParameter(object, name);
    return parameter ? &parameter->value : nullptr;
}

namespace {

object_parameter_t* writableParameter(object_t* object, std::string_view name) {
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return nullptr;
    }
    object_parameter_t* parameter = object->parameter(name);
    if (!parameter) {
        orv_setError(orv_error_not_found);
    }
    return parameter;
}

bool setPending(object_parameter_t* parameter, variant_t value) {
    if (parameter->pending) {
        *parameter->pending = std::move(value);
    } else {
        parameter->pending = std::make_unique<variant_t>(std::move(value));
    }
    return true;
}

}  // namespace

bool object_parameterSetValue(object_t* object, std::string_view name, const variant_t* value) {
    object_parameter_t* parameter = writableParameter(object, name);
    if (!parameter) {
        return false;
    }
    if (!value) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    auto converted = definition_convertValue(parameter->definition->type, *value);
    if (!converted) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    return setPending(parameter, std::move(*converted));
}

bool object_parameterSetCharValue(object_t* object, std::string_view name, std::string_view value) {
    variant_t variant(value);
    return object_parameterSetValue(object, name, &variant);
}

bool object_parameterSetStringValue(object_t* object, std::string_view name,
                                    const std::string* value) {
    if (!value) {
        if (writableParameter(object, name)) {
            orv_setError(orv_error_invalid_value);
        }
        return false;
    }
    return object_parameterSetCharValue(object, name, *value);
}

bool object_parameterSetBoolValue(object_t* object, std::string_view name, bool value) {
    variant_t variant(value);
    return object_parameterSetValue(object, name, &variant);
}

bool object_parameterSetUInt32Value(object_t* object, std::string_view name, std::uint32_t value) {
    variant_t variant(value);
    return object_parameterSetValue(object, name, &variant);
}

bool object_parameterSetDateTimeValue(object_t* object, std::string_view name,
                                      const struct tm* value) {
    object_parameter_t* parameter = writableParameter(object, name);
    if (!parameter) {
        return false;
    }
    if (!value || parameter->definition->type != variant_type_date_time) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    struct tm copy = *value;
    errno = 0;
    std::time_t seconds = std::mktime(&copy);
    if (seconds == static_cast<std::time_t>(-1) && errno != 0) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    return setPending(parameter, variant_t::dateTime(static_cast<std::int64_t>(seconds)));
}

// ---------------------------------------------------------------- user data

void object_access::setUserData(object_t* object, void* data, void (*release)(void*)) {
    object->userData_ = std::unique_ptr<void, void (*)(void*)>(data, release ? release : noRelease);
}

void object_setUserDataRaw(object_t* object, void* data, void (*release)(void*)) {
    if (!object) {
        if (data && release) {
            release(data);
        }
        return;
    }
    object_access::setUserData(object, data, release);
}

void* object_getUserDataRaw(const object_t* object) {
    return object ? object_access::userData(object) : nullptr;
}

void object_clearUserData(object_t* object) {
    if (object) {
        object_access::setUserData(object, nullptr, nullptr);
    }
}

bool object_setDestroyHandler(object_t* object, object_destroy_handler_t handler) {
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    object_access::setDestroyHandler(object, handler);
    return true;
}
