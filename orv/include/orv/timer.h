// One-shot timers on the default loop, as the plug-in uses them.
#pragma once

#include <cstdint>
#include <memory>

struct orv_timer_t;
using orv_timer_handler_t = void (*)(orv_timer_t* timer, void* userdata);

struct orv_timer_deleter {
    void operator()(orv_timer_t* timer) const;
};
// Destroying the owner stops and frees the timer.
using orv_timer_ptr = std::unique_ptr<orv_timer_t, orv_timer_deleter>;

// A new stopped timer with user data 0, or null when there is no loop.
orv_timer_ptr orv_timer_create();
bool orv_timer_setHandler(orv_timer_t* timer, orv_timer_handler_t handler);
// Starts the timer to fire once after timeout_ms; a running timer restarts
// with the new time-out.
bool orv_timer_start(orv_timer_t* timer, std::uint32_t timeout_ms);
// Like orv_timer_start with microsecond precision.
bool orv_timer_start_us(orv_timer_t* timer, std::uint64_t timeout_us);
bool orv_timer_stop(orv_timer_t* timer);
bool orv_timer_isRunning(const orv_timer_t* timer);
void* orv_timer_getUserData(const orv_timer_t* timer);
bool orv_timer_setUserData(orv_timer_t* timer, void* userdata);
