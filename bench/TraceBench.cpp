// Cost of one trace statement with three values (an integer, an address, a string): ring on
// and text off, both off, and the text trace alone into a sink that drops the line.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "framework/DualLog.h"
#include "framework/Netval.h"
#include "framework/RingLog.h"

namespace {

[[gnu::always_inline]] inline DualLog::Handle& traceHandle() {
  static DualLog::Handle h("TraceBench", false);
  return h;
}

inline void traceThree(uint32_t index, const Netval::IpGenAddr& nexthop, const std::string& vrf) {
  DUALLOG_TRACE(8, "Resolve request added - index: ", index, " nexthop: ", nexthop, " vrf: ", vrf);
}

// Runs the statement in a loop; the memory clobber makes every iteration re-read the on flags.
void runTraces(benchmark::State& state) {
  const Netval::IpGenAddr nexthop = Netval::IpGenAddr::fromText("10.0.0.1");
  const std::string vrf = "red";
  uint32_t index = 0;
  for (auto _ : state) {
    traceThree(index++, nexthop, vrf);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}

std::string ringPath() {
  return (std::filesystem::temp_directory_path() /
          ("TraceBench-" + std::to_string(getpid()) + ".ring"))
      .string();
}

void BM_RingTrace3Args(benchmark::State& state) {
  DualLog::textFilterIs("");
  std::string path = ringPath();
  RingLog::open(path);
  runTraces(state);
  RingLog::close();
  std::filesystem::remove(path);
}
BENCHMARK(BM_RingTrace3Args);

void BM_TraceOff(benchmark::State& state) {
  DualLog::textFilterIs("");
  RingLog::close();
  runTraces(state);
}
BENCHMARK(BM_TraceOff);

void BM_TextTrace3Args(benchmark::State& state) {
  DualLog::textSinkIs(
      [](const DualLog::TextRecord& r) { benchmark::DoNotOptimize(r.text.data()); });
  DualLog::textFilterIs("TraceBench/8");
  RingLog::close();
  runTraces(state);
  DualLog::textFilterIs("");
  DualLog::textSinkIs(nullptr);
}
BENCHMARK(BM_TextTrace3Args);

}  // namespace
