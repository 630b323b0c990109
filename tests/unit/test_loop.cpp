// The virtual loop, the default loop's clock and the timers on it.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orv/loop.h"
#include "orv/sd_loop.h"
#include "orv/timer.h"
#include "orv/virtual_loop.h"

namespace {

constexpr std::int64_t kStart = 1'700'000'000'000'000;  // 2023-11-14T22:13:20Z
constexpr std::int64_t kHour = 3'600'000'000;
using Log = std::vector<std::string>;

class VirtualLoop : public ::testing::Test {
  protected:
    // A timer that logs its name and the monotonic time at which it fired.
    std::unique_ptr<orv_loop_timer_t> logging(std::string name) {
        return loop.createTimer(
            [this, name] { log.push_back(name + "@" + std::to_string(loop.monotonic_us())); });
    }
    orv_virtual_loop_t loop{kStart};
    Log log;
};

TEST_F(VirtualLoop, TimersFireInDeadlineThenArmingOrderEachAtItsOwnTime) {
    auto b = logging("b"), a = logging("a"), c = logging("c");
    auto early = logging("early"), late = logging("late");
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

// A handler may destroy its own timer and another one due at the same time;
// restarting and stopping are covered through the wrapper below.
TEST_F(VirtualLoop, HandlerDestroysItsOwnAndAnotherDueTimer) {
    auto victim = logging("victim");
    std::unique_ptr<orv_loop_timer_t> self = loop.createTimer([&] {
        victim.reset();
        self.reset();
        log.push_back("self");  // still running after its own timer is gone
    });
    self->arm(100);
    victim->arm(100);
    loop.advance(10'000);
    EXPECT_EQ(log, Log{"self"});
    EXPECT_FALSE(loop.nextDeadline().has_value());
}

TEST_F(VirtualLoop, HandlerReArmingItselfFiresAtEachPeriod) {
    std::unique_ptr<orv_loop_timer_t> timer = loop.createTimer([&] {
        log.push_back(std::to_string(loop.monotonic_us()));
        if (log.size() < 4) {
            timer->arm(log.size() == 2 ? 0 : 100);
        }
    });
    timer->arm(100);
    loop.advance(10'000);
    EXPECT_EQ(log, (Log{"100", "200", "200", "300"}));
}

using VirtualLoopDeathTest = VirtualLoop;

TEST_F(VirtualLoopDeathTest, EndlessZeroDelayReArmAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::unique_ptr<orv_loop_timer_t> timer = loop.createTimer([&] { timer->arm(0); });
    timer->arm(0);
    EXPECT_DEATH(loop.advance(1), "re-arms itself");
}

TEST_F(VirtualLoop, SetWallClockKeepsDeadlinesAndRunsPendingWork) {
    auto timer = logging("timer");
    timer->arm(10'000'000);
    loop.advance(1'000'000);
    loop.defer([&] { log.push_back("deferred"); });
    loop.setWallClock(kStart + kHour);  // an hour ahead: the timer is not due yet
    EXPECT_EQ(log, Log{"deferred"});
    loop.setWallClock(kStart - kHour);
    loop.advanceTo(kStart - kHour + 8'999'999);
    EXPECT_EQ(log, Log{"deferred"});
    loop.advance(1);
    EXPECT_EQ(log, (Log{"deferred", "timer@10000000"}));  // the monotonic deadline held
    EXPECT_EQ(loop.now_us(), kStart - kHour + 9'000'000);
}

TEST_F(VirtualLoop, DeferredWorkRunsInOrderBeforeTheNextTimer) {
    auto first = loop.createTimer([&] {
        log.push_back("first");
        loop.defer([&] {
            log.push_back("deferred");
            loop.defer([&] { log.push_back("deferred again"); });
        });
    });
    auto second = logging("second");
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

// The timers keep working through the wrapper; once the loop ends, a timer
// that outlives it is stopped and cannot start again.
TEST(DefaultLoop, SuppliesTheTimeAndTheTimersUntilItEnds) {
    g_fired.clear();
    orv_timer_ptr outliving;
    {
        orv_virtual_loop_t loop(kStart + 999'999);
        orv_loop_setDefault(&loop);
        EXPECT_EQ(orv_time_now(), kStart / 1'000'000);
        orv_timer_ptr restarted = orv_timer_create(), stopped = orv_timer_create();
        orv_timer_ptr destroyed = orv_timer_create();
        outliving = orv_timer_create();
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
        EXPECT_FALSE(orv_timer_isRunning(stopped.get()));
        destroyed.reset();
        loop.advance(10'000'000);
        const std::int64_t due = kStart + 999'999 + 1'600'001;
        EXPECT_EQ(g_fired, (std::vector<std::pair<void*, std::int64_t>>{{&marker, due}}));
        EXPECT_FALSE(orv_timer_isRunning(restarted.get()));  // a fired timer is done
        EXPECT_TRUE(orv_timer_start(outliving.get(), 1000));
    }
    EXPECT_FALSE(orv_timer_isRunning(outliving.get()));
    EXPECT_FALSE(orv_timer_start(outliving.get(), 1000));
    EXPECT_EQ(orv_loop_default(), nullptr);
    EXPECT_EQ(orv_time_now(), 0);
    EXPECT_EQ(orv_timer_create(), nullptr);
}

// Whatever its kind, a loop that ends clears the default loop only when it is
// the default: ending another one must leave the default in place.
TEST(DefaultLoop, EndingALoopClearsTheDefaultOnlyWhenItIsTheDefault) {
    using maker_t = std::unique_ptr<orv_loop_t> (*)();
    const std::pair<const char*, maker_t> kinds[] = {
        {"virtual", [] { return std::unique_ptr<orv_loop_t>(new orv_virtual_loop_t(kStart)); }},
        {"sd-event", [] { return std::unique_ptr<orv_loop_t>(orv_sd_loop_t::create(nullptr)); }},
    };
    for (const auto& [kind, make] : kinds) {
        SCOPED_TRACE(kind);
        orv_virtual_loop_t kept(kStart);
        orv_loop_setDefault(&kept);
        std::unique_ptr<orv_loop_t> other = make();
        ASSERT_NE(other, nullptr);
        other.reset();
        EXPECT_EQ(orv_loop_default(), &kept);

        std::unique_ptr<orv_loop_t> current = make();
        ASSERT_NE(current, nullptr);
        orv_loop_setDefault(current.get());
        current.reset();
        EXPECT_EQ(orv_loop_default(), nullptr);
    }
}

}  // namespace
