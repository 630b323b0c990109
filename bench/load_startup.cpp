// How soon a started orvd can be reached: from the start of its process
// until the bus announces an owner of org.orv.Scheduler. The watch is
// subscribed before the start, so the announcement cannot be missed, and
// its arrival time is taken first thing in the handler.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "bench_format.h"
#include "load_modes.h"
#include "load_process.h"

namespace load {

namespace {

using bench::fixed;

constexpr const char* kSchedulerName = "org.orv.Scheduler";
constexpr double kTargetMs = 50.0;

// The latest change of owner of the scheduler's name.
struct owner_watch_t {
    bool changed = false;
    std::string owner;
    std::int64_t atNs = 0;
};

int onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const std::int64_t at = monotonicNs();
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &before, &now) >= 0) {
        auto* watch = static_cast<owner_watch_t*>(userdata);
        *watch = {true, now, at};
    }
    return 0;
}

void showLog(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::cerr << "--- orvd's output:\n" << in.rdbuf() << '\n';
}

// One start: the time until the name had an owner, in ms, after which orvd
// is stopped and its name seen to go; nullopt after a message.
std::optional<double> startOnce(sd_bus* bus, owner_watch_t& watch, const options_t& options,
                                const std::filesystem::path& log) {
    watch.changed = false;
    child_t orvd;
    const std::int64_t start = monotonicNs();
    if (!orvd.spawn(options.command, log.string())) {
        return std::nullopt;
    }
    if (!waitOn(bus, start + 10 * kNsPerSecond,
                [&] { return watch.changed && !watch.owner.empty(); })) {
        complain(std::string(kSchedulerName) + " got no owner within 10 s");
        showLog(log);
        return std::nullopt;
    }
    const double ms = static_cast<double>(watch.atNs - start) / 1e6;
    watch.changed = false;
    orvd.stop();
    if (!waitOn(bus, monotonicNs() + 5 * kNsPerSecond,
                [&] { return watch.changed && watch.owner.empty(); })) {
        complain(std::string(kSchedulerName) + " kept its owner after orvd ended");
        return std::nullopt;
    }
    return ms;
}

}  // namespace

bool startup(const options_t& options, summary_t* summary) {
    temp_dir_t folder;
    int r = 0;
    orv_bus_ptr bus = orv_dbus_open(options.bus, "orv-load-startup", &r);
    if (options.command.empty() || r < 0 || !folder.create()) {
        complain("the mode startup needs the bus and, after --, the command that starts orvd", r);
        return false;
    }
    owner_watch_t watch;
    sd_bus_slot* raw = nullptr;
    const std::string rule = std::string("type='signal',sender='org.freedesktop.DBus',") +
                             "member='NameOwnerChanged',arg0='" + kSchedulerName + "'";
    r = sd_bus_add_match(bus.get(), &raw, rule.c_str(), onOwnerChanged, &watch);
    orv_slot_ptr slot(raw);
    if (r < 0) {
        complain("cannot watch the owner of " + std::string(kSchedulerName), r);
        return false;
    }
    std::vector<double> times;
    for (std::size_t i = 0; i < options.starts; ++i) {
        const std::optional<double> ms =
            startOnce(bus.get(), watch, options, folder.path() / "orvd.log");
        if (!ms) {
            return false;
        }
        times.push_back(*ms);
    }
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2];
    std::printf("%s owned after the start, %zu starts: min %.2f ms, median %.2f ms, max %.2f ms\n",
                kSchedulerName, times.size(), times.front(), median, times.back());
    summary->row(
        "orvd owns " + std::string(kSchedulerName) + " after its start, median of " +
            std::to_string(times.size()),
        fixed(median, 1) + " ms (" + fixed(times.front(), 1) + "-" + fixed(times.back(), 1) + ")",
        "<= " + fixed(kTargetMs, 0) + " ms", median <= kTargetMs);
    return true;
}

}  // namespace load
