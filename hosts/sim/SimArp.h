#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "framework/Core.h"
#include "framework/Hub.h"
#include "framework/Netval.h"
#include "hosts/HostArp.h"
#include "platform/Plane.h"

namespace Sim {

// The simulated proactive ARP service and the hosts on its links. Serves the client's wishes as
// Hosts::ProactiveArpClients reports them: a new entry or a resolution trigger probes the
// neighbour, and a host answering on that interface writes the neighbour entry (L2 interface =
// that interface) into Plane::NextHopInfoWrapper after the ARP delay, in virtual time.
class ProactiveArpService : public Core::Node, public Hosts::ProactiveArpClients::Service {
 public:
  using Ptr = Core::Ptr<ProactiveArpService>;
  static constexpr Hub::TaskScheduler::Time defaultArpDelay = 1;

  // Serves `clients` from now on, until it is destroyed.
  static Ptr ProactiveArpServiceIs(Hosts::ProactiveArpClients::Ptr clients,
                                   Plane::NextHopInfoWrapper::Ptr nextHopInfoWrapper,
                                   Hub::TaskScheduler::Ptr scheduler);
  ~ProactiveArpService() override;

  // A host answering ARP for the key's address on the key's interface; probed at once when the
  // client wants that neighbour (there is no periodic retry). Throws HostError when one is there
  // already. A neighbour entry, once written, stays until somebody else removes it.
  void hostIs(const Plane::NextHopKey& key, Netval::EthAddr macAddr);
  // Throws HostError when there is no such host.
  void hostDel(const Plane::NextHopKey& key);
  std::optional<Netval::EthAddr> host(const Plane::NextHopKey& key) const;
  const std::map<Plane::NextHopKey, Netval::EthAddr>& hosts() const { return hosts_; }

  // The time from a probe to its reply.
  void arpDelayIs(Hub::TaskScheduler::Time delay) { arpDelay_ = delay; }
  Hub::TaskScheduler::Time arpDelay() const { return arpDelay_; }

  // Whether the client asks to keep the neighbour resolved, in any VRF.
  bool wanted(const Plane::NextHopKey& key) const { return clients_->wanted(key); }
  // Probes sent for the neighbour so far, and those whose reply is still on its way.
  uint32_t probeCount(const Plane::NextHopKey& key) const;
  uint32_t replyPendingCount(const Plane::NextHopKey& key) const;

  std::string_view typeName() const override { return "Sim::ProactiveArpService"; }

 private:
  struct Probes {
    uint32_t sent = 0;
    uint32_t replyPending = 0;
  };

  ProactiveArpService(Hosts::ProactiveArpClients::Ptr clients,
                      Plane::NextHopInfoWrapper::Ptr nextHopInfoWrapper,
                      Hub::TaskScheduler::Ptr scheduler);

  void arpEntryIs(const Arp::ProactiveArp::ClientEntry& entry, bool present) override;
  void arpResolve(const Plane::NextHopKey& key) override;
  void probe(const Plane::NextHopKey& key);
  void reply(const Plane::NextHopKey& key);

  Hosts::ProactiveArpClients::Ptr clients_;
  Plane::NextHopInfoWrapper::Ptr nextHopInfoWrapper_;
  Hub::TaskScheduler::Ptr scheduler_;
  Hub::TaskScheduler::Time arpDelay_ = defaultArpDelay;
  std::map<Plane::NextHopKey, Netval::EthAddr> hosts_;
  std::map<Plane::NextHopKey, Probes> probes_;
  // Queued replies hold only a weak reference to it, so a reply outliving the service does nothing.
  std::shared_ptr<char> alive_ = std::make_shared<char>();
};

}  // namespace Sim
