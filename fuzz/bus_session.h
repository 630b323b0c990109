// The host each input of fuzz_bus_functions runs on, the actions both input
// forms take on it, and the checks made after each action and at the end.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "virtual_host.h"

namespace fuzz {

// Start times: an ordinary day, daylight-saving switches in Europe, the end
// of a leap February, the end of a year, and just before the end of 32-bit
// time.
inline constexpr std::int64_t kStarts[] = {1700000000, 1711839600, 1729987200,
                                           1709164800, 1704067199, 2147483000};

// The notifications of the Time service that make the plug-in recompute.
inline constexpr std::uint32_t kTimeNotifications[] = {926, 927, 928, 1, 4};

inline constexpr const char* kClients[] = {"Device.Light", "Device.Fan"};

// Zones with daylight-saving time, one of them with a 30-minute shift.
inline constexpr const char* kZones[] = {"UTC", "Europe/Berlin", "Australia/Lord_Howe"};

// The actions both input forms take, and the check made after each one:
// nothing may reach a client before the clock was synchronised.
class session_t {
  public:
    session_t(virtual_host_t& host, bool synchronized, bool timePublished)
        : host_(host), synchronized_(synchronized), timePublished_(timePublished) {}

    virtual_host_t& host() { return host_; }
    bool synchronized() const { return synchronized_; }

    void call(const std::string& function, std::string_view json);
    void advanceMs(std::int64_t milliseconds);
    // Publishes "Time" with that status the first time, then changes it.
    void timeStatus(std::string_view status);
    void notifyTime(std::vector<std::uint32_t> types);
    // The Time service announces every clock change it makes.
    void setClock(std::int64_t delta);
    void client(std::string_view path, bool add);

  private:
    static constexpr std::int64_t kMaxAdvanceMs = std::int64_t{864000} * 1000;
    static constexpr std::int64_t kMaxClockJump = std::int64_t{400} * 86400;

    void afterStep();

    virtual_host_t& host_;
    bool synchronized_;
    bool timePublished_;
};

// What a host starts with.
struct setup_t {
    std::int64_t start = kStarts[0];
    const char* zone = kZones[0];
    bool verbose = false;
    std::optional<std::string> timeStatus = "Synchronized";
    std::vector<const char*> clients;
};

// Runs the actions on a fresh host made from the setup, then checks the
// service and shuts the host down, so that the next input finds the plug-in
// cleaned up.
void runHost(const setup_t& setup, const std::function<void(session_t&)>& actions);

}  // namespace fuzz
