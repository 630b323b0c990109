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
        tolvTraceSetSink([this](int, std::string_view line) { lines_.emplace_back(line); });
    }
    void TearDown() override {
        tolvTraceSetSink({});
        tolvTraceReset();
    }
    std::vector<std::string> lines_;
};

TEST_F(Trace, LinesByteForByte) {
    tolvTraceAddZone(500, "scheduler_plugin");
    tolvTrace_zoneMessage(300, "scheduler_plugin", "f", "/x/y.cpp", 42, "n=%ld", 7L);
    tolvTrace_message(0, "scheduler_plugin", "init", "plugin.cpp", 10, "unable");
    tolvTrace_marker(true, "scheduler_plugin", "timeChanged", "/w/p.cpp", 311);
    tolvTrace_marker(false, "scheduler_plugin", "timeChanged", "/w/p.cpp", 319);
    const std::string longText(5000, 'a');  // longer than any fixed buffer
    tolvTrace_message(100, "mod", "f", "a/f.cpp", 9, "%s|end", longText.c_str());
    EXPECT_EQ(lines_, (std::vector<std::string>{
                          "schedul - [n]n=7 - (f@y.cpp:42)",
                          "        - [X]unable - (init@plugin.cpp:10)",
                          "schedul - >>>>>>>>>> - (timeChanged@p.cpp:311)",
                          "schedul - <<<<<<<<<< - (timeChanged@p.cpp:319)",
                          "mod     - [x]" + longText + "|end - (f@f.cpp:9)",
                      }));
}

TEST_F(Trace, TagsByLevel) {
    tolvTraceAddZone(1000, "z");
    for (int level : {0, 99, 100, 199, 200, 299, 300, 399, 400, 499, 500}) {
        tolvTrace_zoneMessage(level, "z", "f", "f.cpp", 1, "m");
    }
    std::string tags;
    for (const auto& line : lines_) {
        tags += line.substr(line.find('['), line.find(']') - line.find('[') + 1);
    }
    EXPECT_EQ(tags, "[X][X][x][x][!][!][n][n][i][i][]");
}

TEST_F(Trace, Filtering) {
    EXPECT_EQ(tolvTraceLevel(), 200);  // the default
    const auto plain = [](int level) { tolvTrace_message(level, "m", "f", "f.cpp", 1, "x"); };
    const auto zoned = [](int level) {
        tolvTrace_zoneMessage(level, "zone", "f", "f.cpp", 1, "x");
    };
    const auto marker = [](int) { tolvTrace_marker(true, "zone", "f", "f.cpp", 1); };
    struct row_t {
        const char* what;
        int globalLevel, zoneLevel;  // zoneLevel < 0: the zone is not registered
        void (*trace)(int level);
        int level;
        bool passes;
    };
    const std::vector<row_t> rows = {
        {"plain at the global level", 200, -1, plain, 200, true},
        {"plain above the global level", 200, -1, plain, 201, false},
        {"unregistered zone", 500, -1, zoned, 0, false},
        {"zone at its level", 200, 400, zoned, 400, true},
        {"zone above its level", 200, 400, zoned, 401, false},
        {"marker below level 500", 200, 499, marker, 0, false},
        {"marker at level 500", 200, 500, marker, 0, true},
        {"global level ignored for zones", 0, 500, zoned, 500, true},
    };
    for (const row_t& row : rows) {
        tolvTraceReset();
        tolvTraceSetLevel(row.globalLevel);
        if (row.zoneLevel >= 0) {
            tolvTraceAddZone(row.zoneLevel, "zone");
        }
        lines_.clear();
        row.trace(row.level);
        EXPECT_EQ(lines_.size(), row.passes ? 1u : 0u) << row.what;
    }
}

TEST(TraceStderr, WithoutASinkLinesGoToStderrWithANewline) {
    tolvTraceReset();
    tolvTraceSetSink({});
    ::testing::internal::CaptureStderr();
    tolvTrace_message(100, "mod", "fn", "/p/q.cpp", 12, "to stderr %d", 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "mod     - [x]to stderr 1 - (fn@q.cpp:12)\n");
}

}  // namespace
