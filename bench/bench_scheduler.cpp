// The plug-in in process, through the virtual host: what one bus call and one
// dispatched change cost at 100 and at 100,000 schedules, how long a full
// recomputation takes and how much resident memory a schedule needs.
//
// The calls bypass the JSON arguments of virtual_host_t::call and are timed
// by hand, so that only the plug-in and the in-process bus are measured and
// the untimed half of each pair (remove after add, enable after disable)
// puts the population back as it was.
//
// "--summary=FILE" appends one line per target to FILE: figure, value,
// target and verdict, separated by tabs.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orv/function.h"
#include "orv/object.h"
#include "orv/request.h"
#include "orv/variant.h"
#include "virtual_host.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr std::int64_t kWeek = 604800;
// Monday 2023-11-13 00:00:00 UTC: the start of a Weekly period.
constexpr std::int64_t kMonday = 1699833600;
constexpr std::int64_t kChanges = 6;
constexpr std::size_t kSmall = 100;
constexpr std::size_t kLarge = 100000;
// Schedules per registration while a population is built: small enough that
// the transient argument lists do not show in the resident memory.
constexpr std::size_t kChunk = 1000;
constexpr const char* kType = "Bench";
constexpr const char* kSchedules = "Scheduler.Types.Bench.Schedules";

double seconds(clock_type::duration d) {
    return std::chrono::duration<double>(d).count();
}

std::string idOf(std::size_t i) {
    return "s" + std::to_string(i);
}

// Where a population's changes fall. Each schedule is Weekly with four
// spans, "on" then "eco" twice, and "off" between them: six changes a week.
// The 6n changes of n schedules take 6n distinct seconds spread evenly over
// the week, so that every dispatched change is alone in its second at both
// sizes and no size gets its changes batched. Changes that follow each other
// belong to schedules far apart in the population.
class layout_t {
  public:
    explicit layout_t(std::size_t count) : count_(count), stride_(7919) {
        while (std::gcd(stride_, count_) != 1) {
            ++stride_;
        }
    }

    std::size_t count() const { return count_; }

    // Seconds from the start of the week of the change in slot s.
    std::int64_t slotOffset(std::size_t slot) const {
        return static_cast<std::int64_t>(slot) * kWeek /
               static_cast<std::int64_t>(kChanges * count_);
    }
    std::size_t slots() const { return kChanges * count_; }

    variant_t schedule(std::size_t i) const {
        const std::size_t first = (i * stride_) % count_;
        std::array<std::int64_t, kChanges> at{};
        for (std::size_t k = 0; k < at.size(); ++k) {
            at[k] = slotOffset(first + k * count_);
        }
        variant_list_t entries;
        entries.push_back(entry(at[0], at[1], "on"));
        entries.push_back(entry(at[1], at[2], "eco"));
        entries.push_back(entry(at[3], at[4], "on"));
        entries.push_back(entry(at[4], at[5], "eco"));
        variant_map_t info;
        info.push_back({"ID", variant_t(idOf(i))});
        info.push_back({"enable", variant_t(true)});
        info.push_back({"base", variant_t("Weekly")});
        info.push_back({"def", variant_t("off")});
        info.push_back({"override", variant_t("")});
        info.push_back({"schedule", variant_t(std::move(entries))});
        return variant_t(std::move(info));
    }

  private:
    static variant_t entry(std::int64_t begin, std::int64_t end, const char* state) {
        variant_map_t map;
        map.push_back({"state", variant_t(state)});
        map.push_back({"begin", variant_t(static_cast<std::uint32_t>(begin))});
        map.push_back({"end", variant_t(static_cast<std::uint32_t>(end))});
        return variant_t(std::move(map));
    }

    std::size_t count_;
    std::size_t stride_;
};

// One call of a function of "Scheduler" as the host makes it. The request
// and the arguments are made before, and freed after, the part that is timed.
class scheduler_call_t {
  public:
    scheduler_call_t(std::string_view function, std::vector<argument_value_t> arguments)
        : function_(function), request_(request_create_executeFunction("Scheduler", function, 0)) {
        for (argument_value_t& argument : arguments) {
            arguments_.values().push_back(std::move(argument));
        }
    }

    // The call and the work it leaves on the loop; true when it returned true.
    bool run(virtual_host_t& host, object_t* scheduler) {
        variant_t retval;
        const bool handled =
            object_callFunction(scheduler, function_, &arguments_, &retval, request_.get());
        host.runPending();
        return handled && variant_toBool(&retval) == true;
    }

