// Processes orv-load starts and looks at: a child that is stopped and reaped
// when its owner goes, a folder that is removed with its owner, and the
// figures the kernel keeps of a running process.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace load {

// A started program; its owner sends it SIGTERM and reaps it.
class child_t {
  public:
    child_t() = default;
    ~child_t() { stop(); }
    child_t(child_t&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
    child_t& operator=(child_t&& other) noexcept;
    child_t(const child_t&) = delete;
    child_t& operator=(const child_t&) = delete;

    // Starts argv (looked up on PATH) with its output and errors going to
    // the file output; false after a message.
    bool spawn(const std::vector<std::string>& argv, const std::string& output);
    // SIGTERM, then waits for the end.
    void stop();
    // True while the program has not ended.
    bool running();
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
};

// A new folder under the temporary one, removed with everything in it.
class temp_dir_t {
  public:
    temp_dir_t() = default;
    ~temp_dir_t();
    temp_dir_t(const temp_dir_t&) = delete;
    temp_dir_t& operator=(const temp_dir_t&) = delete;

    // False after a message.
    bool create();
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

// The number in a line "field: N ..." of /proc/PID/status, e.g. VmRSS in
// KiB; nullopt when there is no such process or line.
std::optional<std::int64_t> processStatus(pid_t pid, const std::string& field);

// The same field summed over every thread of the process: context switches
// are counted per thread.
std::optional<std::int64_t> threadsStatus(pid_t pid, const std::string& field);

}  // namespace load
