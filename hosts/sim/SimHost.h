#pragma once

#include <cstdint>
#include <string>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Hub.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "hosts/ModuleHost.h"
#include "hosts/sim/SimArp.h"
#include "platform/Plane.h"

// The simulated host: plays the operating system around the resolver module for tests and tools,
// from scenario commands, on a virtual clock.
namespace Sim {

// A whole simulated host around one resolver module: the shared host (its platform state, routing
// resolver, engine tables and the module's root) with simulated hosts answering ARP on the links.
// Mutators refuse bad input with Hosts::HostError before anything reaches the module, and never
// run the scheduler: the caller runs what is due (runDue) or moves the clock (advance).
class SimHost : public Hosts::ModuleHost {
 public:
  // Builds the platform state and the module's root; status lines go to `sink` (none if null).
  explicit SimHost(Hosts::StatusLog::Sink sink = nullptr);
  // Cleans the module up and drops it; prints nothing more.
  ~SimHost() override;

  // The virtual clock stays below this many milliseconds, far from overflowing with the delays
  // of the tasks it runs.
  static constexpr Time kClockLimit = Time{1} << 62;
  // Moves the clock by `delta`, running each task at its own time. Throws, moving nothing, when
  // the clock would pass kClockLimit.
  void advance(Time delta);

  // Throws when the route exists.
  void routeAdd(const L3::VrfName& vrfName, const Hosts::Prefix& prefix,
                Hosts::RoutingResolver::ViaList vias);
  void routeReplace(const L3::VrfName& vrfName, const Hosts::Prefix& prefix,
                    Hosts::RoutingResolver::ViaList vias);
  // Throws when the route does not exist.
  void routeDel(const L3::VrfName& vrfName, const Hosts::Prefix& prefix);

  // Throws when the neighbour entry exists.
  void neighAdd(const Plane::NextHopKey& key, const Plane::NextHopInfo& info);
  void neighReplace(const Plane::NextHopKey& key, const Plane::NextHopInfo& info);
  // Throws when there is no such neighbour entry.
  void neighDel(const Plane::NextHopKey& key);

  void hostAdd(const Plane::NextHopKey& key, Netval::EthAddr macAddr) {
    arp_->hostIs(key, macAddr);
  }
  // Creates the host or changes its MAC.
  void hostReplace(const Plane::NextHopKey& key, Netval::EthAddr macAddr);
  void hostDel(const Plane::NextHopKey& key) { arp_->hostDel(key); }
  void arpDelayIs(Time delay) { arp_->arpDelayIs(delay); }

  void nhTableAdd(Netval::IntfId intfId) { engine()->nhTableIs(intfId); }
  void nhTableDel(Netval::IntfId intfId) { engine()->nhTableDel(intfId); }
  void nhIndexAdd(Netval::IntfId intfId, uint32_t nhIndex, Netval::EthAddr macAddr) {
    engine()->nhIndexAdd(intfId, nhIndex, macAddr);
  }
  void nhIndexReplace(Netval::IntfId intfId, uint32_t nhIndex, Netval::EthAddr macAddr) {
    engine()->nhIndexReplace(intfId, nhIndex, macAddr);
  }
  void nhIndexDel(Netval::IntfId intfId, uint32_t nhIndex) {
    engine()->nhIndexDel(intfId, nhIndex);
  }
  void autoNhIndexIs(bool on) { engine()->autoNhIndexIs(on); }

  // "proactive ARP probing, 1 probe sent, no host answers".
  std::string arpState(const Plane::NextHopKey& key) const override;
  // "probes": how many probes the entry has sent.
  void arpShow(const Plane::NextHopKey& key, Hosts::Json& entry) const override;

  const ProactiveArpService::Ptr& arp() const { return arp_; }

 private:
  ProactiveArpService::Ptr arp_;
};

}  // namespace Sim
