#include "orv/service_runtime.h"

#include <csignal>
#include <fstream>
#include <sstream>
#include <utility>

#include "orv/trace.h"

std::size_t orv_residentKiB() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return static_cast<std::size_t>(std::strtoull(line.c_str() + 6, nullptr, 10));
        }
    }
    return 0;
}

std::unique_ptr<orv_service_runtime_t> orv_service_runtime_t::start(
    orv_sd_loop_t& loop, orv_service_options_t options, std::function<void()> stop,
    std::function<std::string()> status, std::string* error) {
    std::unique_ptr<orv_service_runtime_t> runtime(
        new orv_service_runtime_t(std::move(options), std::move(status)));
    if (auto problem = runtime->readTraceFile()) {
        *error = *problem;
        return nullptr;
    }
    runtime->log_ = orv_log_writer_t::open({runtime->options_.logFile}, error);
    if (!runtime->log_) {
        return nullptr;
    }
    orv_log_writer_t* log = runtime->log_.get();
    tolvTraceSetSink([log](int level, std::string_view line) { log->write(level, line); });
    // A write to a closed pipe or socket then fails with EPIPE instead of
    // ending the process.
    std::signal(SIGPIPE, SIG_IGN);
    orv_service_runtime_t* self = runtime.get();
    if (!loop.onSignal(SIGTERM, stop) || !loop.onSignal(SIGINT, stop) ||
        !loop.onSignal(SIGHUP, [self] { self->reload(); }) ||
        !loop.onSignal(SIGUSR1, [self] { self->writeStatus(); }) ||
        !loop.onSignal(SIGUSR2, [] {})) {
        *error = "cannot handle the signals";
        return nullptr;
    }
    return runtime;
}

orv_service_runtime_t::orv_service_runtime_t(orv_service_options_t options,
                                             std::function<std::string()> status)
    : options_(std::move(options)), status_(std::move(status)) {}

orv_service_runtime_t::~orv_service_runtime_t() {
    tolvTraceSetSink({});
}

std::optional<std::string> orv_service_runtime_t::readTraceFile() const {
    if (options_.traceFile.empty()) {
        return std::nullopt;
    }
    std::ifstream in(options_.traceFile);
    std::stringstream text;
    text << in.rdbuf();
    if (!in) {
        return "cannot read the trace levels " + options_.traceFile;
    }
    if (auto error = tolvTraceApplyLevels(text.str())) {
        return options_.traceFile + ": " + *error;
    }
    return std::nullopt;
}

void orv_service_runtime_t::reload() {
    std::string error;
    if (!log_->reopen(&error)) {
        tolvTrace(TRACE_LEVEL_ERROR, "%s; the log stays where it was", error.c_str());
    }
    if (auto problem = readTraceFile()) {
        tolvTrace(TRACE_LEVEL_ERROR, "%s; the trace levels stay as they were", problem->c_str());
    }
    tolvTrace(TRACE_LEVEL_NOTICE, "reloaded: log %s, trace level %d",
              options_.logFile.empty() ? "on standard error" : options_.logFile.c_str(),
              tolvTraceLevel());
}

void orv_service_runtime_t::writeStatus() {
    std::string own = status_ ? status_() : std::string();
    if (!own.empty()) {
        own += ", ";
    }
    tolvTrace(TRACE_LEVEL_NOTICE, "status: %sresident memory %zu KiB, log lines dropped %llu",
              own.c_str(), orv_residentKiB(), static_cast<unsigned long long>(log_->dropped()));
}
