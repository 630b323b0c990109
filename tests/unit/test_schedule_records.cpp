// Schedule and entry records and their map form.
#include <gtest/gtest.h>

#include <string>
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

class RecordTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tolvTraceReset();
        tolvTraceSetSink([this](std::string_view line) { lines_.emplace_back(line); });
    }
    void TearDown() override { tolvTraceSetSink({}); }
    std::vector<std::string> lines_;
};

TEST_F(RecordTest, EntryFromMap) {
    struct row_t {
        const char* map;
        bool valid;
        const char* trace;  // expected message, or "" for none
    };
    const std::vector<row_t> rows = {
        {R"({"state":"on","begin":3600,"end":7200})", true, ""},
        // A momentary event.
        {R"({"state":"on","begin":60,"end":60})", true, ""},
        // Extra keys are ignored; numbers of other kinds convert when exact.
        {R"({"end":-0,"x":[1],"begin":5.0,"state":"on"})", true, ""},
        {R"({"begin":1,"end":2})", false, "[x]Cannot find state"},
        {R"({"state":"on","end":2})", false, "[x]Cannot find begin"},
        {R"({"state":"on","begin":1})", false, "[x]Cannot find end"},
        // A negative time is kept in its unsigned form; verification judges it.
        {R"({"state":"on","begin":-10,"end":2})", true, ""},
        // A value that does not convert counts as missing.
        {R"({"state":"on","begin":4294967296,"end":2})", false, "[x]Cannot find begin"},
        {R"({"state":"on","begin":"soon","end":2})", false, "[x]Cannot find begin"},
        {R"({"state":[],"begin":1,"end":2})", false, "[x]Cannot find state"},
        {R"([{"state":"on","begin":1,"end":2}])", false, "[x]Not a variant map"},
        {R"("on")", false, "[x]Not a variant map"},
    };
    for (const row_t& row : rows) {
        lines_.clear();
        variant_t value = json(row.map);
        std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&value);
        EXPECT_EQ(entry != nullptr, row.valid) << row.map;
        if (*row.trace == '\0') {
            EXPECT_TRUE(lines_.empty()) << row.map;
        } else {
            ASSERT_EQ(lines_.size(), 1u) << row.map;
            EXPECT_NE(lines_[0].find(row.trace), std::string::npos) << lines_[0];
        }
    }
    EXPECT_EQ(variant2schedule_entry_t(nullptr), nullptr);
}

TEST_F(RecordTest, EntryRoundTrip) {
    variant_t value = json(R"({"state":"dim","begin":4294967295,"end":0})");
    std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&value);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->state, "dim");
    EXPECT_EQ(entry->begin, 4294967295u);
    EXPECT_EQ(entry->end, 0u);
    std::optional<variant_t> back = schedule_entry_t2variant(entry.get());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(variant_toJSON(&*back), R"({"state":"dim","begin":4294967295,"end":0})");
    std::optional<variant_t> none = schedule_entry_t2variant(nullptr);
    ASSERT_TRUE(none.has_value());
    EXPECT_EQ(variant_type(&*none), variant_type_unknown);
}

TEST_F(RecordTest, ScheduleFromMap) {
    struct row_t {
        const char* map;
        bool valid;
    };
    const std::vector<row_t> rows = {
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
    for (const row_t& row : rows) {
        variant_t value = json(row.map);
        EXPECT_EQ(variant2schedule_t(&value) != nullptr, row.valid) << row.map;
    }
    // The schedule conversion traces nothing, not even for a list.
    EXPECT_TRUE(lines_.empty());
}

TEST_F(RecordTest, ScheduleWithoutOptionalKeysConvertsBackToFiveKeys) {
    variant_t value =
        json(R"({"override":"","def":"off","base":"Weekly","enable":false,"ID":"kids"})");
    std::unique_ptr<schedule_t> record = variant2schedule_t(&value);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->override, "");
    EXPECT_FALSE(record->value.has_value());
    EXPECT_EQ(record->schedule, nullptr);
    std::optional<variant_t> back = schedule_t2variant(record.get());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(variant_toJSON(&*back),
              R"({"ID":"kids","enable":false,"base":"Weekly","def":"off","override":""})");
}

TEST_F(RecordTest, ScheduleRoundTripKeepsEntriesAndValue) {
    const char* text =
        R"({"ID":"1","enable":true,"base":"Daily","def":"off","override":"","value":"on",)"
        R"("schedule":[{"state":"on","begin":3600,"end":7200},{"bogus":1}]})";
    variant_t value = json(text);
    std::unique_ptr<schedule_t> record = variant2schedule_t(&value);
    ASSERT_NE(record, nullptr);
    ASSERT_NE(record->schedule, nullptr);
    // Elements are not examined here: the bogus one is kept for later checks.
    EXPECT_EQ(record->schedule->size(), 2u);
    std::optional<variant_t> back = schedule_t2variant(record.get());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(variant_toJSON(&*back), variant_toJSON(&value));
    std::optional<variant_t> none = schedule_t2variant(nullptr);
    ASSERT_TRUE(none.has_value());
    EXPECT_EQ(variant_type(&*none), variant_type_unknown);
}

}  // namespace
