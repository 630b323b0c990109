#include "service.h"

#include "orv/loop.h"

service_t::~service_t() {
    if (lookup != nullptr) {
        request_destroy(lookup);
    }
}

time_t service_now() {
    return static_cast<time_t>(orv_time_now());
}
