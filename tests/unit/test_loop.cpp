// The virtual loop, the default loop's clock and the timers on it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orv/loop.h"
#include "orv/timer.h"

namespace {

constexpr std::int64_t kStart = 1'700'000'000'000'000;  // 2023-11-14T22:13:20Z

TEST(VirtualLoop, StartsAtTheGivenWallClockWithMonotonicZero) {
    orv_virtual_loop_t loop(kStart);
    EXPECT_EQ(loop.now_us(), kStart);
    EXPECT_EQ(loop.monotonic_us(), 0);
    EXPECT_FALSE(loop.nextDeadline().has_value());
}

TEST(VirtualLoop, EqualDeadlinesFireInArmingOrder) {
    orv_virtual_loop_t loop(kStart);
    std::vector<std::string> fired;
    auto b = loop.createTimer([&] { fired.push_back("b"); });
    auto a = loop.createTimer([&] { fired.push_back("a"); });
    auto c = loop.createTimer([&] { fired.push_back("c"); });
    auto early = loop.createTimer([&] { fired.push_back("early"); });
    ASSERT_TRUE(b->arm(1000));
    ASSERT_TRUE(a->arm(1000));
    ASSERT_TRUE(c->arm(1000));
    ASSERT_TRUE(early->arm(999));
    loop.advance(1000);
    EXPECT_EQ(fired, (std::vector<std::string>{"early", "b", "a", "c"}));
}

TEST(VirtualLoop, ReArmingMovesATimerBehindTimersWithTheSameDeadline) {
    orv_virtual_loop_t loop;
    std::vector<std::string> fired;
    auto a = loop.createTimer([&] { fired.push_back("a"); });
    auto b = loop.createTimer([&] { fired.push_back("b"); });
    a->arm(500);
    b->arm(500);
    a->arm(500);  // armed again: now after b
    loop.advance(500);
    EXPECT_EQ(fired, (std::vector<std::string>{"b", "a"}));
}

TEST(VirtualLoop, TimersFireAtTheirOwnVirtualTime) {
    orv_virtual_loop_t loop(kStart);
    std::vector<std::pair<std::int64_t, std::int64_t>> seen;  // monotonic, wall
    auto first = loop.createTimer([&] { seen.emplace_back(loop.monotonic_us(), loop.now_us()); });
    auto second = loop.createTimer([&] { seen.emplace_back(loop.monotonic_us(), loop.now_us()); });
    second->arm(3000);
    first->arm(1500);
    EXPECT_EQ(loop.nextDeadline(), 1500);
    loop.advance(5000);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], std::make_pair(std::int64_t{1500}, kStart + 1500));
    EXPECT_EQ(seen[1], std::make_pair(std::int64_t{3000}, kStart + 3000));
    EXPECT_EQ(loop.monotonic_us(), 5000);
    EXPECT_EQ(loop.now_us(), kStart + 5000);
    EXPECT_FALSE(first->armed());
    EXPECT_FALSE(second->armed());
}

TEST(VirtualLoop, ATimerDueExactlyAtTheTargetFiresAndLaterOnesWait) {
    orv_virtual_loop_t loop;
    int fired = 0;
    auto timer = loop.createTimer([&] { ++fired; });
    timer->arm(1000);
    loop.advance(999);
    EXPECT_EQ(fired, 0);
    EXPECT_TRUE(timer->armed());
    loop.advance(1);
    EXPECT_EQ(fired, 1);
}

TEST(VirtualLoop, RestartMovesTheDeadline) {
    orv_virtual_loop_t loop;
    std::vector<std::int64_t> at;
    auto timer = loop.createTimer([&] { at.push_back(loop.monotonic_us()); });
    timer->arm(1000);
    loop.advance(500);
    timer->arm(1000);
    EXPECT_EQ(loop.nextDeadline(), 1500);
    loop.advance(900);
    EXPECT_TRUE(at.empty());
    loop.advance(100);
    EXPECT_EQ(at, (std::vector<std::int64_t>{1500}));
}

