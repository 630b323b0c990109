// Variants: storage, setters, exact conversions, comparison, JSON and the
// ISO 8601 helpers.
#include "orv/variant.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <type_traits>
#include <utility>

#include <nlohmann/json.hpp>

#include "orv/error.h"

// Gives the functions of this file access to the private members.
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

namespace {

using list_ptr = std::unique_ptr<variant_list_t>;
using map_ptr = std::unique_ptr<variant_map_t>;

const variant_list_t kEmptyList;
const variant_map_t kEmptyMap;

bool fail(std::uint32_t code) {
    orv_setError(code);
    return false;
}

// The list of a list variant; an empty list for a moved-from one.
const variant_list_t& listOf(const variant_t& v) {
    const variant_list_t* list = v.list();
    return list != nullptr ? *list : kEmptyList;
}

const variant_map_t& mapOf(const variant_t& v) {
    const variant_map_t* map = v.map();
    return map != nullptr ? *map : kEmptyMap;
}

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
std::optional<number_t> parseInteger(std::string_view text) {
    std::size_t pos = 0;
    bool negative = false;
    if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) {
        negative = text[pos] == '-';
        ++pos;
    }
    if (pos >= text.size()) {
        return std::nullopt;
    }
    std::uint64_t magnitude = 0;
    for (; pos < text.size(); ++pos) {
        const char c = text[pos];
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (magnitude > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) {
            return std::nullopt;
        }
        magnitude = magnitude * 10 + digit;
    }
    if (negative) {
        constexpr std::uint64_t kMinMagnitude = std::uint64_t{1} << 63;
        if (magnitude > kMinMagnitude) {
            return std::nullopt;
        }
        if (magnitude == kMinMagnitude) {
            return number_t::ofSigned(std::numeric_limits<std::int64_t>::min());
        }
        return number_t::ofSigned(-static_cast<std::int64_t>(magnitude));
    }
    if (magnitude > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return number_t::ofUnsigned(magnitude);
    }
    return number_t::ofSigned(static_cast<std::int64_t>(magnitude));
}

// A decimal number that strtod reads completely: no leading blanks, no
// overflow, and none of strtod's other forms (hexadecimal, "nan", "inf").
std::optional<double> parseDouble(std::string_view text) {
    if (text.empty() || text.find_first_not_of("0123456789+-.eE") != std::string_view::npos) {
        return std::nullopt;
    }
    const std::string copy(text);
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(copy.c_str(), &end);
    if (end != copy.c_str() + copy.size()) {
        return std::nullopt;
    }
    if (errno == ERANGE && std::isinf(value)) {
        return std::nullopt;
    }
    return value;
}

// The number a scalar variant holds; nullopt for texts, lists, maps, empty.
std::optional<number_t> numberOf(const variant_t& v) {
    const auto& value = variant_access::value(v);
    if (const auto* i = std::get_if<std::int64_t>(&value)) {
        return number_t::ofSigned(*i);
    }
    if (const auto* u = std::get_if<std::uint64_t>(&value)) {
        return number_t::ofUnsigned(*u);
    }
    if (const auto* b = std::get_if<bool>(&value)) {
        return number_t::ofSigned(*b ? 1 : 0);
    }
    if (const auto* d = std::get_if<double>(&value)) {
        return number_t::ofDouble(*d);
    }
    return std::nullopt;
}

// A number for an integer target: the scalar itself or a whole decimal text.
std::optional<number_t> integerSource(const variant_t& v) {
    if (const std::string* text = v.text()) {
        return parseInteger(*text);
    }
    return numberOf(v);
}

bool isWhole(double d) {
    return std::isfinite(d) && std::trunc(d) == d;
}

std::optional<std::int64_t> numberToInt64(const number_t& n) {
    switch (n.kind) {
        case number_t::kSigned:
            return n.i;
        case number_t::kUnsigned:
            if (n.u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                return std::nullopt;
            }
            return static_cast<std::int64_t>(n.u);
        case number_t::kDouble:
            if (!isWhole(n.d) || n.d < -kTwo63 || n.d >= kTwo63) {
                return std::nullopt;
            }
            return static_cast<std::int64_t>(n.d);
    }
    return std::nullopt;
}

