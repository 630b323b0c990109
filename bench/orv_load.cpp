// orv-load: drives a running orvd with the scheduler plug-in over D-Bus and
// measures what a client of it sees.
//
// The tool is the client itself: it owns org.orv.Bench and serves
// /Bench/Client (the data-model path Bench.Client) with a setState method
// that notes the wall-clock time at which each call arrives. It registers
// the type "Bench" for that client, and takes the type away again at the end.
//
//  lateness  --count schedules of base Once switch "on" at whole seconds
//            spread over --window seconds; each arrival is compared with its
//            due second.
//  burst     --count schedules switch "on" in the same second; the figure is
//            the time from that second to the last arrival.
//  overhead  with --population Daily schedules present, --rounds addSchedule
//            round trips (each followed by a removeSchedules of the same ID)
//            alternate with bare org.freedesktop.DBus.Peer.Ping round trips to
//            the same daemon.
//
// "--summary FILE" appends one line per figure to FILE: figure, value, target
// and verdict, separated by tabs. The exit code is 0 when the figures could
// be measured, whether or not they meet their targets.
#include <systemd/sd-bus.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "orv/dbus_handle.h"
#include "orv/dbus_value.h"
#include "orv/variant.h"

namespace {

constexpr const char* kScheduler = "org.orv.Scheduler";
constexpr const char* kSchedulerPath = "/Scheduler";
constexpr const char* kInterface = "org.orv.Object";
constexpr const char* kClientName = "org.orv.Bench";
constexpr const char* kClientPath = "/Bench/Client";
constexpr const char* kType = "Bench";
constexpr std::uint64_t kCallTimeoutUs = 60000000;
constexpr std::int64_t kNsPerSecond = 1000000000;

struct options_t {
    std::string bus;
    std::string mode;
    std::size_t count = 1000;
    std::int64_t window = 30;
    std::int64_t lead = 5;
    std::size_t population = 10000;
    std::size_t rounds = 2000;
    std::size_t warmup = 200;
    std::string summary;
};

std::int64_t clockNs(clockid_t clock) {
    struct timespec now {};
    clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * kNsPerSecond + now.tv_nsec;
}

std::int64_t realtimeNs() {
    return clockNs(CLOCK_REALTIME);
}

std::int64_t monotonicNs() {
    return clockNs(CLOCK_MONOTONIC);
}

void complain(const std::string& what, int r = 0) {
    if (r < 0) {
        std::fprintf(stderr, "orv-load: %s: %s\n", what.c_str(), std::strerror(-r));
    } else {
        std::fprintf(stderr, "orv-load: %s\n", what.c_str());
    }
}

std::string fixed(double value, int decimals) {
    std::ostringstream out;
    out.setf(std::ios::fixed);
    out.precision(decimals);
    out << value;
    return out.str();
}

// Nearest-rank percentile of sorted values, q in (0, 1].
double percentile(const std::vector<double>& sorted, double q) {
    const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(sorted.size())));
    return sorted[std::max<std::size_t>(rank, 1) - 1];
}

