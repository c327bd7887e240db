#pragma once

#include <cstdint>
#include <map>
#include <string_view>

#include "framework/Core.h"
#include "framework/CoreReactor.h"
#include "framework/Netval.h"
#include "platform/L3Modules.h"
#include "platform/Plane.h"

namespace Hosts {

// The host's forwarding engine: writes one NextHopMod per interface with a next-hop table into
// L3Modules, and its nhIndex -> MAC entries, set by hand or, with auto-programming on, following
// the neighbours of Plane::NextHopInfoWrapper (which it watches).
class ForwardingEngine : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<ForwardingEngine>;

  static Ptr ForwardingEngineIs(FwdL3Unicast::L3Modules::Ptr l3Modules,
                                Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper);

  // Throws HostError when the interface has a table already.
  void nhTableIs(Netval::IntfId intfId);
  // Throws HostError when the interface has no table.
  void nhTableDel(Netval::IntfId intfId);

  // Programs a new entry. Throws HostError without a table, for the invalid index or when the
  // index is programmed already.
  void nhIndexAdd(Netval::IntfId intfId, uint32_t nhIndex, Netval::EthAddr macAddr);
  // Programs or reprograms an entry. Throws HostError without a table or for the invalid index.
  void nhIndexReplace(Netval::IntfId intfId, uint32_t nhIndex, Netval::EthAddr macAddr);
  // Throws HostError when the entry is not programmed.
  void nhIndexDel(Netval::IntfId intfId, uint32_t nhIndex);

  // Auto-programming gives every resolved neighbour (MAC and L2 interface known) on an interface
  // with a table an nhIndex of its own, the lowest free from 1; a MAC move rewrites that entry in
  // place and a neighbour that stops being resolved frees it. Switching on programs every resolved
  // neighbour at once; switching off keeps the entries, which become ordinary hand-set ones.
  void autoNhIndexIs(bool on);
  bool autoNhIndex() const { return autoNhIndex_; }
  // The index auto-programming gave the neighbour; 0 when none.
  uint32_t autoNhIndexOf(const Plane::NextHopKey& key) const;

  std::string_view typeName() const override { return "Hosts::ForwardingEngine"; }

 private:
  ForwardingEngine(FwdL3Unicast::L3Modules::Ptr l3Modules,
                   Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper);

  FwdL3Unicast::NextHopMod::Ptr table(Netval::IntfId intfId) const;
  void checkIndex(uint32_t nhIndex) const;
  // A hand-set entry takes over an index that auto-programming gave.
  void forgetAuto(Netval::IntfId intfId, uint32_t nhIndex);
  void handleNexthopInfo(const Plane::NextHopKey& key);
  void program(const Plane::NextHopKey& key);
  void programAll(Netval::IntfId intfId);

  FwdL3Unicast::L3Modules::Ptr l3Modules_;
  Core::Ptr<const Plane::NextHopInfoWrapper> nextHopInfoWrapper_;
  bool autoNhIndex_ = false;
  std::map<Plane::NextHopKey, uint32_t> autoIndex_;

  Core::Slot<ForwardingEngine, Plane::NextHopKey, &ForwardingEngine::handleNexthopInfo>
      nextHopInfoSlot_{this, Plane::NextHopInfoWrapper::nextHopInfoAttr, nextHopInfoWrapper_.get()};
};

}  // namespace Hosts
