// orv-cli schedule add|show|next|svg: schedules in their text form and as
// pictures, for people at a terminal.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

struct schedule_args_t {
    std::string type;
    // Empty for "show": every schedule of the type.
    std::string id;
    std::string text;
    bool disabled = false;
    std::string override_state;
    // The present moment (ISO 8601), so that output can be reproduced; the
    // clock when absent.
    std::optional<std::string> now;
    int count = 10;
    bool json = false;
    // "auto": on a terminal, unless NO_COLOR is set; "always"; "never".
    std::string colour = "auto";
    // Where "svg" writes; standard output when empty.
    std::string output;
};

// Each returns the exit code: 0, 1 when the scheduler refused, 2 when the
// input was bad or the call failed (with a line on stderr).
int cli_scheduleAdd(const std::string& bus, const schedule_args_t& args);
int cli_scheduleShow(const std::string& bus, const schedule_args_t& args);
int cli_scheduleNext(const std::string& bus, const schedule_args_t& args);
int cli_scheduleSvg(const std::string& bus, const schedule_args_t& args);

using cli_schedule_run_t = int (*)(const std::string& bus, const schedule_args_t& args);
// Adds add, show, next and svg below command; chosen() learns which one the
// command line named.
void cli_addScheduleCommands(CLI::App* command, schedule_args_t* args,
                             std::function<void(cli_schedule_run_t)> chosen);
