// The default loop and the current time.
#include "orv/loop.h"

#include <atomic>

namespace {

std::atomic<orv_loop_t*> g_defaultLoop{nullptr};

std::int64_t floorDiv(std::int64_t value, std::int64_t divisor) {
    std::int64_t q = value / divisor;
    if ((value % divisor != 0) && ((value < 0) != (divisor < 0))) {
        --q;
    }
    return q;
}

}  // namespace

void orv_loop_setDefault(orv_loop_t* loop) {
    g_defaultLoop.store(loop);
}

orv_loop_t* orv_loop_default() {
    return g_defaultLoop.load();
}

void orv_loop_releaseDefault(const orv_loop_t* loop) {
    orv_loop_t* expected = const_cast<orv_loop_t*>(loop);
    g_defaultLoop.compare_exchange_strong(expected, nullptr);
}

std::int64_t orv_time_now() {
    orv_loop_t* loop = orv_loop_default();
    return loop ? floorDiv(loop->now_us(), 1'000'000) : 0;
}

std::int64_t orv_time_now_us() {
    orv_loop_t* loop = orv_loop_default();
    return loop ? loop->now_us() : 0;
}
