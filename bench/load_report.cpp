#include "load_report.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <numeric>

namespace load {

double percentile(const std::vector<double>& sorted, double q) {
    const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(sorted.size())));
    return sorted[std::max<std::size_t>(rank, 1) - 1];
}

double mean(const std::vector<double>& values) {
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

double series_t::median() const {
    std::vector<double> sorted = us;
    std::sort(sorted.begin(), sorted.end());
    return percentile(sorted, 0.5);
}

void summary_t::row(const std::string& figure, const std::string& value, const std::string& target,
                    std::optional<bool> met) {
    rows_.push_back(figure + '\t' + value + '\t' + target + '\t' +
                    (met ? (*met ? "met" : "missed") : "-"));
}

bool summary_t::write() const {
    if (file_.empty()) {
        return true;
    }
    std::ofstream out(file_, std::ios::app);
    for (const std::string& line : rows_) {
        out << line << '\n';
    }
    return static_cast<bool>(out);
}

}  // namespace load
