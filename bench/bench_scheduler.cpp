// The plug-in in process, through the virtual host: what one bus call and one
// dispatched change cost at 100 and at 100,000 schedules, how long a full
// recomputation takes and how much resident memory a schedule needs.
//
// The calls bypass the JSON arguments of virtual_host_t::call, so that only
// the plug-in and the in-process bus are measured.
//
// "--summary=FILE" appends one line per target to FILE: figure, value,
// target and verdict, separated by tabs.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "bench_cases.h"
#include "bench_summary.h"
#include "population.h"

namespace {

// Takes "--summary=FILE" out of the arguments and returns FILE, or nothing
// without it; args receives the rest for the benchmark library.
std::string takeSummaryFile(int argc, char** argv, std::vector<char*>* args) {
    constexpr std::string_view kFlag = "--summary=";
    std::string summaryFile;
    for (int i = 0; i < argc; ++i) {
        if (std::string_view(argv[i]).substr(0, kFlag.size()) == kFlag) {
            summaryFile = argv[i] + kFlag.size();
        } else {
            args->push_back(argv[i]);
        }
    }
    return summaryFile;
}

benchmark::internal::Benchmark* sized(const std::string& name, bench::case_t function,
                                      std::size_t size) {
    return benchmark::RegisterBenchmark(name.c_str(), function)
        ->ArgName("schedules")
        ->Arg(static_cast<std::int64_t>(size))
        ->UseManualTime();
}

// The large population is built once by the memory benchmark and used by
// everything at that size before the small one replaces it.
void registerBenchmarks() {
    // One measurement only: a second one would start from a heap that still
    // holds what the first population freed.
    sized("residentMemory", bench::residentMemory, bench::kLarge)
        ->Iterations(1)
        ->Repetitions(1)
        ->Unit(benchmark::kMillisecond);
    for (std::size_t size : {bench::kLarge, bench::kSmall}) {
        for (const auto& [name, function] : bench::flatCases()) {
            sized(name, function, size)->Unit(benchmark::kMicrosecond);
        }
        if (size == bench::kLarge) {
            sized("recompute", bench::recompute, size)
                ->Iterations(5)
                ->Unit(benchmark::kMillisecond);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Weekly periods start on Monday in local time; the layout counts in UTC.
    setenv("TZ", "UTC", 1);
    tzset();

    std::vector<char*> args;
    const std::string summaryFile = takeSummaryFile(argc, argv, &args);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) {
        return 2;
    }
    registerBenchmarks();

    bench::summary_reporter_t reporter(isatty(STDOUT_FILENO) != 0
                                           ? benchmark::ConsoleReporter::OO_ColorTabular
                                           : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    bench::dropPopulation();
    benchmark::Shutdown();

    if (!summaryFile.empty()) {
        std::ofstream out(summaryFile, std::ios::app);
        bench::writeSummary(reporter, out);
        if (!out) {
            return 1;
        }
    }
    return 0;
}
