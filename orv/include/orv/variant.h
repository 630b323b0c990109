// Variants: the one value type of the bus and the data model.
//
// A variant holds nothing (type 0), a text, a number, a boolean, a date-time,
// a list of variants or a map from text keys to variants (type 14). Readers
// convert between kinds where the conversion is exact; the "to" readers say
// whether it was, the plain readers fall back to an empty value.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

enum variant_type_t : std::uint32_t {
    variant_type_unknown = 0,
    variant_type_string = 1,
    variant_type_int8 = 2,
    variant_type_int16 = 3,
    variant_type_int32 = 4,
    variant_type_int64 = 5,
    variant_type_uint8 = 6,
    variant_type_uint16 = 7,
    variant_type_uint32 = 8,
    variant_type_uint64 = 9,
    variant_type_bool = 10,
    variant_type_double = 11,
    variant_type_date_time = 12,
    variant_type_array = 13,
    variant_type_map = 14,
};

class variant_t;
struct variant_map_entry_t;

// Lists keep their order; maps keep the order in which keys were added.
using variant_list_t = std::vector<variant_t>;
using variant_map_t = std::vector<variant_map_entry_t>;

class variant_t {
  public:
    variant_t() = default;
    variant_t(const variant_t& other);
    variant_t(variant_t&& other) noexcept = default;
    variant_t& operator=(const variant_t& other);
    variant_t& operator=(variant_t&& other) noexcept = default;
    ~variant_t();

    explicit variant_t(std::string_view text);
    explicit variant_t(const char* text) : variant_t(std::string_view(text)) {}
    explicit variant_t(bool value);
    explicit variant_t(std::int32_t value);
    explicit variant_t(std::uint32_t value);
    explicit variant_t(std::int64_t value);
    explicit variant_t(std::uint64_t value);
    explicit variant_t(double value);
    explicit variant_t(variant_list_t list);
    explicit variant_t(variant_map_t map);

    // A date-time: seconds since the epoch.
    static variant_t dateTime(std::int64_t seconds);

    variant_type_t type() const { return type_; }

    // Direct access; null when the variant is of another kind.
    const std::string* text() const;
    const variant_list_t* list() const;
    variant_list_t* list();
    const variant_map_t* map() const;
    variant_map_t* map();

    friend bool operator==(const variant_t& a, const variant_t& b);

  private:
    friend struct variant_access;
    using storage_t =
        std::variant<std::monostate, std::string, std::int64_t, std::uint64_t, bool, double,
                     std::unique_ptr<variant_list_t>, std::unique_ptr<variant_map_t>>;
    variant_type_t type_ = variant_type_unknown;
    storage_t value_;
};

struct variant_map_entry_t {
    std::string key;
    variant_t value;
};

// Kind and reset.
variant_type_t variant_type(const variant_t* variant);
// Makes the variant an empty value of the given type: type 0 gives the empty
// variant, 13 an empty list, 14 an empty map, the others their zero value.
bool variant_initialize(variant_t* variant, variant_type_t type);
void variant_cleanup(variant_t* variant);
bool variant_copy(variant_t* dest, const variant_t* src);

// Setters replace the value and the type.
bool variant_setChar(variant_t* variant, std::string_view text);
bool variant_setBool(variant_t* variant, bool value);
bool variant_setInt32(variant_t* variant, std::int32_t value);
bool variant_setUInt32(variant_t* variant, std::uint32_t value);
bool variant_setInt64(variant_t* variant, std::int64_t value);
bool variant_setUInt64(variant_t* variant, std::uint64_t value);
bool variant_setDouble(variant_t* variant, double value);
bool variant_setDateTime(variant_t* variant, std::int64_t seconds);
// Moves the elements of list into the variant and leaves list empty.
bool variant_setListMove(variant_t* variant, variant_list_t* list);
bool variant_setListCopy(variant_t* variant, const variant_list_t* list);
bool variant_setMapMove(variant_t* variant, variant_map_t* map);

// Direct access without a copy; null for another kind or a null variant.
const char* variant_da_char(const variant_t* variant);
const std::string* variant_da_string(const variant_t* variant);
variant_list_t* variant_da_list(variant_t* variant);
const variant_list_t* variant_da_list(const variant_t* variant);
variant_map_t* variant_da_map(variant_t* variant);
const variant_map_t* variant_da_map(const variant_t* variant);

// Exact conversions. They fail (nullopt) when the value does not fit the
// target: a negative number as unsigned, a fraction as an integer, a text that
// is not entirely a number, a list or a map as a scalar.
//  - texts: a string as is; numbers in decimal; a double with up to 17
//    significant digits; a boolean as "true"/"false"; a date-time in ISO 8601
//    UTC ("2023-11-14T01:00:00Z").
//  - booleans: numbers (non-zero is true), texts "true"/"false"/"1"/"0"
//    (case-insensitive) and "yes"/"no".
//  - date-times: a date-time, a whole number of seconds, or a text in ISO 8601,
//    either UTC with "Z" or local time without a zone.
std::optional<std::string> variant_toChar(const variant_t* variant);
std::optional<bool> variant_toBool(const variant_t* variant);
std::optional<std::int32_t> variant_toInt32(const variant_t* variant);
std::optional<std::uint32_t> variant_toUInt32(const variant_t* variant);
std::optional<std::int64_t> variant_toInt64(const variant_t* variant);
std::optional<std::uint64_t> variant_toUInt64(const variant_t* variant);
std::optional<double> variant_toDouble(const variant_t* variant);
std::optional<std::int64_t> variant_toDateTime(const variant_t* variant);

// The readers the plug-in uses: the value converted as above, or the empty
// value of the kind (no text, 0, false, no list) when it cannot be converted.
std::optional<std::string> variant_char(const variant_t* variant);
std::uint32_t variant_uint32(const variant_t* variant);
std::int32_t variant_int32(const variant_t* variant);
bool variant_bool(const variant_t* variant);
// A copy of the list held by a list variant; nullopt for anything else.
std::optional<variant_list_t> variant_list(const variant_t* variant);
// The date-time as a broken-down local time.
std::optional<struct tm> variant_dateTime(const variant_t* variant);

// Compares two variants. Texts compare byte-wise, numbers (booleans and
// date-times included) by value, lists and maps element by element. A text
// and a number compare through their text forms. Returns false when the two
// cannot be compared (an empty variant with a value, a list with a scalar);
// otherwise result is negative, 0 or positive.
bool variant_compare(const variant_t* a, const variant_t* b, int* result);

// JSON: compact output. A date-time goes out as its ISO 8601 text.
std::string variant_toJSON(const variant_t* variant);
// Parses JSON into a variant: string as text, true/false as bool, a whole
// number 0..2^32-1 as uint32, a negative whole number as int32 or int64, a
// larger one as uint64, a fraction as double, an array as a list and an
// object as a map; null as the empty variant. nullopt on a syntax error.
std::optional<variant_t> variant_fromJSON(std::string_view json);

// ISO 8601 helpers shared by the conversions and the bus.
std::string orv_isoTime(std::int64_t seconds);
std::optional<std::int64_t> orv_parseIsoTime(std::string_view text);
