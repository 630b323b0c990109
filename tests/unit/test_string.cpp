// Unit tests of liborv's printf-style text building and string lists.
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "orv/string.h"

namespace {

TEST(StringFormat, AppendAndPrependKeepTheText) {
    EXPECT_EQ(string_format("%d|%llu|%.3f|%5s|%%", -5, 18446744073709551615ull, 2.5, "ab"),
              "-5|18446744073709551615|2.500|   ab|%");
    std::string text = "head:";
    ASSERT_TRUE(string_appendFormat(&text, "%d,", 1));
    ASSERT_TRUE(string_appendFormat(&text, "%s", "two"));
    // Arguments that point into the text being changed.
    ASSERT_TRUE(string_appendFormat(&text, "-%s", text.c_str()));
    EXPECT_EQ(text, "head:1,two-head:1,two");
    string_prependChar(&text, std::string_view(text).substr(0, 4));
    EXPECT_EQ(text, "headhead:1,two-head:1,two");
    EXPECT_FALSE(string_appendFormat(nullptr, "%d", 1));
}

TEST(StringFormat, LongTexts) {
    const std::string chunk(5000, 'x');  // longer than any first buffer
    EXPECT_EQ(string_format("<%s|%s>", chunk.c_str(), chunk.c_str()),
              "<" + chunk + "|" + chunk + ">");
    std::string text = "start";
    ASSERT_TRUE(string_appendFormat(&text, "%s%d", chunk.c_str(), 42));
    EXPECT_EQ(text, "start" + chunk + "42");
}

TEST(StringList, QueueInInsertionOrder) {
    string_list_t list;
    ASSERT_TRUE(string_list_append(&list, "first"));
    ASSERT_TRUE(string_list_append(&list, "second"));
    EXPECT_TRUE(string_list_contains(&list, "second"));
    EXPECT_FALSE(string_list_contains(&list, "Second"));
    EXPECT_FALSE(string_list_contains(&list, "sec"));
    EXPECT_EQ(string_list_takeFirst(&list), std::optional<std::string>("first"));
    EXPECT_FALSE(string_list_contains(&list, "first"));
    EXPECT_EQ(string_list_takeFirst(&list), std::optional<std::string>("second"));
    EXPECT_FALSE(string_list_takeFirst(&list).has_value());
}

}  // namespace
