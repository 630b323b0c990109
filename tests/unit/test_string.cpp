// Unit tests of liborv's printf-style text building and string lists.
#include <cstdarg>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "orv/string.h"

namespace {

// Exercises the va_list entry point the way a caller wraps it.
bool appendVia(std::string* text, const char* format, ...) __attribute__((format(printf, 2, 3)));
bool appendVia(std::string* text, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool ok = string_appendFormatV(text, format, args);
    va_end(args);
    return ok;
}

TEST(StringFormat, Table) {
    struct Case {
        std::string actual;
        const char* expected;
    };
    const Case cases[] = {
        {string_format("plain"), "plain"},
        {string_format("%s", ""), ""},
        {string_format("%d|%u|%x", -5, 7u, 255u), "-5|7|ff"},
        {string_format("%lld", static_cast<long long>(INT64_MIN)), "-9223372036854775808"},
        {string_format("%llu", static_cast<unsigned long long>(UINT64_MAX)),
         "18446744073709551615"},
        {string_format("%.3f", 2.5), "2.500"},
        {string_format("%5s|%-5s|", "ab", "cd"), "   ab|cd   |"},
        {string_format("100%%"), "100%"},
        {string_format("%c%c", 'o', 'k'), "ok"},
        {string_format("%s=%s", "key", "value"), "key=value"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.actual, c.expected);
    }
}

TEST(StringFormat, AppendKeepsExistingText) {
    std::string text = "head:";
    ASSERT_TRUE(string_appendFormat(&text, "%d", 1));
    ASSERT_TRUE(string_appendFormat(&text, ",%s", "two"));
    ASSERT_TRUE(string_appendFormat(&text, "%s", ""));
    ASSERT_TRUE(appendVia(&text, ",%u", 3u));
    EXPECT_EQ(text, "head:1,two,3");
    EXPECT_FALSE(string_appendFormat(nullptr, "%d", 1));
}

TEST(StringFormat, LongTexts) {
    // Longer than any initial buffer: needs the second formatting pass.
    const std::string chunk(5000, 'x');
    const std::string result = string_format("<%s|%s>", chunk.c_str(), chunk.c_str());
    ASSERT_EQ(result.size(), 2 * chunk.size() + 3);
    EXPECT_EQ(result, "<" + chunk + "|" + chunk + ">");

    std::string text = "start";
    ASSERT_TRUE(appendVia(&text, "%s%d", chunk.c_str(), 42));
    EXPECT_EQ(text, "start" + chunk + "42");

    // Many appends grow the text step by step.
    std::string lines;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(string_appendFormat(&lines, "line %04d\n", i));
    }
    EXPECT_EQ(lines.size(), 1000u * 10u);
    EXPECT_EQ(lines.substr(lines.size() - 10), "line 0999\n");
}

TEST(StringFormat, ArgumentPointingIntoTheTarget) {
    std::string text = "abc";
    ASSERT_TRUE(string_appendFormat(&text, "-%s-%s", text.c_str(), text.c_str()));
    EXPECT_EQ(text, "abc-abc-abc");
}

TEST(StringFormat, Prepend) {
    std::string text = "world";
    string_prependChar(&text, "hello ");
    EXPECT_EQ(text, "hello world");
    string_prependChar(&text, "");
    EXPECT_EQ(text, "hello world");
    string_prependChar(&text, std::string_view(text).substr(0, 2));
    EXPECT_EQ(text, "hehello world");
    string_prependChar(nullptr, "x");
}

TEST(StringList, QueueInInsertionOrder) {
    string_list_t list;
    EXPECT_FALSE(string_list_takeFirst(&list).has_value());
    EXPECT_FALSE(string_list_contains(&list, "a"));

    ASSERT_TRUE(string_list_append(&list, "first"));
    ASSERT_TRUE(string_list_append(&list, "second"));
    ASSERT_TRUE(string_list_append(&list, "third"));
    EXPECT_TRUE(string_list_contains(&list, "second"));
    EXPECT_FALSE(string_list_contains(&list, "Second"));
    EXPECT_FALSE(string_list_contains(&list, "sec"));

    EXPECT_EQ(string_list_takeFirst(&list), std::optional<std::string>("first"));
    EXPECT_FALSE(string_list_contains(&list, "first"));
    EXPECT_EQ(list.size(), 2u);

    string_list_cleanup(&list);
    EXPECT_TRUE(list.empty());
    EXPECT_FALSE(string_list_takeFirst(&list).has_value());

    EXPECT_FALSE(string_list_append(nullptr, "x"));
    EXPECT_FALSE(string_list_contains(nullptr, "x"));
    EXPECT_FALSE(string_list_takeFirst(nullptr).has_value());
    string_list_cleanup(nullptr);
}

}  // namespace
