#pragma once

// The timed work of a benchmark, out of line under one name, so that tools/instr-bench.sh can
// count its instructions alone: callgrind run with --toggle-collect='*measured*' counts only
// what runs inside measured(), not the set-up or the untimed parts of an iteration. Each
// measured call adds the units of work it covers (requests, iterations) to one total for the
// process, trial runs included, which the benchmark reports as the counter "measured_units"
// when the environment sets BENCH_MEASURED_UNITS (the script does, and runs one benchmark per
// process); the script divides the count by it. No other function here or in a benchmark may
// have "measured" in its name: entering one would toggle the count off.
#include <benchmark/benchmark.h>

#include <cstdlib>

namespace Bench {

// Units covered by every measured call of this process so far.
inline double& unitsTimedSoFar() {
  static double units = 0;
  return units;
}

template <class Work>
[[gnu::noinline]] void measured(Work&& work) {
  work();
}

// Runs `work`, which covers `units` units, as one measured call.
template <class Work>
void timedWork(double units, Work&& work) {
  measured(work);
  unitsTimedSoFar() += units;
}

// Runs a benchmark's whole timed loop as one measured call, one unit per iteration: the loop
// stays as tight as when written in place, so that cheap bodies are timed without a call each.
template <class Body>
void timedLoop(benchmark::State& state, Body&& body) {
  measured([&] {
    for (auto _ : state) body();
  });
  unitsTimedSoFar() += static_cast<double>(state.iterations());
}

// Reports the total for tools/instr-bench.sh; call it once, after the timed loop. Left out of
// other runs, where a total over every benchmark run so far would only mislead.
inline void unitsTimedReport(benchmark::State& state) {
  if (std::getenv("BENCH_MEASURED_UNITS") == nullptr) return;
  state.counters["measured_units"] = benchmark::Counter(unitsTimedSoFar());
}

}  // namespace Bench