TEST(VirtualLoop, StoppedTimerDoesNotFire) {
    orv_virtual_loop_t loop;
    int fired = 0;
    auto timer = loop.createTimer([&] { ++fired; });
    timer->arm(100);
    EXPECT_TRUE(timer->armed());
    timer->disarm();
    EXPECT_FALSE(timer->armed());
    EXPECT_FALSE(loop.nextDeadline().has_value());
    loop.advance(1000);
    EXPECT_EQ(fired, 0);
}

TEST(VirtualLoop, HandlerReArmingItselfFiresAtEachPeriod) {
    orv_virtual_loop_t loop;
    std::vector<std::int64_t> at;
    std::unique_ptr<orv_loop_timer_t> timer;
    timer = loop.createTimer([&] {
        at.push_back(loop.monotonic_us());
        if (at.size() < 5) {
            timer->arm(100);
        }
    });
    timer->arm(100);
    loop.advance(10'000);
    EXPECT_EQ(at, (std::vector<std::int64_t>{100, 200, 300, 400, 500}));
    EXPECT_EQ(loop.monotonic_us(), 10'000);
}

TEST(VirtualLoop, ZeroDelayReArmInsideHandlerFiresAgainAtTheSameTime) {
    orv_virtual_loop_t loop;
    int fired = 0;
    std::unique_ptr<orv_loop_timer_t> timer;
    timer = loop.createTimer([&] {
        if (++fired < 3) {
            timer->arm(0);
        }
    });
    timer->arm(10);
    loop.advance(10);
    EXPECT_EQ(fired, 3);
    EXPECT_EQ(loop.monotonic_us(), 10);
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

TEST(VirtualLoop, DestroyingAnArmedTimerRemovesIt) {
    orv_virtual_loop_t loop;
    int fired = 0;
    auto timer = loop.createTimer([&] { ++fired; });
    auto other = loop.createTimer([&] { ++fired; });
    timer->arm(100);
    other->arm(200);
    timer.reset();
    EXPECT_EQ(loop.nextDeadline(), 200);
    loop.advance(1000);
    EXPECT_EQ(fired, 1);
}

TEST(VirtualLoop, AHandlerMayDestroyItsOwnTimerAndOthers) {
    orv_virtual_loop_t loop;
    std::vector<std::string> fired;
    std::unique_ptr<orv_loop_timer_t> self;
    std::unique_ptr<orv_loop_timer_t> victim;
    self = loop.createTimer([&] {
        fired.push_back("self");
        victim.reset();
        self.reset();
    });
    victim = loop.createTimer([&] { fired.push_back("victim"); });
    self->arm(100);
    victim->arm(100);
    loop.advance(1000);
    EXPECT_EQ(fired, (std::vector<std::string>{"self"}));
    EXPECT_FALSE(loop.nextDeadline().has_value());
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
    timer.reset();
}

TEST(VirtualLoop, SetWallClockDoesNotMoveDeadlines) {
    orv_virtual_loop_t loop(kStart);
    std::vector<std::int64_t> wallAt;
    auto timer = loop.createTimer([&] { wallAt.push_back(loop.now_us()); });
    timer->arm(10'000'000);
    loop.advance(1'000'000);
    loop.setWallClock(kStart + 3'600'000'000);  // one hour ahead
    EXPECT_TRUE(wallAt.empty());
    EXPECT_EQ(loop.now_us(), kStart + 3'600'000'000);
    EXPECT_EQ(loop.monotonic_us(), 1'000'000);
    EXPECT_EQ(loop.nextDeadline(), 10'000'000);
    loop.setWallClock(kStart - 3'600'000'000);  // and back
    EXPECT_TRUE(wallAt.empty());
    loop.advance(9'000'000);
    EXPECT_EQ(wallAt, (std::vector<std::int64_t>{kStart - 3'600'000'000 + 9'000'000}));
}

TEST(VirtualLoop, SetWallClockRunsPendingWork) {
    orv_virtual_loop_t loop(kStart);
    int deferred = 0;
    loop.defer([&] { ++deferred; });
    loop.setWallClock(kStart + 5);
    EXPECT_EQ(deferred, 1);
}

TEST(VirtualLoop, AdvanceToMovesToAWallClockTimeAndNeverBack) {
    orv_virtual_loop_t loop(kStart);
    int fired = 0;
    auto timer = loop.createTimer([&] { ++fired; });
    timer->arm(2'000'000);
    loop.advanceTo(kStart + 2'000'000);
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(loop.now_us(), kStart + 2'000'000);
    loop.advanceTo(kStart);
    EXPECT_EQ(loop.now_us(), kStart + 2'000'000);
    loop.advance(-5);
    EXPECT_EQ(loop.now_us(), kStart + 2'000'000);
}

TEST(VirtualLoop, DeferredCallbacksRunInOrderIncludingOnesAddedMeanwhile) {
    orv_virtual_loop_t loop;
    std::vector<int> order;
    loop.defer([&] {
        order.push_back(1);
        loop.defer([&] { order.push_back(3); });
    });
    loop.defer([&] { order.push_back(2); });
    EXPECT_TRUE(order.empty());
    loop.runPending();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    loop.runPending();
    EXPECT_EQ(order.size(), 3u);
}

TEST(VirtualLoop, DeferredWorkOfATimerRunsBeforeTheNextTimer) {
    orv_virtual_loop_t loop;
    std::vector<std::string> order;
    auto first = loop.createTimer([&] {
        order.push_back("first");
        loop.defer([&] { order.push_back("deferred@" + std::to_string(loop.monotonic_us())); });
    });
    auto second = loop.createTimer([&] { order.push_back("second"); });
    first->arm(100);
    second->arm(200);
    loop.advance(300);
    EXPECT_EQ(order, (std::vector<std::string>{"first", "deferred@100", "second"}));
}

TEST(VirtualLoop, RunPendingFiresDueTimersWithoutMovingTheClock) {
    orv_virtual_loop_t loop;
    int fired = 0;
    auto now = loop.createTimer([&] { ++fired; });
    auto later = loop.createTimer([&] { ++fired; });
    now->arm(0);
    later->arm(1);
    loop.runPending();
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(loop.monotonic_us(), 0);
    EXPECT_TRUE(later->armed());
}

TEST(VirtualLoop, TimerArmedInsideAHandlerFiresInTheSameAdvanceWhenDue) {
    orv_virtual_loop_t loop;
    std::vector<std::int64_t> at;
    auto second = loop.createTimer([&] { at.push_back(loop.monotonic_us()); });
    auto first = loop.createTimer([&] {
        at.push_back(loop.monotonic_us());
        second->arm(50);
    });
    first->arm(100);
    loop.advance(200);
    EXPECT_EQ(at, (std::vector<std::int64_t>{100, 150}));
}

// The default loop and orv_time_now.

class DefaultLoop : public ::testing::Test {
  protected:
    void SetUp() override { orv_loop_setDefault(&loop_); }
    void TearDown() override { orv_loop_setDefault(nullptr); }
    orv_virtual_loop_t loop_{kStart + 999'999};
};

TEST(DefaultLoopAbsent, TimeIsZeroAndTimersCannotBeCreated) {
    orv_loop_setDefault(nullptr);
    EXPECT_EQ(orv_loop_default(), nullptr);
    EXPECT_EQ(orv_time_now(), 0);
    EXPECT_EQ(orv_time_now_us(), 0);
    EXPECT_EQ(orv_timer_create(), nullptr);
}

TEST_F(DefaultLoop, TimeComesFromTheDefaultLoop) {
    EXPECT_EQ(orv_loop_default(), &loop_);
    EXPECT_EQ(orv_time_now_us(), kStart + 999'999);
    EXPECT_EQ(orv_time_now(), kStart / 1'000'000);
    loop_.advance(1);
    EXPECT_EQ(orv_time_now(), kStart / 1'000'000 + 1);
}

TEST(DefaultLoopLifetime, ALoopThatEndsIsNoLongerTheDefault) {
    {
        orv_virtual_loop_t loop;
        orv_loop_setDefault(&loop);
    }
    EXPECT_EQ(orv_loop_default(), nullptr);
}

struct timer_record_t {
    std::vector<std::pair<orv_timer_t*, void*>> calls;
    std::vector<std::int64_t> at;
};
timer_record_t* g_timerRecord = nullptr;

void recordTimer(orv_timer_t* timer, void* userdata) {
    g_timerRecord->calls.emplace_back(timer, userdata);
    g_timerRecord->at.push_back(orv_time_now_us());
}

TEST_F(DefaultLoop, TimerFiresOnceWithItsUserData) {
    timer_record_t record;
    g_timerRecord = &record;
    orv_timer_ptr timer = orv_timer_create();
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(orv_timer_getUserData(timer.get()), nullptr);
    EXPECT_FALSE(orv_timer_isRunning(timer.get()));
    int marker = 0;
    EXPECT_TRUE(orv_timer_setUserData(timer.get(), &marker));
    EXPECT_TRUE(orv_timer_setHandler(timer.get(), recordTimer));
    EXPECT_TRUE(orv_timer_start(timer.get(), 250));
    EXPECT_TRUE(orv_timer_isRunning(timer.get()));
    loop_.advance(249'999);
    EXPECT_TRUE(record.calls.empty());
    loop_.advance(10'000'000);
    ASSERT_EQ(record.calls.size(), 1u);
    EXPECT_EQ(record.calls[0].first, timer.get());
    EXPECT_EQ(record.calls[0].second, &marker);
    EXPECT_EQ(record.at[0], kStart + 999'999 + 250'000);
    EXPECT_FALSE(orv_timer_isRunning(timer.get()));
    g_timerRecord = nullptr;
}

TEST_F(DefaultLoop, StartingARunningTimerRestartsItWithTheNewTimeout) {
    timer_record_t record;
    g_timerRecord = &record;
    orv_timer_ptr timer = orv_timer_create();
    orv_timer_setHandler(timer.get(), recordTimer);
    orv_timer_start(timer.get(), 1000);
    loop_.advance(600'000);
    orv_timer_start(timer.get(), 1000);
    loop_.advance(600'000);
    EXPECT_TRUE(record.calls.empty());
    loop_.advance(400'000);
    ASSERT_EQ(record.calls.size(), 1u);
    EXPECT_EQ(record.at[0], kStart + 999'999 + 1'600'000);

    orv_timer_start_us(timer.get(), 5);
    loop_.advance(5);
    EXPECT_EQ(record.calls.size(), 2u);
    g_timerRecord = nullptr;
}

TEST_F(DefaultLoop, StoppedAndDestroyedTimersDoNotFire) {
    timer_record_t record;
    g_timerRecord = &record;
    orv_timer_ptr stopped = orv_timer_create();
    orv_timer_ptr destroyed = orv_timer_create();
    orv_timer_setHandler(stopped.get(), recordTimer);
    orv_timer_setHandler(destroyed.get(), recordTimer);
    orv_timer_start(stopped.get(), 10);
    orv_timer_start(destroyed.get(), 10);
    EXPECT_TRUE(orv_timer_stop(stopped.get()));
    EXPECT_FALSE(orv_timer_isRunning(stopped.get()));
    destroyed.reset();
    EXPECT_FALSE(loop_.nextDeadline().has_value());
    loop_.advance(1'000'000);
    EXPECT_TRUE(record.calls.empty());
    g_timerRecord = nullptr;
}

TEST(TimerNullArguments, AreRefused) {
    EXPECT_FALSE(orv_timer_start(nullptr, 1));
    EXPECT_FALSE(orv_timer_start_us(nullptr, 1));
    EXPECT_FALSE(orv_timer_stop(nullptr));
    EXPECT_FALSE(orv_timer_isRunning(nullptr));
    EXPECT_FALSE(orv_timer_setHandler(nullptr, recordTimer));
    EXPECT_FALSE(orv_timer_setUserData(nullptr, nullptr));
    EXPECT_EQ(orv_timer_getUserData(nullptr), nullptr);
    orv_timer_deleter{}(nullptr);
}

}  // namespace
