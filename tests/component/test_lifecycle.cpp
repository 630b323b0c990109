// Start-up, discovery of "Time" and clean-up of the plug-in in the virtual
// host.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "orv/error.h"
#include "orv/request.h"
#include "orv/trace.h"
#include "virtual_host.h"

namespace {

constexpr const char* kArmed = "Starting peeklist timer with timeout 4294967295000 us";

virtual_host_t::options_t withTime(std::optional<std::string> status) {
    virtual_host_t::options_t options;
    options.timeStatus = std::move(status);
    return options;
}

std::size_t openLookups(virtual_host_t& host) {
    std::size_t count = 0;
    for (request_t* request : host.context().openRequests()) {
        count += request->path().empty() ? 1 : 0;
    }
    return count;
}

TEST(Lifecycle, SynchronisedTimeStartsProcessingAtOnce) {
    virtual_host_t host;
    ASSERT_TRUE(host.initialized());
    EXPECT_TRUE(host.traced("[i]Time object is there"));
    EXPECT_EQ(host.bus().openRequestCount("Time"), 1u);
    EXPECT_EQ(openLookups(host), 1u) << "the lookup stays open to hear of clients that come back";
    EXPECT_EQ(host.countTraced(kArmed), 1u);
    // With nothing planned the event timer waits the longest time-out.
    ASSERT_TRUE(host.loop().nextDeadline().has_value());
    EXPECT_EQ(*host.loop().nextDeadline() - host.loop().monotonic_us(), 4294967295LL * 1000);
    EXPECT_EQ(host.context().attribute(3), 60000u);
}

TEST(Lifecycle, UnsynchronisedTimeIsWatchedButNothingRuns) {
    virtual_host_t host(withTime("Unsynchronized"));
    ASSERT_TRUE(host.initialized());
    EXPECT_TRUE(host.traced("Time object is there"));
    EXPECT_EQ(host.bus().openRequestCount("Time"), 1u);
    EXPECT_FALSE(host.traced(kArmed));
    EXPECT_FALSE(host.loop().nextDeadline().has_value());
}

TEST(Lifecycle, TimePublishedLaterCompletesDiscovery) {
    virtual_host_t host(withTime(std::nullopt));
    ASSERT_TRUE(host.initialized());
    host.addClient("Device.Light");
    EXPECT_FALSE(host.traced("Time object is there"));
    EXPECT_EQ(openLookups(host), 1u);
    EXPECT_EQ(host.bus().openRequestCount("Time"), 0u);

    host.publishTime("Synchronized");
    EXPECT_TRUE(host.traced("Time object is there"));
    // The lookup stays open to hear of clients that come back.
    EXPECT_EQ(openLookups(host), 1u);
    EXPECT_EQ(host.bus().openRequestCount("Time"), 1u);
    EXPECT_EQ(host.countTraced(kArmed), 1u);
}

TEST(Lifecycle, ErrorItemsAreTracedAndTheLookupStaysOpen) {
    virtual_host_t host(withTime(std::nullopt));
    std::vector<reply_item_t> items;
    items.push_back(reply_item_t::error(5, "no such object", "Time"));
    items.push_back(reply_item_t::error(6, "bus down", ""));
    // An object without a name is skipped with the library's error text.
    items.push_back(reply_item_t::object({"", {}}));
    host.bus().deliver("", std::move(items));
    host.runPending();

    EXPECT_TRUE(host.traced("[!]unable to wait for object: no such object (Time)"));
    EXPECT_TRUE(host.traced("[!]unable to wait for object: bus down ()"));
    EXPECT_TRUE(host.traced(std::string("[!]unable to fetch object name: ") +
                            error_string(orv_error_not_found)));
    EXPECT_EQ(openLookups(host), 1u);
    host.publishTime("Unsynchronized");
    EXPECT_TRUE(host.traced("Time object is there"));
    EXPECT_EQ(openLookups(host), 1u);
}

TEST(Lifecycle, TraceZoneComesFromTheEnvironment) {
    struct row_t {
        std::optional<std::string> value;
        std::optional<int> level;
    };
    const std::vector<row_t> rows = {
        {std::nullopt, std::nullopt},
        {"400", 400},
        {"abc", 0},  // atol of a non-number
        {"300junk", 300},
    };
    for (const row_t& row : rows) {
        virtual_host_t::options_t options;
        options.traceZone = row.value;
        virtual_host_t host(options);
        ASSERT_TRUE(host.initialized());
        EXPECT_EQ(tolvTraceZoneLevel("scheduler_plugin"), row.level) << row.value.value_or("unset");
        bool zoneShown = row.level && *row.level >= 400;
        EXPECT_EQ(host.traced("Initializing scheduler_plugin plugin"), zoneShown)
            << row.value.value_or("unset");
        // Messages without a zone follow the host's level whatever the zone.
        EXPECT_TRUE(host.traced("Time object is there"));
    }
}

TEST(Lifecycle, TraceLinesHaveTheGatewayFormat) {
    virtual_host_t host;
    host.shutdown();
    const std::regex zoneLine(
        R"(^schedul - \[i\]Initializing scheduler_plugin plugin - \(initialize@scheduler_plugin\.cpp:\d+\)$)");
    const std::regex plainLine(
        R"(^schedul - \[i\]Time object is there - \(timeFound@time_watch\.cpp:\d+\)$)");
    const std::regex cleanupLine(
        R"(^schedul - \[i\]Cleaning up scheduler_plugin plugin - \(cleanup@scheduler_plugin\.cpp:\d+\)$)");
    int matched = 0;
    for (const std::string& line : host.traces()) {
        matched += std::regex_match(line, zoneLine) || std::regex_match(line, plainLine) ||
                   std::regex_match(line, cleanupLine);
    }
    EXPECT_EQ(matched, 3);
}

TEST(Lifecycle, CleanupStopsTheTimersAndEndsTheRequests) {
    virtual_host_t host;
    ASSERT_TRUE(host.loop().nextDeadline().has_value());
    host.shutdown();
    EXPECT_TRUE(host.traced("[i]Cleaning up scheduler_plugin plugin"));
    EXPECT_FALSE(host.loop().nextDeadline().has_value());
    EXPECT_EQ(host.bus().openRequestCount("Time"), 0u);
}

TEST(Lifecycle, PluginLoadsAgainAfterCleanup) {
    for (int round = 0; round < 3; ++round) {
        virtual_host_t host(withTime(round % 2 == 0 ? "Synchronized" : "Unsynchronized"));
        ASSERT_TRUE(host.initialized()) << round;
        EXPECT_EQ(host.traced(kArmed), round % 2 == 0) << round;
    }
}

}  // namespace
