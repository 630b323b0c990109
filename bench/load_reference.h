// The bus's own delay, measured beside the lateness: a second connection of
// orv-load, on a thread of its own, sends the client a setState of the state
// "reference" at the middle of each second, woken by a timer just as orvd is.
// Its arrivals, from their half second, are what the bus alone costs; the
// lateness of a change beyond them is the scheduler's.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "load_client.h"

namespace load {

constexpr const char* kReferenceState = "reference";

class reference_t {
  public:
    reference_t() = default;
    ~reference_t() { stop(); }
    reference_t(const reference_t&) = delete;
    reference_t& operator=(const reference_t&) = delete;

    // Sends one call at half past each of count seconds from first, both in
    // seconds since the epoch; false after a message.
    bool start(const std::string& address, std::int64_t first, std::int64_t count);
    // Waits until every call has been sent, or stops the sending early.
    void join();
    void stop();
    std::int64_t sent() const { return sent_.load(); }

  private:
    void run(std::int64_t first, std::int64_t count);

    orv_bus_ptr bus_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<std::int64_t> sent_{0};
};

// How late each reference call arrived after its half second, in ms.
std::vector<double> referenceDelays(const load_t& load, std::int64_t first);

// The bus alone for a burst: a connection of its own, on a thread of its
// own, sends the client count one-way setState calls as fast as sd-bus
// takes them, from a whole second on, woken by a timer as orvd is. The time
// from that second to the last arrival is what the bus daemon needs to
// route the burst from a native sender to a native receiver, in ms; nullopt
// after a message. The client's arrivals are cleared first.
std::optional<double> burstReferenceMs(load_t& load, const std::string& address, std::size_t count);

}  // namespace load
