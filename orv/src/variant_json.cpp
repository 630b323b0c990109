// Variants as JSON text and back.
#include <exception>
#include <limits>
#include <string>

#include "variant_internal.h"
#include "variant_json.h"

using variant_detail::failed;
using variant_detail::listOf;
using variant_detail::mapOf;

namespace {

// JSON out.
nlohmann::ordered_json toJson(const variant_t& v) {
    const auto& value = variant_access::value(v);
    switch (v.type()) {
        case variant_type_unknown:
            return nullptr;
        case variant_type_string:
            return std::get<std::string>(value);
        case variant_type_bool:
            return std::get<bool>(value);
        case variant_type_double:
            return std::get<double>(value);
        case variant_type_date_time:
            return orv_isoTime(std::get<std::int64_t>(value));
        case variant_type_array: {
            nlohmann::ordered_json array = nlohmann::ordered_json::array();
            for (const variant_t& element : listOf(v)) {
                array.push_back(toJson(element));
            }
            return array;
        }
        case variant_type_map: {
            nlohmann::ordered_json object = nlohmann::ordered_json::object();
            for (const variant_map_entry_t& entry : mapOf(v)) {
                object[entry.key] = toJson(entry.value);
            }
            return object;
        }
        default:
            break;
    }
    if (const auto* i = std::get_if<std::int64_t>(&value)) {
        return *i;
    }
    if (const auto* u = std::get_if<std::uint64_t>(&value)) {
        return *u;
    }
    return nullptr;
}

// A whole number as the narrowest of uint32, int32, uint64 and int64 that
// holds it, the non-negative ones unsigned.
variant_t wholeNumber(const nlohmann::ordered_json& j) {
    if (j.type() == nlohmann::ordered_json::value_t::number_unsigned) {
        const auto u = j.get<std::uint64_t>();
        if (u <= std::numeric_limits<std::uint32_t>::max()) {
            return variant_t(static_cast<std::uint32_t>(u));
        }
        return variant_t(u);
    }
    const auto i = j.get<std::int64_t>();
    if (i >= 0 && static_cast<std::uint64_t>(i) <= std::numeric_limits<std::uint32_t>::max()) {
        return variant_t(static_cast<std::uint32_t>(i));
    }
    if (i >= 0) {
        return variant_t(static_cast<std::uint64_t>(i));
    }
    if (i >= std::numeric_limits<std::int32_t>::min()) {
        return variant_t(static_cast<std::int32_t>(i));
    }
    return variant_t(i);
}

}  // namespace

variant_t variant_detail::fromJson(const nlohmann::ordered_json& j) {
    using value_t = nlohmann::ordered_json::value_t;
    switch (j.type()) {
        case value_t::string:
            return variant_t(j.get_ref<const std::string&>());
        case value_t::boolean:
            return variant_t(j.get<bool>());
        case value_t::number_unsigned:
        case value_t::number_integer:
            return wholeNumber(j);
        case value_t::number_float:
            return variant_t(j.get<double>());
        case value_t::array: {
            variant_list_t list;
            list.reserve(j.size());
            for (const auto& element : j) {
                list.push_back(fromJson(element));
            }
            return variant_t(std::move(list));
        }
        case value_t::object: {
            variant_map_t map;
            map.reserve(j.size());
            for (const auto& [key, element] : j.items()) {
                map.push_back(variant_map_entry_t{key, fromJson(element)});
            }
            return variant_t(std::move(map));
        }
        default:
            return variant_t();
    }
}

std::string variant_toJSON(const variant_t* variant) {
    if (variant == nullptr) {
        return "null";
    }
    try {
        return toJson(*variant).dump(-1, ' ', false,
                                     nlohmann::ordered_json::error_handler_t::replace);
    } catch (const std::exception&) {
        orv_setError(orv_error_invalid_value);
        return "null";
    }
}

std::optional<variant_t> variant_fromJSON(std::string_view json) {
    try {
        const auto parsed = nlohmann::ordered_json::parse(json.begin(), json.end(), nullptr, false);
        if (parsed.is_discarded()) {
            return failed<variant_t>();
        }
        return variant_detail::fromJson(parsed);
    } catch (const std::exception&) {
        return failed<variant_t>();
    }
}
