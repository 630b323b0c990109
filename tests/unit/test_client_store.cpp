// The owner's store and the schedule rules the client library checks before
// anything reaches the bus.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <variant>
#include <vector>

#include "schedule_json.h"
#include "scheduler/schedule.h"
#include "store.h"

namespace {

namespace fs = std::filesystem;
using scheduler::schedule_t;

const std::vector<std::string> kStates = {"on", "off"};

schedule_t daily(std::vector<scheduler::entry_t> entries) {
    schedule_t schedule;
    schedule.id = "evening";
    schedule.default_state = "off";
    schedule.entries = std::move(entries);
    return schedule;
}

TEST(ClientSchedule, ValidateFollowsTheSchedulersRules) {
    // entries, base, the start of the expected problem ("" when valid)
    struct row_t {
        std::vector<scheduler::entry_t> entries;
        scheduler::base_t base;
        const char* problem;
    };
    using scheduler::base_t;
    const std::vector<row_t> rows = {
        {{{"on", 0, 3600}, {"on", 7200, 86400}}, base_t::daily, ""},
        // Touching spans and entries out of order are fine.
        {{{"on", 7200, 9000}, {"on", 3600, 7200}}, base_t::daily, ""},
        {{{"on", 0, 3600}, {"on", 1800, 7200}},
         base_t::daily,
         "entries on 0-3600 and on 1800-7200 overlap"},
        // Default-state entries are left out by the scheduler, so they may overlap.
        {{{"on", 0, 3600}, {"off", 1800, 7200}}, base_t::daily, ""},
        {{{"on", 10, 10}, {"on", 20, 30}}, base_t::hourly, "entries on 10-10 and on 20-30: events"},
        {{{"on", 3000, 3700}},
         base_t::hourly,
         "entry on 3000-3700: it ends after the period's 3600"},
        {{{"on", 604000, 604800}}, base_t::weekly, ""},
        {{{"on", 50, 40}}, base_t::daily, "entry on 50-40: it ends before it begins"},
        {{{"dim", 0, 10}}, base_t::daily, "entry dim 0-10: the state \"dim\" is not one"},
        // A Once schedule holds absolute times.
        {{{"on", 1800000000, 1800003600}}, base_t::once, ""},
    };
    for (const row_t& row : rows) {
        schedule_t schedule = daily(row.entries);
        schedule.base = row.base;
        std::optional<std::string> problem = scheduler::validate(schedule, kStates);
        if (row.problem[0] == '\0') {
            EXPECT_FALSE(problem) << *problem;
        } else {
            ASSERT_TRUE(problem) << row.problem;
            EXPECT_EQ(problem->rfind(row.problem, 0), 0u) << *problem;
        }
    }
    schedule_t header = daily({});
    header.default_state = "dim";
    EXPECT_EQ(scheduler::validate(header, kStates).value_or(""),
              "the default state \"dim\" is not one of the type's states");
    header = daily({});
    header.override_state = "$(reboot)";
    EXPECT_TRUE(scheduler::validate(header, kStates));
    header.id = std::string(4097, 'x');
    EXPECT_EQ(scheduler::validate(header, kStates).value_or(""),
              "the ID is longer than 4096 bytes");
    header.id.clear();
    EXPECT_EQ(scheduler::validate(header, kStates).value_or(""), "the schedule has no ID");
}

// A store's text, its schedules given as JSON texts.
std::string store(const std::string& schedules, const std::string& type = "Light") {
    return R"({"type":")" + type + R"(","schedules":[)" + schedules + R"(],"rejected":[]})";
}

const std::string kGood = R"({"ID":"a","enable":true,"base":"Daily","def":"off","override":"",)"
                          R"("schedule":[{"state":"on","begin":0,"end":60}]})";

TEST(ClientStore, BadStoresSayWhereAndWhy) {
    // text, the whole-file problem or "" when it parses, the IDs kept, the
    // rejection notes
    struct row_t {
        std::string text;
        std::string problem;
        std::vector<std::string> kept;
        std::vector<std::string> notes;
    };
    const std::string full = store(kGood);
    const std::vector<row_t> rows = {
        {full, "", {"a"}, {}},
        {full.substr(0, full.size() / 2), "line 1, column 79: not valid JSON", {}, {}},
        {"\x01\xfe garbage\n", "line 1, column 1: not valid JSON", {}, {}},
        {"[]", "/: the store must be an object", {}, {}},
        {R"({"type":"Light","schedules":{}})", "/schedules: must be a list", {}, {}},
        {store(kGood, "Fan"), "/type: the store belongs to the type \"Fan\"", {}, {}},
        {store(kGood + R"(,{"ID":"b","enable":"yes","base":"Daily","def":"off","override":""})"),
         "",
         {"a"},
         {"/schedules/1: \"enable\" must be true or false; kept as rejected"}},
        {store(
             R"({"ID":"b","enable":true,"base":"Daily","def":"off","override":"",)"
             R"("schedule":[{"state":"on","begin":0,"end":100},{"state":"on","begin":50,"end":150}]},)" +
             kGood),
         "",
         {"a"},
         {"/schedules/0: entries on 0-100 and on 50-150 overlap; kept as rejected"}},
        {store(R"({"ID":"b","enable":true,"base":"Daily","def":"blue","override":""},)" + kGood),
         "",
         {"a"},
         {"/schedules/0: the default state \"blue\" is not one of the type's states; kept as "
          "rejected"}},
        {store(kGood + "," + kGood),
         "",
         {"a"},
         {"/schedules/1: the ID \"a\" is stored twice; kept as rejected"}},
        {store(R"({"ID":"b","enable":true,"base":"Daily","def":"off","override":"",)"
               R"("schedule":[{"state":"on","begin":-5,"end":10}]})"),
         "",
         {},
         {"/schedules/0/schedule/0/begin: a time cannot be negative; kept as rejected"}},
    };
    for (const row_t& row : rows) {
        std::vector<std::string> notes;
        auto parsed = scheduler::store_parse(row.text, "Light", kStates, &notes);
        if (const auto* problem = std::get_if<std::string>(&parsed)) {
            EXPECT_EQ(problem->rfind(row.problem, 0), 0u) << *problem;
            EXPECT_FALSE(row.problem.empty()) << *problem;
            continue;
        }
        EXPECT_EQ(row.problem, "") << row.text;
        const auto& content = std::get<scheduler::store_content_t>(parsed);
        std::vector<std::string> kept;
        for (const schedule_t& schedule : content.schedules) {
            kept.push_back(schedule.id);
        }
        EXPECT_EQ(kept, row.kept) << row.text;
        EXPECT_EQ(notes, row.notes) << row.text;
        // Nothing is dropped: what is not kept is rejected.
        EXPECT_EQ(content.rejected.size(), row.notes.size());
    }
}

TEST(ClientStore, FormatParsesBackToTheSameContent) {
    scheduler::store_content_t content;
    for (auto base :
         {scheduler::base_t::once, scheduler::base_t::hourly, scheduler::base_t::yearly}) {
        schedule_t schedule = daily({{"on", 10, 20}, {"on", 30, 30}});
        schedule.id = std::string(scheduler::base_name(base)) + " \"quoted\" é";
        schedule.base = base;
        schedule.enabled = base != scheduler::base_t::hourly;
        schedule.override_state = base == scheduler::base_t::yearly ? "on" : "";
        content.schedules.push_back(schedule);
    }
    content.rejected.push_back({scheduler::json::parse(R"({"ID":"x","odd":[1]})"), "why"});
    std::vector<std::string> notes;
    auto parsed = scheduler::store_parse(scheduler::store_format("Light", content), "Light",
                                         {"on", "off"}, &notes);
    ASSERT_TRUE(std::holds_alternative<scheduler::store_content_t>(parsed));
    const auto& back = std::get<scheduler::store_content_t>(parsed);
    // Events mixed with spans are refused, so the first schedule has only spans.
    EXPECT_EQ(notes.size(), 3u);
    EXPECT_EQ(back.rejected.size(), 4u);
    EXPECT_EQ(back.rejected.back().reason, "why");
}

class StoreFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        folder_ = fs::temp_directory_path() /
                  ("store-test-" + std::to_string(::getpid()) + "-" +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(folder_);
        fs::create_directories(folder_);
    }
    void TearDown() override { fs::remove_all(folder_); }

