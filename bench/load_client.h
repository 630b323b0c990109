// The client side of orv-load: its connection to the bus, the client object
// that receives setState, and timed round trips to the scheduler.
#pragma once

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orv/dbus_handle.h"
#include "orv/variant.h"

namespace load {

constexpr const char* kType = "Bench";
constexpr std::int64_t kNsPerSecond = 1000000000;

std::int64_t realtimeNs();
std::int64_t monotonicNs();

// A message on stderr; r, when negative, is the error number it adds.
void complain(const std::string& what, int r = 0);

// Dispatches what comes on the bus until done() holds or the monotonic
// deadline passes; false after a failure or at the deadline.
template <typename Done>
bool waitOn(sd_bus* bus, std::int64_t deadlineNs, Done done) {
    while (!done()) {
        const int r = sd_bus_process(bus, nullptr);
        if (r < 0) {
            complain("lost the bus", r);
            return false;
        }
        if (r > 0) {
            continue;
        }
        const std::int64_t left = deadlineNs - monotonicNs();
        if (left <= 0) {
            return false;
        }
        const int w = sd_bus_wait(bus, static_cast<std::uint64_t>(left / 1000 + 1));
        if (w < 0 && w != -EINTR) {
            complain("cannot wait for the bus", w);
            return false;
        }
    }
    return true;
}

struct arrival_t {
    std::string id;
    std::string state;
    std::int64_t realtimeNs;
};

// Owns org.orv.Bench and serves /Bench/Client (the data-model path
// Bench.Client), noting the wall-clock time at which each setState arrives.
class load_t {
  public:
    // False after a message on stderr.
    bool open(const std::string& address);
    void close();

    const std::vector<arrival_t>& arrivals() const { return arrivals_; }
    void clearArrivals() { arrivals_.clear(); }

    // A function of the scheduler with named arguments; its boolean result,
    // or nullopt after a message. *elapsedNs is the round trip alone: the
    // message is built before and read after it.
    std::optional<bool> call(const char* function, const variant_map_t& arguments,
                             std::int64_t* elapsedNs = nullptr);

    bool ping(std::int64_t* elapsedNs);

    // Dispatches what has arrived, without waiting.
    bool drain();

    // Dispatches arrivals as they come until done() holds or the monotonic
    // deadline passes; false after a failure or at the deadline.
    template <typename Done>
    bool waitFor(std::int64_t deadlineNs, Done done) {
        return waitOn(bus_.get(), deadlineNs, done);
    }

  private:
    bool roundTrip(sd_bus_message* m, orv_message_ptr* reply, const char* what,
                   std::int64_t* elapsedNs);

    static int onSetState(sd_bus_message* m, void* userdata, sd_bus_error*);
    static const sd_bus_vtable kVtable[];

    orv_bus_ptr bus_;
    orv_slot_ptr object_;
    std::vector<arrival_t> arrivals_;
};

}  // namespace load