std::optional<std::uint64_t> numberToUInt64(const number_t& n) {
    switch (n.kind) {
        case number_t::kSigned:
            if (n.i < 0) {
                return std::nullopt;
            }
            return static_cast<std::uint64_t>(n.i);
        case number_t::kUnsigned:
            return n.u;
        case number_t::kDouble:
            if (!isWhole(n.d) || n.d < 0.0 || n.d >= kTwo64) {
                return std::nullopt;
            }
            return static_cast<std::uint64_t>(n.d);
    }
    return std::nullopt;
}

double numberToDouble(const number_t& n) {
    switch (n.kind) {
        case number_t::kSigned:
            return static_cast<double>(n.i);
        case number_t::kUnsigned:
            return static_cast<double>(n.u);
        case number_t::kDouble:
            return n.d;
    }
    return 0.0;
}

int sign(int value) {
    return (value > 0) - (value < 0);
}

template <typename T>
int threeWay(T a, T b) {
    return (a > b) - (a < b);
}

// Compares a double with a signed integer without losing precision.
int compareDoubleSigned(double d, std::int64_t i) {
    if (d < -kTwo63) {
        return -1;
    }
    if (d >= kTwo63) {
        return 1;
    }
    const double whole = std::trunc(d);
    const auto wholeInt = static_cast<std::int64_t>(whole);
    if (wholeInt != i) {
        return threeWay(wholeInt, i);
    }
    return threeWay(d - whole, 0.0);
}

int compareDoubleUnsigned(double d, std::uint64_t u) {
    if (d < 0.0) {
        return -1;
    }
    if (d >= kTwo64) {
        return 1;
    }
    const double whole = std::trunc(d);
    const auto wholeInt = static_cast<std::uint64_t>(whole);
    if (wholeInt != u) {
        return threeWay(wholeInt, u);
    }
    return threeWay(d - whole, 0.0);
}

// Numbers by value; nullopt when a NaN is involved.
std::optional<int> compareNumbers(const number_t& a, const number_t& b) {
    using K = number_t;
    if ((a.kind == K::kDouble && std::isnan(a.d)) || (b.kind == K::kDouble && std::isnan(b.d))) {
        return std::nullopt;
    }
    switch (a.kind) {
        case K::kSigned:
            switch (b.kind) {
                case K::kSigned:
                    return threeWay(a.i, b.i);
                case K::kUnsigned:
                    return a.i < 0 ? -1 : threeWay(static_cast<std::uint64_t>(a.i), b.u);
                case K::kDouble:
                    return -compareDoubleSigned(b.d, a.i);
            }
            break;
        case K::kUnsigned:
            switch (b.kind) {
                case K::kSigned:
                    return b.i < 0 ? 1 : threeWay(a.u, static_cast<std::uint64_t>(b.i));
                case K::kUnsigned:
                    return threeWay(a.u, b.u);
                case K::kDouble:
                    return -compareDoubleUnsigned(b.d, a.u);
            }
            break;
        case K::kDouble:
            switch (b.kind) {
                case K::kSigned:
                    return compareDoubleSigned(a.d, b.i);
                case K::kUnsigned:
                    return compareDoubleUnsigned(a.d, b.u);
                case K::kDouble:
                    return threeWay(a.d, b.d);
            }
            break;
    }
    return std::nullopt;
}

std::optional<int> compareVariants(const variant_t& a, const variant_t& b);

std::optional<int> compareLists(const variant_list_t& a, const variant_list_t& b) {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const auto r = compareVariants(a[i], b[i]);
        if (!r) {
            return std::nullopt;
        }
        if (*r != 0) {
            return r;
        }
    }
    return threeWay(a.size(), b.size());
}

