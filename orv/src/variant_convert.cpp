// The exact conversions of variants and the readers built on them.
#include <cctype>
#include <cmath>
#include <ctime>
#include <limits>
#include <string>

#include "variant_internal.h"

using variant_detail::failed;
using variant_detail::formatDouble;
using variant_detail::listOf;
using variant_detail::number_t;
using variant_detail::numberOf;
using variant_detail::numberToDouble;
using variant_detail::numberToInt64;
using variant_detail::numberToUInt64;
using variant_detail::parseDouble;
using variant_detail::parseInteger;

namespace {

// A number for an integer target: the scalar itself or a whole decimal text.
std::optional<number_t> integerSource(const variant_t& v) {
    if (const std::string* text = v.text()) {
        return parseInteger(*text);
    }
    return numberOf(v);
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Exact conversions

std::optional<std::string> variant_toChar(const variant_t* variant) {
    if (variant == nullptr) {
        return failed<std::string>();
    }
    const auto& value = variant_access::value(*variant);
    const variant_type_t type = variant->type();
    if (const std::string* text = variant->text()) {
        return *text;
    }
    if (type == variant_type_bool) {
        return std::string(std::get<bool>(value) ? "true" : "false");
    }
    if (type == variant_type_double) {
        return formatDouble(std::get<double>(value));
    }
    if (type == variant_type_date_time) {
        std::string iso = orv_isoTime(std::get<std::int64_t>(value));
        if (iso.empty()) {
            return failed<std::string>();
        }
        return iso;
    }
    if (const auto* i = std::get_if<std::int64_t>(&value)) {
        return std::to_string(*i);
    }
    if (const auto* u = std::get_if<std::uint64_t>(&value)) {
        return std::to_string(*u);
    }
    return failed<std::string>();
}

std::optional<bool> variant_toBool(const variant_t* variant) {
    if (variant == nullptr) {
        return failed<bool>();
    }
    if (const std::string* text = variant->text()) {
        if (equalsIgnoreCase(*text, "true") || equalsIgnoreCase(*text, "1") ||
            equalsIgnoreCase(*text, "yes")) {
            return true;
        }
        if (equalsIgnoreCase(*text, "false") || equalsIgnoreCase(*text, "0") ||
            equalsIgnoreCase(*text, "no")) {
            return false;
        }
        return failed<bool>();
    }
    const auto& value = variant_access::value(*variant);
    if (const auto* b = std::get_if<bool>(&value)) {
        return *b;
    }
    if (const auto* i = std::get_if<std::int64_t>(&value)) {
        return *i != 0;
    }
    if (const auto* u = std::get_if<std::uint64_t>(&value)) {
        return *u != 0;
    }
    if (const auto* d = std::get_if<double>(&value)) {
        if (std::isnan(*d)) {
            return failed<bool>();
        }
        return *d != 0.0;
    }
    return failed<bool>();
}

std::optional<std::int64_t> variant_toInt64(const variant_t* variant) {
    if (variant == nullptr) {
        return failed<std::int64_t>();
    }
    const auto n = integerSource(*variant);
    if (!n) {
        return failed<std::int64_t>();
    }
    const auto r = numberToInt64(*n);
    if (!r) {
        return failed<std::int64_t>();
    }
    return r;
}

std::optional<std::uint64_t> variant_toUInt64(const variant_t* variant) {
    if (variant == nullptr) {
        return failed<std::uint64_t>();
    }
    const auto n = integerSource(*variant);
    if (!n) {
        return failed<std::uint64_t>();
    }
    const auto r = numberToUInt64(*n);
    if (!r) {
        return failed<std::uint64_t>();
    }
    return r;
}

std::optional<std::int32_t> variant_toInt32(const variant_t* variant) {
    const auto r = variant_toInt64(variant);
    if (!r) {
        return std::nullopt;
    }
    if (*r < std::numeric_limits<std::int32_t>::min() ||
        *r > std::numeric_limits<std::int32_t>::max()) {
        return failed<std::int32_t>();
    }
    return static_cast<std::int32_t>(*r);
}

std::optional<std::uint32_t> variant_toUInt32(const variant_t* variant) {
    const auto r = variant_toUInt64(variant);
    if (!r) {
        return std::nullopt;
    }
    if (*r > std::numeric_limits<std::uint32_t>::max()) {
        return failed<std::uint32_t>();
    }
    return static_cast<std::uint32_t>(*r);
}

std::optional<double> variant_toDouble(const variant_t* variant) {
    if (variant == nullptr) {
        return failed<double>();
    }
    if (const std::string* text = variant->text()) {
        const auto d = parseDouble(*text);
        if (!d) {
            return failed<double>();
        }
        return d;
    }
    const auto n = numberOf(*variant);
    if (!n) {
        return failed<double>();
    }
    return numberToDouble(*n);
}

std::optional<std::int64_t> variant_toDateTime(const variant_t* variant) {
    if (variant == nullptr) {
        return failed<std::int64_t>();
    }
    const auto& value = variant_access::value(*variant);
    const variant_type_t type = variant->type();
    if (type == variant_type_date_time) {
        return std::get<std::int64_t>(value);
    }
    if (const std::string* text = variant->text()) {
        const auto seconds = orv_parseIsoTime(*text);
        if (!seconds) {
            return failed<std::int64_t>();
        }
        return seconds;
    }
    if (type == variant_type_bool) {
        return failed<std::int64_t>();
    }
    const auto n = numberOf(*variant);
    if (!n) {
        return failed<std::int64_t>();
    }
    const auto seconds = numberToInt64(*n);
    if (!seconds) {
        return failed<std::int64_t>();
    }
    return seconds;
}

// ---------------------------------------------------------------------------
// Plain readers

std::optional<std::string> variant_char(const variant_t* variant) {
    return variant_toChar(variant);
}

std::uint32_t variant_uint32(const variant_t* variant) {
    return variant_toUInt32(variant).value_or(0);
}

std::int32_t variant_int32(const variant_t* variant) {
    return variant_toInt32(variant).value_or(0);
}

bool variant_bool(const variant_t* variant) {
    return variant_toBool(variant).value_or(false);
}

std::optional<variant_list_t> variant_list(const variant_t* variant) {
    if (variant == nullptr || variant->type() != variant_type_array) {
        return std::nullopt;
    }
    return listOf(*variant);
}

std::optional<struct tm> variant_dateTime(const variant_t* variant) {
    const auto seconds = variant_toDateTime(variant);
    if (!seconds) {
        return std::nullopt;
    }
    const auto t = static_cast<std::time_t>(*seconds);
    struct tm result {};
    if (localtime_r(&t, &result) == nullptr) {
        return std::nullopt;
    }
    return result;
}
