// The daemon's sd-event loop: timers, deferred work, exit and signals. Every
// case also fails when the loop traces an error.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "orv/sd_loop.h"
#include "orv/timer.h"
#include "orv/trace.h"

namespace {

using Log = std::vector<std::string>;

std::int64_t realMonotonicUs() {
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

class SdLoop : public ::testing::Test {
  protected:
    void SetUp() override {
        tolvTraceSetSink([this](int, std::string_view line) { traces.emplace_back(line); });
        std::string error;
        loop = orv_sd_loop_t::create(&error);
        ASSERT_TRUE(loop) << error;
    }
    void TearDown() override {
        loop.reset();
        tolvTraceSetSink({});
        EXPECT_EQ(traces, Log{});
    }
    // Runs until something calls exit(), or until a guard exits with `code`.
    int runFor(std::uint64_t delay_us = 500'000, int code = -1) {
        guard = loop->createTimer([this, code] { loop->exit(code); });
        guard->arm(delay_us);
        return loop->run();
    }
    // A timer that logs its name and fails if it fires before its deadline.
    std::unique_ptr<orv_loop_timer_t> logging(std::string name, std::int64_t* deadline = nullptr) {
        return loop->createTimer([this, name, deadline] {
            log.push_back(name);
            EXPECT_GE(realMonotonicUs(), deadline ? *deadline : 0) << name << " fired early";
        });
    }
    std::unique_ptr<orv_sd_loop_t> loop;
    std::unique_ptr<orv_loop_timer_t> guard;
    Log log, traces;
};

// Armed in one callback (one "now") that sleeps past them, all fall due at once.
TEST_F(SdLoop, TimersFireOnceInDeadlineThenArmingOrder) {
    std::int64_t at2 = 0, at3 = 0;
    auto w = logging("w", &at3), early = logging("early", &at2);
    auto x = logging("x", &at3), y = logging("y", &at3), z = logging("z", &at3);
    auto end = loop->createTimer([this] { loop->exit(0); });
    loop->defer([&] {
        at2 = loop->monotonic_us() + 2000;
        at3 = at2 + 1000;
        for (auto* timer : {z.get(), w.get(), x.get(), y.get(), z.get(), end.get()}) {
            ASSERT_TRUE(timer->arm(3000));  // z armed again: it moves behind y
        }
        early->arm(2000);
        std::this_thread::sleep_for(std::chrono::milliseconds(4));
    });
    EXPECT_EQ(runFor(), 0);
    EXPECT_EQ(log, (Log{"early", "w", "x", "y", "z"}));
}

TEST_F(SdLoop, RearmMovesDisarmAndDestroySilenceAndCallbacksOwnTheirTimer) {
    std::int64_t moved_deadline = realMonotonicUs() + 3000;
    auto moved = logging("moved", &moved_deadline);
    auto stopped = logging("stopped"), destroyed = logging("destroyed");
    std::unique_ptr<orv_loop_timer_t> self, again;
    self = loop->createTimer([&] { self.reset(), log.push_back("self"); });
    again = loop->createTimer([&] { log.push_back("again"), log.size() < 3 && again->arm(500); });
    for (auto* timer : {moved.get(), stopped.get(), destroyed.get(), self.get(), again.get()}) {
        timer->arm(1000);
    }
    moved->arm(3000);
    stopped->disarm();
    destroyed.reset();
    EXPECT_EQ(runFor(15'000, 0), 0);
    std::sort(log.begin(), log.end());  // a late wake-up may put "moved" between the "again"s
    EXPECT_EQ(log, (Log{"again", "again", "moved", "self"}));
    EXPECT_FALSE(moved->armed());  // a fired timer is done
}

// Work deferred by a timer runs before the next timer, also one due at once.
TEST_F(SdLoop, DeferRunsAfterTheCurrentCallback) {
    auto second = logging("second");
    auto first = loop->createTimer([&] {
        loop->defer([&] { log.push_back("deferred"), loop->exit(4); });
        log.push_back("first");
    });
    loop->defer([&] { first->arm(1000), second->arm(1000); });  // second stays armed
    EXPECT_EQ(runFor(), 4);
    EXPECT_EQ(log, (Log{"first", "deferred"}));
}

// Within one iteration both clocks read the moment it woke up, so that a
// wall-clock deadline turned into a monotonic one is not shifted by the time
// the callback has taken so far; the next iteration reads them anew.
TEST_F(SdLoop, ClocksAreReadOncePerIteration) {
    std::int64_t wall[2] = {}, mono[2] = {}, nextMono = 0;
    auto later = loop->createTimer([&] {
        nextMono = loop->monotonic_us();
        loop->exit(0);
    });
    loop->defer([&] {
        for (int i = 0; i < 2; ++i) {
            wall[i] = loop->now_us();
            mono[i] = loop->monotonic_us();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        later->arm(1000);
    });
    EXPECT_EQ(runFor(), 0);
    EXPECT_EQ(wall[1], wall[0]);
    EXPECT_EQ(mono[1], mono[0]);
    EXPECT_GE(nextMono, mono[0] + 4000) << "the timer's iteration woke up after the sleeps";
}

// The clocks follow the system's; a timer that outlives its loop is stopped
// and cannot start again.
TEST_F(SdLoop, ClocksAndTheDefaultLoop) {
    orv_loop_setDefault(loop.get());
    EXPECT_LT(std::abs(orv_time_now() - std::time(nullptr)), 2);
    EXPECT_LT(std::abs(loop->monotonic_us() - realMonotonicUs()), 1'000'000);
    orv_timer_ptr outliving = orv_timer_create();
    ASSERT_TRUE(orv_timer_start(outliving.get(), 1000));
    loop.reset();
    EXPECT_EQ(orv_loop_default(), nullptr);
    EXPECT_FALSE(orv_timer_isRunning(outliving.get()));
    EXPECT_FALSE(orv_timer_start(outliving.get(), 1));
}

TEST_F(SdLoop, SignalReachesItsHandler) {
    ASSERT_TRUE(loop->onSignal(SIGUSR1, [this] { loop->exit(9); }));
    loop->defer([] { raise(SIGUSR1); });
    EXPECT_EQ(runFor(), 9);
}

}  // namespace
