// The parts of orv-load whose faults would make its figures wrong without a
// failure: the owner's store it writes must be one the client library takes
// whole, and what it reads of processes must be the process's own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <variant>

#include "load_arguments.h"
#include "load_process.h"
#include "store.h"

namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kStates = {"on", "off", "eco"};

std::string readAll(const fs::path& file) {
    std::ifstream in(file);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(LoadStore, TheClientLibraryTakesEveryWrittenSchedule) {
    for (const std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{257}}) {
        load::temp_dir_t folder;
        ASSERT_TRUE(folder.create());
        const fs::path file = folder.path() / "store.json";
        ASSERT_TRUE(load::writeDailyStore(file, "Owned", count));
        std::vector<std::string> notes;
        auto parsed = scheduler::store_parse(readAll(file), "Owned", kStates, &notes);
        auto* content = std::get_if<scheduler::store_content_t>(&parsed);
        ASSERT_NE(content, nullptr) << std::get<std::string>(parsed);
        EXPECT_TRUE(notes.empty()) << count << ": " << (notes.empty() ? "" : notes.front());
        EXPECT_TRUE(content->rejected.empty());
        ASSERT_EQ(content->schedules.size(), count);
        for (std::size_t i = 0; i < count; ++i) {
            const scheduler::schedule_t& schedule = content->schedules[i];
            EXPECT_EQ(schedule.id, "S" + std::to_string(i));
            ASSERT_EQ(schedule.entries.size(), load::kDailyEntries);
            for (std::size_t k = 0; k < load::kDailyEntries; ++k) {
                const load::daily_entry_t e = load::dailyEntry(i, k);
                EXPECT_EQ(schedule.entries[k], (scheduler::entry_t{e.state, e.begin, e.end}));
            }
        }
    }
}

TEST(LoadStore, AStoreOfAnotherTypeIsRefused) {
    load::temp_dir_t folder;
    ASSERT_TRUE(folder.create());
    ASSERT_TRUE(load::writeDailyStore(folder.path() / "store.json", "Owned", 3));
    std::vector<std::string> notes;
    auto parsed =
        scheduler::store_parse(readAll(folder.path() / "store.json"), "Light", kStates, &notes);
    EXPECT_TRUE(std::holds_alternative<std::string>(parsed));
}

TEST(LoadProcess, StatusIsReadFromTheProcessAndItsThreads) {
    const pid_t self = getpid();
    const auto rss = load::processStatus(self, "VmRSS");
    ASSERT_TRUE(rss.has_value());
    EXPECT_GT(*rss, 0);
    // A field name that is the start of another is not taken for it.
    EXPECT_FALSE(load::processStatus(self, "VmRS").has_value());
    EXPECT_FALSE(load::processStatus(self, "NoSuchField").has_value());
    std::thread sleeper([] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); });
    const auto main = load::processStatus(self, "voluntary_ctxt_switches");
    const auto all = load::threadsStatus(self, "voluntary_ctxt_switches");
    sleeper.join();
    ASSERT_TRUE(main && all);
    EXPECT_GE(*all, *main);
    load::child_t gone;
    ASSERT_TRUE(gone.spawn({"true"}, "/dev/null"));
    const pid_t pid = gone.pid();
    gone.stop();
    EXPECT_FALSE(load::processStatus(pid, "VmRSS").has_value());
    EXPECT_FALSE(load::threadsStatus(pid, "voluntary_ctxt_switches").has_value());
}

TEST(LoadProcess, AChildWritesToItsFileAndEndsWithItsOwner) {
    load::temp_dir_t folder;
    ASSERT_TRUE(folder.create());
    const fs::path output = folder.path() / "out.log";
    pid_t pid = 0;
    {
        load::child_t child;
        ASSERT_TRUE(
            child.spawn({"sh", "-c", "echo out; echo err >&2; exec sleep 30"}, output.string()));
        pid = child.pid();
        for (int i = 0; i < 200 && readAll(output) != "out\nerr\n"; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(readAll(output), "out\nerr\n");
        EXPECT_TRUE(child.running());
    }
    EXPECT_FALSE(load::processStatus(pid, "State").has_value());
    load::child_t missing;
    EXPECT_FALSE(missing.spawn({"no-such-program-of-orv-load"}, output.string()));
}

TEST(LoadProcess, AFolderGoesWithEverythingInIt) {
    fs::path path;
    {
        load::temp_dir_t folder;
        ASSERT_TRUE(folder.create());
        path = folder.path();
        std::ofstream(path / "a") << "x";
        fs::create_directory(path / "b");
        std::ofstream(path / "b" / "c") << "y";
    }
    EXPECT_FALSE(fs::exists(path));
}

}  // namespace
