// The types of the definition format: their names, and values converted to
// a declared type.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "orv/definition.h"

std::optional<variant_type_t> definition_typeFromName(std::string_view name) {
    static const std::pair<std::string_view, variant_type_t> names[] = {
        {"string", variant_type_string}, {"bool", variant_type_bool},
        {"int32", variant_type_int32},   {"uint32", variant_type_uint32},
        {"int64", variant_type_int64},   {"uint64", variant_type_uint64},
        {"double", variant_type_double}, {"datetime", variant_type_date_time},
        {"list", variant_type_array},    {"map", variant_type_map},
        {"void", variant_type_unknown},  {"variant", variant_type_unknown},
    };
    for (const auto& [text, type] : names) {
        if (text == name) {
            return type;
        }
    }
    return std::nullopt;
}

const char* definition_typeName(variant_type_t type) {
    switch (type) {
        case variant_type_unknown:
            return "variant";
        case variant_type_string:
            return "string";
        case variant_type_int8:
            return "int8";
        case variant_type_int16:
            return "int16";
        case variant_type_int32:
            return "int32";
        case variant_type_int64:
            return "int64";
        case variant_type_uint8:
            return "uint8";
        case variant_type_uint16:
            return "uint16";
        case variant_type_uint32:
            return "uint32";
        case variant_type_uint64:
            return "uint64";
        case variant_type_bool:
            return "bool";
        case variant_type_double:
            return "double";
        case variant_type_date_time:
            return "datetime";
        case variant_type_array:
            return "list";
        case variant_type_map:
            return "map";
    }
    return "unknown";
}

namespace {

// The converted value as a variant of the target type, or nullopt.
template <typename T, typename Make>
std::optional<variant_t> wrap(std::optional<T> value, Make make) {
    if (!value) {
        return std::nullopt;
    }
    return make(*value);
}

template <typename T>
std::optional<variant_t> wrap(std::optional<T> value) {
    return wrap(std::move(value), [](const T& v) { return variant_t(v); });
}

}  // namespace

std::optional<variant_t> definition_convertValue(variant_type_t type, const variant_t& value) {
    switch (type) {
        case variant_type_string:
            return wrap(variant_toChar(&value),
                        [](const std::string& v) { return variant_t(std::string_view(v)); });
        case variant_type_bool:
            return wrap(variant_toBool(&value));
        case variant_type_int32:
            return wrap(variant_toInt32(&value));
        case variant_type_uint32:
            return wrap(variant_toUInt32(&value));
        case variant_type_int64:
            return wrap(variant_toInt64(&value));
        case variant_type_uint64:
            return wrap(variant_toUInt64(&value));
        case variant_type_double:
            return wrap(variant_toDouble(&value));
        case variant_type_date_time:
            return wrap(variant_toDateTime(&value),
                        [](std::int64_t v) { return variant_t::dateTime(v); });
        case variant_type_array:
            if (value.list())
                return value;
            return std::nullopt;
        case variant_type_map:
            if (value.map())
                return value;
            return std::nullopt;
        case variant_type_unknown:
            return value;
        case variant_type_int8:
        case variant_type_int16:
        case variant_type_uint8:
        case variant_type_uint16:
            // Not part of the definition format: only an exact type match passes.
            if (value.type() == type)
                return value;
            return std::nullopt;
    }
    return std::nullopt;
}