std::optional<int> compareMaps(const variant_map_t& a, const variant_map_t& b) {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const int keys = sign(a[i].key.compare(b[i].key));
        if (keys != 0) {
            return keys;
        }
        const auto r = compareVariants(a[i].value, b[i].value);
        if (!r) {
            return std::nullopt;
        }
        if (*r != 0) {
            return r;
        }
    }
    return threeWay(a.size(), b.size());
}

std::optional<int> compareVariants(const variant_t& a, const variant_t& b) {
    const variant_type_t ta = a.type();
    const variant_type_t tb = b.type();
    if (ta == variant_type_unknown || tb == variant_type_unknown) {
        if (ta == tb) {
            return 0;
        }
        return std::nullopt;
    }
    const bool aList = ta == variant_type_array;
    const bool bList = tb == variant_type_array;
    const bool aMap = ta == variant_type_map;
    const bool bMap = tb == variant_type_map;
    if (aList || bList || aMap || bMap) {
        if (aList && bList) {
            return compareLists(listOf(a), listOf(b));
        }
        if (aMap && bMap) {
            return compareMaps(mapOf(a), mapOf(b));
        }
        return std::nullopt;
    }
    const std::string* textA = a.text();
    const std::string* textB = b.text();
    if (textA != nullptr || textB != nullptr) {
        const std::optional<std::string> formA =
            textA ? std::optional<std::string>(*textA) : variant_toChar(&a);
        const std::optional<std::string> formB =
            textB ? std::optional<std::string>(*textB) : variant_toChar(&b);
        if (!formA || !formB) {
            return std::nullopt;
        }
        return sign(formA->compare(*formB));
    }
    const auto na = numberOf(a);
    const auto nb = numberOf(b);
    if (!na || !nb) {
        return std::nullopt;
    }
    return compareNumbers(*na, *nb);
}

bool equalVariants(const variant_t& a, const variant_t& b);

bool equalLists(const variant_list_t& a, const variant_list_t& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (!equalVariants(a[i], b[i])) {
            return false;
        }
    }
    return true;
}

bool equalMaps(const variant_map_t& a, const variant_map_t& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i].key != b[i].key || !equalVariants(a[i].value, b[i].value)) {
            return false;
        }
    }
    return true;
}

// Same type and same value; lists and maps element by element.
bool equalVariants(const variant_t& a, const variant_t& b) {
    if (a.type() != b.type()) {
        return false;
    }
    const auto& va = variant_access::value(a);
    const auto& vb = variant_access::value(b);
    switch (a.type()) {
        case variant_type_unknown:
            return true;
        case variant_type_array:
            return equalLists(listOf(a), listOf(b));
        case variant_type_map:
            return equalMaps(mapOf(a), mapOf(b));
        default:
            return va == vb;
    }
}

