// Library-internal parts of the variants, shared by their files: access to
// the private members, and the numbers behind conversion and comparison.
// Not installed; plug-ins never see it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "orv/error.h"
#include "orv/variant.h"

// Gives the files of the variants access to the private members.
struct variant_access {
    static variant_type_t& type(variant_t& v) { return v.type_; }
    static variant_t::storage_t& value(variant_t& v) { return v.value_; }
    static const variant_t::storage_t& value(const variant_t& v) { return v.value_; }

    template <typename T>
    static void set(variant_t* v, variant_type_t type, T&& value) {
        v->value_ = std::forward<T>(value);
        v->type_ = type;
    }
    static void reset(variant_t* v) {
        v->value_ = std::monostate{};
        v->type_ = variant_type_unknown;
    }
};

namespace variant_detail {

using list_ptr = std::unique_ptr<variant_list_t>;
using map_ptr = std::unique_ptr<variant_map_t>;

// Sets the thread's error and reports failure.
bool fail(std::uint32_t code);

template <typename T>
std::optional<T> failed() {
    orv_setError(orv_error_invalid_value);
    return std::nullopt;
}

// The list of a list variant; an empty list for a moved-from one.
const variant_list_t& listOf(const variant_t& v);
const variant_map_t& mapOf(const variant_t& v);

// A number taken from a variant: signed, unsigned or floating.
struct number_t {
    enum kind_t { kSigned, kUnsigned, kDouble } kind;
    std::int64_t i = 0;
    std::uint64_t u = 0;
    double d = 0.0;

    static number_t ofSigned(std::int64_t v) { return number_t{kSigned, v, 0, 0.0}; }
    static number_t ofUnsigned(std::uint64_t v) { return number_t{kUnsigned, 0, v, 0.0}; }
    static number_t ofDouble(double v) { return number_t{kDouble, 0, 0, v}; }
};

constexpr double kTwo63 = 9223372036854775808.0;   // 2^63
constexpr double kTwo64 = 18446744073709551616.0;  // 2^64

// A whole decimal number: optional sign and at least one digit, nothing else.
std::optional<number_t> parseInteger(std::string_view text);
// A decimal number that strtod reads completely: no leading blanks, no
// overflow, and none of strtod's other forms (hexadecimal, "nan", "inf").
std::optional<double> parseDouble(std::string_view text);
// The number a scalar variant holds; nullopt for texts, lists, maps, empty.
std::optional<number_t> numberOf(const variant_t& v);
// The number as the target type; nullopt when it does not fit exactly.
std::optional<std::int64_t> numberToInt64(const number_t& n);
std::optional<std::uint64_t> numberToUInt64(const number_t& n);
double numberToDouble(const number_t& n);
// Shortest "%.Ng" text (N <= 17) that reads back as the same double.
std::string formatDouble(double d);

// Same type and same value; lists and maps element by element.
bool equalVariants(const variant_t& a, const variant_t& b);

}  // namespace variant_detail
