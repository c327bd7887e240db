#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <utility>

#include "framework/Core.h"
#include "framework/CoreCollection.h"
#include "framework/CoreDump.h"
#include "framework/Kiln.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"

// The host's forwarding-plane state as the module sees it: neighbour (ARP) entries, per-VRF L3
// status and the proactive ARP client. All of it is passive state written by the host (or by the
// proactive ARP client below); every collection publishes one change per key that changes, and
// nothing for an insert of an equal member or a delete of an absent one.

namespace Vrf::VrfIdMap {

// A VRF id in the numbering that proactive ARP uses.
using VrfId = uint32_t;

}  // namespace Vrf::VrfIdMap

namespace Plane {

// A VRF id in the forwarding plane's numbering.
using VrfId = uint32_t;

// A neighbour: the egress interface and the neighbour's IP address.
class NextHopKey : public Kiln::Value<NextHopKey> {
 public:
  static constexpr std::string_view kilnTypeName = "Plane::NextHopKey";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("intfId", &NextHopKey::intfId_),
                           Kiln::attr("addr", &NextHopKey::addr_));
  }

  NextHopKey() = default;
  NextHopKey(Netval::IntfId intfId, const Netval::IpGenAddr& addr) : intfId_(intfId), addr_(addr) {}
  // Parses the text form; throws Kiln::ParseError.
  NextHopKey(const char* begin, const char* end)
      : NextHopKey(parse(std::string_view(begin, static_cast<size_t>(end - begin)))) {}

  Netval::IntfId intfId() const { return intfId_; }
  const Netval::IpGenAddr& addr() const { return addr_; }

 private:
  Netval::IntfId intfId_;
  Netval::IpGenAddr addr_;
};

// What the host knows of a neighbour: the L2 interface it was learnt on (empty while unknown)
// and its MAC address (zero while unknown).
class NextHopInfo : public Kiln::Value<NextHopInfo> {
 public:
  static constexpr std::string_view kilnTypeName = "Plane::NextHopInfo";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("l2Intf", &NextHopInfo::l2Intf_),
                           Kiln::attr("ethAddr", &NextHopInfo::ethAddr_));
  }

  NextHopInfo() = default;
  NextHopInfo(Netval::IntfId l2Intf, Netval::EthAddr ethAddr)
      : l2Intf_(l2Intf), ethAddr_(ethAddr) {}
  // Parses the text form; throws Kiln::ParseError.
  NextHopInfo(const char* begin, const char* end)
      : NextHopInfo(parse(std::string_view(begin, static_cast<size_t>(end - begin)))) {}

  Netval::IntfId l2Intf() const { return l2Intf_; }
  Netval::EthAddr ethAddr() const { return ethAddr_; }

 private:
  Netval::IntfId l2Intf_;
  Netval::EthAddr ethAddr_;
};

// The host's neighbour table, keyed by neighbour. Written by the host's ARP service; the
// resolver's root watches `nextHopInfo` and hands each changed key to its pipelines.
// Notification values of `nextHopInfo` are Core::MapEntry<NextHopKey, NextHopInfo>.
class NextHopInfoWrapper : public Core::Node {
 public:
  using Ptr = Core::Ptr<NextHopInfoWrapper>;
  using NextHopInfoMap = Core::Map<NextHopKey, NextHopInfo>;
  static constexpr Core::AttrId nextHopInfoAttr = 1;

  static Ptr NextHopInfoWrapperIs() { return Ptr(new NextHopInfoWrapper()); }

  // Insert or replace; true when the table changed (and the change was published).
  bool nextHopInfoIs(const NextHopKey& key, const NextHopInfo& info) {
    return nextHopInfo_.set({key, info});
  }
  bool nextHopInfoDel(const NextHopKey& key) { return nextHopInfo_.del(key); }
  void nextHopInfoDelAll() { nextHopInfo_.delAll(); }
  // The entry for `key`, or the default NextHopInfo when there is none.
  NextHopInfo nextHopInfo(const NextHopKey& key) const { return nextHopInfo_.get(key).value; }
  bool nextHopInfoHas(const NextHopKey& key) const { return nextHopInfo_.has(key); }
  size_t nextHopInfoCount() const { return nextHopInfo_.size(); }
  // Iteration; deleting during the loop is safe, an insert may reorder it.
  const NextHopInfoMap& nextHopInfo() const { return nextHopInfo_; }

