// Unit tests of the D-Bus binding: paths, and values through unsent messages.
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include "orv/dbus_value.h"
#include "orv/variant.h"

namespace {

using message_ptr = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;
using fill_t = std::function<int(sd_bus_message*)>;

variant_t json(const char* text) {
    return variant_fromJSON(text).value_or(variant_t());
}
// A text nested in `levels` lists: 1 + 2 * levels containers on the wire.
variant_t nested(int levels) {
    return levels == 0 ? variant_t("deep") : variant_t(variant_list_t{nested(levels - 1)});
}
int appendVariants(sd_bus_message* m, int count) {
    if (count == 1) {
        return sd_bus_message_append(m, "v", "s", "deep");
    }
    int r = sd_bus_message_open_container(m, 'v', "v");
    r = r < 0 ? r : appendVariants(m, count - 1);
    return r < 0 ? r : sd_bus_message_close_container(m);
}
#define FILL(...) [](sd_bus_message* m) { return sd_bus_message_append(m, __VA_ARGS__); }

// A started bus on a socket pair that nobody answers: enough to build messages.
sd_bus* bus() {
    static const std::unique_ptr<sd_bus, decltype(&sd_bus_unref)> started = [] {
        int fds[2] = {-1, -1};
        sd_bus* bus = nullptr;
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds), 0);
        EXPECT_GE(sd_bus_new(&bus), 0);
        EXPECT_GE(sd_bus_set_fd(bus, fds[0], fds[1]), 0);
        EXPECT_GE(sd_bus_start(bus), 0);
        return std::unique_ptr<sd_bus, decltype(&sd_bus_unref)>(bus, sd_bus_unref);
    }();
    return started.get();
}
message_ptr newMessage() {
    sd_bus_message* m = nullptr;
    EXPECT_GE(sd_bus_message_new_signal(bus(), &m, "/t", "org.example.T", "S"), 0);
    return message_ptr(m, sd_bus_message_unref);
}
// A signal filled by fill, sealed and rewound for reading.
message_ptr message(const fill_t& fill) {
    auto m = newMessage();
    EXPECT_GE(fill(m.get()), 0);
    EXPECT_GE(sd_bus_message_seal(m.get(), 1, 0), 0);
    EXPECT_GE(sd_bus_message_rewind(m.get(), 1), 0);
    return m;
}
void expectRoundTrip(const variant_t& value, const char* signature, const variant_t& back) {
    auto m = message([&](sd_bus_message* m) { return orv_dbus_appendVariant(m, value); });
    const char* contents = nullptr;
    variant_t read;
    EXPECT_GT(sd_bus_message_peek_type(m.get(), nullptr, &contents), 0);
    EXPECT_STREQ(contents, signature);
    EXPECT_GE(orv_dbus_readVariant(m.get(), &read), 0);
    EXPECT_EQ(read, back) << variant_toJSON(&value);
}

TEST(DbusValue, PathsMapBothWays) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "/"},          {"Scheduler.Types.Light", "/Scheduler/Types/Light"},
        {"A..B", "/A/_/B"}, {"A.b-c.d_e", "/A/b_2dc/d_5fe"},
        {".", "/_/_"},      {"Caf\xc3\xa9.1 2", "/Caf_c3_a9/1_202"},
    };
    for (const auto& [path, objectPath] : cases) {
        EXPECT_EQ(orv_dbus_objectPath(path), objectPath);
        EXPECT_EQ(orv_dbus_dataModelPath(objectPath), path) << objectPath;
    }
    EXPECT_EQ(orv_dbus_unescapeLabel(orv_dbus_escapeLabel("a/b")), "a/b");
    // Only the spelling escaping produces is accepted, so each path has one object path.
    for (const char* bad : {"", "/_", "A/B", "//", "/A/", "/a-b", "/_2", "/_41", "/_2F", "/x_zz"}) {
        EXPECT_EQ(orv_dbus_dataModelPath(bad), std::nullopt) << bad;
    }
}

TEST(DbusValue, ValuesRoundTripAndBadOnesStayOut) {
    // Each element goes out on its own, with the wire type at its index.
    const variant_t values = json(R"(["text", true, 4294967295, -2147483648, 18446744073709551615,
        -9223372036854775808, -0.1, [], {}, [1, ["a"], {"k": false}], {"b": [2.5], "a": {}}])");
    const char* signatures[] = {"s", "b", "u", "i", "t", "x", "d", "av", "a{sv}", "av", "a{sv}"};
    for (std::size_t i = 0; i < std::size(signatures); ++i) {
        expectRoundTrip(values.list()->at(i), signatures[i], values.list()->at(i));
    }
    expectRoundTrip(nested(31), "av", nested(31));
    expectRoundTrip(variant_t::dateTime(1699923600), "s", variant_t("2023-11-14T01:00:00Z"));
    variant_t int8;
    variant_initialize(&int8, variant_type_int8);
    expectRoundTrip(int8, "i", variant_t(std::int32_t{0}));
    // Each on a fresh message: sd-bus refuses further appends after a failed one.
    for (const variant_t& bad : {variant_t(), variant_t(std::string_view("a\0b", 3)),
                                 variant_t("\xff"), json("[null]"), nested(32)}) {
        EXPECT_LT(orv_dbus_appendVariant(newMessage().get(), bad), 0) << variant_toJSON(&bad);
    }
}

TEST(DbusValue, IncomingValuesMapToTheNearestVariant) {
    const std::tuple<fill_t, int, variant_t> cases[] = {
        {FILL("y", 200), 0, variant_t(200u)},
        {FILL("n", -5), 0, variant_t(-5)},
        {FILL("au", 2, 7, 8), 0, json("[7, 8]")},
        {FILL("(ssd)", "s", "t", 0.5), 0, json(R"(["s", "t", 0.5])")},
        // A repeated key keeps its place and takes the last value.
        {FILL("a{bu}", 3, 1, 1, 0, 2, 1, 3), 0, json(R"({"true": 3, "false": 2})")},
        {[](auto m) { return appendVariants(m, 64); }, 0, variant_t("deep")},
        {[](auto m) { return appendVariants(m, 65); }, -ELOOP, variant_t()},
        {[](auto) { return 0; }, -EBADMSG, variant_t()},
    };
    for (const auto& [fill, result, expected] : cases) {
        auto m = message(fill);
        variant_t out("stale");  // a failed read leaves it empty
        EXPECT_EQ(orv_dbus_readValue(m.get(), &out), result);
        EXPECT_EQ(out, expected) << variant_toJSON(&expected);
    }
    const variant_t sent = json(R"({"ID": "x", "n": [1]})");
    auto m = message([&](sd_bus_message* m) { return orv_dbus_appendMap(m, *sent.map()); });
    variant_map_t map{{"stale", variant_t(1)}};
    EXPECT_EQ(orv_dbus_readMap(m.get(), &map), 0);
    EXPECT_EQ(variant_t(map), sent);
    EXPECT_EQ(orv_dbus_readMap(message(FILL("a{ss}", 1, "k", "v")).get(), &map), -ENXIO);
    EXPECT_TRUE(map.empty());
}

}  // namespace