// Shortest "%.Ng" text (N <= 17) that reads back as the same double.
std::string formatDouble(double d) {
    char buffer[64];
    if (!std::isfinite(d)) {
        std::snprintf(buffer, sizeof buffer, "%.17g", d);
        return buffer;
    }
    for (int precision = 1; precision <= 17; ++precision) {
        std::snprintf(buffer, sizeof buffer, "%.*g", precision, d);
        if (std::strtod(buffer, nullptr) == d) {
            return buffer;
        }
    }
    std::snprintf(buffer, sizeof buffer, "%.17g", d);
    return buffer;
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

template <typename T>
std::optional<T> failed() {
    orv_setError(orv_error_invalid_value);
    return std::nullopt;
}

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

// JSON in.
variant_t fromJson(const nlohmann::ordered_json& j) {
    using value_t = nlohmann::ordered_json::value_t;
    switch (j.type()) {
        case value_t::string:
            return variant_t(j.get_ref<const std::string&>());
        case value_t::boolean:
            return variant_t(j.get<bool>());
        case value_t::number_unsigned: {
            const auto u = j.get<std::uint64_t>();
            if (u <= std::numeric_limits<std::uint32_t>::max()) {
                return variant_t(static_cast<std::uint32_t>(u));
            }
            return variant_t(u);
        }
        case value_t::number_integer: {
            const auto i = j.get<std::int64_t>();
            if (i >= 0 &&
                static_cast<std::uint64_t>(i) <= std::numeric_limits<std::uint32_t>::max()) {
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

// Reads exactly `count` digits at text[pos].
bool readDigits(std::string_view text, std::size_t pos, std::size_t count, int* out) {
    if (pos + count > text.size()) {
        return false;
    }
    int value = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
        value = value * 10 + (text[i] - '0');
    }
    *out = value;
    return true;
}

bool isLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month == 2 && isLeapYear(year)) {
        return 29;
    }
    return kDays[month - 1];
}

}  // namespace

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

bool operator==(const variant_t& a, const variant_t& b) {
    return equalVariants(a, b);
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

// ---------------------------------------------------------------------------
// Comparison

bool variant_compare(const variant_t* a, const variant_t* b, int* result) {
    if (a == nullptr || b == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    const auto r = compareVariants(*a, *b);
    if (!r) {
        return fail(orv_error_invalid_argument);
    }
    if (result != nullptr) {
        *result = *r;
    }
    return true;
}

// ---------------------------------------------------------------------------
// JSON

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
        return fromJson(parsed);
    } catch (const std::exception&) {
        return failed<variant_t>();
    }
}

// ---------------------------------------------------------------------------
// ISO 8601

std::string orv_isoTime(std::int64_t seconds) {
    const auto t = static_cast<std::time_t>(seconds);
    struct tm utc {};
    if (gmtime_r(&t, &utc) == nullptr) {
        return std::string();
    }
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04lld-%02d-%02dT%02d:%02d:%02dZ",
                  static_cast<long long>(utc.tm_year) + 1900, utc.tm_mon + 1, utc.tm_mday,
                  utc.tm_hour, utc.tm_min, utc.tm_sec);
    return buffer;
}

std::optional<std::int64_t> orv_parseIsoTime(std::string_view text) {
    // YYYY-MM-DDTHH:MM:SS[.fff][Z]
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (text.size() < 19 || !readDigits(text, 0, 4, &year) || text[4] != '-' ||
        !readDigits(text, 5, 2, &month) || text[7] != '-' || !readDigits(text, 8, 2, &day) ||
        text[10] != 'T' || !readDigits(text, 11, 2, &hour) || text[13] != ':' ||
        !readDigits(text, 14, 2, &minute) || text[16] != ':' || !readDigits(text, 17, 2, &second)) {
        return std::nullopt;
    }
    std::size_t pos = 19;
    if (pos < text.size() && text[pos] == '.') {
        ++pos;
        const std::size_t digitsStart = pos;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
            ++pos;
        }
        if (pos == digitsStart) {
            return std::nullopt;
        }
    }
    bool utc = false;
    if (pos < text.size() && text[pos] == 'Z') {
        utc = true;
        ++pos;
    }
    if (pos != text.size()) {
        return std::nullopt;
    }
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
        minute > 59 || second > 59) {
        return std::nullopt;
    }

    struct tm broken {};
    broken.tm_year = year - 1900;
    broken.tm_mon = month - 1;
    broken.tm_mday = day;
    broken.tm_hour = hour;
    broken.tm_min = minute;
    broken.tm_sec = second;
    if (utc) {
        return static_cast<std::int64_t>(timegm(&broken));
    }
    broken.tm_isdst = -1;
    errno = 0;
    const std::time_t local = mktime(&broken);
    if (local == static_cast<std::time_t>(-1)) {
        // -1 is also one valid second; make sure it is that one.
        struct tm check {};
        const std::time_t minusOne = -1;
        if (localtime_r(&minusOne, &check) == nullptr || check.tm_year != year - 1900 ||
            check.tm_mon != month - 1 || check.tm_mday != day || check.tm_hour != hour ||
            check.tm_min != minute || check.tm_sec != second) {
            return std::nullopt;
        }
    }
    return static_cast<std::int64_t>(local);
}