  std::string_view typeName() const override { return "Plane::NextHopInfoWrapper"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  NextHopInfoWrapper() = default;

  NextHopInfoMap nextHopInfo_{this, nextHopInfoAttr};
};

// The L3 status of one VRF: its name and its forwarding-plane id.
class VrfL3Status : public Kiln::Value<VrfL3Status> {
 public:
  static constexpr std::string_view kilnTypeName = "Plane::VrfL3Status";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("vrfName", &VrfL3Status::vrfName_),
                           Kiln::attr("vrfId", &VrfL3Status::vrfId_));
  }

  VrfL3Status() = default;
  VrfL3Status(const L3::VrfName& vrfName, VrfId vrfId) : vrfName_(vrfName), vrfId_(vrfId) {}
  // Parses the text form; throws Kiln::ParseError (Kiln::RangeError for a name over 100 bytes).
  VrfL3Status(const char* begin, const char* end)
      : VrfL3Status(parse(std::string_view(begin, static_cast<size_t>(end - begin)))) {}

  const L3::VrfName& vrfName() const { return vrfName_; }
  VrfId vrfId() const { return vrfId_; }

 private:
  L3::VrfName vrfName_;
  VrfId vrfId_ = 0;
};

// The host's per-VRF L3 state, written by the host: `vrfStatus` holds a VRF's status while its
// L3 layer exists (the resolver's root watches it per VRF for readiness); `vrfId` maps a VRF name
// to its forwarding-plane id (stage 2 reads it once per pipeline). The host keeps the two
// consistent; this type does not tie them together.
class VrfL3StatusAll : public Core::Node {
 public:
  using Ptr = Core::Ptr<VrfL3StatusAll>;
  using VrfStatusColl =
      Core::Collection<L3::VrfName, VrfL3Status, Core::KeyBy<&VrfL3Status::vrfName>>;
  using VrfIdMap = Core::Map<L3::VrfName, VrfId>;
  static constexpr Core::AttrId vrfStatusAttr = 1;
  static constexpr Core::AttrId vrfIdAttr = 2;
  // The host numbers proactive ARP's VRFs as the plane's ids shifted by this offset.
  static constexpr Vrf::VrfIdMap::VrfId arpVrfIdOffset = 1000;

  static Ptr VrfL3StatusAllIs() { return Ptr(new VrfL3StatusAll()); }

  bool vrfStatusIs(const VrfL3Status& status) { return vrfStatus_.set(status); }
  // The VRF's status, or null when it has none. Valid until the next change of `vrfStatus`.
  const VrfL3Status* vrfStatus(const L3::VrfName& vrfName) const {
    return vrfStatus_.find(vrfName);
  }
  bool vrfStatusDel(const L3::VrfName& vrfName) { return vrfStatus_.del(vrfName); }
  void vrfStatusDelAll() { vrfStatus_.delAll(); }
  bool vrfStatusHas(const L3::VrfName& vrfName) const { return vrfStatus_.has(vrfName); }
  size_t vrfStatusCount() const { return vrfStatus_.size(); }
  const VrfStatusColl& vrfStatus() const { return vrfStatus_; }

  bool vrfIdIs(const L3::VrfName& vrfName, VrfId vrfId) { return vrfId_.set({vrfName, vrfId}); }
  // The VRF's plane id, 0 when it has none.
  VrfId vrfId(const L3::VrfName& vrfName) const { return vrfId_.get(vrfName).value; }
  bool vrfIdHas(const L3::VrfName& vrfName) const { return vrfId_.has(vrfName); }
  bool vrfIdDel(const L3::VrfName& vrfName) { return vrfId_.del(vrfName); }
  void vrfIdDelAll() { vrfId_.delAll(); }
  size_t vrfIdCount() const { return vrfId_.size(); }
  const VrfIdMap& vrfId() const { return vrfId_; }

  // The proactive ARP id of a plane VRF id: planeVrfId + arpVrfIdOffset. Plane ids stay far
  // below 2^32 - arpVrfIdOffset, so the mapping is one to one.
  Vrf::VrfIdMap::VrfId planeVrfIdToArpVrfId(VrfId planeVrfId) const {
    return planeVrfId + arpVrfIdOffset;
  }

  std::string_view typeName() const override { return "Plane::VrfL3StatusAll"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  VrfL3StatusAll() = default;

  VrfStatusColl vrfStatus_{this, vrfStatusAttr};
  VrfIdMap vrfId_{this, vrfIdAttr};
};

}  // namespace Plane

