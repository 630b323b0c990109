#include "load_reference.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "orv/dbus_value.h"
#include "orv/protocol.h"

namespace load {

namespace {

constexpr std::int64_t kHalfSecondNs = kNsPerSecond / 2;

// Blocks until the wall clock reaches the time, as a timer of orvd's loop
// does: a timer descriptor, without the slack of a sleep.
bool sleepUntil(int fd, std::int64_t realtimeNs) {
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(realtimeNs / kNsPerSecond);
    when.it_value.tv_nsec = static_cast<long>(realtimeNs % kNsPerSecond);
    if (timerfd_settime(fd, TFD_TIMER_ABSTIME, &when, nullptr) < 0) {
        return false;
    }
    std::uint64_t expirations = 0;
    ssize_t n = 0;
    while ((n = read(fd, &expirations, sizeof expirations)) < 0 && errno == EINTR) {
    }
    return n == sizeof expirations;
}

// A one-way setState of the state "reference" to the client, of the same
// shape as the scheduler's; flushed at once when asked to.
int sendReference(sd_bus* bus, const std::string& id, bool flush) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, "org.orv.Bench", "/Bench/Client",
                                           orv_dbus_interface, "setState");
    orv_message_ptr m(raw);
    if (r < 0) {
        return r;
    }
    variant_map_t arguments;
    arguments.push_back({"ID", variant_t(id)});
    arguments.push_back({"state", variant_t(kReferenceState)});
    if ((r = orv_dbus_appendMap(raw, arguments)) < 0 ||
        (r = sd_bus_message_set_expect_reply(raw, 0)) < 0 ||
        (r = sd_bus_send(bus, raw, nullptr)) < 0) {
        return r;
    }
    return flush ? sd_bus_flush(bus) : r;
}

// Sends count calls from the whole second on; 0, or an error number.
int sendBurst(sd_bus* bus, std::int64_t second, std::size_t count) {
    const int fd = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC);
    if (fd < 0) {
        return -errno;
    }
    const bool woken = sleepUntil(fd, second * kNsPerSecond);
    close(fd);
    if (!woken) {
        return -EIO;
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (const int r = sendReference(bus, "B" + std::to_string(i), false); r < 0) {
            return r;
        }
    }
    const int r = sd_bus_flush(bus);
    return r < 0 ? r : 0;
}

// The latest arrival of the burst's calls, and how many came.
std::pair<std::int64_t, std::size_t> burstArrivals(const load_t& load) {
    std::int64_t last = 0;
    std::size_t count = 0;
    for (const arrival_t& arrival : load.arrivals()) {
        if (arrival.state == kReferenceState && arrival.id.starts_with('B')) {
            last = std::max(last, arrival.realtimeNs);
            ++count;
        }
    }
    return {last, count};
}

}  // namespace

bool reference_t::start(const std::string& address, std::int64_t first, std::int64_t count) {
    int r = 0;
    bus_ = orv_dbus_open(address, "orv-load-reference", &r);
    if (r < 0) {
        complain("cannot connect the reference to the bus " + address, r);
        return false;
    }
    thread_ = std::thread([this, first, count] { run(first, count); });
    return true;
}

void reference_t::run(std::int64_t first, std::int64_t count) {
    const int fd = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC);
    if (fd < 0) {
        complain("cannot make the reference's timer", -errno);
        return;
    }
    for (std::int64_t i = 0; i < count && !stopping_.load(); ++i) {
        if (!sleepUntil(fd, (first + i) * kNsPerSecond + kHalfSecondNs)) {
            complain("the reference's timer failed", -errno);
            break;
        }
        if (const int r = sendReference(bus_.get(), "R" + std::to_string(i), true); r < 0) {
            complain("cannot send the reference", r);
            break;
        }
        ++sent_;
    }
    close(fd);
}

void reference_t::join() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

void reference_t::stop() {
    stopping_ = true;
    join();
}

std::vector<double> referenceDelays(const load_t& load, std::int64_t first) {
    std::vector<double> delays;
    for (const arrival_t& arrival : load.arrivals()) {
        if (arrival.state != kReferenceState || arrival.id.size() < 2) {
            continue;
        }
        const std::int64_t due = (first + std::stoll(arrival.id.substr(1))) * kNsPerSecond;
        delays.push_back(static_cast<double>(arrival.realtimeNs - due - kHalfSecondNs) / 1e6);
    }
    return delays;
}

std::optional<double> burstReferenceMs(load_t& load, const std::string& address,
                                       std::size_t count) {
    int r = 0;
    orv_bus_ptr bus = orv_dbus_open(address, "orv-load-burst", &r);
    if (r < 0) {
        complain("cannot connect the burst's reference to the bus " + address, r);
        return std::nullopt;
    }
    load.clearArrivals();
    const std::int64_t second = realtimeNs() / kNsPerSecond + 2;
    std::atomic<int> sent{1};
    std::thread sender([&] { sent = sendBurst(bus.get(), second, count); });
    const std::int64_t deadline = monotonicNs() + 30 * kNsPerSecond;
    load.waitFor(deadline, [&] {
        return sent.load() < 0 ||
               (load.arrivals().size() >= count && burstArrivals(load).second >= count);
    });
    sender.join();
    const auto [last, arrived] = burstArrivals(load);
    if (sent.load() < 0 || arrived != count) {
        complain("the burst's reference: " + std::to_string(arrived) + " of " +
                     std::to_string(count) + " calls arrived",
                 sent.load());
        return std::nullopt;
    }
    return static_cast<double>(last - second * kNsPerSecond) / 1e6;
}

}  // namespace load
