// The Time service on the bus: the property Status on /Time, the method
// setStatus while the status is forced, and a notification when the clock is
// set or the local time zone changes.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "orv/sd_loop.h"
#include "orv/service_runtime.h"
#include "time_sources.h"
#include "tool_bus.h"

inline constexpr const char* kSynchronized = "Synchronized";
inline constexpr const char* kUnsynchronized = "Unsynchronized";

// "orv-time: <what>: <strerror>" on stderr.
inline void time_complain(std::string_view what, int r) {
    tool_complain("orv-time", what, r);
}

// Serves /Time on the bus it is given, on the loop the bus is attached to.
class time_service_t {
  public:
    // With a forced status, Status stays as given until setStatus changes it;
    // without, it follows the system clock.
    time_service_t(orv_sd_loop_t* loop, bus_ptr bus, std::optional<std::string> forced);
    time_service_t(const time_service_t&) = delete;
    time_service_t& operator=(const time_service_t&) = delete;

    // 0, or exit code 1 after a message on stderr.
    int start(const orv_service_options_t& options);

  private:
    static const sd_bus_vtable kVtable[];

    static int getStatus(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                         void* userdata, sd_bus_error*);
    static int setStatus(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onBusMessage(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int onClockFd(sd_event_source*, int fd, uint32_t, void* userdata);
    static int onInotifyFd(sd_event_source*, int fd, uint32_t, void* userdata);

    static std::string currentStatus() {
        return time_clockSynchronized() ? kSynchronized : kUnsynchronized;
    }
    int setupBus();
    int setupClockWatch();
    int setupZoneWatch();
    void updateStatus(const std::string& status);
    void recheck();
    void notify(std::uint32_t type);
    void stop();
    int replySetStatus(sd_bus_message* m);

    orv_sd_loop_t* loop_;
    std::unique_ptr<orv_service_runtime_t> runtime_;
    // Declared before the slots and sources, so that those go first.
    bus_ptr bus_;
    bool forced_;
    std::string busName_;
    std::string status_;
    unique_fd_t clock_fd_;
    unique_fd_t inotify_fd_;
    slot_ptr object_slot_;
    slot_ptr filter_slot_;
    source_ptr clock_source_;
    source_ptr inotify_source_;
    std::unique_ptr<orv_loop_timer_t> recheck_timer_;
};