namespace Arp::ProactiveArp {

// One neighbour that a proactive ARP client wants kept resolved, in one VRF. The same neighbour
// in two VRFs is two entries.
class ClientEntry : public Kiln::Value<ClientEntry> {
 public:
  static constexpr std::string_view kilnTypeName = "Arp::ProactiveArp::ClientEntry";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("key", &ClientEntry::key_),
                           Kiln::attr("arpVrfId", &ClientEntry::arpVrfId_));
  }

  ClientEntry() = default;
  ClientEntry(const Plane::NextHopKey& key, Vrf::VrfIdMap::VrfId arpVrfId)
      : key_(key), arpVrfId_(arpVrfId) {}
  // Parses the text form; throws Kiln::ParseError.
  ClientEntry(const char* begin, const char* end)
      : ClientEntry(parse(std::string_view(begin, static_cast<size_t>(end - begin)))) {}

  const Plane::NextHopKey& key() const { return key_; }
  Vrf::VrfIdMap::VrfId arpVrfId() const { return arpVrfId_; }

 private:
  Plane::NextHopKey key_;
  Vrf::VrfIdMap::VrfId arpVrfId_ = 0;
};

// A proactive ARP client's configuration: the entries it wants kept resolved (`entry`) and, per
// neighbour, how many fresh resolutions it has asked for (`resolutionTrigger`, a running count so
// that every request is a change). Written by Plane::ProactiveArpNexthopSm, served by the host.
class ClientConfig : public Core::Node {
 public:
  using Ptr = Core::Ptr<ClientConfig>;
  using EntrySet = Core::KeySet<ClientEntry>;
  using ResolutionTriggerMap = Core::Map<Plane::NextHopKey, uint32_t>;
  static constexpr Core::AttrId entryAttr = 1;
  static constexpr Core::AttrId resolutionTriggerAttr = 2;

  static Ptr ClientConfigIs() { return Ptr(new ClientConfig()); }

  bool entryIs(const ClientEntry& entry) { return entry_.set(entry); }
  bool entryDel(const ClientEntry& entry) { return entry_.del(entry); }
  void entryDelAll() { entry_.delAll(); }
  bool entryHas(const ClientEntry& entry) const { return entry_.has(entry); }
  size_t entryCount() const { return entry_.size(); }
  const EntrySet& entry() const { return entry_; }

  bool resolutionTriggerIs(const Plane::NextHopKey& key, uint32_t count) {
    return resolutionTrigger_.set({key, count});
  }
  // The number of resolutions asked for `key`, 0 when never.
  uint32_t resolutionTrigger(const Plane::NextHopKey& key) const {
    return resolutionTrigger_.get(key).value;
  }
  bool resolutionTriggerDel(const Plane::NextHopKey& key) { return resolutionTrigger_.del(key); }
  void resolutionTriggerDelAll() { resolutionTrigger_.delAll(); }
  bool resolutionTriggerHas(const Plane::NextHopKey& key) const {
    return resolutionTrigger_.has(key);
  }
  size_t resolutionTriggerCount() const { return resolutionTrigger_.size(); }
  const ResolutionTriggerMap& resolutionTrigger() const { return resolutionTrigger_; }

  std::string_view typeName() const override { return "Arp::ProactiveArp::ClientConfig"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  ClientConfig() = default;

  EntrySet entry_{this, entryAttr};
  ResolutionTriggerMap resolutionTrigger_{this, resolutionTriggerAttr};
};

}  // namespace Arp::ProactiveArp

namespace Plane {

// The proactive ARP client of the resolver: turns the module's requests into its ClientConfig.
// A new client starts from an empty entry set (entries of an earlier client are withdrawn; the
// trigger counts are kept as the host's history); dropping it leaves the entries to the host.
// A null ClientConfig makes every operation a no-op.
class ProactiveArpNexthopSm : public Core::Node {
 public:
  using Ptr = Core::Ptr<ProactiveArpNexthopSm>;

  static Ptr ProactiveArpNexthopSmIs(Arp::ProactiveArp::ClientConfig::Ptr clientConfig) {
    return Ptr(new ProactiveArpNexthopSm(std::move(clientConfig)));
  }

  // Keeps the neighbour resolved in that VRF; an entry already present changes nothing.
  void addEntry(const NextHopKey& key, Vrf::VrfIdMap::VrfId arpVrfId);
  // Stops keeping it resolved in that VRF; an absent entry changes nothing.
  void removeEntry(const NextHopKey& key, Vrf::VrfIdMap::VrfId arpVrfId);
  // Asks for a fresh resolution of the neighbour: its trigger count goes up by one.
  void doUpdateTriggerResolution(const NextHopKey& key);

  const Arp::ProactiveArp::ClientConfig::Ptr& clientConfig() const { return clientConfig_; }

  std::string_view typeName() const override { return "Plane::ProactiveArpNexthopSm"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit ProactiveArpNexthopSm(Arp::ProactiveArp::ClientConfig::Ptr clientConfig);

  Arp::ProactiveArp::ClientConfig::Ptr clientConfig_;
};

}  // namespace Plane
