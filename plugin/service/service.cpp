#include "service.h"

#include "orv/loop.h"

service_t::~service_t() {
    if (lookup != nullptr) {
        request_destroy(lookup);
    }
}

std::int64_t service_nowUs() {
    return orv_time_now_us();
}

time_t service_now() {
    return service_secondOf(service_nowUs());
}

time_t service_secondOf(std::int64_t us) {
    constexpr std::int64_t kMicro = 1'000'000;
    const std::int64_t second = us / kMicro;
    return static_cast<time_t>(us % kMicro < 0 ? second - 1 : second);
}
