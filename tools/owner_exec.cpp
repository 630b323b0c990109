#include "owner_exec.h"

#include <fcntl.h>
#include <signal.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// One pass, so that a value that holds a placeholder is not expanded again.
std::string substitute(std::string_view argument, std::string_view id, std::string_view state) {
    constexpr std::string_view kId = "{ID}";
    constexpr std::string_view kState = "{state}";
    std::string result;
    while (!argument.empty()) {
        if (argument.starts_with(kId)) {
            result += id;
            argument.remove_prefix(kId.size());
        } else if (argument.starts_with(kState)) {
            result += state;
            argument.remove_prefix(kState.size());
        } else {
            result += argument.front();
            argument.remove_prefix(1);
        }
    }
    return result;
}

// Owns both ends of a pipe.
struct pipe_t {
    int fds[2] = {-1, -1};
    ~pipe_t() {
        for (int fd : fds) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    void closeEnd(int end) {
        ::close(fds[end]);
        fds[end] = -1;
    }
};

// In the child, between fork and exec: only async-signal-safe calls. The
// owner blocks signals for its loop; the command gets them back.
[[noreturn]] void execChild(const std::vector<char*>& argv, int report) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    setpgid(0, 0);
    const int null = ::open("/dev/null", O_RDONLY);
    if (null >= 0) {
        dup2(null, STDIN_FILENO);
    }
    execvp(argv[0], argv.data());
    const int error = errno;
    [[maybe_unused]] ssize_t n = ::write(report, &error, sizeof error);
    _exit(127);
}

std::string describe(const siginfo_t& info) {
    if (info.si_code == CLD_EXITED) {
        return "exited " + std::to_string(info.si_status);
    }
    return std::string("killed by signal ") + std::to_string(info.si_status) + " (" +
           sigabbrev_np(info.si_status) + ")";
}

}  // namespace

std::vector<std::string> owner_substitute(const std::vector<std::string>& command,
                                          std::string_view id, std::string_view state) {
    std::vector<std::string> argv;
    for (const std::string& argument : command) {
        argv.push_back(substitute(argument, id, state));
    }
    return argv;
}

owner_exec_t::owner_exec_t(sd_event* event, std::vector<std::string> command,
                           std::chrono::milliseconds timeout, log_t log)
    : event_(event), command_(std::move(command)), timeout_(timeout), log_(std::move(log)) {}

owner_exec_t::~owner_exec_t() {
    if (pid_ > 0) {
        ::kill(-pid_, SIGTERM);
    }
}

owner_exec_t::counts_t owner_exec_t::counts() const {
    counts_t counts = counts_;
    counts.queued = queue_.size();
    return counts;
}

void owner_exec_t::run(const std::string& id, const std::string& state) {
    if (auto waiting = waiting_.find(id); waiting != waiting_.end()) {
        waiting->second->state = state;
        return;
    }
    waiting_.emplace(id, queue_.insert(queue_.end(), job_t{id, state}));
    if (pid_ == 0) {
        startNext();
    }
}

void owner_exec_t::startNext() {
    while (pid_ == 0 && !queue_.empty()) {
        job_t job = std::move(queue_.front());
        queue_.pop_front();
        waiting_.erase(job.id);
        if (!start(job)) {
            ++counts_.failed;
        }
    }
}

// Forks and executes argv in a process group of its own; its pid, or -1
// (with a log line) when it could not run at all. A pipe closed on exec
// tells whether exec worked.
pid_t owner_exec_t::spawn(const std::vector<std::string>& argv, const std::string& what) {
    std::vector<char*> pointers;
    for (const std::string& argument : argv) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    pipe_t report;
    if (::pipe2(report.fds, O_CLOEXEC) != 0) {
        log_(what + ": cannot start: " + std::strerror(errno));
        return -1;
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        log_(what + ": cannot start: " + std::strerror(errno));
        return -1;
    }
    if (pid == 0) {
        execChild(pointers, report.fds[1]);
    }
    setpgid(pid, pid);
    report.closeEnd(1);
    int error = 0;
    if (::read(report.fds[0], &error, sizeof error) == sizeof error) {
        log_(what + ": cannot run: " + std::strerror(error));
        ::waitpid(pid, nullptr, 0);
        return -1;
    }
    return pid;
}

// Starts the command for a job; false (with a log line) when it could not
// run at all or could not be followed.
bool owner_exec_t::start(const job_t& job) {
    const std::vector<std::string> argv = owner_substitute(command_, job.id, job.state);
    const std::string what = "\"" + job.id + "\" -> " + job.state + ": " + argv[0];
    const pid_t pid = spawn(argv, what);
    if (pid < 0) {
        return false;
    }
    sd_event_source* child = nullptr;
    sd_event_source* timer = nullptr;
    if (sd_event_add_child(event_, &child, pid, WEXITED, onChild, this) < 0 ||
        sd_event_add_time_relative(event_, &timer, CLOCK_MONOTONIC,
                                   std::chrono::microseconds(timeout_).count(), 0, onTimeout,
                                   this) < 0) {
        log_(what + ": cannot follow the command; killed");
        ::kill(-pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        orv_source_ptr(child).reset();
        return false;
    }
    child_.reset(child);
    timer_.reset(timer);
    current_ = job;
    pid_ = pid;
    started_ = std::chrono::steady_clock::now();
    timedOut_ = false;
    return true;
}

void owner_exec_t::finished(const siginfo_t& info) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - started_)
                        .count();
    const bool ok = info.si_code == CLD_EXITED && info.si_status == 0;
    ++counts_.run;
    counts_.failed += ok ? 0 : 1;
    log_("\"" + current_.id + "\" -> " + current_.state + ": " +
         (timedOut_ ? "killed at its time-out of " + std::to_string(timeout_.count()) + " ms"
                    : describe(info)) +
         " after " + std::to_string(ms) + " ms");
    pid_ = 0;
    child_.reset();
    timer_.reset();
    startNext();
}

int owner_exec_t::onChild(sd_event_source*, const siginfo_t* info, void* userdata) {
    try {
        static_cast<owner_exec_t*>(userdata)->finished(*info);
    } catch (...) {
    }
    return 0;
}

int owner_exec_t::onTimeout(sd_event_source*, std::uint64_t, void* userdata) {
    auto* self = static_cast<owner_exec_t*>(userdata);
    self->timedOut_ = true;
    // The whole group: a command that is a script takes its children along.
    ::kill(-self->pid_, SIGKILL);
    return 0;
}
