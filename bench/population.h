// The population the in-process benchmarks work on: a virtual host with the
// type "Bench" and a number of Weekly schedules laid out over the week, and
// the calls of "Scheduler" that the benchmarks time.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orv/function.h"
#include "orv/object.h"
#include "orv/request.h"
#include "orv/variant.h"
#include "virtual_host.h"

namespace bench {

using clock_type = std::chrono::steady_clock;

constexpr std::int64_t kWeek = 604800;
// Monday 2023-11-13 00:00:00 UTC: the start of a Weekly period.
constexpr std::int64_t kMonday = 1699833600;
constexpr std::int64_t kChanges = 6;
constexpr std::size_t kSmall = 100;
constexpr std::size_t kLarge = 100000;
constexpr const char* kType = "Bench";
constexpr const char* kSchedules = "Scheduler.Types.Bench.Schedules";

inline double seconds(clock_type::duration d) {
    return std::chrono::duration<double>(d).count();
}

std::string idOf(std::size_t i);

// Where a population's changes fall. Each schedule is Weekly with four
// spans, "on" then "eco" twice, and "off" between them: six changes a week.
// The 6n changes of n schedules take 6n distinct seconds spread evenly over
// the week, so that every dispatched change is alone in its second at both
// sizes and no size gets its changes batched. Changes that follow each other
// belong to schedules far apart in the population.
class layout_t {
  public:
    explicit layout_t(std::size_t count);

    std::size_t count() const { return count_; }

    // Seconds from the start of the week of the change in slot s.
    std::int64_t slotOffset(std::size_t slot) const {
        return static_cast<std::int64_t>(slot) * kWeek /
               static_cast<std::int64_t>(kChanges * count_);
    }
    std::size_t slots() const { return kChanges * count_; }

    variant_t schedule(std::size_t i) const;

  private:
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

inline argument_value_t text(const char* name, std::string_view value) {
    return {name, variant_t(value)};
}

scheduler_call_t addCall(const layout_t& layout, std::size_t i);
scheduler_call_t removeCall(std::size_t i);

// A virtual host with the type "Bench" and its population. The plug-in keeps
// global state, so there is one at a time; it is kept from one benchmark to
// the next while they ask for the same size.
struct population_t {
    std::unique_ptr<virtual_host_t> host;
    std::optional<layout_t> layout;
    object_t* scheduler = nullptr;
};

// The population of that size, built now unless it is the current one; null
// after the benchmark was marked as failed.
population_t* population(benchmark::State& state, std::size_t count);

// The steps population() takes, for the benchmark that measures them. Each
// returns what went wrong, if anything.
void dropPopulation();
std::optional<std::string> startHost();
// Registers "Bench" on the current host without any schedule.
std::optional<std::string> registerEmptyType();
std::optional<std::string> addPopulation(std::size_t count);

// The schedules a benchmark works on, in a fixed scattered order so that
// lookups land all over the population.
inline std::size_t pick(const population_t& p, std::size_t k) {
    return (k * 104729 + 17) % p.layout->count();
}

}  // namespace bench
