#include "bench_summary.h"

#include <algorithm>

#include "bench_cases.h"
#include "bench_format.h"
#include "population.h"

namespace bench {

namespace {

std::string micro(double secondsValue) {
    return fixed(secondsValue * 1e6, 2) + " us";
}

std::string nameOf(const char* benchmark, std::size_t count) {
    return std::string(benchmark) + "/schedules:" + std::to_string(count);
}

}  // namespace

void summary_reporter_t::ReportRuns(const std::vector<Run>& runs) {
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

std::optional<double> summary_reporter_t::seconds(const std::string& name) const {
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

std::optional<double> summary_reporter_t::counter(const std::string& name,
                                                  const std::string& key) const {
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

// The targets: a call costs about the same at 100,000 schedules as at 100, a
// full recompute of 100,000 schedules fits in a tenth of a second, and a
// schedule of four entries takes at most a KiB.
constexpr double kMaxRatio = 1.3;
constexpr double kMaxRecomputeSeconds = 0.1;
constexpr double kMaxKiBPerSchedule = 1.0;

void writeSummary(const summary_reporter_t& reporter, std::ostream& out) {
    auto row = [&](const std::string& figure, const std::string& value, const char* target,
                   std::optional<bool> met) {
        out << figure << '\t' << value << '\t' << target << '\t'
            << (met ? (*met ? "met" : "missed") : "not measured") << '\n';
    };
    for (const auto& [name, function] : flatCases()) {
        const std::string figure = std::string("in-process ") + name + ", 100k / 100 schedules";
        const auto small = reporter.seconds(nameOf(name, kSmall));
        const auto large = reporter.seconds(nameOf(name, kLarge));
        if (!small || !large || *small <= 0) {
            row(figure, "-", "<= 1.3", std::nullopt);
            continue;
        }
        const double ratio = *large / *small;
        row(figure, fixed(ratio, 2) + " (" + micro(*large) + " / " + micro(*small) + ")", "<= 1.3",
            ratio <= kMaxRatio);
    }
    const auto full = reporter.seconds(nameOf("recompute", kLarge));
    row("in-process full recompute, 100k schedules", full ? fixed(*full * 1e3, 1) + " ms" : "-",
        "<= 100 ms", full ? std::optional<bool>(*full <= kMaxRecomputeSeconds) : std::nullopt);
    const auto memory = reporter.counter(nameOf("residentMemory", kLarge), "KiB_per_schedule");
    row("resident memory per schedule (4 entries)", memory ? fixed(*memory, 2) + " KiB" : "-",
        "<= 1 KiB", memory ? std::optional<bool>(*memory <= kMaxKiBPerSchedule) : std::nullopt);
}

}  // namespace bench
