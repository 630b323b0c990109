// The in-process benchmarks, each run with the population size as its one
// argument ("schedules").
#pragma once

#include <benchmark/benchmark.h>

#include <utility>
#include <vector>

namespace bench {

using case_t = void (*)(benchmark::State&);

// The single calls and the dispatch of one change, by name: each is measured
// at both sizes and the summary compares the two.
const std::vector<std::pair<const char*, case_t>>& flatCases();

// A full recomputation after the clock was set ahead.
void recompute(benchmark::State& state);

// Resident memory before and after a population of that size is added to an
// empty type. The population stays for the benchmarks that follow.
void residentMemory(benchmark::State& state);

}  // namespace bench
