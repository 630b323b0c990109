// The virtual loop of the tests.
#include "orv/virtual_loop.h"

#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {

// A bound on the work one call of the virtual loop may do, so that a timer
// that re-arms itself with no delay cannot hang a test forever.
constexpr std::uint64_t kIterationLimit = 5'000'000;

[[noreturn]] void tooManyIterations(const char* where) {
    std::fprintf(stderr,
                 "orv_virtual_loop_t::%s: more than %llu callbacks without the clock "
                 "moving on; a timer or deferred callback re-arms itself forever\n",
                 where, static_cast<unsigned long long>(kIterationLimit));
    std::abort();
}

}  // namespace

class orv_virtual_loop_t::timer_t final : public orv_loop_timer_t {
  public:
    timer_t(orv_virtual_loop_t* loop, std::function<void()> callback)
        : loop_(loop), callback_(std::move(callback)) {}
    ~timer_t() override;

    bool arm(std::uint64_t delay_us) override;
    void disarm() override;
    bool armed() const override { return armed_; }

    orv_virtual_loop_t* loop_;
    std::function<void()> callback_;
    std::pair<std::int64_t, std::uint64_t> key_{0, 0};
    bool armed_ = false;
};

orv_virtual_loop_t::timer_t::~timer_t() {
    disarm();
    if (loop_) {
        loop_->timers_.erase(this);
    }
}

bool orv_virtual_loop_t::timer_t::arm(std::uint64_t delay_us) {
    if (!loop_) {
        return false;
    }
    disarm();
    const std::int64_t now = loop_->monotonic_us_;
    const std::uint64_t room =
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max() - now);
    const std::int64_t deadline = delay_us > room ? std::numeric_limits<std::int64_t>::max()
                                                  : now + static_cast<std::int64_t>(delay_us);
    key_ = {deadline, loop_->sequence_++};
    loop_->queue_.emplace(key_, this);
    armed_ = true;
    return true;
}

void orv_virtual_loop_t::timer_t::disarm() {
    if (armed_ && loop_) {
        loop_->queue_.erase(key_);
    }
    armed_ = false;
}

orv_virtual_loop_t::orv_virtual_loop_t(std::int64_t start_us) : wall_offset_us_(start_us) {}

orv_virtual_loop_t::~orv_virtual_loop_t() {
    for (timer_t* timer : timers_) {
        timer->armed_ = false;
        timer->loop_ = nullptr;
    }
    queue_.clear();
    orv_loop_releaseDefault(this);
}

std::unique_ptr<orv_loop_timer_t> orv_virtual_loop_t::createTimer(std::function<void()> callback) {
    auto timer = std::make_unique<timer_t>(this, std::move(callback));
    timers_.insert(timer.get());
    return timer;
}

void orv_virtual_loop_t::defer(std::function<void()> callback) {
    if (callback) {
        deferred_.push_back(std::move(callback));
    }
}

void orv_virtual_loop_t::runDeferred() {
    std::uint64_t count = 0;
    while (!deferred_.empty()) {
        std::vector<std::function<void()>> batch;
        batch.swap(deferred_);
        for (std::size_t i = 0; i < batch.size(); ++i) {
            if (++count > kIterationLimit) {
                tooManyIterations("runDeferred");
            }
            batch[i]();
        }
    }
}

bool orv_virtual_loop_t::fireNext(std::int64_t limit_us) {
    if (queue_.empty()) {
        return false;
    }
    auto it = queue_.begin();
    if (it->first.first > limit_us) {
        return false;
    }
    timer_t* timer = it->second;
    queue_.erase(it);
    timer->armed_ = false;
    if (timer->key_.first > monotonic_us_) {
        monotonic_us_ = timer->key_.first;
    }
    // The callback may destroy its own timer: run a copy.
    std::function<void()> callback = timer->callback_;
    if (callback) {
        callback();
    }
    runDeferred();
    return true;
}

void orv_virtual_loop_t::runPending() {
    runDeferred();
    std::uint64_t count = 0;
    while (fireNext(monotonic_us_)) {
        if (++count > kIterationLimit) {
            tooManyIterations("runPending");
        }
    }
}

void orv_virtual_loop_t::advance(std::int64_t delta_us) {
    if (delta_us < 0) {
        delta_us = 0;
    }
    const std::int64_t room = std::numeric_limits<std::int64_t>::max() - monotonic_us_;
    const std::int64_t target =
        delta_us > room ? std::numeric_limits<std::int64_t>::max() : monotonic_us_ + delta_us;
    runDeferred();
    std::uint64_t count = 0;
    while (fireNext(target)) {
        if (++count > kIterationLimit) {
            tooManyIterations("advance");
        }
    }
    if (target > monotonic_us_) {
        monotonic_us_ = target;
    }
    runDeferred();
}

void orv_virtual_loop_t::advanceTo(std::int64_t wall_us) {
    const std::int64_t now = now_us();
    if (wall_us > now) {
        advance(wall_us - now);
    }
}

void orv_virtual_loop_t::setWallClock(std::int64_t wall_us) {
    wall_offset_us_ = wall_us - monotonic_us_;
    runPending();
}

std::optional<std::int64_t> orv_virtual_loop_t::nextDeadline() const {
    if (queue_.empty()) {
        return std::nullopt;
    }
    return queue_.begin()->first.first;
}
