// An owner starting with a full store: orv-owner with --population stored
// Daily schedules against the running orvd, timed from its start until the
// scheduler has told it the present state of every one of them.
//
// The arrivals are counted by a monitor connection of the bus daemon, which
// gets a copy of each setState to the owner's object as the daemon routes
// it. The scheduler sends a state only for a schedule it holds, so all IDs
// seen means all schedules registered and all states asserted. Neither orvd
// nor the owner is asked anything while the clock runs: polling the
// scheduler's list would load the very process that is measured, and the
// owner's own log has no times. The owner then runs its command (true) for
// each state, one at a time. Whether its callback has taken every state is
// read from the status line it logs on SIGUSR1, asked every 50 ms once the
// last state was sent: a second figure, to the nearest 50 ms.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>
#include <unordered_set>

#include "bench_format.h"
#include "load_arguments.h"
#include "load_modes.h"
#include "load_process.h"
#include "orv/dbus_value.h"

namespace load {

namespace {

using bench::fixed;

constexpr const char* kOwnedType = "Owned";
constexpr const char* kOwnedPath = "/Owned/Client";
constexpr double kTargetMs = 1000.0;

// setState calls seen on their way to the owner.
struct states_seen_t {
    std::unordered_set<std::string> ids;
    std::size_t calls = 0;
    std::int64_t firstNs = 0;
    std::int64_t lastNs = 0;
};

int onSetState(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const std::int64_t at = monotonicNs();
    auto* seen = static_cast<states_seen_t*>(userdata);
    variant_map_t arguments;
    if (sd_bus_message_is_method_call(m, nullptr, "setState") <= 0 ||
        orv_dbus_readMap(m, &arguments) < 0) {
        return 0;
    }
    for (const variant_map_entry_t& entry : arguments) {
        if (entry.key == "ID" && seen->ids.insert(variant_char(&entry.value).value_or("")).second) {
            seen->lastNs = at;
        }
    }
    seen->firstNs = seen->calls++ == 0 ? at : seen->firstNs;
    return 0;
}

// A connection that sees a copy of every setState to the owner's object.
orv_bus_ptr openMonitor(const std::string& address, states_seen_t* seen, orv_slot_ptr* filter) {
    sd_bus* raw = nullptr;
    int r = sd_bus_new(&raw);
    orv_bus_ptr bus(raw);
    const std::string rule =
        std::string("type='method_call',member='setState',path='") + kOwnedPath + "'";
    orv_bus_error_t error;
    sd_bus_slot* slot = nullptr;
    if (r < 0 || (r = sd_bus_set_address(raw, address.c_str())) < 0 ||
        (r = sd_bus_set_bus_client(raw, 1)) < 0 || (r = sd_bus_set_monitor(raw, 1)) < 0 ||
        (r = sd_bus_start(raw)) < 0 ||
        (r = sd_bus_call_method(raw, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                "org.freedesktop.DBus.Monitoring", "BecomeMonitor", error.get(),
                                nullptr, "asu", 1, rule.c_str(), 0)) < 0 ||
        (r = sd_bus_add_filter(raw, &slot, onSetState, seen)) < 0) {
        complain("cannot watch the bus " + address + " " + error.message(), r);
        return nullptr;
    }
    filter->reset(slot);
    return bus;
}

std::vector<std::string> ownerCommand(const options_t& options,
                                      const std::filesystem::path& store) {
    return {options.owner,  "--bus",        options.bus, "--type",     kOwnedType,
            "--path",       "Owned.Client", "--states",  "on,off,eco", "--store",
            store.string(), "--exec",       "true",      "{ID}",       "{state}"};
}

// How many states the owner's callback has taken, from its log: each state
// leaves one line '"ID" -> state: ...' when it is dropped for a full queue
// or when its command has ended, and the status line the owner logs on
// SIGUSR1 counts those still waiting. One more may have its command
// running, so the count may be one short.
class owner_status_t {
  public:
    explicit owner_status_t(const std::filesystem::path& log) : log_(log) {}

    // Asks the owner and reads its answer; the states taken, or nullopt.
    std::optional<std::size_t> ask(pid_t pid) {
        kill(pid, SIGUSR1);
        const std::int64_t deadline = monotonicNs() + kNsPerSecond;
        while (monotonicNs() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            if (const std::optional<std::size_t> waiting = readWaiting()) {
                return ended_ + *waiting;
            }
        }
        return std::nullopt;
    }
    const std::string& last() const { return last_; }