double mean(const std::vector<double>& values) {
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

// --- Arguments of the scheduler's functions -----------------------------------

variant_t entry(const char* state, std::uint32_t begin, std::uint32_t end) {
    variant_map_t map;
    map.push_back({"state", variant_t(state)});
    map.push_back({"begin", variant_t(begin)});
    map.push_back({"end", variant_t(end)});
    return variant_t(std::move(map));
}

variant_map_t addArguments(const std::string& id, const char* base, variant_list_t entries) {
    variant_map_t info;
    info.push_back({"ID", variant_t(id)});
    info.push_back({"enable", variant_t(true)});
    info.push_back({"base", variant_t(base)});
    info.push_back({"def", variant_t("off")});
    info.push_back({"override", variant_t("")});
    info.push_back({"schedule", variant_t(std::move(entries))});
    variant_map_t arguments;
    arguments.push_back({"type", variant_t(kType)});
    arguments.push_back({"info", variant_t(std::move(info))});
    return arguments;
}

// "on" from begin to end, both seconds since the epoch, and "off" otherwise.
variant_map_t onceArguments(const std::string& id, std::int64_t begin, std::int64_t end) {
    variant_list_t entries;
    entries.push_back(
        entry("on", static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(end)));
    return addArguments(id, "Once", std::move(entries));
}

// Four spans of 15 minutes a day, six hours apart, at a time of day that
// differs from one schedule to the next.
variant_map_t dailyArguments(const std::string& id, std::size_t i) {
    constexpr std::uint32_t kQuarter = 21600;
    constexpr std::uint32_t kSpan = 900;
    const auto first = static_cast<std::uint32_t>((i * 7919) % (kQuarter - kSpan));
    variant_list_t entries;
    for (std::uint32_t k = 0; k < 4; ++k) {
        const std::uint32_t begin = first + k * kQuarter;
        entries.push_back(entry(k % 2 == 0 ? "on" : "eco", begin, begin + kSpan));
    }
    return addArguments(id, "Daily", std::move(entries));
}

variant_map_t removeArguments(const std::string& id) {
    variant_list_t ids;
    ids.emplace_back(id);
    variant_map_t arguments;
    arguments.push_back({"type", variant_t(kType)});
    arguments.push_back({"ID", variant_t(std::move(ids))});
    return arguments;
}

// --- The connection, the client object and the round trips -------------------

struct arrival_t {
    std::string id;
    std::string state;
    std::int64_t realtimeNs;
};

class load_t {
  public:
    // False after a message on stderr.
    bool open(const std::string& address) {
        int r = 0;
        bus_ = orv_dbus_open(address, "orv-load", &r);
        if (r < 0) {
            complain("cannot connect to the bus " + address, r);
            return false;
        }
        sd_bus_slot* slot = nullptr;
        r = sd_bus_add_object_vtable(bus_.get(), &slot, kClientPath, kInterface, kVtable, this);
        object_.reset(slot);
        if (r < 0) {
            complain("cannot serve " + std::string(kClientPath), r);
            return false;
        }
        r = sd_bus_request_name(bus_.get(), kClientName, 0);
        if (r < 0) {
            complain("cannot own " + std::string(kClientName), r);
            return false;
        }
        return true;
    }

    void close() {
        if (bus_) {
            sd_bus_release_name(bus_.get(), kClientName);
        }
        object_.reset();
        bus_.reset();
    }

    const std::vector<arrival_t>& arrivals() const { return arrivals_; }
    void clearArrivals() { arrivals_.clear(); }

    // A function of the scheduler with named arguments; its boolean result,
    // or nullopt after a message. *elapsedNs is the round trip alone: the
    // message is built before and read after it.
    std::optional<bool> call(const char* function, const variant_map_t& arguments,
                             std::int64_t* elapsedNs = nullptr) {
        sd_bus_message* raw = nullptr;
        int r = sd_bus_message_new_method_call(bus_.get(), &raw, kScheduler, kSchedulerPath,
                                               kInterface, function);
        orv_message_ptr m(raw);
        if (r >= 0) {
            r = orv_dbus_appendMap(raw, arguments);
        }
        if (r < 0) {
            complain(std::string("cannot build ") + function, r);
            return std::nullopt;
        }
        orv_message_ptr reply;
        if (!roundTrip(raw, &reply, function, elapsedNs)) {
            return std::nullopt;
        }
        variant_t retval;
        r = orv_dbus_readVariant(reply.get(), &retval);
        if (r < 0) {
            complain(std::string("cannot read the reply of ") + function, r);
            return std::nullopt;
        }
        return variant_toBool(&retval).value_or(false);
    }

    bool ping(std::int64_t* elapsedNs) {
        sd_bus_message* raw = nullptr;
        const int r = sd_bus_message_new_method_call(bus_.get(), &raw, kScheduler, "/",
                                                     "org.freedesktop.DBus.Peer", "Ping");
        orv_message_ptr m(raw);
        if (r < 0) {
            complain("cannot build Ping", r);
            return false;
        }
        orv_message_ptr reply;
        return roundTrip(raw, &reply, "Ping", elapsedNs);
    }

    // Dispatches what has arrived, without waiting.
    bool drain() {
        int r = 0;
        while ((r = sd_bus_process(bus_.get(), nullptr)) > 0) {
        }
        if (r < 0) {
            complain("lost the bus", r);
            return false;
        }
        return true;
    }

    // Dispatches arrivals as they come until done() holds or the monotonic
    // deadline passes; false after a failure or at the deadline.
    template <typename Done>
    bool waitFor(std::int64_t deadlineNs, Done done) {
        while (!done()) {
            const int r = sd_bus_process(bus_.get(), nullptr);
            if (r < 0) {
                complain("lost the bus", r);
                return false;
            }
            if (r > 0) {
                continue;
            }
            const std::int64_t left = deadlineNs - monotonicNs();
            if (left <= 0) {
                return false;
            }
            const int w = sd_bus_wait(bus_.get(), static_cast<std::uint64_t>(left / 1000 + 1));
            if (w < 0 && w != -EINTR) {
                complain("cannot wait for the bus", w);
                return false;
            }
        }
        return true;
    }

  private:
    bool roundTrip(sd_bus_message* m, orv_message_ptr* reply, const char* what,
                   std::int64_t* elapsedNs) {
        orv_bus_error_t error;
        sd_bus_message* raw = nullptr;
        const std::int64_t start = monotonicNs();
        const int r = sd_bus_call(bus_.get(), m, kCallTimeoutUs, error.get(), &raw);
        const std::int64_t end = monotonicNs();
        reply->reset(raw);
        if (r < 0) {
            complain(std::string(what) + " failed: " + error.name() + " " + error.message());
            return false;
        }
        if (elapsedNs != nullptr) {
            *elapsedNs = end - start;
        }
        return true;
    }

    static int onSetState(sd_bus_message* m, void* userdata, sd_bus_error*) {
        // The time is taken first: the rest is the tool's own work.
        const std::int64_t arrived = realtimeNs();
        auto* self = static_cast<load_t*>(userdata);
        variant_map_t arguments;
        const int r = orv_dbus_readMap(m, &arguments);
        if (r < 0) {
            return r;
        }
        arrival_t arrival{"", "", arrived};
        for (const variant_map_entry_t& entry : arguments) {
            if (entry.key == "ID") {
                arrival.id = variant_char(&entry.value).value_or("");
            } else if (entry.key == "state") {
                arrival.state = variant_char(&entry.value).value_or("");
            }
        }
        self->arrivals_.push_back(std::move(arrival));
        if (sd_bus_message_get_expect_reply(m) > 0) {
            return sd_bus_reply_method_return(m, "va{sv}", "b", 1, 0);
        }
        return 1;
    }

    static constexpr sd_bus_vtable kVtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("setState", "a{sv}", "va{sv}", load_t::onSetState,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };

    orv_bus_ptr bus_;
    orv_slot_ptr object_;
    std::vector<arrival_t> arrivals_;
};

// --- Summary -------------------------------------------------------------------

class summary_t {
  public:
    explicit summary_t(std::string file) : file_(std::move(file)) {}

    // verdict: met, missed, or nothing for a figure without a target.
    void row(const std::string& figure, const std::string& value, const std::string& target,
             std::optional<bool> met) {
        rows_.push_back(figure + '\t' + value + '\t' + target + '\t' +
                        (met ? (*met ? "met" : "missed") : "-"));
    }

    bool write() const {
        if (file_.empty()) {
            return true;
        }
        std::ofstream out(file_, std::ios::app);
        for (const std::string& line : rows_) {
            out << line << '\n';
        }
        return static_cast<bool>(out);
    }

  private:
    std::string file_;
    std::vector<std::string> rows_;
};

// --- Modes ------------------------------------------------------------------------

bool registerType(load_t& load) {
    variant_list_t states;
    for (const char* state : {"on", "off", "eco"}) {
        states.emplace_back(state);
    }
    variant_map_t arguments;
    arguments.push_back({"type", variant_t(kType)});
    arguments.push_back({"path", variant_t("Bench.Client")});
    arguments.push_back({"states", variant_t(std::move(states))});
    if (load.call("registerScheduleType", arguments) != true) {
        complain("registerScheduleType did not return true");
        return false;
    }
    return true;
}

void unregisterType(load_t& load) {
    variant_map_t arguments;
    arguments.push_back({"type", variant_t(kType)});
    if (load.call("unregisterScheduleType", arguments) != true) {
        complain("unregisterScheduleType did not return true");
    }
}

bool add(load_t& load, const variant_map_t& arguments, std::int64_t* elapsedNs = nullptr) {
    if (load.call("addSchedule", arguments, elapsedNs) != true) {
        complain("addSchedule did not return true");
        return false;
    }
    return load.drain();
}

// Adds Once schedules switching "on" at the given seconds, so that none of
// them is due before all are added; false after a message.
bool addOnce(load_t& load, const std::vector<std::int64_t>& due, std::int64_t last) {
    for (std::size_t i = 0; i < due.size(); ++i) {
        if (!add(load, onceArguments("L" + std::to_string(i), due[i], last + 600))) {
            return false;
        }
    }
    // Each schedule's client was told its present state, and those calls
    // follow the replies: they must be in before the count starts.
    const std::int64_t settled =
        monotonicNs() + due.front() * kNsPerSecond - realtimeNs() - kNsPerSecond / 5;
    load.waitFor(settled, [&] { return load.arrivals().size() >= due.size(); });
    const std::int64_t spare = due.front() * kNsPerSecond - realtimeNs();
    if (spare < kNsPerSecond / 5) {
        complain("adding the schedules took too long for the first change; raise --lead");
        return false;
    }
    load.clearArrivals();
    return true;
}

// The arrivals that switch "on", by schedule index; false unless each
// schedule's change arrived exactly once.
bool onArrivals(const load_t& load, std::size_t count, std::vector<std::int64_t>* arrived) {
    arrived->assign(count, -1);
    std::size_t unexpected = 0;
    for (const arrival_t& arrival : load.arrivals()) {
        if (arrival.state != "on" || arrival.id.size() < 2 || arrival.id[0] != 'L') {
            ++unexpected;
            continue;
        }
        const std::size_t i = std::stoul(arrival.id.substr(1));
        if (i >= count || (*arrived)[i] >= 0) {
            ++unexpected;
            continue;
        }
        (*arrived)[i] = arrival.realtimeNs;
    }
    const auto missing = static_cast<std::size_t>(std::count(arrived->begin(), arrived->end(), -1));
    if (missing != 0 || unexpected != 0) {
        complain(std::to_string(missing) + " changes never arrived and " +
                 std::to_string(unexpected) + " calls were not expected");
        return false;
    }
    return true;
}

std::int64_t firstDueSecond(const options_t& options) {
    return realtimeNs() / kNsPerSecond + 1 + options.lead;
}

bool lateness(load_t& load, const options_t& options, summary_t* summary) {
    const std::int64_t first = firstDueSecond(options);
    std::vector<std::int64_t> due(options.count);
    for (std::size_t i = 0; i < options.count; ++i) {
        due[i] = first + static_cast<std::int64_t>(i) * options.window /
                             static_cast<std::int64_t>(options.count);
    }
    if (!addOnce(load, due, due.back())) {
        return false;
    }
    const std::int64_t deadline = monotonicNs() + (due.back() + 5) * kNsPerSecond - realtimeNs();
    load.waitFor(deadline, [&] { return load.arrivals().size() >= options.count; });
    std::vector<std::int64_t> arrived;
    if (!onArrivals(load, options.count, &arrived)) {
        return false;
    }
    std::vector<double> late;
    // First and last arrival of each due second: a whole second that comes
    // late points at the timer or the machine, a wide one at the dispatch.
    std::map<std::int64_t, std::pair<double, double>> seconds;
    for (std::size_t i = 0; i < options.count; ++i) {
        const double ms = static_cast<double>(arrived[i] - due[i] * kNsPerSecond) / 1e6;
        late.push_back(ms);
        auto [it, added] = seconds.try_emplace(due[i], ms, ms);
        it->second = {std::min(it->second.first, ms), std::max(it->second.second, ms)};
    }
    const auto worst = std::max_element(
        seconds.begin(), seconds.end(),
        [](const auto& a, const auto& b) { return a.second.second < b.second.second; });
    std::printf("latest second: +%lld s, first arrival %.3f ms, last %.3f ms\n",
                static_cast<long long>(worst->first - first), worst->second.first,
                worst->second.second);
    std::sort(late.begin(), late.end());
    const double p50 = percentile(late, 0.5);
    const double p99 = percentile(late, 0.99);
    std::printf(
        "lateness of %zu changes over %lld s: min %.3f ms, p50 %.3f ms, p99 %.3f ms, "
        "max %.3f ms\n",
        options.count, static_cast<long long>(options.window), late.front(), p50, p99, late.back());
    const std::string what = "D-Bus lateness " + std::to_string(options.count) + " changes/" +
                             std::to_string(options.window) + " s";
    summary->row(what + ", p50", fixed(p50, 2) + " ms", "-", std::nullopt);
    summary->row(what + ", p99", fixed(p99, 2) + " ms", "<= 5 ms", p99 <= 5.0);
    summary->row(what + ", max", fixed(late.back(), 2) + " ms", "<= 20 ms", late.back() <= 20.0);
    // A change is never due before its second: an early one is a fault.
    summary->row(what + ", min", fixed(late.front(), 2) + " ms", ">= 0 ms", late.front() >= 0.0);
    return true;
}

bool burst(load_t& load, const options_t& options, summary_t* summary) {
    const std::int64_t second = firstDueSecond(options);
    const std::vector<std::int64_t> due(options.count, second);
    if (!addOnce(load, due, second)) {
        return false;
    }
    const std::int64_t deadline = monotonicNs() + (second + 10) * kNsPerSecond - realtimeNs();
    load.waitFor(deadline, [&] { return load.arrivals().size() >= options.count; });
    std::vector<std::int64_t> arrived;
    if (!onArrivals(load, options.count, &arrived)) {
        return false;
    }
    const auto [firstIt, lastIt] = std::minmax_element(arrived.begin(), arrived.end());
    const double firstMs = static_cast<double>(*firstIt - second * kNsPerSecond) / 1e6;
    const double lastMs = static_cast<double>(*lastIt - second * kNsPerSecond) / 1e6;
    std::printf("burst of %zu changes due in one second: first after %.3f ms, last after %.3f ms\n",
                options.count, firstMs, lastMs);
    summary->row("D-Bus burst: " + std::to_string(options.count) + " changes in one second, last",
                 fixed(lastMs, 2) + " ms", "<= 100 ms", lastMs <= 100.0);
    return true;
}

struct series_t {
    std::vector<double> us;
    void add(std::int64_t ns) { us.push_back(static_cast<double>(ns) / 1e3); }
    double median() const {
        std::vector<double> sorted = us;
        std::sort(sorted.begin(), sorted.end());
        return percentile(sorted, 0.5);
    }
    double average() const { return mean(us); }
};

bool overhead(load_t& load, const options_t& options, summary_t* summary) {
    const std::int64_t start = monotonicNs();
    for (std::size_t i = 0; i < options.population; ++i) {
        if (!add(load, dailyArguments("P" + std::to_string(i), i))) {
            return false;
        }
    }
    std::printf("added %zu Daily schedules in %.1f s\n", options.population,
                static_cast<double>(monotonicNs() - start) / 1e9);
    const variant_map_t extra = dailyArguments("extra", options.population);
    const variant_map_t removal = removeArguments("extra");
    series_t ping;
    series_t added;
    series_t removed;
    for (std::size_t round = 0; round < options.warmup + options.rounds; ++round) {
        std::int64_t pingNs = 0;
        std::int64_t addNs = 0;
        std::int64_t removeNs = 0;
        if (!load.ping(&pingNs) || !add(load, extra, &addNs) ||
            load.call("removeSchedules", removal, &removeNs) != true || !load.drain()) {
            complain("round " + std::to_string(round) + " failed");
            return false;
        }
        if (round >= options.warmup) {
            ping.add(pingNs);
            added.add(addNs);
            removed.add(removeNs);
        }
    }
    std::printf("%zu rounds with %zu schedules present (median / mean, us):\n", options.rounds,
                options.population);
    for (const auto& [name, series] : {std::pair<const char*, const series_t*>{"Ping", &ping},
                                       {"addSchedule", &added},
                                       {"removeSchedules", &removed}}) {
        std::printf("  %-16s %10.1f %10.1f\n", name, series->median(), series->average());
    }
    const double medianRatio = added.median() / ping.median();
    const double meanRatio = added.average() / ping.average();
    std::printf("  addSchedule / Ping: %.2f (median), %.2f (mean)\n", medianRatio, meanRatio);
    const std::string what =
        "D-Bus addSchedule / Ping, " + std::to_string(options.population) + " schedules";
    summary->row(what + ", median",
                 fixed(medianRatio, 2) + " (" + fixed(added.median(), 0) + " us / " +
                     fixed(ping.median(), 0) + " us)",
                 "<= 1.5", medianRatio <= 1.5);
    summary->row(what + ", mean",
                 fixed(meanRatio, 2) + " (" + fixed(added.average(), 0) + " us / " +
                     fixed(ping.average(), 0) + " us)",
                 "-", std::nullopt);
    return true;
}

int parse(int argc, char** argv, options_t* options) {
    CLI::App app("orv-load: measures orvd's scheduler on D-Bus as its client sees it.", "orv-load");
    app.add_option("--bus", options->bus, "the address of the bus orvd is on")->required();
    app.add_option("--mode", options->mode, "lateness, burst or overhead")
        ->required()
        ->check(CLI::IsMember({"lateness", "burst", "overhead"}));
    app.add_option("--count", options->count, "schedules of lateness and burst")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    app.add_option("--window", options->window, "seconds the lateness changes spread over")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
    app.add_option("--lead", options->lead, "seconds from the start to the first change")
        ->capture_default_str()
        ->check(CLI::Range(1, 600));
    app.add_option("--population", options->population, "schedules present during overhead")
        ->capture_default_str();
    app.add_option("--rounds", options->rounds, "measured rounds of overhead")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000));
    app.add_option("--warmup", options->warmup, "rounds of overhead not measured")
        ->capture_default_str();
    app.add_option("--summary", options->summary, "a file to append the figures to");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? -1 : 2;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    options_t options;
    if (const int code = parse(argc, argv, &options)) {
        return code < 0 ? 0 : code;
    }
    try {
        load_t load;
        if (!load.open(options.bus) || !registerType(load)) {
            return 1;
        }
        summary_t summary(options.summary);
        bool measured = false;
        if (options.mode == "lateness") {
            measured = lateness(load, options, &summary);
        } else if (options.mode == "burst") {
            measured = burst(load, options, &summary);
        } else {
            measured = overhead(load, options, &summary);
        }
        unregisterType(load);
        load.close();
        if (!summary.write()) {
            complain("cannot write " + options.summary);
            return 1;
        }
        return measured ? 0 : 1;
    } catch (const std::exception& e) {
        complain(std::string("stopped: ") + e.what());
        return 1;
    }
}
