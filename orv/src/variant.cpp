// Variants: storage, the value kinds, setters and direct access. The
// conversions, comparison and JSON have files of their own.
#include "orv/variant.h"

#include <string>
#include <type_traits>
#include <utility>

#include "orv/error.h"
#include "variant_internal.h"

using variant_detail::fail;
using variant_detail::list_ptr;
using variant_detail::map_ptr;

namespace {

const variant_list_t kEmptyList;
const variant_map_t kEmptyMap;

}  // namespace

bool variant_detail::fail(std::uint32_t code) {
    orv_setError(code);
    return false;
}

const variant_list_t& variant_detail::listOf(const variant_t& v) {
    const variant_list_t* list = v.list();
    return list != nullptr ? *list : kEmptyList;
}

const variant_map_t& variant_detail::mapOf(const variant_t& v) {
    const variant_map_t* map = v.map();
    return map != nullptr ? *map : kEmptyMap;
}

// ---------------------------------------------------------------------------
// variant_t

variant_t::variant_t(const variant_t& other) : type_(other.type_) {
    std::visit(
        [this](const auto& value) {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, list_ptr> || std::is_same_v<T, map_ptr>) {
                if (value) {
                    value_ = std::make_unique<typename T::element_type>(*value);
                } else {
                    value_ = std::make_unique<typename T::element_type>();
                }
            } else {
                value_ = value;
            }
        },
        other.value_);
}

variant_t& variant_t::operator=(const variant_t& other) {
    if (this != &other) {
        variant_t copy(other);
        *this = std::move(copy);
    }
    return *this;
}

variant_t::~variant_t() = default;

variant_t::variant_t(std::string_view text)
    : type_(variant_type_string), value_(std::string(text)) {}
variant_t::variant_t(bool value) : type_(variant_type_bool), value_(value) {}
variant_t::variant_t(std::int32_t value)
    : type_(variant_type_int32), value_(static_cast<std::int64_t>(value)) {}
variant_t::variant_t(std::uint32_t value)
    : type_(variant_type_uint32), value_(static_cast<std::uint64_t>(value)) {}
variant_t::variant_t(std::int64_t value) : type_(variant_type_int64), value_(value) {}
variant_t::variant_t(std::uint64_t value) : type_(variant_type_uint64), value_(value) {}
variant_t::variant_t(double value) : type_(variant_type_double), value_(value) {}
variant_t::variant_t(variant_list_t list)
    : type_(variant_type_array), value_(std::make_unique<variant_list_t>(std::move(list))) {}
variant_t::variant_t(variant_map_t map)
    : type_(variant_type_map), value_(std::make_unique<variant_map_t>(std::move(map))) {}

variant_t variant_t::dateTime(std::int64_t seconds) {
    variant_t v(seconds);
    v.type_ = variant_type_date_time;
    return v;
}

const std::string* variant_t::text() const {
    return std::get_if<std::string>(&value_);
}

const variant_list_t* variant_t::list() const {
    const auto* p = std::get_if<list_ptr>(&value_);
    return p != nullptr ? p->get() : nullptr;
}

variant_list_t* variant_t::list() {
    auto* p = std::get_if<list_ptr>(&value_);
    return p != nullptr ? p->get() : nullptr;
}

const variant_map_t* variant_t::map() const {
    const auto* p = std::get_if<map_ptr>(&value_);
    return p != nullptr ? p->get() : nullptr;
}

variant_map_t* variant_t::map() {
    auto* p = std::get_if<map_ptr>(&value_);
    return p != nullptr ? p->get() : nullptr;
}

// ---------------------------------------------------------------------------
// Kind and reset

variant_type_t variant_type(const variant_t* variant) {
    return variant != nullptr ? variant->type() : variant_type_unknown;
}

