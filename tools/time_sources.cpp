#include "time_sources.h"

#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <sys/timex.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

namespace {

// Above this estimated error the kernel clock is not trusted as synchronised.
constexpr long kMaxErrorUs = 16000000;
constexpr const char* kTimesyncFlag = "/run/systemd/timesync/synchronized";

}  // namespace

bool time_clockSynchronized() {
    struct timex tx {};
    const int state = adjtimex(&tx);
    if (state >= 0 && state != TIME_ERROR && tx.maxerror < kMaxErrorUs) {
        return true;
    }
    return access(kTimesyncFlag, F_OK) == 0;
}

// Far in the future, so the timer only ever wakes up when the clock is set.
int time_armClockWatch(int fd) {
    struct itimerspec spec {};
    spec.it_value.tv_sec = std::numeric_limits<time_t>::max();
    return timerfd_settime(fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &spec, nullptr) < 0
               ? -errno
               : 0;
}

bool time_zoneChanged(int fd) {
    alignas(struct inotify_event) std::array<char, 4096> buffer{};
    bool zone_changed = false;
    for (;;) {
        const ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n <= 0) {
            break;
        }
        for (ssize_t at = 0; at < n;) {
            const auto* event = reinterpret_cast<const struct inotify_event*>(buffer.data() + at);
            if (event->len > 0 && std::strcmp(event->name, "localtime") == 0) {
                zone_changed = true;
            }
            at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
        }
    }
    return zone_changed;
}
