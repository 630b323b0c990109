#include "orv/log_writer.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "orv/trace.h"

namespace {

// A line longer than what a pipe takes in one piece is cut: a pipe writes
// at most this much at once, so a write after poll never blocks.
constexpr std::size_t kLongestLine = 4000;
// How long the thread waits for a stalled target before it looks at whether
// it should stop.
constexpr int kPollMs = 200;

// True when fd is the stream systemd connected to the journal.
bool isJournal(int fd) {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat st {};
    if (stream == nullptr || fstat(fd, &st) != 0) {
        return false;
    }
    unsigned long long device = 0;
    unsigned long long inode = 0;
    return std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 && device == st.st_dev &&
           inode == st.st_ino;
}

unique_fd_t openForAppending(const std::string& path, std::string* error) {
    unique_fd_t fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640));
    if (fd.get() < 0 && error != nullptr) {
        *error = "cannot open the log " + path + ": " + std::strerror(errno);
    }
    return fd;
}

bool isSocket(int fd) {
    struct stat st {};
    return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

// One write that cannot block: the target was ready, and a socket is told
// not to wait. A closed socket or pipe answers EPIPE without a signal (the
// writer's thread blocks SIGPIPE).
ssize_t writeSome(int fd, const char* data, std::size_t size) {
    if (isSocket(fd)) {
        return ::send(fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    return ::write(fd, data, size);
}

}  // namespace

std::unique_ptr<orv_log_writer_t> orv_log_writer_t::open(options_t options, std::string* error) {
    unique_fd_t file;
    if (!options.path.empty()) {
        file = openForAppending(options.path, error);
        if (file.get() < 0) {
            return nullptr;
        }
    }
    std::unique_ptr<orv_log_writer_t> writer(new orv_log_writer_t(std::move(options)));
    if (file.get() >= 0) {
        writer->fd_ = file.get();
        writer->file_ = std::move(file);
    }
    writer->journal_ = writer->options_.path.empty() && isJournal(writer->fd_);
    // The thread takes none of the signals a program is sent: one such as
    // SIGTERM must reach the loop that waits for it, and a closed pipe must
    // not end the process. Faults such as SIGSEGV stay with the thread that
    // causes them.
    sigset_t blocked;
    sigset_t previous;
    sigemptyset(&blocked);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGPIPE, SIGCHLD,
                             SIGALRM, SIGWINCH}) {
        sigaddset(&blocked, signal);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    writer->thread_ = std::thread([w = writer.get()] { w->run(); });
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return writer;
}

orv_log_writer_t::orv_log_writer_t(options_t options) : options_(std::move(options)) {}

orv_log_writer_t::~orv_log_writer_t() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

int orv_log_writer_t::priorityOf(int level) {
    if (level < TRACE_LEVEL_WARNING) {
        return 3;
    }
    if (level < TRACE_LEVEL_NOTICE) {
        return 4;
    }
    if (level < TRACE_LEVEL_APP_INFO) {
        return 5;
    }
    return level < TRACE_LEVEL_CALLSTACK ? 6 : 7;
}

void orv_log_writer_t::write(int level, std::string_view line) {
    std::string text;
    if (journal_) {
        text = "<" + std::to_string(priorityOf(level)) + ">";
    }
    text.append(line.substr(0, kLongestLine));
    text.push_back('\n');
    {
        std::lock_guard lock(mutex_);
        if (queuedBytes_ + text.size() > options_.queueBytes) {
            ++dropped_;
            ++unreported_;
            return;
        }
        queuedBytes_ += text.size();
        queue_.push_back(std::move(text));
    }
    wake_.notify_one();
}

bool orv_log_writer_t::reopen(std::string* error) {
    if (options_.path.empty()) {
        return true;
    }
    unique_fd_t fd = openForAppending(options_.path, error);
    if (fd.get() < 0) {
        return false;
    }
    {
        std::lock_guard lock(mutex_);
        reopened_ = std::move(fd);
    }
    wake_.notify_one();
    return true;
}

std::uint64_t orv_log_writer_t::dropped() const {
    std::lock_guard lock(mutex_);
    return dropped_;
}

void orv_log_writer_t::flush() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return (queue_.empty() && !busy_) || stalled_; });
}

// Writes one whole line, waiting for the target as long as it is there; false
// when the target failed, or stalled while the writer stops.
bool orv_log_writer_t::writeLine(const std::string& line) {
    std::size_t done = 0;
    while (done < line.size()) {
        pollfd ready{fd_, POLLOUT, 0};
        const int r = poll(&ready, 1, kPollMs);
        if (r < 0 && errno != EINTR) {
            return false;
        }
        if (r <= 0) {
            std::lock_guard lock(mutex_);
            stalled_ = true;
            idle_.notify_all();
            if (stopping_) {
                return false;
            }
            continue;
        }
        const ssize_t n = writeSome(fd_, line.data() + done, line.size() - done);
        if (n < 0 && errno != EINTR && errno != EAGAIN) {
            return false;
        }
        done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return true;
}

// Takes the next line, or the file opened again, until the writer stops and
// nothing is left. A count of dropped lines goes before the first line that
// follows them.
void orv_log_writer_t::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty() || reopened_; });
        if (reopened_) {
            file_ = std::move(*reopened_);
            reopened_.reset();
            fd_ = file_.get();
        }
        if (queue_.empty()) {
            if (stopping_) {
                return;
            }
            continue;
        }
        std::string line = std::move(queue_.front());
        queue_.pop_front();
        queuedBytes_ -= line.size();
        const std::uint64_t lost = std::exchange(unreported_, 0);
        busy_ = true;
        lock.unlock();
        const bool noticed = lost == 0 || writeLine(droppedLine(lost));
        const bool written = noticed && writeLine(line);
        lock.lock();
        busy_ = false;
        stalled_ = false;
        if (!written) {
            ++dropped_;
            unreported_ += (noticed ? 0 : lost) + 1;
            if (stopping_) {
                // The target failed or stalled while the writer stops: what
                // still waits is dropped rather than holding up the exit by
                // a wait for each line.
                dropped_ += queue_.size();
                queue_.clear();
                queuedBytes_ = 0;
            }
        }
        idle_.notify_all();
    }
}

std::string orv_log_writer_t::droppedLine(std::uint64_t count) const {
    std::string text = journal_ ? "<4>" : "";
    return text + "log: " + std::to_string(count) +
           " lines were dropped while the log could not be written\n";
}