bool variant_initialize(variant_t* variant, variant_type_t type) {
    if (variant == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    switch (type) {
        case variant_type_unknown:
            variant_access::reset(variant);
            return true;
        case variant_type_string:
            variant_access::set(variant, type, std::string());
            return true;
        case variant_type_int8:
        case variant_type_int16:
        case variant_type_int32:
        case variant_type_int64:
        case variant_type_date_time:
            variant_access::set(variant, type, std::int64_t{0});
            return true;
        case variant_type_uint8:
        case variant_type_uint16:
        case variant_type_uint32:
        case variant_type_uint64:
            variant_access::set(variant, type, std::uint64_t{0});
            return true;
        case variant_type_bool:
            variant_access::set(variant, type, false);
            return true;
        case variant_type_double:
            variant_access::set(variant, type, 0.0);
            return true;
        case variant_type_array:
            variant_access::set(variant, type, std::make_unique<variant_list_t>());
            return true;
        case variant_type_map:
            variant_access::set(variant, type, std::make_unique<variant_map_t>());
            return true;
    }
    return fail(orv_error_invalid_argument);
}

void variant_cleanup(variant_t* variant) {
    if (variant != nullptr) {
        variant_access::reset(variant);
    }
}

bool variant_copy(variant_t* dest, const variant_t* src) {
    if (dest == nullptr || src == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    *dest = *src;
    return true;
}

// ---------------------------------------------------------------------------
// Setters

bool variant_setChar(variant_t* variant, std::string_view text) {
    if (variant == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    std::string copy(text);  // text may point into the variant itself
    variant_access::set(variant, variant_type_string, std::move(copy));
    return true;
}

bool variant_setBool(variant_t* variant, bool value) {
    if (variant == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    variant_access::set(variant, variant_type_bool, value);
    return true;
}

bool variant_setInt32(variant_t* variant, std::int32_t value) {
    if (variant == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    variant_access::set(variant, variant_type_int32, static_cast<std::int64_t>(value));
    return true;
}

bool variant_setUInt32(variant_t* variant, std::uint32_t value) {
    if (variant == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    variant_access::set(variant, variant_type_uint32, static_cast<std::uint64_t>(value));
    return true;
}

bool variant_setInt64(variant_t* variant, std::int64_t value) {
    if (variant == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    variant_access::set(variant, variant_type_int64, value);
    return true;
}

bool variant_setUInt64(variant_t* variant, std::uint64_t value) {
    if (variant == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    variant_access::set(variant, variant_type_uint64, value);
    return true;
}

bool variant_setDouble(variant_t* variant, double value) {
    if (variant == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    variant_access::set(variant, variant_type_double, value);
    return true;
}

bool variant_setDateTime(variant_t* variant, std::int64_t seconds) {
    if (variant == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    variant_access::set(variant, variant_type_date_time, seconds);
    return true;
}

bool variant_setListMove(variant_t* variant, variant_list_t* list) {
    if (variant == nullptr || list == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    auto moved = std::make_unique<variant_list_t>(std::move(*list));
    list->clear();
    variant_access::set(variant, variant_type_array, std::move(moved));
    return true;
}

bool variant_setListCopy(variant_t* variant, const variant_list_t* list) {
    if (variant == nullptr || list == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    auto copy = std::make_unique<variant_list_t>(*list);
    variant_access::set(variant, variant_type_array, std::move(copy));
    return true;
}

bool variant_setMapMove(variant_t* variant, variant_map_t* map) {
    if (variant == nullptr || map == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    auto moved = std::make_unique<variant_map_t>(std::move(*map));
    map->clear();
    variant_access::set(variant, variant_type_map, std::move(moved));
    return true;
}

// ---------------------------------------------------------------------------
// Direct access

const char* variant_da_char(const variant_t* variant) {
    const std::string* text = variant_da_string(variant);
    return text != nullptr ? text->c_str() : nullptr;
}

const std::string* variant_da_string(const variant_t* variant) {
    return variant != nullptr ? variant->text() : nullptr;
}

variant_list_t* variant_da_list(variant_t* variant) {
    return variant != nullptr ? variant->list() : nullptr;
}

const variant_list_t* variant_da_list(const variant_t* variant) {
    return variant != nullptr ? variant->list() : nullptr;
}

variant_map_t* variant_da_map(variant_t* variant) {
    return variant != nullptr ? variant->map() : nullptr;
}

const variant_map_t* variant_da_map(const variant_t* variant) {
    return variant != nullptr ? variant->map() : nullptr;
}
