// The console report of the in-process benchmarks, and the summary lines
// (figure, value, target and verdict) that it keeps for afterwards.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace bench {

// Keeps what the summary needs of each run while the console shows it.
class summary_reporter_t : public benchmark::ConsoleReporter {
  public:
    explicit summary_reporter_t(OutputOptions options) : ConsoleReporter(options) {}

    void ReportRuns(const std::vector<Run>& runs) override;

    // Seconds per iteration: the median over repetitions.
    std::optional<double> seconds(const std::string& name) const;

    std::optional<double> counter(const std::string& name, const std::string& key) const;

  private:
    struct result_t {
        std::vector<double> seconds;
        std::optional<double> median;
        std::map<std::string, double> counters;
    };
    std::map<std::string, result_t> results_;
};

// One line per target, separated by tabs.
void writeSummary(const summary_reporter_t& reporter, std::ostream& out);

}  // namespace bench
