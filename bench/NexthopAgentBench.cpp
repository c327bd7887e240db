// nexthop-agent as operators run it, against a real kernel: the namespace of 10,000 routes over
// 64 peers (as in LinuxHostBench) and a request file of one request per route.
//
// - StartTo10000StatusLines: from starting the agent process to the 10,000th "status add" line
//   read from its standard output. Goal: at most 1 s.
//
// Needs root (network namespaces); skips otherwise. Only 198.18.0.0/15 is used.
#include <benchmark/benchmark.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <string>

#include "support/ChildProcess.h"
#include "support/RouteWorld.h"

namespace {

using TestSupport::addr;
using TestSupport::kRoutes;
using TestSupport::kRoutes0;
using TestSupport::RouteWorld;

void StartTo10000StatusLines(benchmark::State& state) {
  std::string why;
  RouteWorld* w = RouteWorld::shared(&why);
  if (!w) {
    state.SkipWithError(why.c_str());
    return;
  }
  w->peersResolved();
  const std::string requests = "/tmp/" + w->h->name() + ".requests";
  {
    std::ofstream out(requests);
    for (int i = 0; i < kRoutes; ++i) out << "default " << addr(kRoutes0 + i) << " bh0\n";
  }
  const auto statusAdd = [](const std::string& line) {
    return line.find("] status add default ") != std::string::npos;
  };
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    TestSupport::ChildProcess agent(
        {NEXTHOP_AGENT, "--netns", w->h->name(), "--requests", requests});
    const bool done = agent.waitLines(statusAdd, kRoutes, 30000);
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    agent.signal(SIGTERM);
    const int status = agent.finish(30000).status;
    if (!done) state.SkipWithError("not every request got its status line");
    if (status != 0) state.SkipWithError("the agent did not end with status 0");
  }
  std::remove(requests.c_str());
}
BENCHMARK(StartTo10000StatusLines)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
