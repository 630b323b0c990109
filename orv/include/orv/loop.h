// The event loop and the clock behind one interface.
//
// The host has exactly one clock: the loop's. The daemon runs a loop on the
// system clock; tests run a virtual loop whose clock only moves when the test
// moves it. Timers count on the loop's monotonic clock, so setting the wall
// clock does not move their deadlines. Timers with equal deadlines fire in
// the order in which they were armed.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

class orv_loop_timer_t {
  public:
    virtual ~orv_loop_timer_t() = default;
    // Arms the timer to fire once, delay_us from now; re-arming moves it.
    virtual bool arm(std::uint64_t delay_us) = 0;
    virtual void disarm() = 0;
    virtual bool armed() const = 0;
};

class orv_loop_t {
  public:
    virtual ~orv_loop_t() = default;
    // Wall clock, microseconds since the epoch.
    virtual std::int64_t now_us() const = 0;
    // Monotonic clock, microseconds.
    virtual std::int64_t monotonic_us() const = 0;
    virtual std::unique_ptr<orv_loop_timer_t> createTimer(std::function<void()> callback) = 0;
    // Runs the callback on the loop soon, after the current callback returns.
    virtual void defer(std::function<void()> callback) = 0;
};

// The loop that timers and requests use when none is named: one per process.
void orv_loop_setDefault(orv_loop_t* loop);
orv_loop_t* orv_loop_default();

// The current time of the default loop in seconds since the epoch (0 without
// a loop), and in microseconds.
std::int64_t orv_time_now();
std::int64_t orv_time_now_us();

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
