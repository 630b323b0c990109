// The virtual loop, the default loop's clock and the timers on it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orv/loop.h"
#include "orv/timer.h"

namespace {

constexpr std::int64_t kStart = 1'700'000'000'000'000;  // 2023-11-14T22:13:20Z
constexpr std::int64_t kHour = 3'600'000'000;
using Log = std::vector<std::string>;

// A timer that logs its name and the monotonic time at which it fired.
std::unique_ptr<orv_loop_timer_t> logging(orv_virtual_loop_t& loop, Log& log, std::string name) {
    return loop.createTimer(
        [&loop, &log, name] { log.push_back(name + "@" + std::to_string(loop.monotonic_us())); });
}

TEST(VirtualLoop, TimersFireInDeadlineThenArmingOrderEachAtItsOwnTime) {
    orv_virtual_loop_t loop(kStart);
    Log log;
    auto b = logging(loop, log, "b");
    auto a = logging(loop, log, "a");
    auto c = logging(loop, log, "c");
    auto early = logging(loop, log, "early");
    auto late = logging(loop, log, "late");
    // b is armed again last: it moves behind a and c.
    for (auto* timer : {b.get(), a.get(), c.get(), b.get()}) {
        ASSERT_TRUE(timer->arm(1000));
    }
    early->arm(999);
    late->arm(3000);
    EXPECT_EQ(loop.nextDeadline(), 999);
    loop.advance(2999);
    EXPECT_EQ(log, (Log{"early@999", "a@1000", "c@1000", "b@1000"}));
    EXPECT_TRUE(late->armed());
    loop.advance(1);  // due exactly at the target
    EXPECT_EQ(log.back(), "late@3000");
    EXPECT_EQ(loop.now_us(), kStart + 3000);
}

// Restarting moves a deadline; stopped and destroyed timers stay quiet, also
// when a handler destroys its own timer and another one due at the same time.
TEST(VirtualLoop, RestartStopAndDestroy) {
    orv_virtual_loop_t loop;
    Log log;
    auto restarted = logging(loop, log, "restarted");
    auto stopped = logging(loop, log, "stopped");
    auto victim = logging(loop, log, "victim");
    std::unique_ptr<orv_loop_timer_t> self;
    self = loop.createTimer([&] {
        victim.reset();
        self.reset();
        log.push_back("self");  // still running after its own timer is gone
    });
    for (auto* timer : {restarted.get(), stopped.get(), self.get(), victim.get()}) {
        timer->arm(100);
    }
    loop.advance(50);
    restarted->arm(1000);
    stopped->disarm();
    EXPECT_FALSE(stopped->armed());
    loop.advance(10'000);
    EXPECT_EQ(log, (Log{"self", "restarted@1050"}));
    EXPECT_FALSE(loop.nextDeadline().has_value());
}

TEST(VirtualLoop, HandlerReArmingItselfFiresAtEachPeriod) {
    orv_virtual_loop_t loop;
    std::vector<std::int64_t> at;
    std::unique_ptr<orv_loop_timer_t> timer;
    timer = loop.createTimer([&] {
        at.push_back(loop.monotonic_us());
        if (at.size() < 4) {
            timer->arm(at.size() == 2 ? 0 : 100);
        }
    });
    timer->arm(100);
    loop.advance(10'000);
    EXPECT_EQ(at, (std::vector<std::int64_t>{100, 200, 200, 300}));
}

TEST(VirtualLoopDeathTest, EndlessZeroDelayReArmAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            orv_virtual_loop_t loop;
            std::unique_ptr<orv_loop_timer_t> timer;
            timer = loop.createTimer([&] { timer->arm(0); });
            timer->arm(0);
            loop.advance(1);
        },
        "re-arms itself");
}

TEST(VirtualLoop, TimerOutlivingItsLoopIsHarmless) {
    std::unique_ptr<orv_loop_timer_t> timer;
    {
        orv_virtual_loop_t loop;
        timer = loop.createTimer([] {});
        timer->arm(100);
    }
    EXPECT_FALSE(timer->armed());
    EXPECT_FALSE(timer->arm(100));
}

TEST(VirtualLoop, SetWallClockKeepsDeadlinesAndRunsPendingWork) {
    orv_virtual_loop_t loop(kStart);
    std::vector<std::int64_t> wallAt;
    auto timer = loop.createTimer([&] { wallAt.push_back(loop.now_us()); });
    timer->arm(10'000'000);
    loop.advance(1'000'000);
    int deferred = 0;
    loop.defer([&] { ++deferred; });
    loop.setWallClock(kStart + kHour);  // an hour ahead: the timer is not due yet
    EXPECT_EQ(deferred, 1);
    EXPECT_EQ(loop.monotonic_us(), 1'000'000);
    loop.setWallClock(kStart - kHour);
    loop.advanceTo(kStart - kHour + 8'999'999);
    EXPECT_TRUE(wallAt.empty());
    loop.advance(1);
    EXPECT_EQ(wallAt, (std::vector<std::int64_t>{kStart - kHour + 9'000'000}));
}

TEST(VirtualLoop, DeferredWorkRunsInOrderBeforeTheNextTimer) {
    orv_virtual_loop_t loop;
    Log log;
    auto first = loop.createTimer([&] {
        log.push_back("first");
        loop.defer([&] {
            log.push_back("deferred");
            loop.defer([&] { log.push_back("deferred again"); });
        });
    });
    auto second = logging(loop, log, "second");
    loop.defer([&] { log.push_back("before"); });
    first->arm(0);
    second->arm(0);
    loop.runPending();
    EXPECT_EQ(log, (Log{"before", "first", "deferred", "deferred again", "second@0"}));
    EXPECT_EQ(loop.monotonic_us(), 0);  // due timers ran without moving the clock
}

std::vector<std::pair<void*, std::int64_t>> g_fired;  // user data, time

void recordTimer(orv_timer_t* timer, void* userdata) {
    EXPECT_EQ(orv_timer_getUserData(timer), userdata);
    g_fired.emplace_back(userdata, orv_time_now_us());
}

TEST(DefaultLoop, SuppliesTheTimeAndTheTimersUntilItEnds) {
    g_fired.clear();
    {
        orv_virtual_loop_t loop(kStart + 999'999);
        orv_loop_setDefault(&loop);
        EXPECT_EQ(orv_time_now(), kStart / 1'000'000);
        orv_timer_ptr restarted = orv_timer_create();
        orv_timer_ptr stopped = orv_timer_create();
        orv_timer_ptr destroyed = orv_timer_create();
        int marker = 0;
        for (orv_timer_t* timer : {restarted.get(), stopped.get(), destroyed.get()}) {
            EXPECT_TRUE(orv_timer_setHandler(timer, recordTimer));
            EXPECT_TRUE(orv_timer_setUserData(timer, &marker));
            EXPECT_TRUE(orv_timer_start(timer, 1000));
        }
        loop.advance(600'001);
        EXPECT_EQ(orv_time_now(), kStart / 1'000'000 + 1);
        EXPECT_TRUE(orv_timer_start(restarted.get(), 1000));  // restarts with the new time-out
        EXPECT_TRUE(orv_timer_stop(stopped.get()));
        destroyed.reset();
        loop.advance(10'000'000);
        const std::int64_t due = kStart + 999'999 + 1'600'001;
        EXPECT_EQ(g_fired, (std::vector<std::pair<void*, std::int64_t>>{{&marker, due}}));
    }
    EXPECT_EQ(orv_loop_default(), nullptr);
    EXPECT_EQ(orv_time_now(), 0);
    EXPECT_EQ(orv_timer_create(), nullptr);
}

}  // namespace