  private:
    std::string function_;
    std::unique_ptr<request_t> request_;
    argument_value_list_t arguments_;
};

argument_value_t text(const char* name, std::string_view value) {
    return {name, variant_t(value)};
}

scheduler_call_t addCall(const layout_t& layout, std::size_t i) {
    return scheduler_call_t("addSchedule", {text("type", kType), {"info", layout.schedule(i)}});
}

scheduler_call_t removeCall(std::size_t i) {
    variant_list_t ids;
    ids.emplace_back(idOf(i));
    return scheduler_call_t("removeSchedules",
                            {text("type", kType), {"ID", variant_t(std::move(ids))}});
}

long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

// A virtual host with the type "Bench" and its population. The plug-in keeps
// global state, so there is one at a time; it is kept from one benchmark to
// the next while they ask for the same size.
struct population_t {
    std::unique_ptr<virtual_host_t> host;
    std::optional<layout_t> layout;
    object_t* scheduler = nullptr;
};

population_t current;

void dropPopulation() {
    current.host.reset();
    current.layout.reset();
    current.scheduler = nullptr;
}

std::optional<std::string> startHost() {
    virtual_host_t::options_t options;
    options.start = kMonday + 1;
    // Tracing would dominate every figure: the plug-in's zone stays
    // unregistered and only errors pass.
    options.traceZone = std::nullopt;
    options.traceLevel = 0;
    current.host = std::make_unique<virtual_host_t>(options);
    if (!current.host->initialized()) {
        return "the plug-in did not initialise";
    }
    current.host->addClient("Bench.Client");
    current.scheduler = current.host->object("Scheduler");
    return std::nullopt;
}

variant_list_t states() {
    variant_list_t list;
    for (const char* state : {"on", "off", "eco"}) {
        list.emplace_back(state);
    }
    return list;
}

std::optional<std::string> addPopulation(std::size_t count) {
    layout_t layout(count);
    for (std::size_t first = 0; first < count; first += kChunk) {
        variant_list_t schedules;
        for (std::size_t i = first; i < std::min(count, first + kChunk); ++i) {
            schedules.push_back(layout.schedule(i));
        }
        scheduler_call_t call("registerScheduleType",
                              {text("type", kType),
                               text("path", "Bench.Client"),
                               {"states", variant_t(states())},
                               {"schedules", variant_t(std::move(schedules))}});
        if (!call.run(*current.host, current.scheduler)) {
            return "registerScheduleType failed";
        }
        current.host->bus().clearRecords();
    }
    object_t* schedules = current.host->object(kSchedules);
    const std::size_t made = schedules != nullptr ? object_instanceCount(schedules) : 0;
    if (made != count) {
        return "the population holds " + std::to_string(made) + " schedules, not " +
               std::to_string(count);
    }
    current.layout = layout;
    current.host->clearTraces();
    return std::nullopt;
}

// The population of that size, built now unless it is the current one; null
// after the benchmark was marked as failed.
population_t* population(benchmark::State& state, std::size_t count) {
    if (current.layout && current.layout->count() == count) {
        return &current;
    }
    dropPopulation();
    std::optional<std::string> error = startHost();
    if (!error) {
        error = addPopulation(count);
    }
    if (error) {
        dropPopulation();
        state.SkipWithError(error->c_str());
        return nullptr;
    }
    return &current;
}

// The schedules a benchmark works on, in a fixed scattered order so that
// lookups land all over the population.
std::size_t pick(const population_t& p, std::size_t k) {
    return (k * 104729 + 17) % p.layout->count();
}

// Runs the timed call; false after marking the benchmark as failed.
bool timed(benchmark::State& state, population_t& p, scheduler_call_t call, const char* what) {
    const auto start = clock_type::now();
    const bool ok = call.run(*p.host, p.scheduler);
    state.SetIterationTime(seconds(clock_type::now() - start));
    if (!ok) {
        state.SkipWithError(what);
    }
    return ok;
}

bool untimed(benchmark::State& state, population_t& p, scheduler_call_t call, const char* what) {
    if (!call.run(*p.host, p.scheduler)) {
        state.SkipWithError(what);
        return false;
    }
    return true;
}

