// The daemon's event loop: liborv's loop interface on sd-event.
//
// Timers count on CLOCK_MONOTONIC to the microsecond. sd-event does not keep
// the order of sources that fall due in the same iteration, so the loop keeps
// its own queue ordered by (deadline, arming sequence) and wakes up through a
// single time source set to the earliest deadline. It fires one timer per
// iteration, so work a timer defers runs before the next timer.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "orv/loop.h"

struct sd_event;
struct sd_event_source;

class orv_sd_loop_t final : public orv_loop_t {
  public:
    // A new loop, or null with the reason in *error (when error is not null).
    static std::unique_ptr<orv_sd_loop_t> create(std::string* error);
    ~orv_sd_loop_t() override;
    orv_sd_loop_t(const orv_sd_loop_t&) = delete;
    orv_sd_loop_t& operator=(const orv_sd_loop_t&) = delete;

    std::int64_t now_us() const override;
    std::int64_t monotonic_us() const override;
    std::unique_ptr<orv_loop_timer_t> createTimer(std::function<void()> callback) override;
    void defer(std::function<void()> callback) override;

    // The underlying loop, for other sources such as a bus connection.
    sd_event* event() const { return event_.get(); }
    // Runs until exit() and returns its code, or a negative errno on failure.
    int run();
    void exit(int code);
    // Blocks the signal and calls the handler on the loop when it arrives.
    // The signal stays blocked when the loop goes away.
    bool onSignal(int signal, std::function<void()> handler);

  private:
    struct event_unref {
        void operator()(sd_event* event) const;
    };
    struct source_unref {
        void operator()(sd_event_source* source) const;
    };
    using event_ptr = std::unique_ptr<sd_event, event_unref>;
    using source_ptr = std::unique_ptr<sd_event_source, source_unref>;
    using key_t = std::pair<std::int64_t, std::uint64_t>;
    class timer_t;
    struct callback_source_t {
        orv_sd_loop_t* loop;
        source_ptr source;
        std::function<void()> callback;
    };

    // The sd-event handlers, defined next to the implementation.
    struct dispatch_t;
    friend struct dispatch_t;

    explicit orv_sd_loop_t(event_ptr event);
    key_t enqueue(timer_t* timer, std::uint64_t delay_us);
    void dequeue(const key_t& key);
    void updateWakeup();
    void fireFirst();

    // Declared first so that it is released last, after every source.
    event_ptr event_;
    source_ptr wakeup_;
    std::int64_t wakeup_at_ = -1;  // the time wakeup_ is set to, -1 when off
    std::uint64_t sequence_ = 0;
    std::map<key_t, timer_t*> queue_;
    std::unordered_set<timer_t*> timers_;
    std::unordered_map<callback_source_t*, std::unique_ptr<callback_source_t>> deferred_;
    std::unordered_map<int, std::unique_ptr<callback_source_t>> signals_;
};
