// Unit tests of liborv's variants: kinds, exact conversions, comparison, deep
// copies, JSON, ISO 8601 and the list and map helpers.
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "orv/error.h"
#include "orv/variant.h"
#include "orv/variant_list.h"
#include "orv/variant_map.h"

namespace {

constexpr std::int64_t kInt64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kUInt64Max = std::numeric_limits<std::uint64_t>::max();
constexpr std::int32_t kInt32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();
constexpr std::uint32_t kUInt32Max = std::numeric_limits<std::uint32_t>::max();

// 2023-11-14T01:00:00Z
constexpr std::int64_t kNov14 = 1699923600;

variant_t listOf(std::vector<variant_t> elements) {
    return variant_t(std::move(elements));
}

variant_t mapOf(std::vector<std::pair<std::string, variant_t>> entries) {
    variant_map_t map;
    for (auto& [key, value] : entries) {
        map.push_back(variant_map_entry_t{key, std::move(value)});
    }
    return variant_t(std::move(map));
}

// Runs a test body with TZ set, restoring TZ=UTC afterwards.
class TimeZone {
  public:
    explicit TimeZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone() {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;
};

// ---------------------------------------------------------------------------
// Kinds

TEST(VariantKind, TypeNumbersAreTheContract) {
    EXPECT_EQ(variant_type_unknown, 0u);
    EXPECT_EQ(variant_type_string, 1u);
    EXPECT_EQ(variant_type_int32, 4u);
    EXPECT_EQ(variant_type_uint32, 8u);
    EXPECT_EQ(variant_type_bool, 10u);
    EXPECT_EQ(variant_type_double, 11u);
    EXPECT_EQ(variant_type_date_time, 12u);
    EXPECT_EQ(variant_type_array, 13u);
    EXPECT_EQ(variant_type_map, 14u);
}

TEST(VariantKind, ConstructorsSetTheType) {
    struct Case {
        variant_t value;
        variant_type_t type;
    };
    const std::vector<Case> cases = {
        {variant_t(), variant_type_unknown},
        {variant_t("text"), variant_type_string},
        {variant_t(std::string_view("view")), variant_type_string},
        {variant_t(true), variant_type_bool},
        {variant_t(std::int32_t{-1}), variant_type_int32},
        {variant_t(std::uint32_t{1}), variant_type_uint32},
        {variant_t(std::int64_t{-1}), variant_type_int64},
        {variant_t(std::uint64_t{1}), variant_type_uint64},
        {variant_t(0.5), variant_type_double},
        {variant_t::dateTime(kNov14), variant_type_date_time},
        {variant_t(variant_list_t{}), variant_type_array},
        {variant_t(variant_map_t{}), variant_type_map},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.value.type(), c.type);
        EXPECT_EQ(variant_type(&c.value), c.type);
    }
    EXPECT_EQ(variant_type(nullptr), variant_type_unknown);
}

TEST(VariantKind, InitializeGivesTheEmptyValueOfTheType) {
    for (std::uint32_t t = 0; t <= 14; ++t) {
        const auto type = static_cast<variant_type_t>(t);
        variant_t v("previous");
        ASSERT_TRUE(variant_initialize(&v, type)) << t;
        EXPECT_EQ(v.type(), type) << t;
    }
    variant_t v;
    ASSERT_TRUE(variant_initialize(&v, variant_type_string));
    EXPECT_EQ(variant_toChar(&v), std::optional<std::string>(""));
    ASSERT_TRUE(variant_initialize(&v, variant_type_uint16));
    EXPECT_EQ(variant_toUInt64(&v), std::optional<std::uint64_t>(0));
    ASSERT_TRUE(variant_initialize(&v, variant_type_int8));
    EXPECT_EQ(variant_toInt64(&v), std::optional<std::int64_t>(0));
    ASSERT_TRUE(variant_initialize(&v, variant_type_bool));
    EXPECT_EQ(variant_toBool(&v), std::optional<bool>(false));
    ASSERT_TRUE(variant_initialize(&v, variant_type_double));
    EXPECT_EQ(variant_toDouble(&v), std::optional<double>(0.0));
    ASSERT_TRUE(variant_initialize(&v, variant_type_date_time));
    EXPECT_EQ(variant_toDateTime(&v), std::optional<std::int64_t>(0));
    ASSERT_TRUE(variant_initialize(&v, variant_type_array));
    ASSERT_NE(v.list(), nullptr);
    EXPECT_TRUE(v.list()->empty());
    ASSERT_TRUE(variant_initialize(&v, variant_type_map));
    ASSERT_NE(v.map(), nullptr);
    EXPECT_TRUE(v.map()->empty());

    EXPECT_FALSE(variant_initialize(&v, static_cast<variant_type_t>(15)));
    EXPECT_FALSE(variant_initialize(nullptr, variant_type_string));
}

TEST(VariantKind, SettersReplaceValueAndType) {
    variant_t v(variant_list_t{variant_t("x")});
    ASSERT_TRUE(variant_setChar(&v, "abc"));
    EXPECT_EQ(v.type(), variant_type_string);
    EXPECT_STREQ(variant_da_char(&v), "abc");
    ASSERT_TRUE(variant_setBool(&v, true));
    EXPECT_EQ(v.type(), variant_type_bool);
    ASSERT_TRUE(variant_setInt32(&v, -7));
    EXPECT_EQ(v.type(), variant_type_int32);
    EXPECT_EQ(variant_int32(&v), -7);
    ASSERT_TRUE(variant_setUInt32(&v, 7));
    EXPECT_EQ(v.type(), variant_type_uint32);
    ASSERT_TRUE(variant_setInt64(&v, kInt64Min));
    EXPECT_EQ(v.type(), variant_type_int64);
    EXPECT_EQ(variant_toInt64(&v), std::optional<std::int64_t>(kInt64Min));
    ASSERT_TRUE(variant_setUInt64(&v, kUInt64Max));
    EXPECT_EQ(v.type(), variant_type_uint64);
    EXPECT_EQ(variant_toUInt64(&v), std::optional<std::uint64_t>(kUInt64Max));
    ASSERT_TRUE(variant_setDouble(&v, 2.25));
    EXPECT_EQ(v.type(), variant_type_double);
    ASSERT_TRUE(variant_setDateTime(&v, kNov14));
    EXPECT_EQ(v.type(), variant_type_date_time);
    EXPECT_EQ(variant_toDateTime(&v), std::optional<std::int64_t>(kNov14));
    EXPECT_EQ(variant_da_char(&v), nullptr);
    EXPECT_EQ(variant_da_string(&v), nullptr);

    variant_cleanup(&v);
    EXPECT_EQ(v.type(), variant_type_unknown);

    // Setting a variant to a text that lives inside it.
    variant_t self("selfish");
    ASSERT_TRUE(variant_setChar(&self, *self.text()));
    EXPECT_EQ(*self.text(), "selfish");

    EXPECT_FALSE(variant_setChar(nullptr, "x"));
    EXPECT_FALSE(variant_setBool(nullptr, true));
    EXPECT_FALSE(variant_setListMove(nullptr, nullptr));
}

TEST(VariantKind, ListAndMapSetters) {
    variant_list_t list = {variant_t("a"), variant_t(std::uint32_t{1})};
    variant_t v;
    ASSERT_TRUE(variant_setListCopy(&v, &list));
    EXPECT_EQ(list.size(), 2u);
    ASSERT_NE(variant_da_list(&v), nullptr);
    EXPECT_EQ(variant_da_list(&v)->size(), 2u);

    variant_t moved;
    ASSERT_TRUE(variant_setListMove(&moved, &list));
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(moved.type(), variant_type_array);
    ASSERT_EQ(moved.list()->size(), 2u);
    EXPECT_EQ(*(*moved.list())[0].text(), "a");

    variant_map_t map;
    map.push_back({"k", variant_t(true)});
    variant_t m;
    ASSERT_TRUE(variant_setMapMove(&m, &map));
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(m.type(), variant_type_map);
    ASSERT_NE(variant_da_map(&m), nullptr);
    const variant_t& cm = m;
    ASSERT_NE(variant_da_map(&cm), nullptr);
    EXPECT_EQ(variant_da_map(&cm)->size(), 1u);
    EXPECT_EQ(variant_da_list(&m), nullptr);
    EXPECT_EQ(variant_da_map(&moved), nullptr);
    EXPECT_EQ(variant_da_list(static_cast<variant_t*>(nullptr)), nullptr);
}

// ---------------------------------------------------------------------------
// Conversions to integers

template <typename T>
struct ConvCase {
    const char* name;
    variant_t input;
    std::optional<T> expected;
};

TEST(VariantConvert, ToUInt32) {
    const std::vector<ConvCase<std::uint32_t>> cases = {
        {"uint32 0", variant_t(std::uint32_t{0}), 0u},
        {"uint32 max", variant_t(kUInt32Max), kUInt32Max},
        {"int32 5", variant_t(std::int32_t{5}), 5u},
        {"int32 -1", variant_t(std::int32_t{-1}), std::nullopt},
        {"int64 2^32-1", variant_t(std::int64_t{4294967295}), kUInt32Max},
        {"int64 2^32", variant_t(std::int64_t{4294967296}), std::nullopt},
        {"uint64 2^32", variant_t(std::uint64_t{4294967296}), std::nullopt},
        {"uint64 max", variant_t(kUInt64Max), std::nullopt},
        {"double 3.0", variant_t(3.0), 3u},
        {"double 1.5", variant_t(1.5), std::nullopt},
        {"double -1.0", variant_t(-1.0), std::nullopt},
        {"double -0.0", variant_t(-0.0), 0u},
        {"double 4294967295", variant_t(4294967295.0), kUInt32Max},
        {"double 4294967296", variant_t(4294967296.0), std::nullopt},
        {"double nan", variant_t(std::numeric_limits<double>::quiet_NaN()), std::nullopt},
        {"double inf", variant_t(std::numeric_limits<double>::infinity()), std::nullopt},
        {"bool true", variant_t(true), 1u},
        {"bool false", variant_t(false), 0u},
        {"text 12", variant_t("12"), 12u},
        {"text +12", variant_t("+12"), 12u},
        {"text 4294967295", variant_t("4294967295"), kUInt32Max},
        {"text 4294967296", variant_t("4294967296"), std::nullopt},
        {"text -1", variant_t("-1"), std::nullopt},
        {"text -0", variant_t("-0"), 0u},
        {"text 12a", variant_t("12a"), std::nullopt},
        {"text 5.0", variant_t("5.0"), std::nullopt},
        {"text 1e3", variant_t("1e3"), std::nullopt},
        {"text blank 5", variant_t(" 5"), std::nullopt},
        {"text 5 blank", variant_t("5 "), std::nullopt},
        {"text empty", variant_t(""), std::nullopt},
        {"text sign only", variant_t("-"), std::nullopt},
        {"text 0x10", variant_t("0x10"), std::nullopt},
        {"date-time", variant_t::dateTime(kNov14), static_cast<std::uint32_t>(kNov14)},
        {"empty", variant_t(), std::nullopt},
        {"list", listOf({variant_t(std::uint32_t{1})}), std::nullopt},
        {"map", mapOf({{"a", variant_t(std::uint32_t{1})}}), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(variant_toUInt32(&c.input), c.expected) << c.name;
        EXPECT_EQ(variant_uint32(&c.input), c.expected.value_or(0)) << c.name;
    }
    EXPECT_EQ(variant_toUInt32(nullptr), std::nullopt);
    EXPECT_EQ(variant_uint32(nullptr), 0u);
}

TEST(VariantConvert, ToInt32) {
    const std::vector<ConvCase<std::int32_t>> cases = {
        {"int32 min", variant_t(kInt32Min), kInt32Min},
        {"int32 max", variant_t(kInt32Max), kInt32Max},
        {"int64 below", variant_t(std::int64_t{kInt32Min} - 1), std::nullopt},
        {"int64 above", variant_t(std::int64_t{kInt32Max} + 1), std::nullopt},
        {"uint32 max int32", variant_t(std::uint32_t{2147483647}), kInt32Max},
        {"uint32 2^31", variant_t(std::uint32_t{2147483648u}), std::nullopt},
        {"uint64 max", variant_t(kUInt64Max), std::nullopt},
        {"double -2.0", variant_t(-2.0), -2},
        {"double -2.5", variant_t(-2.5), std::nullopt},
        {"double 2^31", variant_t(2147483648.0), std::nullopt},
        {"bool true", variant_t(true), 1},
        {"text -2147483648", variant_t("-2147483648"), kInt32Min},
        {"text -2147483649", variant_t("-2147483649"), std::nullopt},
        {"text 2147483648", variant_t("2147483648"), std::nullopt},
        {"text 1.5", variant_t("1.5"), std::nullopt},
        {"text abc", variant_t("abc"), std::nullopt},
        {"empty", variant_t(), std::nullopt},
        {"list", listOf({}), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(variant_toInt32(&c.input), c.expected) << c.name;
        EXPECT_EQ(variant_int32(&c.input), c.expected.value_or(0)) << c.name;
    }
}

TEST(VariantConvert, ToInt64) {
    const std::vector<ConvCase<std::int64_t>> cases = {
        {"int64 min", variant_t(kInt64Min), kInt64Min},
        {"int64 max", variant_t(kInt64Max), kInt64Max},
        {"uint64 int64 max", variant_t(static_cast<std::uint64_t>(kInt64Max)), kInt64Max},
        {"uint64 2^63", variant_t(std::uint64_t{1} << 63), std::nullopt},
        {"double -2^63", variant_t(-9223372036854775808.0), kInt64Min},
        {"double 2^63", variant_t(9223372036854775808.0), std::nullopt},
        {"double 1e300", variant_t(1e300), std::nullopt},
        {"double 0.1", variant_t(0.1), std::nullopt},
        {"text min", variant_t("-9223372036854775808"), kInt64Min},
        {"text below min", variant_t("-9223372036854775809"), std::nullopt},
        {"text max", variant_t("9223372036854775807"), kInt64Max},
        {"text above max", variant_t("9223372036854775808"), std::nullopt},
        {"text huge", variant_t("99999999999999999999999"), std::nullopt},
        {"date-time", variant_t::dateTime(-5), -5},
        {"bool false", variant_t(false), 0},
        {"map", mapOf({}), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(variant_toInt64(&c.input), c.expected) << c.name;
    }
}

TEST(VariantConvert, ToUInt64) {
    const std::vector<ConvCase<std::uint64_t>> cases = {
        {"uint64 max", variant_t(kUInt64Max), kUInt64Max},
        {"int64 max", variant_t(kInt64Max), static_cast<std::uint64_t>(kInt64Max)},
        {"int64 -1", variant_t(std::int64_t{-1}), std::nullopt},
        {"int32 min", variant_t(kInt32Min), std::nullopt},
        {"double 2^63", variant_t(9223372036854775808.0), std::uint64_t{1} << 63},
        {"double 2^64", variant_t(18446744073709551616.0), std::nullopt},
        {"double -0.5", variant_t(-0.5), std::nullopt},
        {"text max", variant_t("18446744073709551615"), kUInt64Max},
        {"text max+1", variant_t("18446744073709551616"), std::nullopt},
        {"text -1", variant_t("-1"), std::nullopt},
        {"date-time negative", variant_t::dateTime(-1), std::nullopt},
        {"empty", variant_t(), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(variant_toUInt64(&c.input), c.expected) << c.name;
    }
}

// ---------------------------------------------------------------------------
// Conversions to double, bool, text and date-time

TEST(VariantConvert, ToDouble) {
    const std::vector<ConvCase<double>> cases = {
        {"double", variant_t(0.5), 0.5},
        {"int32", variant_t(std::int32_t{-3}), -3.0},
        {"uint32", variant_t(kUInt32Max), 4294967295.0},
        {"int64 min", variant_t(kInt64Min), -9223372036854775808.0},
        {"uint64 2^63", variant_t(std::uint64_t{1} << 63), 9223372036854775808.0},
        {"bool", variant_t(true), 1.0},
        {"date-time", variant_t::dateTime(kNov14), static_cast<double>(kNov14)},
        {"text 1.5", variant_t("1.5"), 1.5},
        {"text 5", variant_t("5"), 5.0},
        {"text -2e3", variant_t("-2e3"), -2000.0},
        {"text .25", variant_t(".25"), 0.25},
        {"text 1.5x", variant_t("1.5x"), std::nullopt},
        {"text blank", variant_t(" 1.5"), std::nullopt},
        {"text empty", variant_t(""), std::nullopt},
        {"text overflow", variant_t("1e999"), std::nullopt},
        {"empty", variant_t(), std::nullopt},
        {"list", listOf({variant_t(1.0)}), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(variant_toDouble(&c.input), c.expected) << c.name;
    }
}

TEST(VariantConvert, ToBool) {
    const std::vector<ConvCase<bool>> cases = {
        {"true", variant_t(true), true},
        {"false", variant_t(false), false},
        {"uint32 0", variant_t(std::uint32_t{0}), false},
        {"uint32 2", variant_t(std::uint32_t{2}), true},
        {"int32 -1", variant_t(std::int32_t{-1}), true},
        {"uint64 max", variant_t(kUInt64Max), true},
        {"double 0", variant_t(0.0), false},
        {"double 0.5", variant_t(0.5), true},
        {"text true", variant_t("true"), true},
        {"text TRUE", variant_t("TRUE"), true},
        {"text False", variant_t("False"), false},
        {"text 1", variant_t("1"), true},
        {"text 0", variant_t("0"), false},
        {"text yes", variant_t("yes"), true},
        {"text No", variant_t("No"), false},
        {"text 2", variant_t("2"), std::nullopt},
        {"text on", variant_t("on"), std::nullopt},
        {"text empty", variant_t(""), std::nullopt},
        {"text truex", variant_t("truex"), std::nullopt},
        {"empty", variant_t(), std::nullopt},
        {"list", listOf({variant_t(true)}), std::nullopt},
        {"map", mapOf({}), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(variant_toBool(&c.input), c.expected) << c.name;
        EXPECT_EQ(variant_bool(&c.input), c.expected.value_or(false)) << c.name;
    }
}

TEST(VariantConvert, ToChar) {
    const std::vector<ConvCase<std::string>> cases = {
        {"text", variant_t("as is"), "as is"},
        {"empty text", variant_t(""), ""},
        {"int32 min", variant_t(kInt32Min), "-2147483648"},
        {"uint32 max", variant_t(kUInt32Max), "4294967295"},
        {"int64 min", variant_t(kInt64Min), "-9223372036854775808"},
        {"uint64 max", variant_t(kUInt64Max), "18446744073709551615"},
        {"bool true", variant_t(true), "true"},
        {"bool false", variant_t(false), "false"},
        {"double 0.5", variant_t(0.5), "0.5"},
        {"double 0.1", variant_t(0.1), "0.1"},
        {"double 1", variant_t(1.0), "1"},
        {"double -2.25", variant_t(-2.25), "-2.25"},
        {"double 1/3", variant_t(1.0 / 3.0), "0.3333333333333333"},
        {"double 0.1+0.2", variant_t(0.1 + 0.2), "0.30000000000000004"},
        {"double 1e20", variant_t(1e20), "1e+20"},
        {"date-time", variant_t::dateTime(kNov14), "2023-11-14T01:00:00Z"},
        {"date-time epoch", variant_t::dateTime(0), "1970-01-01T00:00:00Z"},
        {"empty", variant_t(), std::nullopt},
        {"list", listOf({variant_t("a")}), std::nullopt},
        {"map", mapOf({{"a", variant_t("b")}}), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(variant_toChar(&c.input), c.expected) << c.name;
        EXPECT_EQ(variant_char(&c.input), c.expected) << c.name;
    }
}

TEST(VariantConvert, DoubleTextsRoundTrip) {
    const double values[] = {0.1,
                             0.2 + 0.1,
                             1.0 / 3.0,
                             123456.789,
                             1e-300,
                             -4.9e-324,
                             1.7976931348623157e308,
                             9007199254740993.0};
    for (double d : values) {
        const variant_t v(d);
        const auto text = variant_toChar(&v);
        ASSERT_TRUE(text.has_value());
        const variant_t back(*text);
        EXPECT_EQ(variant_toDouble(&back), std::optional<double>(d)) << *text;
    }
}

TEST(VariantConvert, ToDateTime) {
    const std::vector<ConvCase<std::int64_t>> cases = {
        {"date-time", variant_t::dateTime(kNov14), kNov14},
        {"uint32", variant_t(std::uint32_t{1000}), 1000},
        {"int64 negative", variant_t(std::int64_t{-60}), -60},
        {"uint64 too big", variant_t(kUInt64Max), std::nullopt},
        {"double whole", variant_t(1699923600.0), kNov14},
        {"double fraction", variant_t(1.5), std::nullopt},
        {"text utc", variant_t("2023-11-14T01:00:00Z"), kNov14},
        {"text utc fraction", variant_t("2023-11-14T01:00:00.123Z"), kNov14},
        {"text garbage", variant_t("yesterday"), std::nullopt},
        {"bool", variant_t(true), std::nullopt},
        {"empty", variant_t(), std::nullopt},
        {"list", listOf({}), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(variant_toDateTime(&c.input), c.expected) << c.name;
    }
}

TEST(VariantConvert, DateTimeAsLocalTime) {
    const TimeZone berlin("Europe/Berlin");
    const variant_t v = variant_t::dateTime(kNov14);
    const auto tm = variant_dateTime(&v);
    ASSERT_TRUE(tm.has_value());
    EXPECT_EQ(tm->tm_year, 123);
    EXPECT_EQ(tm->tm_mon, 10);
    EXPECT_EQ(tm->tm_mday, 14);
    EXPECT_EQ(tm->tm_hour, 2);  // CET, UTC+1
    EXPECT_EQ(tm->tm_min, 0);

    const variant_t text("x");
    EXPECT_FALSE(variant_dateTime(&text).has_value());
    const variant_t empty;
    EXPECT_FALSE(variant_dateTime(&empty).has_value());
}

TEST(VariantConvert, ListReader) {
    const variant_t v = listOf({variant_t("a"), variant_t(std::uint32_t{2})});
    const auto list = variant_list(&v);
    ASSERT_TRUE(list.has_value());
    ASSERT_EQ(list->size(), 2u);
    EXPECT_EQ(*(*list)[0].text(), "a");

    const variant_t scalar(std::uint32_t{1});
    EXPECT_FALSE(variant_list(&scalar).has_value());
    const variant_t map = mapOf({});
    EXPECT_FALSE(variant_list(&map).has_value());
    EXPECT_FALSE(variant_list(nullptr).has_value());
}

TEST(VariantConvert, FailureSetsTheLastError) {
    orv_setError(orv_error_none);
    const variant_t v(std::int32_t{-1});
    EXPECT_FALSE(variant_toUInt32(&v).has_value());
    EXPECT_NE(orv_error(), orv_error_none);
}

// ---------------------------------------------------------------------------
// Compare

struct CompareCase {
    const char* name;
    variant_t a;
    variant_t b;
    std::optional<int> expected;  // nullopt: not comparable
};

TEST(VariantCompare, Table) {
    const std::vector<CompareCase> cases = {
        {"empty empty", variant_t(), variant_t(), 0},
        {"empty text", variant_t(), variant_t(""), std::nullopt},
        {"text empty", variant_t("a"), variant_t(), std::nullopt},
        {"text equal", variant_t("abc"), variant_t("abc"), 0},
        {"text less", variant_t("abc"), variant_t("abd"), -1},
        {"text prefix", variant_t("ab"), variant_t("abc"), -1},
        {"text case", variant_t("a"), variant_t("B"), 1},
        {"text bytes", variant_t("\xc3\xa4"), variant_t("z"), 1},
        {"int32 uint32", variant_t(std::int32_t{5}), variant_t(std::uint32_t{5}), 0},
        {"negative vs uint64 max", variant_t(std::int64_t{-1}), variant_t(kUInt64Max), -1},
        {"uint64 max vs int64 max", variant_t(kUInt64Max), variant_t(kInt64Max), 1},
        {"int64 min vs int64 max", variant_t(kInt64Min), variant_t(kInt64Max), -1},
        {"double vs int", variant_t(1.5), variant_t(std::int32_t{1}), 1},
        {"int vs double", variant_t(std::int32_t{2}), variant_t(1.5), 1},
        {"double equals int", variant_t(3.0), variant_t(std::uint32_t{3}), 0},
        {"double -0.5 vs 0", variant_t(-0.5), variant_t(std::int64_t{0}), -1},
        {"2^53+1 vs 2^53", variant_t(std::int64_t{9007199254740993}), variant_t(9007199254740992.0),
         1},
        {"uint64 max vs 2^64", variant_t(kUInt64Max), variant_t(18446744073709551616.0), -1},
        {"int64 max vs 2^63", variant_t(kInt64Max), variant_t(9223372036854775808.0), -1},
        {"int64 min vs -2^63", variant_t(kInt64Min), variant_t(-9223372036854775808.0), 0},
        {"int64 min vs -1e300", variant_t(kInt64Min), variant_t(-1e300), 1},
        {"double double", variant_t(0.25), variant_t(0.5), -1},
        {"bool bool", variant_t(false), variant_t(true), -1},
        {"bool vs number", variant_t(true), variant_t(std::uint32_t{1}), 0},
        {"bool vs bigger number", variant_t(true), variant_t(std::uint32_t{2}), -1},
        {"date-time vs date-time", variant_t::dateTime(10), variant_t::dateTime(20), -1},
        {"date-time vs number", variant_t::dateTime(kNov14), variant_t(std::int64_t{kNov14}), 0},
        {"text vs number equal", variant_t("12"), variant_t(std::uint32_t{12}), 0},
        {"text vs number textual", variant_t("9"), variant_t(std::uint32_t{10}), 1},
        {"number vs text", variant_t(std::uint32_t{10}), variant_t("9"), -1},
        {"text vs bool", variant_t("true"), variant_t(true), 0},
        {"text vs date-time", variant_t("2023-11-14T01:00:00Z"), variant_t::dateTime(kNov14), 0},
        {"list list equal", listOf({variant_t("a"), variant_t(std::uint32_t{1})}),
         listOf({variant_t("a"), variant_t(std::int32_t{1})}), 0},
        {"list element", listOf({variant_t("a"), variant_t("b")}),
         listOf({variant_t("a"), variant_t("c")}), -1},
        {"list size", listOf({variant_t("a"), variant_t("b")}), listOf({variant_t("a")}), 1},
        {"list element first", listOf({variant_t("b")}), listOf({variant_t("a"), variant_t("z")}),
         1},
        {"list empty element", listOf({variant_t()}), listOf({variant_t("a")}), std::nullopt},
        {"list nested", listOf({listOf({variant_t(1.0)})}), listOf({listOf({variant_t(2.0)})}), -1},
        {"list vs scalar", listOf({}), variant_t("a"), std::nullopt},
        {"scalar vs list", variant_t(std::uint32_t{1}), listOf({}), std::nullopt},
        {"list vs map", listOf({}), mapOf({}), std::nullopt},
        {"map map equal", mapOf({{"a", variant_t(std::uint32_t{1})}}),
         mapOf({{"a", variant_t(1.0)}}), 0},
        {"map key", mapOf({{"a", variant_t("z")}}), mapOf({{"b", variant_t("a")}}), -1},
        {"map value", mapOf({{"a", variant_t("z")}}), mapOf({{"a", variant_t("a")}}), 1},
        {"map size", mapOf({{"a", variant_t("z")}}),
         mapOf({{"a", variant_t("z")}, {"b", variant_t("y")}}), -1},
        {"map vs scalar", mapOf({}), variant_t(true), std::nullopt},
        {"nan", variant_t(std::numeric_limits<double>::quiet_NaN()), variant_t(1.0), std::nullopt},
    };
    for (const auto& c : cases) {
        int result = 12345;
        const bool ok = variant_compare(&c.a, &c.b, &result);
        ASSERT_EQ(ok, c.expected.has_value()) << c.name;
        if (ok) {
            EXPECT_EQ(result < 0 ? -1 : (result > 0 ? 1 : 0), *c.expected) << c.name;
            // And the other way round.
            int reverse = 12345;
            ASSERT_TRUE(variant_compare(&c.b, &c.a, &reverse)) << c.name;
            EXPECT_EQ(reverse < 0 ? -1 : (reverse > 0 ? 1 : 0), -*c.expected) << c.name;
        }
    }
    int result = 0;
    const variant_t v;
    EXPECT_FALSE(variant_compare(nullptr, &v, &result));
    EXPECT_FALSE(variant_compare(&v, nullptr, &result));
}

// ---------------------------------------------------------------------------
// Equality and copies

TEST(VariantCopy, EqualityIsTypeAndValue) {
    EXPECT_EQ(variant_t(), variant_t());
    EXPECT_EQ(variant_t("a"), variant_t("a"));
    EXPECT_NE(variant_t("a"), variant_t("b"));
    EXPECT_EQ(variant_t(std::uint32_t{5}), variant_t(std::uint32_t{5}));
    EXPECT_NE(variant_t(std::uint32_t{5}), variant_t(std::int32_t{5}));
    EXPECT_NE(variant_t(std::int64_t{5}), variant_t::dateTime(5));
    EXPECT_EQ(listOf({variant_t("a")}), listOf({variant_t("a")}));
    EXPECT_NE(listOf({variant_t("a")}), listOf({variant_t("a"), variant_t("b")}));
    EXPECT_EQ(mapOf({{"k", variant_t(true)}}), mapOf({{"k", variant_t(true)}}));
    EXPECT_NE(mapOf({{"k", variant_t(true)}}), mapOf({{"j", variant_t(true)}}));
}

TEST(VariantCopy, CopiesAreDeepAndIndependent) {
    variant_t original = mapOf({
        {"list", listOf({variant_t("a"), listOf({variant_t(std::uint32_t{1})})})},
        {"map", mapOf({{"x", variant_t(1.5)}})},
    });

    variant_t constructed(original);
    variant_t assigned;
    assigned = original;
    variant_t viaCopy;
    ASSERT_TRUE(variant_copy(&viaCopy, &original));
    EXPECT_EQ(constructed, original);
    EXPECT_EQ(assigned, original);
    EXPECT_EQ(viaCopy, original);

    // Change the original deeply: the copies keep their values.
    variant_t* inner = variant_map_find(original.map(), "list");
    ASSERT_NE(inner, nullptr);
    variant_t* nested = &(*inner->list())[1];
    ASSERT_TRUE(variant_setUInt32(&(*nested->list())[0], 99));
    ASSERT_TRUE(variant_map_addChar(variant_map_find(original.map(), "map")->map(), "y", "new"));
    ASSERT_TRUE(variant_setChar(&(*inner->list())[0], "changed"));

    for (const variant_t* copy : {&constructed, &assigned, &viaCopy}) {
        EXPECT_NE(*copy, original);
        const variant_t* list = variant_map_find(copy->map(), "list");
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(*(*list->list())[0].text(), "a");
        EXPECT_EQ(variant_uint32(&(*(*list->list())[1].list())[0]), 1u);
        EXPECT_EQ(variant_map_find(copy->map(), "map")->map()->size(), 1u);
    }
    // Distinct storage, not shared pointers.
    EXPECT_NE(constructed.map(), original.map());

    // Self-assignment keeps the value.
    variant_t& self = assigned;
    assigned = self;
    EXPECT_EQ(variant_map_find(assigned.map(), "map")->map()->size(), 1u);

    EXPECT_FALSE(variant_copy(nullptr, &original));
    EXPECT_FALSE(variant_copy(&assigned, nullptr));
}

TEST(VariantCopy, MoveTransfersTheValue) {
    variant_t source = listOf({variant_t("a")});
    const variant_list_t* storage = source.list();
    variant_t target(std::move(source));
    EXPECT_EQ(target.type(), variant_type_array);
    EXPECT_EQ(target.list(), storage);
}

// ---------------------------------------------------------------------------
// JSON

struct JsonTypeCase {
    const char* json;
    variant_type_t type;
};

TEST(VariantJson, TypeMapping) {
    const std::vector<JsonTypeCase> cases = {
        {"\"text\"", variant_type_string},
        {"true", variant_type_bool},
        {"false", variant_type_bool},
        {"0", variant_type_uint32},
        {"4294967295", variant_type_uint32},
        {"4294967296", variant_type_uint64},
        {"18446744073709551615", variant_type_uint64},
        {"-1", variant_type_int32},
        {"-2147483648", variant_type_int32},
        {"-2147483649", variant_type_int64},
        {"-9223372036854775808", variant_type_int64},
        {"1.5", variant_type_double},
        {"-0.25", variant_type_double},
        {"1e-3", variant_type_double},
        {"[]", variant_type_array},
        {"{}", variant_type_map},
        {"null", variant_type_unknown},
    };
    for (const auto& c : cases) {
        const auto v = variant_fromJSON(c.json);
        ASSERT_TRUE(v.has_value()) << c.json;
        EXPECT_EQ(v->type(), c.type) << c.json;
    }
}

TEST(VariantJson, ParsedValues) {
    const auto v = variant_fromJSON(
        R"({"z":1,"a":[true,"x",-5,2.5,null],"m":{"k":"v"},"big":18446744073709551615})");
    ASSERT_TRUE(v.has_value());
    ASSERT_EQ(v->type(), variant_type_map);
    const variant_map_t& map = *v->map();
    ASSERT_EQ(map.size(), 4u);
    // Document order, not sorted.
    EXPECT_EQ(map[0].key, "z");
    EXPECT_EQ(map[1].key, "a");
    EXPECT_EQ(map[2].key, "m");
    EXPECT_EQ(map[3].key, "big");
    EXPECT_EQ(variant_uint32(&map[0].value), 1u);
    const variant_list_t& list = *map[1].value.list();
    ASSERT_EQ(list.size(), 5u);
    EXPECT_TRUE(variant_bool(&list[0]));
    EXPECT_EQ(*list[1].text(), "x");
    EXPECT_EQ(variant_int32(&list[2]), -5);
    EXPECT_EQ(variant_toDouble(&list[3]), std::optional<double>(2.5));
    EXPECT_EQ(list[4].type(), variant_type_unknown);
    EXPECT_EQ(*variant_map_find(map[2].value.map(), "k")->text(), "v");
    EXPECT_EQ(variant_toUInt64(&map[3].value), std::optional<std::uint64_t>(kUInt64Max));
}

TEST(VariantJson, InvalidJsonIsRejected) {
    const char* invalid[] = {"", "{", "[1,", "{\"a\":}", "tru", "\"open", "1 2", "{'a':1}", "nul"};
    for (const char* json : invalid) {
        EXPECT_FALSE(variant_fromJSON(json).has_value()) << json;
    }
}

TEST(VariantJson, Output) {
    struct Case {
        variant_t value;
        const char* json;
    };
    const std::vector<Case> cases = {
        {variant_t(), "null"},
        {variant_t("a\"b"), R"("a\"b")"},
        {variant_t(true), "true"},
        {variant_t(std::int32_t{-5}), "-5"},
        {variant_t(kUInt64Max), "18446744073709551615"},
        {variant_t(kInt64Min), "-9223372036854775808"},
        {variant_t(0.5), "0.5"},
        {variant_t::dateTime(kNov14), R"("2023-11-14T01:00:00Z")"},
        {listOf({}), "[]"},
        {mapOf({}), "{}"},
        {listOf({variant_t(std::uint32_t{1}), variant_t("x"), variant_t()}), R"([1,"x",null])"},
        {mapOf({{"z", variant_t(false)}, {"a", listOf({mapOf({{"k", variant_t("v")}})})}}),
         R"({"z":false,"a":[{"k":"v"}]})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(variant_toJSON(&c.value), c.json);
    }
}

TEST(VariantJson, RoundTrips) {
    const char* documents[] = {
        "null",
        "\"text with \\u00e4 and \\n\"",
        "[1,-2,3.25,true,false,null,\"s\"]",
        R"({"b":1,"a":{"d":[],"c":{}},"e":-9223372036854775808,"f":18446744073709551615})",
        "[[[[]]],{\"x\":[0.1,1e+300]}]",
    };
    for (const char* json : documents) {
        const auto first = variant_fromJSON(json);
        ASSERT_TRUE(first.has_value()) << json;
        const std::string text = variant_toJSON(&*first);
        const auto second = variant_fromJSON(text);
        ASSERT_TRUE(second.has_value()) << text;
        EXPECT_EQ(*second, *first) << json;
        EXPECT_EQ(variant_toJSON(&*second), text);
    }

    // Values built in code survive JSON as far as JSON can tell kinds apart.
    const variant_t built = mapOf({{"n", variant_t(std::uint32_t{7})},
                                   {"d", variant_t(1.0 / 3.0)},
                                   {"neg", variant_t(std::int32_t{-7})},
                                   {"whole double", variant_t(2.0)}});
    const auto back = variant_fromJSON(variant_toJSON(&built));
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(*back, built);
}

TEST(VariantJson, DateTimeComesBackAsText) {
    const variant_t v = listOf({variant_t::dateTime(kNov14)});
    const auto back = variant_fromJSON(variant_toJSON(&v));
    ASSERT_TRUE(back.has_value());
    const variant_t& element = (*back->list())[0];
    EXPECT_EQ(element.type(), variant_type_string);
    EXPECT_EQ(variant_toDateTime(&element), std::optional<std::int64_t>(kNov14));
}

// ---------------------------------------------------------------------------
// ISO 8601

TEST(VariantIsoTime, Format) {
    EXPECT_EQ(orv_isoTime(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(orv_isoTime(kNov14), "2023-11-14T01:00:00Z");
    EXPECT_EQ(orv_isoTime(1709164800), "2024-02-29T00:00:00Z");
    EXPECT_EQ(orv_isoTime(-1), "1969-12-31T23:59:59Z");
    EXPECT_EQ(orv_isoTime(4102444799), "2099-12-31T23:59:59Z");
}

TEST(VariantIsoTime, ParseUtc) {
    struct Case {
        const char* text;
        std::int64_t seconds;
    };
    const std::vector<Case> cases = {
        {"1970-01-01T00:00:00Z", 0},          {"2023-11-14T01:00:00Z", kNov14},
        {"2023-11-14T01:00:00.123Z", kNov14}, {"2023-11-14T01:00:00.9Z", kNov14},
        {"2024-02-29T00:00:00Z", 1709164800}, {"1969-12-31T23:59:59Z", -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(orv_parseIsoTime(c.text), std::optional<std::int64_t>(c.seconds)) << c.text;
        if (c.seconds >= 0) {
            EXPECT_EQ(orv_parseIsoTime(orv_isoTime(c.seconds)),
                      std::optional<std::int64_t>(c.seconds));
        }
    }
}

TEST(VariantIsoTime, ParseLocalTime) {
    const TimeZone berlin("Europe/Berlin");
    struct Case {
        const char* text;
        std::int64_t seconds;
    };
    const std::vector<Case> cases = {
        {"2023-07-01T12:00:00", 1688205600},      // CEST, UTC+2
        {"2023-01-15T12:00:00", 1673780400},      // CET, UTC+1
        {"2023-01-15T12:00:00.500", 1673780400},  // fraction ignored
        {"2023-11-14T02:00:00", kNov14},
        {"2023-11-14T01:00:00Z", kNov14},  // "Z" is UTC in any zone
    };
    for (const auto& c : cases) {
        EXPECT_EQ(orv_parseIsoTime(c.text), std::optional<std::int64_t>(c.seconds)) << c.text;
        const variant_t v(c.text);
        EXPECT_EQ(variant_toDateTime(&v), std::optional<std::int64_t>(c.seconds)) << c.text;
    }
}

TEST(VariantIsoTime, LocalTimeFollowsTheZone) {
    {
        const TimeZone utc("UTC");
        EXPECT_EQ(orv_parseIsoTime("2023-11-14T01:00:00"), std::optional<std::int64_t>(kNov14));
    }
    const char* tz = std::getenv("TZ");
    ASSERT_NE(tz, nullptr);
    EXPECT_STREQ(tz, "UTC");
}

TEST(VariantIsoTime, ParseRejects) {
    const char* invalid[] = {
        "",
        "2023-11-14",
        "2023-11-14T01:00",
        "2023-11-14 01:00:00Z",
        "2023-11-14t01:00:00Z",
        "2023-11-14T01:00:00z",
        "2023-11-14T01:00:00+01:00",
        "2023-11-14T01:00:00ZZ",
        "2023-11-14T01:00:00Z ",
        " 2023-11-14T01:00:00Z",
        "2023-11-14T01:00:00.Z",
        "2023-11-14T01:00:00.",
        "2023-11-14T01:00:00.12a",
        "23-11-14T01:00:00Z",
        "2023-1-14T01:00:00Z",
        "2023/11/14T01:00:00Z",
        "2023-13-14T01:00:00Z",
        "2023-00-14T01:00:00Z",
        "2023-11-00T01:00:00Z",
        "2023-11-31T01:00:00Z",
        "2023-02-29T01:00:00Z",
        "2023-11-14T24:00:00Z",
        "2023-11-14T01:60:00Z",
        "2023-11-14T01:00:61Z",
        "2023-11-14T0a:00:00Z",
        "1699923600",
    };
    for (const char* text : invalid) {
        EXPECT_FALSE(orv_parseIsoTime(text).has_value()) << text;
    }
}

// ---------------------------------------------------------------------------
// Map and list helpers

TEST(VariantMap, AddKeepsOrderAndReplacesInPlace) {
    variant_map_t map;
    const variant_t one(std::uint32_t{1});
    ASSERT_TRUE(variant_map_add(&map, "b", &one));
    ASSERT_TRUE(variant_map_addChar(&map, "a", "text"));
    ASSERT_TRUE(variant_map_addBool(&map, "c", true));
    ASSERT_TRUE(variant_map_addUInt32(&map, "d", 4));
    const variant_list_t list = {variant_t("x"), variant_t("y")};
    ASSERT_TRUE(variant_map_addListCopy(&map, "e", &list));
    ASSERT_EQ(map.size(), 5u);

    // Replace "a": same position, new value and type.
    ASSERT_TRUE(variant_map_addUInt32(&map, "a", 42));
    ASSERT_TRUE(variant_map_addChar(&map, "b", "bee"));
    ASSERT_EQ(map.size(), 5u);
    const char* order[] = {"b", "a", "c", "d", "e"};
    for (std::size_t i = 0; i < map.size(); ++i) {
        EXPECT_EQ(map[i].key, order[i]);
    }
    EXPECT_EQ(map[1].value.type(), variant_type_uint32);
    EXPECT_EQ(variant_uint32(&map[1].value), 42u);
    EXPECT_EQ(*map[0].value.text(), "bee");
    EXPECT_EQ(variant_map_find(&map, "e")->list()->size(), 2u);
    EXPECT_EQ(list.size(), 2u);  // copied, not moved

    // Keys are case-sensitive.
    EXPECT_EQ(variant_map_find(&map, "A"), nullptr);
    EXPECT_EQ(variant_map_find(&map, "missing"), nullptr);
    const variant_map_t& constMap = map;
    ASSERT_NE(variant_map_find(&constMap, "c"), nullptr);
    EXPECT_TRUE(variant_bool(variant_map_find(&constMap, "c")));
    EXPECT_EQ(variant_map_find(static_cast<variant_map_t*>(nullptr), "a"), nullptr);

    // Replacing a key by a value that lives in the map.
    ASSERT_TRUE(variant_map_add(&map, "d", &map[0].value));
    EXPECT_EQ(*variant_map_find(&map, "d")->text(), "bee");
    ASSERT_TRUE(variant_map_add(&map, map[2].key, &map[4].value));
    EXPECT_EQ(map.size(), 5u);
    EXPECT_EQ(variant_map_find(&map, "c")->type(), variant_type_array);

    EXPECT_FALSE(variant_map_add(nullptr, "k", &one));
    EXPECT_FALSE(variant_map_add(&map, "k", nullptr));
    EXPECT_FALSE(variant_map_addListCopy(&map, "k", nullptr));
}

TEST(VariantList, Helpers) {
    variant_list_t list;
    variant_list_initialize(&list);
    EXPECT_TRUE(variant_list_isEmpty(&list));
    EXPECT_EQ(variant_list_size(&list), 0u);
    EXPECT_EQ(variant_list_first(&list), nullptr);
    EXPECT_TRUE(variant_list_isEmpty(nullptr));
    EXPECT_EQ(variant_list_size(nullptr), 0u);
    EXPECT_EQ(variant_list_first(nullptr), nullptr);

    const variant_t one(std::uint32_t{1});
    ASSERT_TRUE(variant_list_add(&list, &one));
    ASSERT_TRUE(variant_list_addChar(&list, "two"));
    ASSERT_TRUE(variant_list_addString(&list, std::string("three")));
    EXPECT_EQ(variant_list_size(&list), 3u);
    EXPECT_FALSE(variant_list_isEmpty(&list));
    ASSERT_NE(variant_list_first(&list), nullptr);
    EXPECT_EQ(variant_uint32(variant_list_first(&list)), 1u);
    EXPECT_EQ(*list[2].text(), "three");

    // Adding an element of the list to itself (may reallocate).
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(variant_list_add(&list, &list[1]));
    }
    EXPECT_EQ(*list.back().text(), "two");

    EXPECT_FALSE(variant_list_add(nullptr, &one));
    EXPECT_FALSE(variant_list_add(&list, nullptr));
    variant_list_cleanup(&list);
    EXPECT_TRUE(variant_list_isEmpty(&list));
}

TEST(Error, StringsAndLastError) {
    orv_setError(orv_error_not_found);
    EXPECT_EQ(orv_error(), orv_error_not_found);
    orv_setError(orv_error_none);
    EXPECT_EQ(orv_error(), orv_error_none);
    for (std::uint32_t code = 0; code <= orv_error_not_an_instance; ++code) {
        ASSERT_NE(error_string(code), nullptr);
        EXPECT_STRNE(error_string(code), "unknown error") << code;
        EXPECT_STRNE(error_string(code), "") << code;
    }
    EXPECT_STREQ(error_string(orv_error_not_an_instance + 1), "unknown error");
    EXPECT_STREQ(error_string(0xffffffffu), "unknown error");
}

}  // namespace
