#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "framework/Core.h"
#include "framework/CoreReactor.h"
#include "framework/Hub.h"
#include "framework/Netval.h"
#include "platform/Plane.h"

namespace Sim {

// The host's proactive ARP service and the hosts on its links. Watches the module's
// Arp::ProactiveArp::ClientConfig: a new entry or a resolution trigger probes the neighbour, and a
// host answering on that interface writes the neighbour entry (L2 interface = that interface) into
// Plane::NextHopInfoWrapper after the ARP delay, in virtual time.
class ProactiveArpService : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<ProactiveArpService>;
  static constexpr Hub::TaskScheduler::Time defaultArpDelay = 1;

  static Ptr ProactiveArpServiceIs(Core::Ptr<const Arp::ProactiveArp::ClientConfig> clientConfig,
                                   Plane::NextHopInfoWrapper::Ptr nextHopInfoWrapper,
                                   Hub::TaskScheduler::Ptr scheduler);

  // A host answering ARP for the key's address on the key's interface; probed at once when the
  // client wants that neighbour (there is no periodic retry). Throws SimError when one is there
  // already. A neighbour entry, once written, stays until somebody else removes it.
  void hostIs(const Plane::NextHopKey& key, Netval::EthAddr macAddr);
  // Throws SimError when there is no such host.
  void hostDel(const Plane::NextHopKey& key);
  std::optional<Netval::EthAddr> host(const Plane::NextHopKey& key) const;
  const std::map<Plane::NextHopKey, Netval::EthAddr>& hosts() const { return hosts_; }

  // The time from a probe to its reply.
  void arpDelayIs(Hub::TaskScheduler::Time delay) { arpDelay_ = delay; }
  Hub::TaskScheduler::Time arpDelay() const { return arpDelay_; }

  // Whether the client asks to keep the neighbour resolved, in any VRF.
  bool wanted(const Plane::NextHopKey& key) const;
  // Probes sent for the neighbour so far, and those whose reply is still on its way.
  uint32_t probeCount(const Plane::NextHopKey& key) const;
  uint32_t replyPendingCount(const Plane::NextHopKey& key) const;

  std::string_view typeName() const override { return "Sim::ProactiveArpService"; }

 private:
  struct Probes {
    uint32_t sent = 0;
    uint32_t replyPending = 0;
  };

  ProactiveArpService(Core::Ptr<const Arp::ProactiveArp::ClientConfig> clientConfig,
                      Plane::NextHopInfoWrapper::Ptr nextHopInfoWrapper,
                      Hub::TaskScheduler::Ptr scheduler);

  void handleEntry(const Arp::ProactiveArp::ClientEntry& entry);
  void handleResolutionTrigger(const Plane::NextHopKey& key);
  void probe(const Plane::NextHopKey& key);
  void reply(const Plane::NextHopKey& key);

  Core::Ptr<const Arp::ProactiveArp::ClientConfig> clientConfig_;
  Plane::NextHopInfoWrapper::Ptr nextHopInfoWrapper_;
  Hub::TaskScheduler::Ptr scheduler_;
  Hub::TaskScheduler::Time arpDelay_ = defaultArpDelay;
  std::map<Plane::NextHopKey, Netval::EthAddr> hosts_;
  std::map<Plane::NextHopKey, Probes> probes_;
  // Queued replies hold only a weak reference to it, so a reply outliving the service does nothing.
  std::shared_ptr<char> alive_ = std::make_shared<char>();

  Core::Slot<ProactiveArpService, Arp::ProactiveArp::ClientEntry, &ProactiveArpService::handleEntry>
      entrySlot_{this, Arp::ProactiveArp::ClientConfig::entryAttr, clientConfig_.get()};
  Core::Slot<ProactiveArpService, Plane::NextHopKey, &ProactiveArpService::handleResolutionTrigger>
      triggerSlot_{this, Arp::ProactiveArp::ClientConfig::resolutionTriggerAttr,
                   clientConfig_.get()};
};

}  // namespace Sim
