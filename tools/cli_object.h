// What the commands of orv-cli on objects share: the parsed command line,
// the bus, and method calls that report their failures on stderr.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli_schedule.h"
#include "tool_bus.h"

// The exit code of every failure.
inline constexpr int kFailed = 2;
// The call went through and the function refused it; its reason went to
// standard error.
inline constexpr int kRefused = 1;

// What the command line asked for; filled in by the command table's setups.
struct cli_args_t {
    std::string bus = "session";
    std::string path;
    std::string function;
    std::string json = "{}";
    std::vector<std::string> functions;
    schedule_args_t schedule;
    cli_schedule_run_t scheduleRun = nullptr;
    int (*run)(const cli_args_t&) = nullptr;
};

// "orv-cli: <what>: <strerror>" on stderr.
void cli_complain(std::string_view what, int r);
// One line on standard output, flushed at once for the programs that read it.
void cli_printLine(const std::string& line);
// The bus the command line names; null after a message on stderr.
bus_ptr cli_openBus(const cli_args_t& args);
// The bus name of the process serving the path's root object.
std::optional<std::string> cli_busName(const std::string& path);
// A method call to the path's object, not starting services that are not
// running, so that an unknown root is reported as such. Null after a message.
message_ptr cli_newCall(sd_bus* bus, const std::string& path, const char* interface,
                        const char* member);
// Sends the call; the reply, or null after a message on stderr.
message_ptr cli_send(sd_bus* bus, const std::string& path, sd_bus_message* m);

// The commands. Each returns the exit code.
int cli_runCall(const cli_args_t& args);
int cli_runGet(const cli_args_t& args);
int cli_runList(const cli_args_t& args);
int cli_runServe(const cli_args_t& args);
int cli_runWatch(const cli_args_t& args);
