// Owns a file descriptor: closed when the owner goes, moved but never copied.
#pragma once

#include <unistd.h>

#include <utility>

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
    // Closes now, so that a failed close (a write the kernel could not
    // finish) is seen.
    bool close() { return ::close(std::exchange(fd_, -1)) == 0; }

  private:
    int fd_;
};
