#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "hosts/HostArp.h"
#include "hosts/ModuleHost.h"
#include "hosts/linux/EventLoop.h"
#include "hosts/linux/KernelMirror.h"
#include "hosts/linux/NetlinkSocket.h"
#include "platform/Memtab.h"

namespace Hosts::Linux {

// How the Linux host maps the kernel onto the module.
struct LinuxHostConfig {
  // The namespace of the VRF "default": "" for the process's own, else /run/netns/NAME.
  std::string defaultNetns;
  // Every other VRF and the named namespace that holds it.
  std::map<std::string, std::string> vrfNetns;
  Memtab::Fib::FecMode fecMode = Memtab::Fib::fecModeGlobal();
  // Programming mode: the host keeps a nexthop object `via VIA dev INTF` for every via that
  // proactive ARP is asked to keep, with an id from [programIdMin, programIdMax].
  bool programming = false;
  uint32_t programIdMin = 1000000;
  uint32_t programIdMax = 1999999;
  // How long what the host added lingers after nobody wants it: a restart of the module takes
  // its wishes back and makes them again as soon as its resolver answers, and nothing in the
  // kernel should flap meanwhile.
  Hub::TaskScheduler::Time unwantedGraceMs = 1000;
  // How long after start leftovers of an earlier run (entries with our protocol) that nobody
  // wants again are removed.
  Hub::TaskScheduler::Time leftoverGraceMs = 2000;
  // How often the host looks for lost and reappeared namespaces.
  Hub::TaskScheduler::Time netnsCheckMs = 500;
  // Where run-time warnings go (an interface name clash); standard error when null.
  std::function<void(const std::string&)> warn;
};

// The Linux host: plays every platform input of the module from a running kernel over netlink.
//
// - VRFs: "default" is one namespace, every other VRF a named namespace. A VRF is ready (VRF id
//   and L3 status) while its namespace is open and has an interface up (loopback aside).
// - Interfaces: kernel names (Netval::IntfId::fromKernelName), which must be unique across the
//   mapped namespaces: a clash is an error at start, a warning and the later one left out at run
//   time.
// - Routing resolver: each VRF's main table: unicast routes with gateways, directly attached,
//   multipath and through nexthop objects or groups; other route types resolve nothing.
// - Neighbours: IPv4 neighbour entries; the L2 interface is the device, or for a bridge (or a
//   VLAN over one) the port that the bridge's fdb gives for the MAC.
// - Proactive ARP: a managed neighbour entry per wanted neighbour.
// - Forwarding engine: per interface up, the single nexthop objects with a gateway on it whose
//   neighbour has a MAC: nhIndex = the kernel's nexthop id.
// Everything it writes carries kOwnProtocol; cleanup() removes exactly that.
class LinuxHost : public ModuleHost, private ProactiveArpClients::Service {
 public:
  // Opens and dumps every namespace that exists, feeds the module's inputs, starts the module
  // and hands its sockets and scheduler to `loop`. Throws HostError for an interface name clash
  // or a default namespace that cannot be read.
  LinuxHost(EventLoop& loop, LinuxHostConfig config, StatusLog::Sink sink = nullptr);
  // cleanup().
  ~LinuxHost() override;

  // Stops the module and removes from the kernel what the host added: managed neighbour
  // entries and programmed nexthop objects. The host reads the kernel no more.
  void cleanup();

  // Dumps every open namespace again and reconciles.
  void resync();
  // Re-dumps after overruns, lost and regained namespaces, and on request.
  uint64_t resyncCount() const;
  // Malformed netlink messages skipped.
  uint64_t refusedCount() const;

  // The host's own state: namespaces, interfaces, counters.
  std::string hostDump() const;
  std::string arpState(const Plane::NextHopKey& key) const override;
  // "managed": whether the host keeps a managed neighbour entry for it; "kernelState": the
  // kernel's entry's state as `ip neigh` names it ("REACHABLE"), null without one.
  void arpShow(const Plane::NextHopKey& key, Hosts::Json& entry) const override;

  // The nexthop object programmed for a via, in programming mode.
  std::optional<uint32_t> programmedId(const Plane::NextHopKey& key) const;
  // What the host has added and not removed.
  size_t ownedNeighbourCount() const { return ownedNeighbours_.size(); }
  size_t programmedCount() const { return programmed_.size(); }
  // The kernel state mirrored for a VRF; null while its namespace is not open.
  const KernelState* kernelState(const L3::VrfName& vrfName) const;

 private:
  struct Space;
  friend struct Space;

  void arpEntryIs(const Arp::ProactiveArp::ClientEntry& entry, bool present) override;
  void arpResolve(const Plane::NextHopKey& key) override;

  Space* spaceOf(Netval::IntfId intf) const;
  void open(Space& space);
  void lose(Space& space);
  void checkNamespaces();
  void warn(const std::string& text) const;
  std::optional<Vrf::VrfIdMap::VrfId> arpVrfIdOf(const L3::VrfName& vrfName) const;
  // Drops the client's entries of a VRF that is no longer up.
  void dropArpEntries(Vrf::VrfIdMap::VrfId arpVrfId);
  // Brings the kernel in line with what proactive ARP wants for `key`.
  void serve(const Plane::NextHopKey& key);
  void unwantedLater(const Plane::NextHopKey& key);
  void sweepLeftovers();
  void adoptLeftovers(Space& space);
  template <class Work>
  void later(Hub::TaskScheduler::Time delayMs, Work work);

  EventLoop& loop_;
  LinuxHostConfig config_;
  std::vector<std::unique_ptr<Space>> spaces_;
  // Which space holds each accepted interface.
  std::map<Netval::IntfId, Space*> owner_;
  std::set<Plane::NextHopKey> ownedNeighbours_;
  std::map<Plane::NextHopKey, uint32_t> programmed_;
  bool starting_ = true;
  std::vector<std::string> startErrors_;
  bool cleanedUp_ = false;
  uint64_t netnsResyncs_ = 0;
  std::shared_ptr<char> alive_ = std::make_shared<char>();
};

}  // namespace Hosts::Linux
