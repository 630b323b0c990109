// The daemon's event loop on sd-event.
#include "orv/sd_loop.h"

#include <systemd/sd-event.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <limits>

#include "orv/trace.h"

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

std::int64_t toMicroseconds(const timespec& ts) {
    return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000 + ts.tv_nsec / 1000;
}

// Inside a callback the loop's own timestamp keeps every reading of one
// iteration consistent; outside it that timestamp would be stale.
std::int64_t clockNow(sd_event* event, clockid_t clock) {
    std::uint64_t usec = 0;
    if (sd_event_get_state(event) == SD_EVENT_RUNNING && sd_event_now(event, clock, &usec) >= 0) {
        return static_cast<std::int64_t>(usec);
    }
    timespec ts{};
    clock_gettime(clock, &ts);
    return toMicroseconds(ts);
}

// Sets a one-shot time source to the given time, or turns it off for -1.
int setWakeup(sd_event_source* source, std::int64_t at_us) {
    if (at_us < 0) {
        return sd_event_source_set_enabled(source, SD_EVENT_OFF);
    }
    const int r = sd_event_source_set_time(source, static_cast<std::uint64_t>(at_us));
    return r < 0 ? r : sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
}

void setError(std::string* error, const char* what, int result) {
    if (error) {
        *error = std::string(what) + ": " + std::strerror(-result);
    }
}

// sd-event calls back from C: nothing may be thrown through it. Handlers
// return 0 in every case, since a negative result would disable the source.
template <typename F>
int guarded(const char* what, F&& body) noexcept {
    try {
        body();
    } catch (const std::exception& e) {
        tolvTrace(TRACE_LEVEL_ERROR, "%s callback threw: %s", what, e.what());
    } catch (...) {
        tolvTrace(TRACE_LEVEL_ERROR, "%s callback threw an unknown exception", what);
    }
    return 0;
}

}  // namespace

void orv_sd_loop_t::event_unref::operator()(sd_event* event) const {
    sd_event_unref(event);
}

void orv_sd_loop_t::source_unref::operator()(sd_event_source* source) const {
    sd_event_source_unref(source);
}

// ---------------------------------------------------------------------------
// Timers

class orv_sd_loop_t::timer_t final : public orv_loop_timer_t {
  public:
    timer_t(orv_sd_loop_t* loop, std::function<void()> callback)
        : loop_(loop), callback_(std::move(callback)) {}
    ~timer_t() override {
        disarm();
        if (loop_) {
            loop_->timers_.erase(this);
        }
    }

    bool arm(std::uint64_t delay_us) override {
        if (!loop_) {
            return false;
        }
        disarm();
        key_ = loop_->enqueue(this, delay_us);
        armed_ = true;
        return true;
    }
    void disarm() override {
        if (armed_ && loop_) {
            loop_->dequeue(key_);
        }
        armed_ = false;
    }
    bool armed() const override { return armed_; }

    orv_sd_loop_t* loop_;
    std::function<void()> callback_;
    key_t key_{0, 0};
    bool armed_ = false;
};

orv_sd_loop_t::key_t orv_sd_loop_t::enqueue(timer_t* timer, std::uint64_t delay_us) {
    const std::int64_t now = monotonic_us();
    const auto room = static_cast<std::uint64_t>(kMax - now);
    const std::int64_t deadline =
        delay_us > room ? kMax : now + static_cast<std::int64_t>(delay_us);
    const key_t key{deadline, sequence_++};
    queue_.emplace(key, timer);
    updateWakeup();
    return key;
}

void orv_sd_loop_t::dequeue(const key_t& key) {
    queue_.erase(key);
    updateWakeup();
}

// Keeps the wake-up source on the earliest deadline, or off with no timer.
// A finished loop runs nothing again and refuses changes to its sources.
void orv_sd_loop_t::updateWakeup() {
    const std::int64_t next = queue_.empty() ? -1 : queue_.begin()->first.first;
    if (next == wakeup_at_ || sd_event_get_state(event_.get()) == SD_EVENT_FINISHED) {
        return;
    }
    wakeup_at_ = next;
    const int r = setWakeup(wakeup_.get(), next);
    if (r < 0) {
        wakeup_at_ = -1;
        tolvTrace(TRACE_LEVEL_ERROR, "cannot set the timer wake-up: %s", std::strerror(-r));
    }
}

// Fires the earliest timer only: work it defers runs before the next one,
// which the wake-up source brings on the following iteration.
void orv_sd_loop_t::fireFirst() {
    auto first = queue_.begin();
    if (first == queue_.end() || first->first.first > monotonic_us()) {
        updateWakeup();
        return;
    }
    timer_t* timer = first->second;
    queue_.erase(first);
    timer->armed_ = false;
    updateWakeup();
    // The callback may destroy its own timer: run a copy.
    const std::function<void()> callback = timer->callback_;
    if (callback) {
        callback();
    }
}

std::unique_ptr<orv_loop_timer_t> orv_sd_loop_t::createTimer(std::function<void()> callback) {
    auto timer = std::make_unique<timer_t>(this, std::move(callback));
    timers_.insert(timer.get());
    return timer;
}

