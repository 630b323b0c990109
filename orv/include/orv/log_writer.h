// Where a program's trace lines go: standard error or a file.
//
// A line is handed to a thread of the writer's own and written from there,
// so a reader that stops reading, a full disk or a closed pipe never blocks
// the caller's loop and never ends the process. Lines that find the queue
// full, or whose write fails, are dropped and counted; once a write works
// again the count is written first, in a line of its own.
//
// When standard error is the journal's stream (systemd says so in
// JOURNAL_STREAM), each line starts with its priority, "<3>" to "<7>", so
// that the journal files it as an error, a warning and so on.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "orv/unique_fd.h"

class orv_log_writer_t {
  public:
    struct options_t {
        // Empty for standard error.
        std::string path;
        // How much text may wait for the thread before new lines are
        // dropped: a log that is not read costs at most this much memory.
        std::size_t queueBytes = 64 * 1024;
    };

    // Opens the target; null with the reason in *error when the file cannot
    // be opened for appending.
    static std::unique_ptr<orv_log_writer_t> open(options_t options, std::string* error);
    // Writes what is queued, as long as the target takes it, and stops the
    // thread.
    ~orv_log_writer_t();
    orv_log_writer_t(const orv_log_writer_t&) = delete;
    orv_log_writer_t& operator=(const orv_log_writer_t&) = delete;

    // Queues one line (without its newline) at a trace level. Never blocks
    // on the target.
    void write(int level, std::string_view line);
    // Opens the file again by its name, for a log rotated away; standard
    // error stays as it is. False with the reason when it cannot be opened;
    // the old file is kept then.
    bool reopen(std::string* error);
    // Lines dropped since the start.
    std::uint64_t dropped() const;
    // Waits until the queue is empty or the target stalls; for tests and for
    // the end of a program.
    void flush();

    // The journal's priority of a trace level.
    static int priorityOf(int level);

  private:
    explicit orv_log_writer_t(options_t options);
    void run();
    bool writeLine(const std::string& line);
    std::string droppedLine(std::uint64_t count) const;

    options_t options_;
    unique_fd_t file_;
    int fd_ = 2;
    bool journal_ = false;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::deque<std::string> queue_;
    std::size_t queuedBytes_ = 0;
    std::optional<unique_fd_t> reopened_;
    bool busy_ = false;
    bool stalled_ = false;
    bool stopping_ = false;
    std::uint64_t dropped_ = 0;
    std::uint64_t unreported_ = 0;
    std::thread thread_;
};