// removeSchedules returns true for an unknown ID as well: the count tells
// whether the pair really took a schedule out and put it back.
bool holds(benchmark::State& state, population_t& p, std::size_t expected) {
    object_t* schedules = p.host->object(kSchedules);
    if (schedules == nullptr || object_instanceCount(schedules) != expected) {
        state.SkipWithError("the population changed size");
        return false;
    }
    return true;
}

// Keeps the records of the in-process bus from growing through a long run.
void trimRecords(population_t& p) {
    if (p.host->bus().calls().size() > 4096 || p.host->bus().notifications().size() > 4096) {
        p.host->bus().clearRecords();
    }
}

// --- Flat calls --------------------------------------------------------------

void addSchedule(benchmark::State& state) {
    population_t* p = population(state, static_cast<std::size_t>(state.range(0)));
    std::size_t k = 0;
    for (auto _ : state) {
        if (p == nullptr) {
            break;
        }
        const std::size_t i = pick(*p, k++);
        const std::size_t count = p->layout->count();
        if (!untimed(state, *p, removeCall(i), "removeSchedules failed") ||
            !holds(state, *p, count - 1) ||
            !timed(state, *p, addCall(*p->layout, i), "addSchedule failed") ||
            !holds(state, *p, count)) {
            break;
        }
        trimRecords(*p);
    }
}

void removeSchedules(benchmark::State& state) {
    population_t* p = population(state, static_cast<std::size_t>(state.range(0)));
    std::size_t k = 0;
    for (auto _ : state) {
        if (p == nullptr) {
            break;
        }
        const std::size_t i = pick(*p, k++);
        const std::size_t count = p->layout->count();
        if (!timed(state, *p, removeCall(i), "removeSchedules failed") ||
            !holds(state, *p, count - 1) ||
            !untimed(state, *p, addCall(*p->layout, i), "addSchedule failed") ||
            !holds(state, *p, count)) {
            break;
        }
        trimRecords(*p);
    }
}

void getSchedule(benchmark::State& state) {
    population_t* p = population(state, static_cast<std::size_t>(state.range(0)));
    std::size_t k = 0;
    for (auto _ : state) {
        if (p == nullptr) {
            break;
        }
        scheduler_call_t call("getSchedule",
                              {text("type", kType), text("ID", idOf(pick(*p, k++)))});
        if (!timed(state, *p, std::move(call), "getSchedule failed")) {
            break;
        }
    }
}

// Alternates between the two values of one argument of a schedule: odd
// iterations set the first, even ones the second, which restores the
// schedule, and the next schedule follows. An odd count is completed
// untimed.
template <typename Argument>
void toggle(benchmark::State& state, const char* function, const char* name, Argument first,
            Argument second) {
    population_t* p = population(state, static_cast<std::size_t>(state.range(0)));
    std::size_t k = 0;
    bool restored = true;
    auto make = [&](Argument value) {
        return scheduler_call_t(
            function,
            {text("type", kType), text("ID", idOf(pick(*p, k))), {name, variant_t(value)}});
    };
    for (auto _ : state) {
        if (p == nullptr) {
            break;
        }
        if (!timed(state, *p, make(restored ? first : second), function)) {
            return;
        }
        if (!restored) {
            ++k;
        }
        restored = !restored;
        trimRecords(*p);
    }
    if (p != nullptr && !restored) {
        untimed(state, *p, make(second), function);
    }
}

void enableSchedule(benchmark::State& state) {
    toggle(state, "enableSchedule", "enable", false, true);
}

void overrideSchedule(benchmark::State& state) {
    toggle<const char*>(state, "overrideSchedule", "override", "eco", "");
}

// One due change: the clock moves to the next second that holds a change, the
// plug-in applies it and calls setState on the in-process client.
void dispatchChange(benchmark::State& state) {
    population_t* p = population(state, static_cast<std::size_t>(state.range(0)));
    if (p == nullptr) {
        for (auto _ : state) {
        }
        return;
    }
    virtual_host_t& host = *p->host;
    const layout_t& layout = *p->layout;
    // Go on from wherever earlier benchmarks left the clock.
    std::int64_t week = kMonday + (host.now() - kMonday) / kWeek * kWeek;
    std::size_t slot = 0;
    while (slot < layout.slots() && week + layout.slotOffset(slot) <= host.now()) {
        ++slot;
    }
    host.bus().clearRecords();
    std::size_t delivered = 0;
    for (auto _ : state) {
        if (slot == layout.slots()) {
            slot = 0;
            week += kWeek;
        }
        const std::int64_t due = week + layout.slotOffset(slot++);
        const std::size_t before = host.bus().calls().size();
        const auto start = clock_type::now();
        host.advanceTo(due);
        state.SetIterationTime(seconds(clock_type::now() - start));
        const auto& calls = host.bus().calls();
        delivered += static_cast<std::size_t>(
            std::count_if(calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end(),
                          [](const auto& call) { return call.function == "setState"; }));
        trimRecords(*p);
    }
    // Every second the clock stops at holds exactly one change, which sets a
    // new state: anything else means the figure is not what it claims.
    if (delivered != static_cast<std::size_t>(state.iterations())) {
        const std::string error = std::to_string(delivered) + " setState calls for " +
                                  std::to_string(state.iterations()) + " due changes";
        state.SkipWithError(error.c_str());
    }
}

