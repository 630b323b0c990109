// orv-owner: the owner of one schedule type for services that are not
// written in C++. It keeps the type's schedules in a store across restarts
// (through the client library) and runs a program for every state the
// scheduler sets, with {ID} and {state} in its arguments replaced.
//
//   orv-owner --bus system --type Light --path Device.Light --states on,off
//       --store /var/lib/orv-owner/light.json --exec /usr/bin/light-set {ID} {state}
//
// Everything after --exec is the command, so its arguments may start with
// dashes. --config FILE reads the same options from a file (key = value,
// lists as ["a", "b"]); the command line wins over the file.
#include <signal.h>
#include <systemd/sd-event.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orv/sd_loop.h"
#include "orv/service_runtime.h"
#include "orv/trace.h"
#include "owner_exec.h"
#include "scheduler/client.h"

namespace {

constexpr int kUsage = 2;
constexpr int kStartFailed = 1;

struct settings_t {
    std::string bus = "system";
    std::string type;
    std::string path;
    std::vector<std::string> states;
    std::string store;
    double timeout = 30;
    std::vector<std::string> command;
    orv_service_options_t service;
};

// Where the log goes once the owner runs: a writer that never blocks the
// loop. Before that, and after, straight to standard error.
orv_service_runtime_t* runningLog = nullptr;

void log(const std::string& line) {
    if (runningLog != nullptr) {
        runningLog->write(TRACE_LEVEL_NOTICE, "orv-owner: " + line);
        return;
    }
    std::fprintf(stderr, "orv-owner: %s\n", line.c_str());
    std::fflush(stderr);
}

// A state reaches a program's argument list: only plain words are allowed,
// so that no state can look like an option, a path or shell syntax to it.
bool plainWord(const std::string& text) {
    return !text.empty() && text.front() != '-' &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) {
               return std::isalnum(c) || c == '_' || c == '.' || c == ':' || c == '-';
           });
}

// Everything after "--exec" is the command; CLI11 reads what comes before.
std::vector<std::string> splitCommand(int argc, char** argv, std::vector<std::string>* before) {
    std::vector<std::string> command;
    int i = 1;
    for (; i < argc && std::string_view(argv[i]) != "--exec"; ++i) {
        before->emplace_back(argv[i]);
    }
    for (++i; i < argc; ++i) {
        command.emplace_back(argv[i]);
    }
    return command;
}

std::optional<std::string> settingsProblem(const settings_t& settings) {
    if (settings.type.empty() || settings.path.empty() || settings.store.empty()) {
        return "--type, --path and --store are required";
    }
    if (settings.states.empty()) {
        return "--states needs at least one state";
    }
    for (const std::string& state : settings.states) {
        if (!plainWord(state)) {
            return "the state \"" + state + "\" must be a word of letters, digits and _.:-";
        }
    }
    if (settings.command.empty()) {
        return "--exec needs a program";
    }
    if (!(settings.timeout > 0)) {
        return "--timeout must be a positive number of seconds";
    }
    return std::nullopt;
}

// The settings, or the exit code after CLI11's message or ours.
std::optional<settings_t> parse(int argc, char** argv, int* code) {
    settings_t settings;
    std::vector<std::string> before;
    std::vector<std::string> command = splitCommand(argc, argv, &before);
    CLI::App app{"Owns a schedule type and runs a program for each of its states"};
    app.set_config("--config", "", "read the options from this file");
    app.add_option("--bus", settings.bus, "session, system or a D-Bus address");
    app.add_option("--type", settings.type, "the schedule type, e.g. Light");
    app.add_option("--path", settings.path, "the client object, e.g. Device.Light");
    app.add_option("--states", settings.states, "the states, e.g. on,off")->delimiter(',');
    app.add_option("--store", settings.store, "the store file");
    app.add_option("--timeout", settings.timeout, "seconds a command may run (30)");
    orv_addServiceOptions(app, &settings.service);
    // From a config file only: on the command line everything after --exec
    // is taken before CLI11 reads the rest.
    app.add_option("--exec", settings.command, "the program and its arguments");
    std::reverse(before.begin(), before.end());
    try {
        app.parse(before);
    } catch (const CLI::ParseError& e) {
        *code = app.exit(e) == 0 ? 0 : kUsage;
        return std::nullopt;
    }
    if (!command.empty()) {
        settings.command = std::move(command);
    }
    if (auto problem = settingsProblem(settings)) {
        log(*problem);
        *code = kUsage;
        return std::nullopt;
    }
    return settings;
}

