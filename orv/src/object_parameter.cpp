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

std::optional<variant_t>* object_access::pendingSlots(object_t* object) {
    if (!object->pending_) {
        object->pending_ = std::make_unique<std::optional<variant_t>[]>(object->parameterCount_);
    }
    return object->pending_.get();
}

const variant_t* object_access::value(const object_t* object, std::string_view name,
                                      bool committed) {
    if (!object) {
        return nullptr;
    }
    const std::size_t at = parameterIndex(object, name);
    if (at == object->parameterCount_) {
        return nullptr;
    }
    if (!committed && object->pending_ && object->pending_[at]) {
        return &*object->pending_[at];
    }
    return &object->committedValues()[at];
}

bool object_access::setPending(object_t* object, std::size_t at, variant_t value) {
    pendingSlots(object)[at] = std::move(value);
    return true;
}

const variant_t* object_parameterValue(const object_t* object, std::string_view name) {
    return object_access::value(object, name, false);
}

const variant_t* object_parameterCommittedValue(const object_t* object, std::string_view name) {
    return object_access::value(object, name, true);
}

namespace {

// The type of the named parameter of object, or nullptr with the error set.
const parameter_definition_t* writableParameter(object_t* object, std::string_view name,
                                                std::size_t* at) {
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return nullptr;
    }
    *at = object_access::parameterIndex(object, name);
    if (*at == object->committedValues().size()) {
        orv_setError(orv_error_not_found);
        return nullptr;
    }
    return &object->definition()->parameters[*at];
}

}  // namespace

bool object_parameterSetValue(object_t* object, std::string_view name, const variant_t* value) {
    std::size_t at = 0;
    const parameter_definition_t* parameter = writableParameter(object, name, &at);
    if (!parameter) {
        return false;
    }
    if (!value) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    auto converted = definition_convertValue(parameter->type, *value);
    if (!converted) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    return object_access::setPending(object, at, std::move(*converted));
}

bool object_parameterSetCharValue(object_t* object, std::string_view name, std::string_view value) {
    variant_t variant(value);
    return object_parameterSetValue(object, name, &variant);
}

bool object_parameterSetStringValue(object_t* object, std::string_view name,
                                    const std::string* value) {
    if (!value) {
        std::size_t at = 0;
        if (writableParameter(object, name, &at)) {
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
    std::size_t at = 0;
    const parameter_definition_t* parameter = writableParameter(object, name, &at);
    if (!parameter) {
        return false;
    }
    if (!value || parameter->type != variant_type_date_time) {
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
    return object_access::setPending(object, at,
                                     variant_t::dateTime(static_cast<std::int64_t>(seconds)));
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
