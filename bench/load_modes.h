// The loads of orv-load. Each returns false after a message when its
// figures could not be measured, and true whether or not they meet their
// targets.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "load_client.h"
#include "load_report.h"

namespace load {

struct options_t {
    std::string bus;
    std::string mode;
    std::size_t count = 1000;
    std::int64_t window = 60;
    std::int64_t lead = 5;
    std::size_t population = 10000;
    std::size_t rounds = 2000;
    std::size_t warmup = 200;
    std::string summary;
    pid_t pid = 0;
    std::int64_t idleSeconds = 0;
    std::size_t starts = 7;
    std::string owner = "orv-owner";
    std::vector<std::string> command;
};

// The type "Bench" for the client, with the states on, off and eco.
bool registerType(load_t& load);
void unregisterType(load_t& load);

// Changes of Once schedules spread over a window: how late each arrives.
bool lateness(load_t& load, const options_t& options, summary_t* summary);
// Changes of Once schedules all due in one second: when the last arrives.
bool burst(load_t& load, const options_t& options, summary_t* summary);
// addSchedule and removeSchedules against a bare Ping, with Daily schedules
// present.
bool overhead(load_t& load, const options_t& options, summary_t* summary);

// orvd's resident memory once settled, with nothing registered and with
// the type registered; with --idle-seconds, also its wake-ups over that
// time with --population schedules whose changes are all a day ahead.
// Registers the type itself.
bool idle(load_t& load, const options_t& options, summary_t* summary);

// Starts orvd (the command) --starts times: how long from the start until
// org.orv.Scheduler has an owner. Needs no orvd running before.
bool startup(const options_t& options, summary_t* summary);

// Starts orv-owner with a store of --population schedules against the
// running orvd: how long until the scheduler has told it every state.
bool owner(const options_t& options, summary_t* summary);

}  // namespace load