    scheduler::store_t open() {
        return scheduler::store_t(folder_ / "light.json", "Light", kStates,
                                  [this](std::string_view line) { log_.emplace_back(line); });
    }
    void write(const fs::path& file, const std::string& text) {
        std::ofstream(file, std::ios::binary) << text;
    }
    std::vector<fs::path> aside() const {
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator(folder_)) {
            if (entry.path().filename().string().find(".corrupt-") != std::string::npos) {
                found.push_back(entry.path());
            }
        }
        return found;
    }

    fs::path folder_;
    std::vector<std::string> log_;
};

TEST_F(StoreFileTest, SaveKeepsThePreviousStoreAsBackup) {
    scheduler::store_t store = open();
    EXPECT_TRUE(store.load().schedules.empty());
    scheduler::store_content_t first{{daily({{"on", 0, 60}})}, {}};
    scheduler::store_content_t second{{daily({{"on", 60, 120}})}, {}};
    ASSERT_TRUE(store.save(first));
    ASSERT_TRUE(store.save(second));
    EXPECT_EQ(store.load().schedules, second.schedules);
    EXPECT_FALSE(fs::exists(folder_ / "light.json.tmp"));
    scheduler::store_t backup(folder_ / "light.json.bak", "Light", kStates, [](auto) {});
    EXPECT_EQ(backup.load().schedules, first.schedules);
}

TEST_F(StoreFileTest, UnreadableStoreIsMovedAsideAndTheBackupUsed) {
    // The good content lands in the backup once a second save follows.
    scheduler::store_t store = open();
    scheduler::store_content_t good{{daily({{"on", 0, 60}})}, {}};
    ASSERT_TRUE(store.save(good));
    ASSERT_TRUE(store.save(good));
    const std::vector<std::string> bad = {"{\"type\":\"Light\",\"sched",
                                          std::string(10 << 20, ' ')};
    for (const std::string& text : bad) {
        write(folder_ / "light.json", text);
        log_.clear();
        EXPECT_EQ(store.load().schedules, good.schedules);
        ASSERT_FALSE(log_.empty());
        EXPECT_NE(log_.front().find((folder_ / "light.json").string()), std::string::npos)
            << log_.front();
        EXPECT_FALSE(fs::exists(folder_ / "light.json"));
    }
    ASSERT_EQ(aside().size(), 2u);
    // The moved file is kept as it was, for a person to look at.
    EXPECT_EQ(fs::file_size(aside().front()) + fs::file_size(aside().back()),
              bad[0].size() + bad[1].size());
    // With a bad backup too, the owner starts empty and both are kept.
    write(folder_ / "light.json", "garbage");
    write(folder_ / "light.json.bak", "garbage");
    EXPECT_TRUE(store.load().schedules.empty());
    EXPECT_EQ(aside().size(), 4u);
}

}  // namespace
