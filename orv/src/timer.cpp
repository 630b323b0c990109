// One-shot timers on the default loop.
#include "orv/timer.h"

#include "orv/loop.h"

struct orv_timer_t {
    std::unique_ptr<orv_loop_timer_t> timer;
    orv_timer_handler_t handler = nullptr;
    void* userdata = nullptr;
};

void orv_timer_deleter::operator()(orv_timer_t* timer) const {
    if (!timer) {
        return;
    }
    if (timer->timer) {
        timer->timer->disarm();
    }
    delete timer;
}

orv_timer_ptr orv_timer_create() {
    orv_loop_t* loop = orv_loop_default();
    if (!loop) {
        return nullptr;
    }
    orv_timer_ptr timer(new orv_timer_t);
    orv_timer_t* raw = timer.get();
    raw->timer = loop->createTimer([raw]() {
        if (raw->handler) {
            raw->handler(raw, raw->userdata);
        }
    });
    if (!raw->timer) {
        return nullptr;
    }
    return timer;
}

bool orv_timer_setHandler(orv_timer_t* timer, orv_timer_handler_t handler) {
    if (!timer) {
        return false;
    }
    timer->handler = handler;
    return true;
}

bool orv_timer_start_us(orv_timer_t* timer, std::uint64_t timeout_us) {
    if (!timer || !timer->timer) {
        return false;
    }
    // Arming a running timer moves it to the new time-out.
    return timer->timer->arm(timeout_us);
}

bool orv_timer_start(orv_timer_t* timer, std::uint32_t timeout_ms) {
    return orv_timer_start_us(timer, static_cast<std::uint64_t>(timeout_ms) * 1000u);
}

bool orv_timer_stop(orv_timer_t* timer) {
    if (!timer || !timer->timer) {
        return false;
    }
    timer->timer->disarm();
    return true;
}

bool orv_timer_isRunning(const orv_timer_t* timer) {
    return timer && timer->timer && timer->timer->armed();
}

void* orv_timer_getUserData(const orv_timer_t* timer) {
    return timer ? timer->userdata : nullptr;
}

bool orv_timer_setUserData(orv_timer_t* timer, void* userdata) {
    if (!timer) {
        return false;
    }
    timer->userdata = userdata;
    return true;
}
