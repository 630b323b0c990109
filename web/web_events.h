// The console's live updates: a thread of its own with its own bus
// connection turns the scheduler's signals into Server-Sent Events, and
// hands each open stream its copy. A stream that falls too far behind is
// ended instead of growing; the page then reconnects and reads everything
// anew.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "orv/dbus_handle.h"

class web_events_t {
  public:
    static constexpr std::size_t kMaxStreams = 8;

    // One open stream's queue of event texts.
    struct stream_t {
        std::deque<std::string> queue;
        bool lost = false;
    };

    // Connects and starts the thread; throws std::runtime_error without a bus.
    explicit web_events_t(std::string address);
    ~web_events_t();
    web_events_t(const web_events_t&) = delete;
    web_events_t& operator=(const web_events_t&) = delete;

    // A new stream that starts with the scheduler's presence; null when
    // kMaxStreams are open.
    std::shared_ptr<stream_t> open();
    void close(const std::shared_ptr<stream_t>& stream);
    // The next event text, "" when none came within the wait, nullopt when
    // the stream is over (lost, or the service stops).
    std::optional<std::string> next(stream_t& stream, std::chrono::milliseconds wait);
    // Ends every stream's wait, for a clean stop.
    void shutdown();

    // Called from the bus thread's handlers.
    void publish(const std::string& event, const std::string& data);
    void setPresent(bool present);

  private:
    void run();
    bool connect();

    std::string address_;
    orv_bus_ptr bus_;
    std::vector<orv_slot_ptr> matches_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::shared_ptr<stream_t>> streams_;
    std::atomic<bool> present_{false};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};
