// What orv-time watches in the kernel: whether the clock is synchronised,
// when it is set, and when the local time zone file changes.
#pragma once

#include <unistd.h>

#include <utility>

// Owns a file descriptor.
class unique_fd_t {
  public:
    explicit unique_fd_t(int fd = -1) : fd_(fd) {}
    ~unique_fd_t() { reset(); }
    unique_fd_t(unique_fd_t&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd_t& operator=(unique_fd_t&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    unique_fd_t(const unique_fd_t&) = delete;
    unique_fd_t& operator=(const unique_fd_t&) = delete;
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = -1;
    }

  private:
    int fd_;
};

// The kernel's view, or the flag file that the time synchronisation daemon
// leaves once it has set the clock.
bool time_clockSynchronized();
// Arms a CLOCK_REALTIME timerfd so that it wakes up only when the clock is
// set. 0, or a negative errno.
int time_armClockWatch(int fd);
// Drains an inotify descriptor that watches /etc; true when one of its events
// concerns the local time zone file.
bool time_zoneChanged(int fd);