  private:
    // The new lines of the log up to a status line; its waiting count.
    std::optional<std::size_t> readWaiting() {
        log_.clear();
        std::string line;
        while (std::getline(log_, line)) {
            ended_ += line.find("\" -> ") != std::string::npos ? 1 : 0;
            const auto at = line.find("commands run");
            unsigned long run = 0, failed = 0, waiting = 0;
            if (at != std::string::npos &&
                std::sscanf(line.c_str() + at, "commands run %lu, failed %lu, waiting %lu", &run,
                            &failed, &waiting) == 3) {
                last_ = line.substr(at);
                return waiting;
            }
        }
        return std::nullopt;
    }

    std::ifstream log_;
    std::size_t ended_ = 0;
    std::string last_;
};

// Polls the owner every 50 ms until its callback has taken count states;
// the time of the answer that showed it, or nullopt after 60 s.
std::optional<std::int64_t> ownerTookAll(child_t& owner, owner_status_t& status, std::size_t count,
                                         std::int64_t start) {
    while (monotonicNs() - start < 60 * kNsPerSecond) {
        const std::optional<std::size_t> taken = status.ask(owner.pid());
        if (taken && *taken + 1 >= count) {
            return monotonicNs();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return std::nullopt;
}

void reportOwner(const states_seen_t& seen, std::int64_t start, std::optional<std::int64_t> tookNs,
                 const std::string& status, std::size_t count, summary_t* summary) {
    const double firstMs = static_cast<double>(seen.firstNs - start) / 1e6;
    const double lastMs = static_cast<double>(seen.lastNs - start) / 1e6;
    std::printf(
        "orv-owner with %zu stored schedules: first state told after %.1f ms, the last "
        "new one after %.1f ms, %zu calls\n",
        count, firstMs, lastMs, seen.calls);
    const std::string what = "orv-owner, " + std::to_string(count) + " stored schedules";
    const std::string target = "<= " + fixed(kTargetMs, 0) + " ms";
    summary->row(what + ", start to the last state sent to it",
                 fixed(lastMs, 1) + " ms (first " + fixed(firstMs, 1) + " ms)", target,
                 lastMs <= kTargetMs);
    if (!tookNs) {
        std::printf("orv-owner had not taken every state after 60 s: %s\n", status.c_str());
        summary->row(what + ", start to its callback having taken all", "not within 60 s", "-",
                     std::nullopt);
        return;
    }
    const double tookMs = static_cast<double>(*tookNs - start) / 1e6;
    std::printf("orv-owner's callback had taken every state after %.1f ms: %s\n", tookMs,
                status.c_str());
    // The owner's own pace: it forks a command per state, one at a time. The
    // target is the scheduler's part, the row above.
    summary->row(what + ", start to its callback having taken all", fixed(tookMs, 0) + " ms", "-",
                 std::nullopt);
}

}  // namespace

bool owner(const options_t& options, summary_t* summary) {
    temp_dir_t folder;
    states_seen_t seen;
    orv_slot_ptr filter;
    if (!folder.create() ||
        !writeDailyStore(folder.path() / "owned.json", kOwnedType, options.population)) {
        complain("cannot write the owner's store");
        return false;
    }
    orv_bus_ptr monitor = openMonitor(options.bus, &seen, &filter);
    child_t owner;
    const std::filesystem::path log = folder.path() / "owner.log";
    const std::int64_t start = monotonicNs();
    if (!monitor || !owner.spawn(ownerCommand(options, folder.path() / "owned.json"), log)) {
        return false;
    }
    const bool all = waitOn(monitor.get(), start + 60 * kNsPerSecond,
                            [&] { return seen.ids.size() >= options.population; });
    if (!all) {
        complain(std::to_string(seen.ids.size()) + " of " + std::to_string(options.population) +
                 " schedules were told a state within 60 s");
        return false;
    }
    owner_status_t status(log);
    const std::optional<std::int64_t> took = ownerTookAll(owner, status, options.population, start);
    reportOwner(seen, start, took, status.last(), options.population, summary);
    return true;
}

}  // namespace load
