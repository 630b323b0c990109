// Unit tests of liborv's variants: exact conversions, comparison, deep copies,
// JSON, ISO 8601 and the list and map helpers.
#include <charconv>
#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "orv/error.h"
#include "orv/variant.h"
#include "orv/variant_list.h"
#include "orv/variant_map.h"
#include "time_zone.h"

namespace {

constexpr std::int64_t kI64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kI64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kU64Max = std::numeric_limits<std::uint64_t>::max();
constexpr double kTwo63 = 9223372036854775808.0;
constexpr double kTwo64 = 18446744073709551616.0;
constexpr std::int64_t kNov14 = 1699923600;  // 2023-11-14T01:00:00Z

const auto i32 = [](std::int32_t v) { return variant_t(v); };
const auto u32 = [](std::uint32_t v) { return variant_t(v); };
const auto i64 = [](std::int64_t v) { return variant_t(v); };
const auto u64 = [](std::uint64_t v) { return variant_t(v); };
const auto dt = [](std::int64_t seconds) { return variant_t::dateTime(seconds); };
const auto listOf = [](variant_list_t elements) { return variant_t(std::move(elements)); };
const auto mapOf = [](variant_map_t entries) { return variant_t(std::move(entries)); };

// "-" for a failed conversion; numbers in their shortest exact form.
template <typename T>
std::string show(const std::optional<T>& value) {
    if constexpr (std::is_same_v<T, bool>) {
        return value ? (*value ? "true" : "false") : "-";
    } else {
        char buffer[32];
        return value ? std::string(buffer, std::to_chars(buffer, buffer + 32, *value).ptr) : "-";
    }
}

// The exact conversions of a variant, in the column order of the table below.
std::string conversions(const variant_t& v) {
    return show(variant_toInt32(&v)) + " " + show(variant_toUInt32(&v)) + " " +
           show(variant_toInt64(&v)) + " " + show(variant_toUInt64(&v)) + " " +
           show(variant_toDouble(&v)) + " " + show(variant_toBool(&v));
}

TEST(VariantConvert, NumericTable) {
    const std::pair<variant_t, const char*> rows[] = {
        // input, then: int32 uint32 int64 uint64 double bool
        {i32(-2147483647 - 1), "-2147483648 - -2147483648 - -2147483648 true"},
        {i64(2147483647), "2147483647 2147483647 2147483647 2147483647 2147483647 true"},
        {u32(2147483648u), "- 2147483648 2147483648 2147483648 2147483648 true"},
        {i64(kI64Min), "- - -9223372036854775808 - -9223372036854775808 true"},
        {u64(kU64Max), "- - - 18446744073709551615 18446744073709551616 true"},
        {variant_t(3.0), "3 3 3 3 3 true"},
        {variant_t(-0.0), "0 0 0 0 -0 false"},
        {variant_t(-2.5), "- - - - -2.5 true"},
        {variant_t(-kTwo63), "- - -9223372036854775808 - -9223372036854775808 true"},
        {variant_t(kTwo63), "- - - 9223372036854775808 9223372036854775808 true"},
        {variant_t(kTwo64), "- - - - 18446744073709551616 true"},
        {variant_t(std::numeric_limits<double>::quiet_NaN()), "- - - - nan -"},
        {variant_t(true), "1 1 1 1 1 true"},
        {dt(-5), "-5 - -5 - -5 true"},
        {variant_t("+12"), "12 12 12 12 12 -"},
        {variant_t("-0"), "0 0 0 0 -0 -"},
        {variant_t("4294967296"), "- - 4294967296 4294967296 4294967296 -"},
        {variant_t("-9223372036854775808"), "- - -9223372036854775808 - -9223372036854775808 -"},
        {variant_t("18446744073709551616"), "- - - - 18446744073709551616 -"},
        {variant_t("-2e3"), "- - - - -2000 -"},
        {variant_t("1e999"), "- - - - - -"},
        {variant_t(" 5"), "- - - - - -"},
        {variant_t("12a"), "- - - - - -"},
        // Only decimal texts are numbers: none of strtod's other forms.
        {variant_t("0x10"), "- - - - - -"},
        {variant_t("inf"), "- - - - - -"},
        {variant_t(""), "- - - - - -"},
        {variant_t("yEs"), "- - - - - true"},
        {variant_t("No"), "- - - - - false"},
        {variant_t(), "- - - - - -"},
        {listOf({u32(1)}), "- - - - - -"},
    };
    for (const auto& [input, expected] : rows) {
        SCOPED_TRACE(variant_toJSON(&input) + " of type " + std::to_string(input.type()));
        EXPECT_EQ(conversions(input), expected);
        // The plain readers fall back to the empty value.
        EXPECT_EQ(variant_uint32(&input), variant_toUInt32(&input).value_or(0));
        EXPECT_EQ(variant_bool(&input), variant_toBool(&input).value_or(false));
    }
    // A failed conversion leaves the last error set.
    orv_setError(orv_error_none);
    EXPECT_FALSE(variant_toUInt32(&rows[0].first).has_value());
    EXPECT_NE(orv_error(), orv_error_none);
}

TEST(VariantConvert, Texts) {
    const std::pair<variant_t, std::optional<std::string>> rows[] = {
        {i64(kI64Min), "-9223372036854775808"},
        {variant_t(false), "false"},
        {variant_t(1.0), "1"},
        {variant_t(0.1 + 0.2), "0.30000000000000004"},
        {variant_t(1e20), "1e+20"},
        {dt(-1), "1969-12-31T23:59:59Z"},
        {variant_t(), std::nullopt},
        {mapOf({{"a", variant_t("b")}}), std::nullopt},
    };
    for (const auto& [input, expected] : rows) {
        EXPECT_EQ(variant_toChar(&input), expected) << expected.value_or("-");
    }
    // The text of a double reads back as the very same double.
    for (double d : {1.0 / 3.0, 1e-300, -4.9e-324, 1.7976931348623157e308, 9007199254740993.0}) {
        const variant_t value(d);
        const variant_t back(variant_toChar(&value).value_or(""));
        EXPECT_EQ(variant_toDouble(&back), std::optional<double>(d)) << *back.text();
    }
}

TEST(VariantConvert, InitializeAndSetters) {
    std::string texts;  // the text forms of the empty values of the types 0..14
    for (std::uint32_t t = 0; t < 15; ++t) {
        variant_t v("previous");
        ASSERT_TRUE(variant_initialize(&v, static_cast<variant_type_t>(t)));
        EXPECT_EQ(v.type(), t);
        EXPECT_TRUE(t < 13 || v.list() != nullptr || v.map() != nullptr) << t;
        texts += variant_toChar(&v).value_or("-") + "|";
    }
    EXPECT_EQ(texts, "-||0|0|0|0|0|0|0|0|false|0|1970-01-01T00:00:00Z|-|-|");
    variant_t v;
    EXPECT_FALSE(variant_initialize(&v, static_cast<variant_type_t>(15)));

    // A text that lives inside the variant it replaces.
    variant_t self("selfish");
    ASSERT_TRUE(variant_setChar(&self, *self.text()));
    EXPECT_EQ(*self.text(), "selfish");

    variant_list_t list = {variant_t("a"), u32(1)};
    ASSERT_TRUE(variant_setListCopy(&v, &list));
    EXPECT_EQ(list.size(), 2u);
    variant_t moved;
    ASSERT_TRUE(variant_setListMove(&moved, &list));
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(moved, v);
    EXPECT_EQ(v, listOf({variant_t("a"), u32(1)}));
}

TEST(VariantCompare, Table) {
    constexpr int kNone = 2;  // not comparable
    const std::vector<std::tuple<variant_t, variant_t, int>> rows = {
        {variant_t(), variant_t(), 0},
        {variant_t(), variant_t(""), kNone},
        {variant_t("\xc3\xa4"), variant_t("z"), 1},  // bytes are unsigned
        {i64(-1), u64(kU64Max), -1},
        {variant_t(2.5), u64(2), 1},
        {i64(9007199254740993), variant_t(9007199254740992.0), 1},
        {u64(kU64Max), variant_t(kTwo64), -1},
        {i64(kI64Max), variant_t(kTwo63), -1},
        {i64(kI64Min), variant_t(-kTwo63), 0},
        {i64(kI64Min), variant_t(-1e300), 1},
        {variant_t(std::numeric_limits<double>::quiet_NaN()), variant_t(1.0), kNone},
        {variant_t(true), u32(1), 0},
        {dt(kNov14), i64(kNov14), 0},
        {variant_t("9"), u32(10), 1},  // a text and a number compare as texts
        {variant_t("2023-11-14T01:00:00Z"), dt(kNov14), 0},
        {listOf({variant_t("a"), u32(1)}), listOf({variant_t("a"), i32(1)}), 0},
        {listOf({variant_t("a"), variant_t("b")}), listOf({variant_t("a"), variant_t("c")}), -1},
        {listOf({variant_t("a"), variant_t("b")}), listOf({variant_t("a")}), 1},
        {listOf({variant_t()}), listOf({variant_t("a")}), kNone},
        {listOf({}), variant_t("a"), kNone},
        {mapOf({{"a", u32(1)}}), mapOf({{"a", variant_t(1.0)}}), 0},
        {mapOf({{"a", variant_t("z")}}), mapOf({{"b", variant_t("a")}}), -1},
        {mapOf({{"a", variant_t("z")}}), mapOf({{"a", variant_t("a")}}), 1},
        {mapOf({{"a", u32(1)}}), mapOf({{"a", u32(1)}, {"b", u32(0)}}), -1},
    };
    const auto compare = [](const variant_t& a, const variant_t& b) {
        int result = 12345;
        return variant_compare(&a, &b, &result) ? (result > 0) - (result < 0) : kNone;
    };
    for (const auto& [a, b, expected] : rows) {
        SCOPED_TRACE(variant_toJSON(&a) + " vs " + variant_toJSON(&b));
        EXPECT_EQ(compare(a, b), expected);
        EXPECT_EQ(compare(b, a), expected == kNone ? kNone : -expected);
    }
}

TEST(VariantCopy, EqualityAndDeepCopies) {
    EXPECT_NE(u32(5), i32(5));
    EXPECT_NE(i64(5), dt(5));
    EXPECT_NE(mapOf({{"k", variant_t(true)}}), mapOf({{"j", variant_t(true)}}));

    variant_t original = mapOf({{"list", listOf({variant_t("a"), listOf({u32(1)})})},
                                {"map", mapOf({{"x", variant_t(1.5)}})}});
    variant_t copies[3] = {original};
    copies[1] = original;
    ASSERT_TRUE(variant_copy(&copies[2], &original));
    copies[1] = std::as_const(copies[1]);  // self-assignment

    // Change the original deeply: the copies keep their values.
    variant_list_t& list = *variant_map_find(original.map(), "list")->list();
    ASSERT_TRUE(variant_setUInt32(&(*list[1].list())[0], 99));
    ASSERT_TRUE(variant_setChar(&list[0], "changed"));
    ASSERT_TRUE(variant_map_addChar(variant_map_find(original.map(), "map")->map(), "y", "new"));
    for (const variant_t& copy : copies) {
        EXPECT_NE(copy, original);
        EXPECT_EQ(variant_toJSON(&copy), R"({"list":["a",[1]],"map":{"x":1.5}})");
    }
}

TEST(VariantJson, TypesAndCanonicalText) {
    // Each text parses to the type and is written back unchanged.
    const std::pair<const char*, variant_type_t> rows[] = {
        {"null", variant_type_unknown},
        {R"("a\"b\n")", variant_type_string},
        {"4294967295", variant_type_uint32},
        {"4294967296", variant_type_uint64},
        {"18446744073709551615", variant_type_uint64},
        {"-2147483648", variant_type_int32},
        {"-2147483649", variant_type_int64},
        {"-0.25", variant_type_double},
        {R"([1,-2,3.25,true,null,"s",[[]]])", variant_type_array},
        {R"({"z":1,"a":{"d":[],"c":{"k":"v"}},"e":-9223372036854775808})", variant_type_map},
    };
    for (const auto& [json, type] : rows) {
        const auto v = variant_fromJSON(json);
        ASSERT_TRUE(v.has_value()) << json;
        EXPECT_EQ(v->type(), type) << json;
        EXPECT_EQ(variant_toJSON(&*v), json);
    }
    for (const char* bad : {"", "{", "[1,", "{\"a\":}", "tru", "\"open", "1 2", "{'a':1}"}) {
        EXPECT_FALSE(variant_fromJSON(bad).has_value()) << bad;
    }
}

TEST(VariantJson, BuiltValuesRoundTrip) {
    const variant_t built = mapOf({{"z", u32(7)},
                                   {"a", listOf({i32(-7), variant_t(1.0 / 3.0), variant_t(2.0)})},
                                   {"u", u64(kU64Max)},
                                   {"when", dt(kNov14)}});
    const std::string json = variant_toJSON(&built);
    EXPECT_EQ(json, R"({"z":7,"a":[-7,0.3333333333333333,2.0],"u":18446744073709551615,)"
                    R"("when":"2023-11-14T01:00:00Z"})");
    auto back = variant_fromJSON(json);
    ASSERT_TRUE(back.has_value());
    // A date-time comes back as its text, which still converts to the time.
    variant_t* when = variant_map_find(back->map(), "when");
    EXPECT_EQ(when->type(), variant_type_string);
    EXPECT_EQ(variant_toDateTime(when), std::optional<std::int64_t>(kNov14));
    ASSERT_TRUE(variant_setDateTime(when, kNov14));
    EXPECT_EQ(*back, built);
}

TEST(VariantIsoTime, DateTimesInUtcAndBerlin) {
    const std::tuple<const char*, variant_t, std::optional<std::int64_t>> rows[] = {
        {"UTC", variant_t("1970-01-01T00:00:00Z"), 0},
        {"UTC", variant_t("1969-12-31T23:59:59Z"), -1},
        {"UTC", variant_t("2024-02-29T00:00:00Z"), 1709164800},
        {"UTC", variant_t("2023-11-14T01:00:00.9Z"), kNov14},
        {"UTC", u32(1000), 1000},
        {"UTC", variant_t(1699923600.0), kNov14},
        {"UTC", variant_t(1.5), std::nullopt},
        {"UTC", variant_t("yesterday"), std::nullopt},
        {"Europe/Berlin", variant_t("2023-07-01T12:00:00"), 1688205600},      // UTC+2
        {"Europe/Berlin", variant_t("2023-01-15T12:00:00.500"), 1673780400},  // UTC+1
        {"Europe/Berlin", variant_t("2023-11-14T01:00:00Z"), kNov14},
    };
    for (const auto& [zoneName, input, expected] : rows) {
        const scoped_time_zone_t zone(zoneName);
        const std::string name = std::string(zoneName) + " " + variant_toJSON(&input);
        EXPECT_EQ(variant_toDateTime(&input), expected) << name;
    }
    const scoped_time_zone_t zone("Europe/Berlin");
    const variant_t when = dt(kNov14);
    auto tm = variant_dateTime(&when);
    ASSERT_TRUE(tm.has_value());
    EXPECT_EQ(tm->tm_hour, 2);
    EXPECT_EQ(std::mktime(&*tm), kNov14);
}

TEST(VariantIsoTime, ParseRejects) {
    // Malformed texts separated by "|", the first one empty, then fields out of range.
    std::istringstream texts(
        "|2023-11-14|2023-11-14T01:00|2023-11-14 01:00:00Z|2023-11-14t01:00:00Z|"
        "2023-11-14T01:00:00+01:00|2023-11-14T01:00:00ZZ| 2023-11-14T01:00:00Z|"
        "2023-11-14T01:00:00.Z|2023-11-14T01:00:00.12a|23-11-14T01:00:00Z|1699923600|"
        "2023-13-14T01:00:00Z|2023-00-14T01:00:00Z|2023-11-00T01:00:00Z|2023-11-31T01:00:00Z|"
        "2023-02-29T01:00:00Z|2023-11-14T24:00:00Z|2023-11-14T01:60:00Z|2023-11-14T01:00:60Z|"
        "2023-11-14T0a:00:00Z");
    int count = 0;
    for (std::string text; std::getline(texts, text, '|'); ++count) {
        EXPECT_FALSE(orv_parseIsoTime(text).has_value()) << text;
    }
    EXPECT_EQ(count, 21);
}

TEST(VariantMap, AddKeepsOrderAndReplacesInPlace) {
    variant_map_t map;
    const variant_list_t list = {variant_t("x"), variant_t("y")};
    ASSERT_TRUE(variant_map_addChar(&map, "b", "text"));
    ASSERT_TRUE(variant_map_addBool(&map, "a", true));
    ASSERT_TRUE(variant_map_addListCopy(&map, "c", &list));
    ASSERT_TRUE(variant_map_addUInt32(&map, "b", 42));  // replaced where it is
    // Values and keys that live in the map itself.
    ASSERT_TRUE(variant_map_add(&map, "d", &map[0].value));
    ASSERT_TRUE(variant_map_add(&map, map[1].key, &map[2].value));
    const variant_t all{variant_map_t(map)};
    EXPECT_EQ(variant_toJSON(&all), R"({"b":42,"a":["x","y"],"c":["x","y"],"d":42})");
    EXPECT_EQ(list.size(), 2u);
    EXPECT_EQ(variant_map_find(&map, "A"), nullptr);
    EXPECT_FALSE(variant_map_add(&map, "k", nullptr));
}

TEST(VariantList, AddCopiesEvenFromTheListItself) {
    variant_list_t list;
    ASSERT_TRUE(variant_list_addChar(&list, "one"));
    ASSERT_TRUE(variant_list_addString(&list, "two"));
    for (int i = 0; i < 20; ++i) {  // the list grows under the element it copies
        ASSERT_TRUE(variant_list_add(&list, &list[1]));
    }
    EXPECT_EQ(variant_list_size(&list), 22u);
    EXPECT_EQ(*list.back().text(), "two");
    EXPECT_EQ(*variant_list_first(&list)->text(), "one");
}

TEST(Error, LastErrorAndTexts) {
    std::set<std::string> texts;  // every known code has a text of its own
    for (std::uint32_t code = 0; code <= orv_error_not_an_instance + 1; ++code) {
        texts.insert(error_string(code));
    }
    EXPECT_EQ(texts.size(), orv_error_not_an_instance + 2u);
    EXPECT_STREQ(error_string(orv_error_not_an_instance + 1), "unknown error");
}

}  // namespace
