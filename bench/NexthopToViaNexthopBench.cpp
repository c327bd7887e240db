// Stage 1 (nexthop -> via) on the real platform types: the cost of one review of a full FEC, and
// how much work one FEC change causes among many tracked nexthops. A review copies the FEC once
// and does one look-up per via, so its time grows with the via count plus the requested
// interfaces; BM_Stage1FecCopyOnly is the copy alone, for comparison in the same run. A FEC
// change must reach only the nexthops resolved through it: the reviews counter shows how many.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Fwd/FwdNexthopToViaNexthopSm.h"
#include "bench/BenchMeasured.h"
#include "framework/CoreReactor.h"
#include "framework/Hub.h"
#include "platform/Memtab.h"
#include "platform/Routing.h"

namespace {

using FwdL3Unicast::NexthopIntfId;
using FwdL3Unicast::NexthopIntfIdColl;
using FwdL3Unicast::NexthopToViaNexthopMap;
using FwdL3Unicast::NexthopToViaNexthopSm;
using Memtab::FibGen::Fec;
using Memtab::FibGen::Via;

Netval::IntfId ethernet(uint32_t n) { return Netval::IntfId("Ethernet" + std::to_string(n)); }

// One VRF's stage 1 with its inputs.
struct Stage1 {
  L3::VrfName vrfName{"red"};
  NexthopIntfIdColl::Ptr config = NexthopIntfIdColl::NexthopIntfIdCollIs(vrfName);
  Routing::NexthopVrfConfig::Ptr nexthopVrfConfig =
      Routing::NexthopVrfConfig::NexthopVrfConfigIs(vrfName);
  Routing::NexthopVrfStatus::Ptr nexthopVrfStatus =
      Routing::NexthopVrfStatus::NexthopVrfStatusIs(vrfName);
  Memtab::FibGen::ForwardingStatus::Ptr fecTable =
      Memtab::FibGen::ForwardingStatus::ForwardingStatusIs();
  Hub::TaskScheduler::Ptr scheduler = Hub::TaskScheduler::TaskSchedulerIs();
  NexthopToViaNexthopMap::Ptr status = NexthopToViaNexthopMap::NexthopToViaNexthopMapIs();
  NexthopToViaNexthopSm::Ptr sm = FwdL3Unicast::nexthopToViaNexthopSmFactory(
      vrfName, config, nexthopVrfConfig, nexthopVrfStatus, fecTable, scheduler, status);
};

// 600 vias, one per interface Ethernet1..Ethernet600, each with its own address.
Fec fullFec(Memtab::Fib::FecId fecId) {
  std::vector<Via> vias;
  for (uint32_t i = 0; i < Fec::maxVia; ++i) {
    vias.emplace_back(ethernet(i + 1), Netval::IpGenAddr::ipv4(0x0a000000u + (i << 8) + 1));
  }
  return Fec(fecId, std::move(vias));
}

// A review of one nexthop resolved through a 600-via FEC and requested on range(0) of the FEC's
// interfaces (spread over the whole via array). Nothing changes, so nothing is published.
void BM_Stage1Review600Vias(benchmark::State& state) {
  const auto interfaces = static_cast<uint32_t>(state.range(0));
  Stage1 s;
  const Netval::IpGenAddr nexthop("192.168.0.1");
  s.fecTable->fecIs(fullFec(7));
  s.nexthopVrfStatus->nexthopIs(Routing::NexthopStatusEntry(nexthop, 7));
  const uint32_t step = static_cast<uint32_t>(Fec::maxVia) / interfaces;
  for (uint32_t i = 0; i < interfaces; ++i) s.config->configIs({nexthop, ethernet(i * step + 1)});
  if (s.status->mapCount() != interfaces) state.SkipWithError("not every interface has a via");

  Bench::timedLoop(state, [&] { s.sm->handleNexthopStatus(nexthop); });
  Bench::unitsTimedReport(state);

  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(Fec::maxVia));
  state.counters["vias"] = static_cast<double>(Fec::maxVia);
  state.counters["interfaces"] = interfaces;
}
BENCHMARK(BM_Stage1Review600Vias)->Arg(1)->Arg(16)->Arg(150)->Arg(600);

