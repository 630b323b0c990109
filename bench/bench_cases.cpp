// The calls are timed by hand, so that only the plug-in and the in-process
// bus are measured and the untimed half of each pair (remove after add,
// enable after disable) puts the population back as it was.
#include "bench_cases.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <utility>

#include "population.h"

namespace bench {

namespace {

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

using run_t = bool (*)(benchmark::State&, population_t&, scheduler_call_t, const char*);

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

// Takes a schedule out and puts it back; one of the two calls is timed.
void removeThenAdd(benchmark::State& state, run_t removal, run_t addition) {
    population_t* p = population(state, static_cast<std::size_t>(state.range(0)));
    std::size_t k = 0;
    for (auto _ : state) {
        if (p == nullptr) {
            break;
        }
        const std::size_t i = pick(*p, k++);
        const std::size_t count = p->layout->count();
        if (!removal(state, *p, removeCall(i), "removeSchedules failed") ||
            !holds(state, *p, count - 1) ||
            !addition(state, *p, addCall(*p->layout, i), "addSchedule failed") ||
            !holds(state, *p, count)) {
            break;
        }
        trimRecords(*p);
    }
}

void addSchedule(benchmark::State& state) {
    removeThenAdd(state, untimed, timed);
}

void removeSchedules(benchmark::State& state) {
    removeThenAdd(state, timed, untimed);
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

// The first slot of the week that starts at week which is not yet past.
std::size_t firstSlotAfter(const layout_t& layout, std::int64_t week, std::int64_t now) {
    std::size_t slot = 0;
    while (slot < layout.slots() && week + layout.slotOffset(slot) <= now) {
        ++slot;
    }
    return slot;
}

// The setState calls on the in-process bus from the record at index from on.
std::size_t setStatesSince(virtual_host_t& host, std::size_t from) {
    const auto& calls = host.bus().calls();
    return static_cast<std::size_t>(
        std::count_if(calls.begin() + static_cast<std::ptrdiff_t>(from), calls.end(),
                      [](const auto& call) { return call.function == "setState"; }));
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
    std::size_t slot = firstSlotAfter(layout, week, host.now());
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
        delivered += setStatesSince(host, before);
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

}  // namespace

const std::vector<std::pair<const char*, case_t>>& flatCases() {
    static const std::vector<std::pair<const char*, case_t>> cases = {
        {"addSchedule", addSchedule},           {"removeSchedules", removeSchedules},
        {"getSchedule", getSchedule},           {"enableSchedule", enableSchedule},
        {"overrideSchedule", overrideSchedule}, {"dispatchChange", dispatchChange},
    };
    return cases;
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

void residentMemory(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        dropPopulation();
        std::optional<std::string> error = startHost();
        if (!error) {
            error = registerEmptyType();
        }
        if (error) {
            state.SkipWithError(error->c_str());
            break;
        }
        const long before = residentKiB();
        const auto start = clock_type::now();
        error = addPopulation(count);
        if (error) {
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

}  // namespace bench
