// Schedule and entry records and their map form.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "orv/trace.h"
#include "orv/variant.h"
#include "scheduler_plugin_common.h"

namespace {

variant_t json(const char* text) {
    std::optional<variant_t> value = variant_fromJSON(text);
    EXPECT_TRUE(value.has_value()) << text;
    return value.value_or(variant_t());
}

// The JSON text of a converted record, or "-" when the conversion failed.
std::string text(const std::optional<variant_t>& value) {
    return value ? variant_toJSON(&*value) : "-";
}

class RecordTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tolvTraceReset();
        // A map that does not read is told in detail; the refusal that
        // follows it is the caller's.
        tolvTraceAddZone(TRACE_LEVEL_INFO, "scheduler_plugin");
        tolvTraceSetSink([this](int, std::string_view line) { lines_.emplace_back(line); });
    }
    void TearDown() override { tolvTraceSetSink({}); }
    std::vector<std::string> lines_;
};

TEST_F(RecordTest, EntryFromMapAndBack) {
    // map, its map form after conversion ("-": refused), the trace line
    const std::vector<std::tuple<const char*, const char*, const char*>> rows = {
        {R"({"state":"on","begin":3600,"end":7200})", R"({"state":"on","begin":3600,"end":7200})",
         ""},
        // Extra keys are ignored; numbers of other kinds convert when exact.
        {R"({"end":-0,"x":[1],"begin":5.0,"state":"on"})", R"({"state":"on","begin":5,"end":0})",
         ""},
        // A negative time is kept in its unsigned form; verification judges it.
        {R"({"state":"on","begin":-10,"end":4294967295})",
         R"({"state":"on","begin":4294967286,"end":4294967295})", ""},
        {R"({"begin":1,"end":2})", "-", "[i]Cannot find state"},
        {R"({"state":"on","end":2})", "-", "[i]Cannot find begin"},
        {R"({"state":"on","begin":1})", "-", "[i]Cannot find end"},
        // A value that does not convert counts as missing.
        {R"({"state":"on","begin":4294967296,"end":2})", "-", "[i]Cannot find begin"},
        {R"({"state":"on","begin":"soon","end":2})", "-", "[i]Cannot find begin"},
        {R"({"state":[],"begin":1,"end":2})", "-", "[i]Cannot find state"},
        {R"([{"state":"on","begin":1,"end":2}])", "-", "[i]Not a variant map"},
    };
    for (const auto& [map, back, trace] : rows) {
        lines_.clear();
        variant_t value = json(map);
        std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&value);
        EXPECT_EQ(entry ? text(schedule_entry_t2variant(entry.get())) : "-", back) << map;
        ASSERT_EQ(lines_.size(), *trace ? 1u : 0u) << map;
        for (const std::string& line : lines_) {
            EXPECT_NE(line.find(trace), std::string::npos) << line;
        }
    }
    EXPECT_EQ(variant2schedule_entry_t(nullptr), nullptr);
    EXPECT_EQ(text(schedule_entry_t2variant(nullptr)), "null");
}

TEST_F(RecordTest, ScheduleFromMap) {
    const std::pair<const char*, bool> rows[] = {
        {R"({"ID":"a","enable":true,"base":"Daily","def":"off","override":""})", true},
        {R"({"ID":"a","enable":1,"base":"Daily","def":"off","override":"on","junk":{}})", true},
        {R"({"enable":true,"base":"Daily","def":"off","override":""})", false},
        {R"({"ID":"a","base":"Daily","def":"off","override":""})", false},
        {R"({"ID":"a","enable":true,"def":"off","override":""})", false},
        {R"({"ID":"a","enable":true,"base":"Daily","override":""})", false},
        {R"({"ID":"a","enable":true,"base":"Daily","def":"off"})", false},
        {R"({"ID":"a","enable":"perhaps","base":"Daily","def":"off","override":""})", false},
        {R"([{"ID":"a","enable":true,"base":"Daily","def":"off","override":""}])", false},
    };
    for (const auto& [map, valid] : rows) {
        variant_t value = json(map);
        EXPECT_EQ(variant2schedule_t(&value) != nullptr, valid) << map;
    }
    // The schedule conversion traces nothing, not even for a list.
    EXPECT_TRUE(lines_.empty());
}

TEST_F(RecordTest, ScheduleConvertsBackInItsOwnKeyOrder) {
    const char* full =
        R"({"ID":"1","enable":true,"base":"Daily","def":"off","override":"","value":"on",)"
        R"("schedule":[{"state":"on","begin":3600,"end":7200},{"bogus":1}]})";
    const std::pair<const char*, const char*> rows[] = {
        // Without the optional keys there is neither value nor entry list.
        {R"({"override":"","def":"off","base":"Weekly","enable":false,"ID":"kids"})",
         R"({"ID":"kids","enable":false,"base":"Weekly","def":"off","override":""})"},
        // Elements are not examined here: the bogus one is kept for later checks.
        {full, full},
    };
    for (const auto& [map, back] : rows) {
        variant_t value = json(map);
        std::unique_ptr<schedule_t> record = variant2schedule_t(&value);
        ASSERT_NE(record, nullptr) << map;
        EXPECT_EQ(text(schedule_t2variant(record.get())), back);
    }
    EXPECT_EQ(text(schedule_t2variant(nullptr)), "null");
}

}  // namespace