// The FEC copy that every review makes, alone: the floor under BM_Stage1Review600Vias.
void BM_Stage1FecCopyOnly(benchmark::State& state) {
  Memtab::FibGen::ForwardingStatus::Ptr fecTable =
      Memtab::FibGen::ForwardingStatus::ForwardingStatusIs();
  fecTable->fecIs(fullFec(7));
  Bench::timedLoop(state, [&] {
    Fec copy = fecTable->fec(7);
    benchmark::DoNotOptimize(copy);
  });
  Bench::unitsTimedReport(state);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(Fec::maxVia));
}
BENCHMARK(BM_Stage1FecCopyOnly);

// Counts the addresses queued into a backlog: each one is one review by the stage.
class QueuedCounter : public Core::Reactor {
 public:
  static Core::Ptr<QueuedCounter> QueuedCounterIs(const Routing::NexthopBacklog* backlog) {
    return Core::Ptr<QueuedCounter>(new QueuedCounter(backlog));
  }
  uint64_t queued = 0;

 private:
  explicit QueuedCounter(const Routing::NexthopBacklog* backlog)
      : backlog_(backlog), slot_(this, Routing::NexthopBacklog::backlogAttr, backlog) {}

  void handleBacklog(const Netval::IpGenAddr&) {
    const auto values =
        Core::getNotifyValues<Netval::IpGenAddr>(backlog_, Routing::NexthopBacklog::backlogAttr);
    if (values.newValue) ++queued;
  }

  const Routing::NexthopBacklog* backlog_;
  Core::Slot<QueuedCounter, Netval::IpGenAddr, &QueuedCounter::handleBacklog> slot_;
};

// range(0) FECs with range(1) tracked nexthops each; every iteration changes one FEC (its vias
// alternate between two sets) and lets the FIB monitor and stage 1 run to completion.
void BM_Stage1FecChangeReachesOnlyUsers(benchmark::State& state) {
  const auto fecs = static_cast<uint32_t>(state.range(0));
  const auto usersPerFec = static_cast<uint32_t>(state.range(1));
  Stage1 s;
  const std::vector<Via> viasA = {{ethernet(1), Netval::IpGenAddr("10.1.1.1")},
                                  {ethernet(2), Netval::IpGenAddr("10.2.2.1")}};
  const std::vector<Via> viasB = {{ethernet(1), Netval::IpGenAddr("10.1.1.2")},
                                  {ethernet(2), Netval::IpGenAddr("10.2.2.2")}};
  for (uint32_t f = 0; f < fecs; ++f) {
    s.fecTable->fecIs(Fec(f + 1, viasA));
    for (uint32_t u = 0; u < usersPerFec; ++u) {
      const Netval::IpGenAddr nexthop = Netval::IpGenAddr::ipv4(0xc0000000u + f * usersPerFec + u);
      s.nexthopVrfStatus->nexthopIs(Routing::NexthopStatusEntry(nexthop, f + 1));
      s.config->configIs({nexthop, ethernet(1)});
    }
  }
  const Core::Ptr<QueuedCounter> counter =
      QueuedCounter::QueuedCounterIs(s.sm->nexthopBacklog().get());

  const Fec changes[2] = {Fec(1, viasB), Fec(1, viasA)};
  uint64_t changeCount = 0;
  Bench::timedLoop(state, [&] { s.fecTable->fecIs(changes[changeCount++ % 2]); });
  Bench::unitsTimedReport(state);

  const double reviewsPerChange =
      changeCount ? static_cast<double>(counter->queued) / static_cast<double>(changeCount) : 0;
  if (reviewsPerChange != usersPerFec) state.SkipWithError("a FEC change reviewed non-users");
  state.counters["reviewsPerChange"] = reviewsPerChange;
  state.counters["trackedNexthops"] = static_cast<double>(fecs) * usersPerFec;
  state.counters["reviews"] =
      benchmark::Counter(static_cast<double>(counter->queued), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Stage1FecChangeReachesOnlyUsers)->Args({10, 10})->Args({1000, 10})->Args({100, 100});

}  // namespace