// --- Recomputation and memory -------------------------------------------------

// The clock is set an hour and a few seconds ahead and "Time" announces it
// (notification 926): every schedule's next change is computed anew and the
// schedules whose state changed in the skipped hour are sent it.
void recompute(benchmark::State& state) {
    population_t* p = population(state, static_cast<std::size_t>(state.range(0)));
    std::size_t sent = 0;
    for (auto _ : state) {
        if (p == nullptr) {
            break;
        }
        p->host->bus().clearRecords();
        p->host->setClock(p->host->now() + 3607);
        const auto start = clock_type::now();
        p->host->emitTime({926});
        state.SetIterationTime(seconds(clock_type::now() - start));
        sent += p->host->bus().calls().size();
    }
    if (p != nullptr) {
        state.counters["setState_per_recompute"] =
            benchmark::Counter(static_cast<double>(sent), benchmark::Counter::kAvgIterations);
    }
}

// Resident memory before and after a population of that size is added to an
// empty type. The population stays for the benchmarks that follow.
void residentMemory(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        dropPopulation();
        if (std::optional<std::string> error = startHost()) {
            state.SkipWithError(error->c_str());
            break;
        }
        scheduler_call_t registration(
            "registerScheduleType",
            {text("type", kType), text("path", "Bench.Client"), {"states", variant_t(states())}});
        if (!registration.run(*current.host, current.scheduler)) {
            state.SkipWithError("registerScheduleType failed");
            break;
        }
        const long before = residentKiB();
        const auto start = clock_type::now();
        if (std::optional<std::string> error = addPopulation(count)) {
            dropPopulation();
            state.SkipWithError(error->c_str());
            break;
        }
        state.SetIterationTime(seconds(clock_type::now() - start));
        const long after = residentKiB();
        if (before < 0 || after < 0) {
            state.SkipWithError("VmRSS not readable");
            break;
        }
        state.counters["KiB_per_schedule"] =
            static_cast<double>(after - before) / static_cast<double>(count);
        state.counters["rss_before_KiB"] = static_cast<double>(before);
        state.counters["rss_after_KiB"] = static_cast<double>(after);
    }
}

// --- Summary ---------------------------------------------------------------------

// Keeps what the summary needs of each run while the console shows it.
class summary_reporter_t : public benchmark::ConsoleReporter {
  public:
    explicit summary_reporter_t(OutputOptions options) : ConsoleReporter(options) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) {
                continue;
            }
            // Keyed without the iteration count and time type that the full
            // name may carry.
            result_t& result = results_[run.run_name.function_name + "/" + run.run_name.args];
            const double perIteration =
                run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            if (run.run_type == Run::RT_Aggregate) {
                if (run.aggregate_name == "median") {
                    result.median = perIteration;
                }
                continue;
            }
            result.seconds.push_back(perIteration);
            for (const auto& [name, counter] : run.counters) {
                result.counters[name] = counter.value;
            }
        }
    }

    // Seconds per iteration: the median over repetitions.
    std::optional<double> seconds(const std::string& name) const {
        auto it = results_.find(name);
        if (it == results_.end()) {
            return std::nullopt;
        }
        if (it->second.median) {
            return it->second.median;
        }
        std::vector<double> values = it->second.seconds;
        if (values.empty()) {
            return std::nullopt;
        }
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    }

    std::optional<double> counter(const std::string& name, const std::string& key) const {
        auto it = results_.find(name);
        if (it == results_.end()) {
            return std::nullopt;
        }
        auto found = it->second.counters.find(key);
        if (found == it->second.counters.end()) {
            return std::nullopt;
        }
        return found->second;
    }

  private:
    struct result_t {
        std::vector<double> seconds;
        std::optional<double> median;
        std::map<std::string, double> counters;
    };
    std::map<std::string, result_t> results_;
};

