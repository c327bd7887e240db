// The Linux host against a real kernel: a namespace with 10,000 routes over 64 peers (one peer
// namespace with 64 addresses on one veth link) and 64 nexthop objects, one per peer.
//
// - RoutesToHostState: from the host's start to the module's inputs holding every route (the
//   dump, parsing, the mirror and the routing resolver): time per route.
// - NeighboursToHostState: the same for 10,000 neighbour entries: time per neighbour.
// - StartTo10000Statuses: from the host's start to 10,000 requests (one per route) all having
//   their status, the nexthop object's id. Goal: at most 1 s.
//
// Needs root (network namespaces); skips otherwise. Only 198.18.0.0/15 is used.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "hosts/linux/EventLoop.h"
#include "hosts/linux/LinuxHost.h"
#include "support/RouteWorld.h"
#include "support/TestNetns.h"

namespace {

using namespace Hosts::Linux;
using TestSupport::TestNetns;

using TestSupport::addr;
using TestSupport::ipBatch;
using TestSupport::kRoutes;
using TestSupport::kRoutes0;
using TestSupport::RouteWorld;

constexpr int kNeighbours = 10000;
// Neighbour world: 198.18.64.0/18 directly on its link.
constexpr uint32_t kNeighLink = 0xc6124000;  // 198.18.64.0

struct NeighbourWorld {
  std::unique_ptr<TestNetns> n = std::make_unique<TestNetns>("bn");

  NeighbourWorld() {
    n->ip("link add bn0 type veth peer name bn1");
    n->ip("addr add " + addr(kNeighLink + 1) + "/18 dev bn0");
    n->ip("link set bn0 up");
    n->ip("link set bn1 up");
    std::vector<std::string> lines;
    for (int i = 0; i < kNeighbours; ++i) {
      char mac[18];
      std::snprintf(mac, sizeof mac, "02:00:00:00:%02x:%02x", (i >> 8) & 0xff, i & 0xff);
      lines.push_back("neigh add " + addr(kNeighLink + 2 + i) + " dev bn0 lladdr " + mac +
                      " nud permanent");
    }
    ipBatch(*n, lines);
  }
};

template <class World>
World* world(benchmark::State& state) {
  std::string why;
  if (!TestNetns::available(&why)) {
    state.SkipWithError(why.c_str());
    return nullptr;
  }
  static std::unique_ptr<World> w;
  if (!w) w = std::make_unique<World>();
  return w.get();
}

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

void RoutesToHostState(benchmark::State& state) {
  RouteWorld* w = world<RouteWorld>(state);
  if (!w) return;
  for (auto _ : state) {
    EventLoop loop;
    LinuxHostConfig config;
    config.defaultNetns = w->h->name();
    const auto start = std::chrono::steady_clock::now();
    LinuxHost host(loop, config);
    state.SetIterationTime(seconds(start));
    const auto& table = host.routing()->routes().at(L3::VrfName("default"));
    if (table.size() < kRoutes) state.SkipWithError("routes missing from the host");
  }
  state.counters["per_route"] =
      benchmark::Counter(double(kRoutes) * double(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(RoutesToHostState)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

void NeighboursToHostState(benchmark::State& state) {
  NeighbourWorld* w = world<NeighbourWorld>(state);
  if (!w) return;
  for (auto _ : state) {
    EventLoop loop;
    LinuxHostConfig config;
    config.defaultNetns = w->n->name();
    const auto start = std::chrono::steady_clock::now();
    LinuxHost host(loop, config);
    state.SetIterationTime(seconds(start));
    const auto key = Plane::NextHopKey(Netval::IntfId::fromKernelName("bn0"),
                                       Netval::IpGenAddr::ipv4(kNeighLink + 2 + kNeighbours - 1));
    if (host.nextHopInfoWrapper()->nextHopInfo(key).ethAddr().isZero()) {
      state.SkipWithError("neighbours missing from the host");
    }
  }
  state.counters["per_neighbour"] =
      benchmark::Counter(double(kNeighbours) * double(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(NeighboursToHostState)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

void StartTo10000Statuses(benchmark::State& state) {
  RouteWorld* w = world<RouteWorld>(state);
  if (!w) return;
  const L3::VrfName vrf("default");
  const Netval::IntfId dev = Netval::IntfId::fromKernelName("bh0");
  w->peersResolved();
  for (auto _ : state) {
    EventLoop loop;
    LinuxHostConfig config;
    config.defaultNetns = w->h->name();
    const auto start = std::chrono::steady_clock::now();
    LinuxHost host(loop, config);
    for (int i = 0; i < kRoutes; ++i) {
      host.requestAdd(
          FwdL3Unicast::NexthopNhIndexResolverKey(vrf, Netval::IpGenAddr::ipv4(kRoutes0 + i), dev));
    }
    const bool done = loop.runUntil(
        [&] { return host.statusDir()->statusCount() == static_cast<size_t>(kRoutes); }, 30000);
    state.SetIterationTime(seconds(start));
    if (!done) state.SkipWithError("not every request got its status");
  }
}
BENCHMARK(StartTo10000Statuses)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
