// The figures orv-load works out of its measurements, and the summary lines
// it appends them to.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace load {

// Nearest-rank percentile of sorted values, q in (0, 1].
double percentile(const std::vector<double>& sorted, double q);

double mean(const std::vector<double>& values);

// Round trips in microseconds.
struct series_t {
    std::vector<double> us;
    void add(std::int64_t ns) { us.push_back(static_cast<double>(ns) / 1e3); }
    double median() const;
    double average() const { return mean(us); }
};

// Lines of figure, value, target and verdict, separated by tabs, appended to
// a file at the end; with no file nothing is written.
class summary_t {
  public:
    explicit summary_t(std::string file) : file_(std::move(file)) {}

    // verdict: met, missed, or nothing for a figure without a target.
    void row(const std::string& figure, const std::string& value, const std::string& target,
             std::optional<bool> met);

    bool write() const;

  private:
    std::string file_;
    std::vector<std::string> rows_;
};

}  // namespace load
