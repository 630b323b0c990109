// Pictures of a schedule: what each half hour of the week grid shows, and
// the whole picture as text and as SVG against expected files.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "scheduler/draw.h"

namespace {

using scheduler::base_t;
using scheduler::entry_t;

constexpr std::uint32_t kHour = 3600;
constexpr std::uint32_t kDay = 86400;

// The marks of one day's row, as the terminal shows them without colour.
std::string rowOf(base_t base, const std::vector<entry_t>& entries, int day) {
    auto grid = scheduler::week_grid(base, entries, "off", std::nullopt);
    EXPECT_TRUE(grid.has_value());
    std::istringstream lines(scheduler::draw_week_text(*grid, false));
    std::string line;
    for (int i = 0; i <= day + 1 && std::getline(lines, line); ++i) {
    }
    return line.substr(5);
}

TEST(TextDraw, EachHalfHourShowsTheSpanThatCoversIt) {
    // base, entries, day, the row ('.' off, then the other states by name)
    struct row_t {
        base_t base;
        std::vector<entry_t> entries;
        int day;
        std::string row;
    };
    const std::string off(48, '.');
    const std::vector<row_t> rows = {
        // 07:00-08:30 covers three half hours.
        {base_t::daily,
         {{"on", 7 * kHour, 8 * kHour + 1800}},
         3,
         off.substr(0, 14) + "###" + off.substr(17)},
        // Ten minutes still show; an end on a half hour does not spill over.
        {base_t::daily,
         {{"on", 7 * kHour + 600, 7 * kHour + 1200}, {"on", 9 * kHour, 10 * kHour}},
         0,
         off.substr(0, 14) + "#...##" + off.substr(20)},
        // A later span wins a shared half hour; states are listed by name.
        {base_t::daily, {{"on", 0, 1200}, {"eco", 1200, 3600}}, 6, "##" + off.substr(2)},
        // An event marks its half hour on top of a span.
        {base_t::weekly,
         {{"on", kDay, 2 * kDay}, {"ring", kDay + 12 * kHour, kDay + 12 * kHour}},
         1,
         std::string(24, '#') + "=" + std::string(23, '#')},
        // Weekly entries fall on their own day only.
        {base_t::weekly, {{"on", 6 * kDay + 23 * kHour, 7 * kDay}}, 6, off.substr(2) + "##"},
        {base_t::weekly, {{"on", 6 * kDay + 23 * kHour, 7 * kDay}}, 0, off},
    };
    for (const row_t& row : rows) {
        EXPECT_EQ(rowOf(row.base, row.entries, row.day), row.row) << row.row;
    }
    EXPECT_FALSE(scheduler::week_grid(base_t::hourly, {}, "off", std::nullopt));
    EXPECT_FALSE(scheduler::week_grid(base_t::once, {}, "off", std::nullopt));
}

std::string expected(const std::string& name) {
    std::ifstream in(std::string(DRAW_EXPECTED_DIR) + "/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Workdays 07:00-08:30 and 18:00-23:00 on, a Saturday in eco, a noon bell on
// Wednesday; now is Tuesday 14:05.
scheduler::week_grid_t picture() {
    std::vector<entry_t> entries;
    for (std::uint32_t day = 0; day < 5; ++day) {
        entries.push_back({"on", day * kDay + 7 * kHour, day * kDay + 8 * kHour + 1800});
        entries.push_back({"on", day * kDay + 18 * kHour, day * kDay + 23 * kHour});
    }
    entries.push_back({"eco", 5 * kDay + 9 * kHour, 5 * kDay + 23 * kHour + 1800});
    entries.push_back({"ring", 2 * kDay + 12 * kHour, 2 * kDay + 12 * kHour});
    return *scheduler::week_grid(base_t::weekly, entries, "off", kDay + 14 * kHour + 300);
}

TEST(TextDraw, WeekPictureAsTextAndSvg) {
    const scheduler::week_grid_t grid = picture();
    EXPECT_EQ(scheduler::draw_week_text(grid, false), expected("week.txt"));
    EXPECT_EQ(scheduler::draw_week_text(grid, true), expected("week-colour.txt"));
    EXPECT_EQ(scheduler::draw_week_svg(grid, "Light <workdays> & weekend"), expected("week.svg"));
}

}  // namespace
