// The event loop and the clock behind one interface.
//
// The host has exactly one clock: the loop's. The daemon runs a loop on the
// system clock (sd_loop.h); tests run a virtual loop whose clock only moves
// when the test moves it (virtual_loop.h). Timers count on the loop's
// monotonic clock, so setting the wall clock does not move their deadlines.
// Timers with equal deadlines fire in the order in which they were armed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

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
// Clears the default loop if it is this one: a loop that ends calls it, so
// that nothing is left pointing at it.
void orv_loop_releaseDefault(const orv_loop_t* loop);

// The current time of the default loop in seconds since the epoch (0 without
// a loop), and in microseconds.
std::int64_t orv_time_now();
std::int64_t orv_time_now_us();
