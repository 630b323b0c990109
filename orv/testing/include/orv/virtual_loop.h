// The virtual loop of the tests: a clock that stands still until the test
// moves it. Tests, fuzzers and benchmarks link it; the daemon never does.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "orv/loop.h"

// The virtual loop. Nothing happens until the test moves the clock or asks
// for deferred work to run; then timers fire in deadline order, each with the
// clock set to its own deadline.
class orv_virtual_loop_t final : public orv_loop_t {
  public:
    explicit orv_virtual_loop_t(std::int64_t start_us = 0);
    ~orv_virtual_loop_t() override;

    std::int64_t now_us() const override { return wall_offset_us_ + monotonic_us_; }
    std::int64_t monotonic_us() const override { return monotonic_us_; }
    std::unique_ptr<orv_loop_timer_t> createTimer(std::function<void()> callback) override;
    void defer(std::function<void()> callback) override;

    // Runs deferred callbacks and timers already due, without moving the clock.
    void runPending();
    // Moves both clocks forward, firing everything that falls due on the way.
    void advance(std::int64_t delta_us);
    // Moves forward to the given wall-clock time (no-op if it lies behind).
    void advanceTo(std::int64_t wall_us);
    // Sets the wall clock, as when the system clock is set: timers keep their
    // monotonic deadlines. Runs pending work afterwards.
    void setWallClock(std::int64_t wall_us);
    // The monotonic deadline of the earliest armed timer, if any.
    std::optional<std::int64_t> nextDeadline() const;

  private:
    class timer_t;
    friend class timer_t;
    bool fireNext(std::int64_t limit_us);
    void runDeferred();

    std::int64_t wall_offset_us_;
    std::int64_t monotonic_us_ = 0;
    std::uint64_t sequence_ = 0;
    // (deadline, arming sequence) -> timer: equal deadlines fire in arming order.
    std::map<std::pair<std::int64_t, std::uint64_t>, timer_t*> queue_;
    std::vector<std::function<void()>> deferred_;
    // Every timer made by this loop, so that a loop that ends first can
    // detach the timers that outlive it.
    std::unordered_set<timer_t*> timers_;
};
