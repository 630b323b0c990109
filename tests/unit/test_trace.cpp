// Trace lines byte for byte, and their filtering by level and zone.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orv/trace.h"

namespace {

class Trace : public ::testing::Test {
  protected:
    void SetUp() override {
        tolvTraceReset();
        tolvTraceSetSink([this](std::string_view line) { lines_.emplace_back(line); });
    }
    void TearDown() override {
        tolvTraceSetSink({});
        tolvTraceReset();
    }
    std::vector<std::string> lines_;
};

TEST_F(Trace, ZoneMessageLine) {
    tolvTraceAddZone(500, "scheduler_plugin");
    tolvTrace_zoneMessage(300, "scheduler_plugin", "foo", "/x/y/scheduler_peeklist.cpp", 42,
                          "No next event found");
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_EQ(lines_[0], "schedul - [n]No next event found - (foo@scheduler_peeklist.cpp:42)");
}

TEST_F(Trace, ZoneMessageWithArguments) {
    tolvTraceAddZone(400, "scheduler_plugin");
    tolvTrace_zoneMessage(400, "scheduler_plugin", "peeklist_timer",
                          "plugin/scheduler_peeklist.cpp", 7, "Now = %ld next =  %ld", 10L, 20L);
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_EQ(lines_[0],
              "schedul - [i]Now = 10 next =  20 - (peeklist_timer@scheduler_peeklist.cpp:7)");
}

TEST_F(Trace, LevelZeroMessageHasAnEmptyZone) {
    tolvTrace_message(0, "scheduler_plugin", "orv_plugin_initialize",
                      "/src/plugin/scheduler_plugin.cpp", 10, "unable to wait for objects");
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_EQ(lines_[0],
              "        - [X]unable to wait for objects - "
              "(orv_plugin_initialize@scheduler_plugin.cpp:10)");
}

TEST_F(Trace, MessageWithoutZonePrintsTheModule) {
    tolvTrace_message(100, "scheduler_plugin", "fn", "a/b.cpp", 3, "Failed to send request %d", 5);
    tolvTrace_message(200, "mod", "fn", "b.cpp", 4,
                      "NTP was not synced, not calling setstate for %s [%s]", "id1", "On");
    ASSERT_EQ(lines_.size(), 2u);
    EXPECT_EQ(lines_[0], "schedul - [x]Failed to send request 5 - (fn@b.cpp:3)");
    EXPECT_EQ(lines_[1],
              "mod     - [!]NTP was not synced, not calling setstate for id1 [On] - (fn@b.cpp:4)");
}

TEST_F(Trace, EnterAndLeaveMarkers) {
    tolvTraceAddZone(500, "scheduler_plugin");
    tolvTrace_marker(true, "scheduler_plugin", "orv_plugin_timeChanged",
                     "/w/plugin/scheduler_plugin.cpp", 311);
    tolvTrace_marker(false, "scheduler_plugin", "orv_plugin_timeChanged",
                     "/w/plugin/scheduler_plugin.cpp", 319);
    ASSERT_EQ(lines_.size(), 2u);
    EXPECT_EQ(lines_[0],
              "schedul - >>>>>>>>>> - (orv_plugin_timeChanged@scheduler_plugin.cpp:311)");
    EXPECT_EQ(lines_[1],
              "schedul - <<<<<<<<<< - (orv_plugin_timeChanged@scheduler_plugin.cpp:319)");
}

TEST_F(Trace, ShortZoneIsPaddedToSevenColumns) {
    tolvTraceAddZone(500, "ab");
    tolvTrace_marker(true, "ab", "f", "f.cpp", 1);
    tolvTrace_zoneMessage(500, "ab", "f", "f.cpp", 2, "x");
    ASSERT_EQ(lines_.size(), 2u);
    EXPECT_EQ(lines_[0], "ab      - >>>>>>>>>> - (f@f.cpp:1)");
    EXPECT_EQ(lines_[1], "ab      - []x - (f@f.cpp:2)");
}

TEST_F(Trace, MacrosUseTheCallersFunctionFileAndLine) {
    tolvTraceAddZone(500, "zone");
    const int line = __LINE__ + 1;
    tolvTraceZ(300, "zone", "value %s", "v");
    tolvTraceIn("zone");
    ASSERT_EQ(lines_.size(), 2u);
    const std::string where = std::string("(") + __func__ + "@test_trace.cpp:";
    EXPECT_EQ(lines_[0], "zone    - [n]value v - " + where + std::to_string(line) + ")");
    EXPECT_EQ(lines_[1], "zone    - >>>>>>>>>> - " + where + std::to_string(line + 1) + ")");
}

TEST_F(Trace, TagsByLevel) {
    tolvTraceAddZone(1000, "z");
    for (int level : {0, 50, 100, 150, 200, 299, 300, 400, 450, 500, 600}) {
        tolvTrace_zoneMessage(level, "z", "f", "f.cpp", 1, "m");
    }
    std::vector<std::string> tags;
    for (const auto& line : lines_) {
        const auto open = line.find('[');
        const auto close = line.find(']');
        tags.push_back(line.substr(open + 1, close - open - 1));
    }
    EXPECT_EQ(tags,
              (std::vector<std::string>{"X", "X", "x", "x", "!", "!", "n", "i", "i", "", ""}));
}

TEST_F(Trace, GlobalLevelFiltersMessagesWithoutZone) {
    EXPECT_EQ(tolvTraceLevel(), 200);
    tolvTrace_message(200, "m", "f", "f.cpp", 1, "passes");
    tolvTrace_message(201, "m", "f", "f.cpp", 1, "filtered");
    tolvTrace_message(400, "m", "f", "f.cpp", 1, "filtered");
    tolvTraceSetLevel(400);
    EXPECT_EQ(tolvTraceLevel(), 400);
    tolvTrace_message(400, "m", "f", "f.cpp", 1, "passes now");
    tolvTraceSetLevel(-1);
    tolvTrace_message(0, "m", "f", "f.cpp", 1, "filtered");
    ASSERT_EQ(lines_.size(), 2u);
    EXPECT_NE(lines_[0].find("]passes - "), std::string::npos);
    EXPECT_NE(lines_[1].find("]passes now - "), std::string::npos);
}

TEST_F(Trace, ZoneMessagesNeedARegisteredZoneAndItsLevel) {
    tolvTrace_zoneMessage(0, "zone", "f", "f.cpp", 1, "no zone yet");
    tolvTrace_marker(true, "zone", "f", "f.cpp", 1);
    EXPECT_TRUE(lines_.empty());
    EXPECT_FALSE(tolvTraceZoneLevel("zone").has_value());

    tolvTraceAddZone(400, "zone");
    EXPECT_EQ(tolvTraceZoneLevel("zone"), 400);
    tolvTrace_zoneMessage(400, "zone", "f", "f.cpp", 1, "a");
    tolvTrace_zoneMessage(500, "zone", "f", "f.cpp", 1, "filtered");
    tolvTrace_marker(true, "zone", "f", "f.cpp", 1);  // markers are level 500
    tolvTrace_zoneMessage(300, "other", "f", "f.cpp", 1, "other zone");
    ASSERT_EQ(lines_.size(), 1u);

    tolvTraceAddZone(500, "zone");  // re-adding updates the level
    EXPECT_EQ(tolvTraceZoneLevel("zone"), 500);
    tolvTrace_marker(false, "zone", "f", "f.cpp", 1);
    tolvTrace_zoneMessage(500, "zone", "f", "f.cpp", 1, "b");
    ASSERT_EQ(lines_.size(), 3u);

    // The global level does not filter zone messages.
    tolvTraceSetLevel(0);
    tolvTrace_zoneMessage(500, "zone", "f", "f.cpp", 1, "c");
    EXPECT_EQ(lines_.size(), 4u);
}

TEST_F(Trace, ResetForgetsZonesAndRestoresTheLevel) {
    tolvTraceAddZone(500, "zone");
    tolvTraceSetLevel(500);
    tolvTraceReset();
    EXPECT_FALSE(tolvTraceZoneLevel("zone").has_value());
    EXPECT_EQ(tolvTraceLevel(), 200);
    tolvTrace_zoneMessage(0, "zone", "f", "f.cpp", 1, "gone");
    EXPECT_TRUE(lines_.empty());
}

TEST_F(Trace, LongMessagesAreNotTruncated) {
    const std::string longText(5000, 'a');
    tolvTrace_message(100, "m", "f", "f.cpp", 9, "%s|%s", longText.c_str(), "end");
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_EQ(lines_[0], "m       - [x]" + longText + "|end - (f@f.cpp:9)");
}

TEST_F(Trace, FileWithoutDirectoryIsUsedAsIs) {
    tolvTrace_message(0, "", "f", "plain.cpp", 1, "m");
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_EQ(lines_[0], "        - [X]m - (f@plain.cpp:1)");
}

TEST(TraceStderr, WithoutASinkLinesGoToStderrWithANewline) {
    tolvTraceReset();
    tolvTraceSetSink({});
    ::testing::internal::CaptureStderr();
    tolvTrace_message(100, "mod", "fn", "/p/q.cpp", 12, "to stderr %d", 1);
    const std::string out = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "mod     - [x]to stderr 1 - (fn@q.cpp:12)\n");
}

}  // namespace