// ---------------------------------------------------------------------------
// sd-event handlers

struct orv_sd_loop_t::dispatch_t {
    static int wakeup(sd_event_source*, std::uint64_t, void* userdata) {
        auto* loop = static_cast<orv_sd_loop_t*>(userdata);
        // A one-shot source is off once it has fired.
        loop->wakeup_at_ = -1;
        return guarded("timer", [loop] { loop->fireFirst(); });
    }

    static int deferred(sd_event_source*, void* userdata) {
        auto* entry = static_cast<callback_source_t*>(userdata);
        // Taking the entry out releases its source when this returns; sd-event
        // frees a source released during its own dispatch afterwards.
        auto node = entry->loop->deferred_.extract(entry);
        return guarded("deferred", [&node] {
            if (!node.empty() && node.mapped()->callback) {
                node.mapped()->callback();
            }
        });
    }

    static int signal(sd_event_source*, const signalfd_siginfo*, void* userdata) {
        auto* entry = static_cast<callback_source_t*>(userdata);
        return guarded("signal", [entry] { entry->callback(); });
    }
};

// ---------------------------------------------------------------------------
// The loop

orv_sd_loop_t::orv_sd_loop_t(event_ptr event) : event_(std::move(event)) {}

std::unique_ptr<orv_sd_loop_t> orv_sd_loop_t::create(std::string* error) {
    sd_event* event = nullptr;
    int r = sd_event_new(&event);
    if (r < 0) {
        setError(error, "sd_event_new", r);
        return nullptr;
    }
    std::unique_ptr<orv_sd_loop_t> loop(new orv_sd_loop_t(event_ptr(event)));
    sd_event_source* wakeup = nullptr;
    // Accuracy 1 µs: sd-event would otherwise coalesce wake-ups and handle a
    // change due at a second some time after it.
    r = sd_event_add_time(event, &wakeup, CLOCK_MONOTONIC, 0, 1, dispatch_t::wakeup, loop.get());
    if (r < 0) {
        setError(error, "sd_event_add_time", r);
        return nullptr;
    }
    loop->wakeup_.reset(wakeup);
    r = sd_event_source_set_enabled(wakeup, SD_EVENT_OFF);
    if (r < 0) {
        setError(error, "sd_event_source_set_enabled", r);
        return nullptr;
    }
    return loop;
}

orv_sd_loop_t::~orv_sd_loop_t() {
    // Timers may outlive the loop: they stay, stopped and unable to start.
    for (timer_t* timer : timers_) {
        timer->armed_ = false;
        timer->loop_ = nullptr;
    }
    orv_loop_releaseDefault(this);
}

std::int64_t orv_sd_loop_t::now_us() const {
    return clockNow(event_.get(), CLOCK_REALTIME);
}

std::int64_t orv_sd_loop_t::monotonic_us() const {
    return clockNow(event_.get(), CLOCK_MONOTONIC);
}

void orv_sd_loop_t::defer(std::function<void()> callback) {
    if (!callback) {
        return;
    }
    auto entry =
        std::make_unique<callback_source_t>(callback_source_t{this, nullptr, std::move(callback)});
    sd_event_source* source = nullptr;
    // A defer source is one-shot by default.
    const int r = sd_event_add_defer(event_.get(), &source, dispatch_t::deferred, entry.get());
    if (r < 0) {
        tolvTrace(TRACE_LEVEL_ERROR, "cannot defer a callback: %s", std::strerror(-r));
        return;
    }
    entry->source.reset(source);
    callback_source_t* key = entry.get();
    deferred_.emplace(key, std::move(entry));
}

int orv_sd_loop_t::run() {
    return sd_event_loop(event_.get());
}

void orv_sd_loop_t::exit(int code) {
    const int r = sd_event_exit(event_.get(), code);
    if (r < 0) {
        tolvTrace(TRACE_LEVEL_ERROR, "cannot end the loop: %s", std::strerror(-r));
    }
}

bool orv_sd_loop_t::onSignal(int signal, std::function<void()> handler) {
    if (!handler || signals_.contains(signal)) {
        return false;
    }
    // A blocked signal waits for the loop's signalfd instead of running the
    // default action. Threads started afterwards inherit the mask.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) < 0) {
        tolvTrace(TRACE_LEVEL_ERROR, "cannot block signal %d: %s", signal, std::strerror(errno));
        return false;
    }
    auto entry =
        std::make_unique<callback_source_t>(callback_source_t{this, nullptr, std::move(handler)});
    sd_event_source* source = nullptr;
    const int r =
        sd_event_add_signal(event_.get(), &source, signal, dispatch_t::signal, entry.get());
    if (r < 0) {
        tolvTrace(TRACE_LEVEL_ERROR, "cannot watch signal %d: %s", signal, std::strerror(-r));
        return false;
    }
    entry->source.reset(source);
    signals_.emplace(signal, std::move(entry));
    return true;
}
