// The commands orv-owner runs: substitution, exit statuses, time-outs and
// order, on a real sd-event loop with real child processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "owner_exec.h"

namespace {

using namespace std::chrono_literals;

TEST(OwnerExec, SubstitutesEveryPlaceholder) {
    // command, expected argv
    const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> rows = {
        {{"set", "{ID}", "{state}"}, {"set", "porch", "on"}},
        {{"set", "--id={ID}:{ID}", "x{state}y"}, {"set", "--id=porch:porch", "xony"}},
        {{"{state}"}, {"on"}},
        {{"plain", "{id}", "{STATE}"}, {"plain", "{id}", "{STATE}"}},
    };
    for (const auto& [command, argv] : rows) {
        EXPECT_EQ(owner_substitute(command, "porch", "on"), argv);
    }
    // A value holding a placeholder is not expanded again.
    EXPECT_EQ(owner_substitute({"{ID}-{state}"}, "{state}", "on"),
              (std::vector<std::string>{"{state}-on"}));
}

class OwnerExecTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &child, nullptr), 0);
        ASSERT_GE(sd_event_new(&event_), 0);
        folder_ =
            std::filesystem::temp_directory_path() / ("owner-exec-" + std::to_string(::getpid()));
        std::filesystem::create_directories(folder_);
    }
    void TearDown() override {
        sd_event_unref(event_);
        std::filesystem::remove_all(folder_);
    }

    // A runner whose command is "sh -c SCRIPT owner {ID} {state}".
    std::unique_ptr<owner_exec_t> runner(const std::string& script,
                                         std::chrono::milliseconds timeout = 5s) {
        return std::make_unique<owner_exec_t>(
            event_, std::vector<std::string>{"sh", "-c", script, "owner", "{ID}", "{state}"},
            timeout, [this](const std::string& line) { log_.push_back(line); });
    }
    // Runs the loop until n lines are logged; false after 10 s.
    bool awaitLines(std::size_t n) {
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (log_.size() < n && std::chrono::steady_clock::now() < end) {
            sd_event_run(event_, 100000);
        }
        return log_.size() >= n;
    }
    std::string file(const std::string& name) const {
        std::ifstream in(folder_ / name);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    sd_event* event_ = nullptr;
    std::filesystem::path folder_;
    std::vector<std::string> log_;
};

TEST_F(OwnerExecTest, LogsHowEachCommandEnded) {
    // script, the end of its log line's status part
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"exit 0", "exited 0 after"},
        {"exit 3", "exited 3 after"},
        {"kill -USR1 $$", "killed by signal 10 (USR1) after"},
    };
    for (const auto& [script, status] : rows) {
        log_.clear();
        auto exec = runner(script);
        exec->run("porch", "on");
        ASSERT_TRUE(awaitLines(1)) << script;
        EXPECT_EQ(log_[0].rfind("\"porch\" -> on: ", 0), 0u) << log_[0];
        EXPECT_NE(log_[0].find(status), std::string::npos) << log_[0];
    }
    log_.clear();
    owner_exec_t missing(event_, {"/nonexistent/program"}, 5s,
                         [this](const std::string& line) { log_.push_back(line); });
    missing.run("porch", "off");
    ASSERT_EQ(log_.size(), 1u);
    EXPECT_EQ(log_[0],
              "\"porch\" -> off: /nonexistent/program: cannot run: No such file or directory");
    EXPECT_EQ(missing.counts().failed, 1u);
}

// An owner with many schedules hears them all at once when it registers:
// every ID gets its command, and an ID told twice before its command started
// runs once, with the newer state.
TEST_F(OwnerExecTest, EveryScheduleRunsOnceWithItsLatestState) {
    const std::string out = (folder_ / "out").string();
    auto exec = runner("echo \"$1 $2\" >>" + out);
    constexpr int kSchedules = 1200;
    for (int i = 0; i < kSchedules; ++i) {
        exec->run("s" + std::to_string(i), "off");
    }
    exec->run("s7", "on");
    exec->run("s7", "eco");
    EXPECT_EQ(exec->counts().queued, static_cast<std::size_t>(kSchedules - 1));
    ASSERT_TRUE(awaitLines(kSchedules));
    EXPECT_EQ(exec->counts().run, static_cast<std::size_t>(kSchedules));
    EXPECT_EQ(exec->counts().failed, 0u);
    const std::string lines = file("out");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), kSchedules);
    EXPECT_NE(lines.find("\ns7 eco\n"), std::string::npos);
    EXPECT_EQ(lines.find("s7 off"), std::string::npos);
    EXPECT_EQ(lines.find("s7 on"), std::string::npos);
}

TEST_F(OwnerExecTest, RunsInOrderAndKillsAHangingCommandWithItsGroup) {
    // The first command hangs in a grandchild; the time-out kills the group
    // and the queued commands still run, in the order they came.
    const std::string out = (folder_ / "out").string();
    auto exec = runner("if [ \"$2\" = hang ]; then sleep 30 & echo $! >" + folder_.string() +
                           "/pid; wait; fi; echo \"$1 $2\" >>" + out,
                       300ms);
    exec->run("a", "hang");
    exec->run("b", "on");
    exec->run("c", "off");
    EXPECT_EQ(exec->counts().queued, 2u);
    ASSERT_TRUE(awaitLines(3));
    EXPECT_NE(log_[0].find("killed at its time-out of 300 ms"), std::string::npos) << log_[0];
    EXPECT_EQ(file("out"), "b on\nc off\n");
    const std::string sleeper = file("pid");
    ASSERT_FALSE(sleeper.empty());
    // The grandchild went with the group (or is a zombie of init's). A
    // SIGKILL is delivered, not waited for, so it may take a moment.
    const auto gone = [&] {
        return ::kill(std::atoi(sleeper.c_str()), 0) != 0 ||
               file("/proc/" + sleeper.substr(0, sleeper.size() - 1) + "/stat").find(") Z") !=
                   std::string::npos;
    };
    for (int tries = 0; tries < 200 && !gone(); ++tries) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_TRUE(gone());
    EXPECT_EQ(exec->counts().run, 3u);
    EXPECT_EQ(exec->counts().failed, 1u);
}

}  // namespace
