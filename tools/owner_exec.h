// The commands an owner runs for the states it receives: one at a time, in
// the order the states came, as argv (never through a shell), each in a
// process group of its own that is killed when it overruns its time-out.
// A schedule waits at most once: a newer state for an ID whose command has
// not started yet takes the place of the older one, so the queue never holds
// more than one command per schedule and no state is lost, however many
// schedules tell their states at once.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "orv/dbus_handle.h"

struct sd_event;

// The command with every "{ID}" and "{state}" replaced, also inside longer
// arguments.
std::vector<std::string> owner_substitute(const std::vector<std::string>& command,
                                          std::string_view id, std::string_view state);

class owner_exec_t {
  public:
    using log_t = std::function<void(const std::string& line)>;
    struct counts_t {
        std::size_t queued = 0;
        std::size_t run = 0;
        std::size_t failed = 0;
    };
    // SIGCHLD must be blocked before: sd-event reaps the children.
    owner_exec_t(sd_event* event, std::vector<std::string> command,
                 std::chrono::milliseconds timeout, log_t log);
    // A command still running is sent SIGTERM with its group.
    ~owner_exec_t();
    owner_exec_t(const owner_exec_t&) = delete;
    owner_exec_t& operator=(const owner_exec_t&) = delete;

    void run(const std::string& id, const std::string& state);
    counts_t counts() const;

  private:
    struct job_t {
        std::string id;
        std::string state;
    };
    void startNext();
    pid_t spawn(const std::vector<std::string>& argv, const std::string& what);
    bool start(const job_t& job);
    void finished(const siginfo_t& info);
    static int onChild(sd_event_source* source, const siginfo_t* info, void* userdata);
    static int onTimeout(sd_event_source* source, std::uint64_t usec, void* userdata);

    sd_event* event_;
    std::vector<std::string> command_;
    std::chrono::milliseconds timeout_;
    log_t log_;
    std::list<job_t> queue_;
    // Where each waiting ID is in the queue.
    std::unordered_map<std::string, std::list<job_t>::iterator> waiting_;
    // The running command: its job, process (group), start and sources.
    job_t current_;
    pid_t pid_ = 0;
    std::chrono::steady_clock::time_point started_;
    bool timedOut_ = false;
    orv_source_ptr child_;
    orv_source_ptr timer_;
    counts_t counts_;
};
