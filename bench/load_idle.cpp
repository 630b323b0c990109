// orvd at rest: its resident memory, and how often it wakes while nothing
// is due.
#include <chrono>
#include <cstdio>
#include <thread>

#include "bench_format.h"
#include "load_arguments.h"
#include "load_modes.h"
#include "load_process.h"

namespace load {

namespace {

using bench::fixed;

// Long enough for orvd to have handled its start and the client's name.
constexpr auto kSettle = std::chrono::seconds(2);
constexpr double kRssTargetMiB = 6.0;
constexpr std::int64_t kDaySeconds = 86400;
constexpr std::int64_t kAfterChangesNs = 7 * kNsPerSecond;

bool reportRss(pid_t pid, const std::string& what, summary_t* summary) {
    std::this_thread::sleep_for(kSettle);
    const std::optional<std::int64_t> kib = processStatus(pid, "VmRSS");
    if (!kib) {
        complain("cannot read the resident memory of process " + std::to_string(pid));
        return false;
    }
    const double mib = static_cast<double>(*kib) / 1024.0;
    // Its own heap and stacks against the pages of the program and the
    // libraries, which other processes may share.
    std::printf("orvd resident, %s: %lld KiB (anonymous %lld KiB, files %lld KiB)\n", what.c_str(),
                static_cast<long long>(*kib),
                static_cast<long long>(processStatus(pid, "RssAnon").value_or(-1)),
                static_cast<long long>(processStatus(pid, "RssFile").value_or(-1)));
    summary->row("orvd resident memory, " + what, fixed(mib, 2) + " MiB",
                 "<= " + fixed(kRssTargetMiB, 0) + " MiB", mib <= kRssTargetMiB);
    return true;
}

// Once schedules that switch a day from now: nothing of them is due while
// orvd is watched.
bool addFarAhead(load_t& load, std::size_t count) {
    const std::int64_t begin = realtimeNs() / kNsPerSecond + kDaySeconds;
    for (std::size_t i = 0; i < count; ++i) {
        if (load.call("addSchedule", onceArguments(kType, "I" + std::to_string(i), begin,
                                                   begin + kDaySeconds)) != true ||
            !load.drain()) {
            complain("addSchedule did not return true");
            return false;
        }
    }
    // Their present states follow the replies, and the scheduler announces
    // the changed schedules of a type once they have been left alone for
    // 5 s: both are over before the watch starts, so that what is counted
    // is orvd at rest, not the end of the adding.
    load.waitFor(monotonicNs() + kAfterChangesNs, [] { return false; });
    return true;
}

// Context switches of all orvd's threads over the idle time: each voluntary
// one is a wake-up from its wait.
bool reportWakeups(load_t& load, const options_t& options, summary_t* summary) {
    if (!addFarAhead(load, options.population)) {
        return false;
    }
    // The window in wall-clock time, to find in a trace of orvd what woke it.
    std::printf("watching orvd from %.3f s since the epoch for %lld s\n",
                static_cast<double>(realtimeNs()) / 1e9,
                static_cast<long long>(options.idleSeconds));
    const auto before = threadsStatus(options.pid, "voluntary_ctxt_switches");
    const auto forcedBefore = threadsStatus(options.pid, "nonvoluntary_ctxt_switches");
    std::this_thread::sleep_for(std::chrono::seconds(options.idleSeconds));
    const auto after = threadsStatus(options.pid, "voluntary_ctxt_switches");
    const auto forcedAfter = threadsStatus(options.pid, "nonvoluntary_ctxt_switches");
    if (!before || !after || !forcedBefore || !forcedAfter) {
        complain("cannot read the context switches of process " + std::to_string(options.pid));
        return false;
    }
    const std::int64_t woken = *after - *before;
    std::printf(
        "orvd over %lld s with %zu schedules due in a day: %lld wake-ups, %lld forced "
        "switches\n",
        static_cast<long long>(options.idleSeconds), options.population,
        static_cast<long long>(woken), static_cast<long long>(*forcedAfter - *forcedBefore));
    summary->row("orvd wake-ups over " + std::to_string(options.idleSeconds) + " s, " +
                     std::to_string(options.population) + " schedules due in a day",
                 std::to_string(woken) + " (forced switches " +
                     std::to_string(*forcedAfter - *forcedBefore) + ")",
                 "0", woken == 0);
    return true;
}

}  // namespace

bool idle(load_t& load, const options_t& options, summary_t* summary) {
    if (options.pid <= 0) {
        complain("the mode idle needs --pid of orvd");
        return false;
    }
    if (!reportRss(options.pid, "idle, nothing registered", summary) || !registerType(load) ||
        !reportRss(options.pid, "a type registered, no schedules", summary)) {
        return false;
    }
    return options.idleSeconds <= 0 || reportWakeups(load, options, summary);
}

}  // namespace load
