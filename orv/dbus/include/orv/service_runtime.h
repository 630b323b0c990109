// What every long-running program of the project does with its log and its
// signals, so that none of them can be ended or stalled from outside by
// accident:
//  - SIGTERM and SIGINT stop it (the program's own stop);
//  - SIGHUP opens the log file again (after a rotation) and reads the trace
//    levels file again;
//  - SIGUSR1 writes one status line to the log: the program's own counts,
//    its resident memory and the log lines dropped so far;
//  - SIGUSR2 and SIGPIPE are ignored.
// Trace lines go through a log writer that never blocks the loop.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "orv/log_writer.h"
#include "orv/sd_loop.h"

struct orv_service_options_t {
    // Empty: standard error.
    std::string logFile;
    // Empty: no file; the levels stay as the command line set them.
    std::string traceFile;
};

// Adds --log and --trace-file to a program's command line parser (any with
// CLI11's add_option).
template <typename App>
void orv_addServiceOptions(App& app, orv_service_options_t* options) {
    app.add_option("--log", options->logFile,
                   "append the log to this file instead of standard error; SIGHUP opens it again");
    app.add_option("--trace-file", options->traceFile,
                   "trace levels, one \"NAME LEVEL\" per line (\"default\" for the level outside "
                   "a zone), read at start and on SIGHUP");
}

class orv_service_runtime_t {
  public:
    // The log opened, the trace file read and the signals handled on loop;
    // null with the reason in *error otherwise. status gives the program's
    // part of the status line.
    static std::unique_ptr<orv_service_runtime_t> start(orv_sd_loop_t& loop,
                                                        orv_service_options_t options,
                                                        std::function<void()> stop,
                                                        std::function<std::string()> status,
                                                        std::string* error);
    // Trace lines go to standard error again, directly.
    ~orv_service_runtime_t();
    orv_service_runtime_t(const orv_service_runtime_t&) = delete;
    orv_service_runtime_t& operator=(const orv_service_runtime_t&) = delete;

    // A line of the program's own, through the log writer.
    void write(int level, std::string_view line) { log_->write(level, line); }
    // What SIGHUP and SIGUSR1 do.
    void reload();
    void writeStatus();

  private:
    orv_service_runtime_t(orv_service_options_t options, std::function<std::string()> status);
    // The trace file applied; the reason when it cannot be read or is wrong.
    std::optional<std::string> readTraceFile() const;

    orv_service_options_t options_;
    std::function<std::string()> status_;
    std::unique_ptr<orv_log_writer_t> log_;
};

// The resident memory of this process in KiB, from /proc; 0 when unknown.
std::size_t orv_residentKiB();