class owner_t {
  public:
    owner_t(const settings_t& settings, std::unique_ptr<orv_sd_loop_t> loop)
        : settings_(settings), loop_(std::move(loop)) {}
    ~owner_t() {
        client_.reset();
        exec_.reset();
        runningLog = nullptr;
    }
    owner_t(const owner_t&) = delete;
    owner_t& operator=(const owner_t&) = delete;

    // The exit code.
    int run();

  private:
    void onState(const std::string& id, const std::string& state);
    bool handleSignals();
    std::string status() const;

    const settings_t& settings_;
    std::unique_ptr<orv_sd_loop_t> loop_;
    // Declared before what logs through it, so that it goes last.
    std::unique_ptr<orv_service_runtime_t> runtime_;
    std::unique_ptr<owner_exec_t> exec_;
    std::unique_ptr<scheduler::client_t> client_;
};

void owner_t::onState(const std::string& id, const std::string& state) {
    // The library lets only the type's states through; this stays the last
    // word on what reaches a command line.
    if (std::find(settings_.states.begin(), settings_.states.end(), state) ==
        settings_.states.end()) {
        log("refused the state \"" + state + "\" for \"" + id + "\": not one of --states");
        return;
    }
    exec_->run(id, state);
}

std::string owner_t::status() const {
    const owner_exec_t::counts_t counts = exec_ ? exec_->counts() : owner_exec_t::counts_t{};
    return std::string(client_ && client_->registered() ? "registered"
                                                        : "waiting for the scheduler") +
           "; commands run " + std::to_string(counts.run) + ", failed " +
           std::to_string(counts.failed) + ", waiting " + std::to_string(counts.queued);
}

bool owner_t::handleSignals() {
    // Children are reaped by the loop, which needs SIGCHLD blocked.
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    if (pthread_sigmask(SIG_BLOCK, &child, nullptr) != 0) {
        return false;
    }
    std::string error;
    runtime_ = orv_service_runtime_t::start(
        *loop_, settings_.service, [this] { loop_->exit(0); }, [this] { return status(); }, &error);
    if (!runtime_) {
        log(error);
        return false;
    }
    runningLog = runtime_.get();
    return true;
}

int owner_t::run() {
    if (!handleSignals()) {
        log("cannot handle signals");
        return kStartFailed;
    }
    const auto timeout = std::chrono::milliseconds(static_cast<long>(settings_.timeout * 1000));
    exec_ = std::make_unique<owner_exec_t>(loop_->event(), settings_.command, timeout, log);
    scheduler::options_t options;
    options.type = {settings_.type, settings_.path, settings_.states};
    options.store = settings_.store;
    options.on_state = [this](const std::string& id, const std::string& state) {
        onState(id, state);
    };
    options.log = [](std::string_view line) { log(std::string(line)); };
    options.event = loop_->event();
    try {
        client_ = std::make_unique<scheduler::client_t>(settings_.bus, std::move(options));
    } catch (const std::exception& e) {
        log(std::string("cannot start: ") + e.what());
        return kStartFailed;
    }
    const int code = loop_->run();
    client_->save();
    return code < 0 ? kStartFailed : code;
}

}  // namespace

int main(int argc, char** argv) {
    int code = 0;
    std::optional<settings_t> settings = parse(argc, argv, &code);
    if (!settings) {
        return code;
    }
    const auto folder = std::filesystem::path(settings->store).parent_path();
    if (!folder.empty() && !std::filesystem::is_directory(folder)) {
        log("the store's folder " + folder.string() + " does not exist");
        return kStartFailed;
    }
    std::string error;
    auto loop = orv_sd_loop_t::create(&error);
    if (!loop) {
        log("cannot create the event loop: " + error);
        return kStartFailed;
    }
    owner_t owner(*settings, std::move(loop));
    return owner.run();
}
