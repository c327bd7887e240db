#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "framework/Core.h"
#include "framework/CoreCollection.h"
#include "framework/CoreDump.h"
#include "framework/Netval.h"

// The forwarding engine's L3 module state: per interface, the table of next-hop indices the
// engine has programmed and the MAC address each one rewrites to. Passive state written by the
// engine (the host); the resolver's stage 3 reads and watches it.
namespace FwdL3Unicast {

// The next-hop module of one interface: nhIndex -> neighbour MAC. Written by the engine; stage 3
// watches `nhIndexToMac` per nhIndex and reads the old and new MAC of each change as the
// notification values Core::MapEntry<uint32_t, Netval::EthAddr>.
class NextHopMod : public Core::Node {
 public:
  using Ptr = Core::Ptr<NextHopMod>;
  using NhIndexToMacMap = Core::Map<uint32_t, Netval::EthAddr>;
  static constexpr Core::AttrId nhIndexToMacAttr = 1;

  static Ptr NextHopModIs(Netval::IntfId intfId) { return Ptr(new NextHopMod(intfId)); }

  // A reference, because L3Modules keys its children by it.
  const Netval::IntfId& intfId() const { return intfId_; }

  // Insert or replace; true when the table changed (and the change was published).
  bool nhIndexToMacIs(uint32_t nhIndex, Netval::EthAddr ethAddr) {
    ++nhIndexToMacChanges_;
    return nhIndexToMac_.set({nhIndex, ethAddr});
  }
  bool nhIndexToMacDel(uint32_t nhIndex) {
    ++nhIndexToMacChanges_;
    return nhIndexToMac_.del(nhIndex);
  }
  void nhIndexToMacDelAll() {
    ++nhIndexToMacChanges_;
    nhIndexToMac_.delAll();
  }
  // Moves on before every write of the table, changed or not: a reader that finds it where it
  // was knows that the table has not changed meanwhile.
  uint64_t nhIndexToMacChanges() const { return nhIndexToMacChanges_; }
  // The MAC of `nhIndex`, the zero MAC when the index is not programmed.
  Netval::EthAddr nhIndexToMac(uint32_t nhIndex) const { return nhIndexToMac_.get(nhIndex).value; }
  bool nhIndexToMacHas(uint32_t nhIndex) const { return nhIndexToMac_.has(nhIndex); }
  size_t nhIndexToMacCount() const { return nhIndexToMac_.size(); }
  // Iteration in the table's own order (the order stage 3's MAC search relies on); deleting
  // during the loop is safe, an insert may reorder it.
  const NhIndexToMacMap& nhIndexToMac() const { return nhIndexToMac_; }

  std::string_view typeName() const override { return "FwdL3Unicast::NextHopMod"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit NextHopMod(Netval::IntfId intfId) : intfId_(intfId) {}

  Netval::IntfId intfId_;
  NhIndexToMacMap nhIndexToMac_{this, nhIndexToMacAttr};
  uint64_t nhIndexToMacChanges_ = 0;
};

// The engine's next-hop modules, one per interface that has one. Written by the engine; stage 3
// watches `nextHopMod` per interface (insertion and removal). An interface's module is replaced
// only by removing it and inserting the new one, so a watcher never sees a module swapped under
// it.
class L3Modules : public Core::Node {
 public:
  using Ptr = Core::Ptr<L3Modules>;
  using NextHopModMap = Core::ChildMap<Netval::IntfId, NextHopMod, &NextHopMod::intfId>;
  static constexpr Core::AttrId nextHopModAttr = 1;

  static Ptr L3ModulesIs() { return Ptr(new L3Modules()); }

  // Inserts the module under its interface and returns it. Re-inserting the module already there
  // does nothing; a different module for an occupied interface is a broken invariant (assertion);
  // null throws Core::NullArgumentError.
  NextHopMod::Ptr nextHopModIs(NextHopMod::Ptr nextHopMod);
  // The interface's module, null when it has none.
  Core::Ptr<const NextHopMod> nextHopMod(Netval::IntfId intfId) const {
    return nextHopMod_.get(intfId);
  }
  // The interface's module for the engine to program, null when it has none.
  NextHopMod::Ptr nextHopModMutable(Netval::IntfId intfId) { return nextHopMod_.get(intfId); }
  bool nextHopModDel(Netval::IntfId intfId) { return nextHopMod_.del(intfId); }
  void nextHopModDelAll() { nextHopMod_.delAll(); }
  bool nextHopModHas(Netval::IntfId intfId) const { return nextHopMod_.has(intfId); }
  size_t nextHopModCount() const { return nextHopMod_.size(); }
  const NextHopModMap& nextHopMod() const { return nextHopMod_; }

  std::string_view typeName() const override { return "FwdL3Unicast::L3Modules"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  L3Modules() = default;

  NextHopModMap nextHopMod_{this, nextHopModAttr};
};

}  // namespace FwdL3Unicast
