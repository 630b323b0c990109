#include "load_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include "load_client.h"

extern char** environ;

namespace load {

namespace {

// Owns the file actions of one posix_spawn.
class file_actions_t {
  public:
    file_actions_t() { ok_ = posix_spawn_file_actions_init(&actions_) == 0; }
    ~file_actions_t() {
        if (ok_) {
            posix_spawn_file_actions_destroy(&actions_);
        }
    }
    file_actions_t(const file_actions_t&) = delete;
    file_actions_t& operator=(const file_actions_t&) = delete;

    // Standard output and errors both into the file.
    bool redirect(const std::string& output) {
        return ok_ &&
               posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, output.c_str(),
                                                O_WRONLY | O_CREAT | O_TRUNC, 0644) == 0 &&
               posix_spawn_file_actions_adddup2(&actions_, STDOUT_FILENO, STDERR_FILENO) == 0;
    }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
    bool ok_ = false;
};

// The number in the line "field: N ..." of a status file.
std::optional<std::int64_t> statusField(const std::filesystem::path& file,
                                        const std::string& field) {
    std::ifstream status(file);
    std::string line;
    const std::string prefix = field + ":";
    while (std::getline(status, line)) {
        if (line.starts_with(prefix)) {
            return std::strtoll(line.c_str() + prefix.size(), nullptr, 10);
        }
    }
    return std::nullopt;
}

}  // namespace

child_t& child_t::operator=(child_t&& other) noexcept {
    if (this != &other) {
        stop();
        pid_ = other.pid_;
        other.pid_ = -1;
    }
    return *this;
}

bool child_t::spawn(const std::vector<std::string>& argv, const std::string& output) {
    stop();
    std::vector<char*> raw;
    for (const std::string& word : argv) {
        raw.push_back(const_cast<char*>(word.c_str()));
    }
    raw.push_back(nullptr);
    file_actions_t actions;
    if (argv.empty() || !actions.redirect(output)) {
        complain("cannot prepare to start a program");
        return false;
    }
    pid_t pid = -1;
    if (const int r = posix_spawnp(&pid, raw[0], actions.get(), nullptr, raw.data(), environ)) {
        complain("cannot start " + argv[0], -r);
        return false;
    }
    pid_ = pid;
    return true;
}

void child_t::stop() {
    if (pid_ <= 0) {
        return;
    }
    kill(pid_, SIGTERM);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
}

bool child_t::running() {
    if (pid_ <= 0) {
        return false;
    }
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
    }
    return true;
}

temp_dir_t::~temp_dir_t() {
    if (!path_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
}

bool temp_dir_t::create() {
    std::string pattern = (std::filesystem::temp_directory_path() / "orv-load-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        complain("cannot make a temporary folder", -errno);
        return false;
    }
    path_ = pattern;
    return true;
}

std::optional<std::int64_t> processStatus(pid_t pid, const std::string& field) {
    return statusField("/proc/" + std::to_string(pid) + "/status", field);
}

std::optional<std::int64_t> threadsStatus(pid_t pid, const std::string& field) {
    std::error_code ec;
    std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task", ec);
    if (ec) {
        return std::nullopt;
    }
    std::int64_t sum = 0;
    for (const auto& task : tasks) {
        // A thread that ended meanwhile counts no more.
        sum += statusField(task.path() / "status", field).value_or(0);
    }
    return sum;
}

}  // namespace load