std::string fixed(double value, int decimals) {
    std::ostringstream out;
    out.setf(std::ios::fixed);
    out.precision(decimals);
    out << value;
    return out.str();
}

std::string micro(double secondsValue) {
    return fixed(secondsValue * 1e6, 2) + " us";
}

const std::vector<std::pair<const char*, void (*)(benchmark::State&)>> kFlat = {
    {"addSchedule", addSchedule},           {"removeSchedules", removeSchedules},
    {"getSchedule", getSchedule},           {"enableSchedule", enableSchedule},
    {"overrideSchedule", overrideSchedule}, {"dispatchChange", dispatchChange},
};

std::string nameOf(const char* benchmark, std::size_t count) {
    return std::string(benchmark) + "/schedules:" + std::to_string(count);
}

void writeSummary(const summary_reporter_t& reporter, std::ostream& out) {
    auto row = [&](const std::string& figure, const std::string& value, const char* target,
                   std::optional<bool> met) {
        out << figure << '\t' << value << '\t' << target << '\t'
            << (met ? (*met ? "met" : "missed") : "not measured") << '\n';
    };
    for (const auto& [name, function] : kFlat) {
        const std::string figure = std::string("in-process ") + name + ", 100k / 100 schedules";
        const auto small = reporter.seconds(nameOf(name, kSmall));
        const auto large = reporter.seconds(nameOf(name, kLarge));
        if (!small || !large || *small <= 0) {
            row(figure, "-", "<= 1.2", std::nullopt);
            continue;
        }
        const double ratio = *large / *small;
        row(figure, fixed(ratio, 2) + " (" + micro(*large) + " / " + micro(*small) + ")", "<= 1.2",
            ratio <= 1.2);
    }
    const auto full = reporter.seconds(nameOf("recompute", kLarge));
    row("in-process full recompute, 100k schedules", full ? fixed(*full * 1e3, 1) + " ms" : "-",
        "<= 200 ms", full ? std::optional<bool>(*full <= 0.2) : std::nullopt);
    const auto memory = reporter.counter(nameOf("residentMemory", kLarge), "KiB_per_schedule");
    row("resident memory per schedule (4 entries)", memory ? fixed(*memory, 2) + " KiB" : "-",
        "<= 2 KiB", memory ? std::optional<bool>(*memory <= 2.0) : std::nullopt);
}

}  // namespace

int main(int argc, char** argv) {
    // Weekly periods start on Monday in local time; the layout counts in UTC.
    setenv("TZ", "UTC", 1);
    tzset();

    std::string summaryFile;
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        constexpr std::string_view kFlag = "--summary=";
        if (std::string_view(argv[i]).substr(0, kFlag.size()) == kFlag) {
            summaryFile = argv[i] + kFlag.size();
        } else {
            args.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) {
        return 2;
    }

    // The large population is built once by the memory benchmark and used by
    // everything at that size before the small one replaces it.
    auto sized = [](const std::string& name, void (*function)(benchmark::State&),
                    std::size_t size) {
        return benchmark::RegisterBenchmark(name.c_str(), function)
            ->ArgName("schedules")
            ->Arg(static_cast<std::int64_t>(size))
            ->UseManualTime();
    };
    // One measurement only: a second one would start from a heap that still
    // holds what the first population freed.
    sized("residentMemory", residentMemory, kLarge)
        ->Iterations(1)
        ->Repetitions(1)
        ->Unit(benchmark::kMillisecond);
    for (std::size_t size : {kLarge, kSmall}) {
        for (const auto& [name, function] : kFlat) {
            sized(name, function, size)->Unit(benchmark::kMicrosecond);
        }
        if (size == kLarge) {
            sized("recompute", recompute, size)->Iterations(5)->Unit(benchmark::kMillisecond);
        }
    }

    summary_reporter_t reporter(isatty(STDOUT_FILENO) != 0
                                    ? benchmark::ConsoleReporter::OO_ColorTabular
                                    : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    dropPopulation();
    benchmark::Shutdown();

    if (!summaryFile.empty()) {
        std::ofstream out(summaryFile, std::ios::app);
        writeSummary(reporter, out);
        if (!out) {
            return 1;
        }
    }
    return 0;
}
