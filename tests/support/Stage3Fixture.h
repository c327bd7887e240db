#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "Fwd/FwdViaNexthopMacToNhIndexSm.h"
#include "framework/Core.h"
#include "platform/L3Modules.h"
#include "support/ChangeRecorder.h"
#include "support/FwdTestValues.h"
#include "support/ResolverFixture.h"

// Stage 3 of one VRF on its real inputs, the texts of its trace and the views of its status map:
// what the stage 3 test files share.
namespace FwdTest::Stage3 {

using FwdL3Unicast::IntfViaNexthopMacToNhIndexRequest;
using FwdL3Unicast::IntfViaNexthopMacToNhIndexSm;
using FwdL3Unicast::L3Modules;
using FwdL3Unicast::NexthopIntfId;
using FwdL3Unicast::NextHopMod;
using FwdL3Unicast::NexthopNhIndexResolverConstants;
using FwdL3Unicast::NexthopToViaNexthopMacMap;
using FwdL3Unicast::NexthopToViaNexthopMacMapEntry;
using FwdL3Unicast::nexthopToViaNexthopMacMapFactory;
using FwdL3Unicast::RequesterColl;
using FwdL3Unicast::ViaNexthopMacToNhIndexMap;
using FwdL3Unicast::ViaNexthopMacToNhIndexMapEntry;
using FwdL3Unicast::viaNexthopMacToNhIndexMapFactory;
using FwdL3Unicast::ViaNexthopMacToNhIndexSm;
using FwdL3Unicast::viaNexthopMacToNhIndexSmFactory;

inline constexpr uint32_t kInvalid = NexthopNhIndexResolverConstants::invalidNhIndex();
inline constexpr std::string_view kMacA = "00:1c:73:00:00:0a";
inline constexpr std::string_view kMacB = "00:1c:73:00:00:0b";
inline constexpr std::string_view kMacC = "00:1c:73:00:00:0c";
inline constexpr std::string_view kCommonUnit = "FwdNexthopNhIndexResolverCommon";
inline constexpr const char* kFilter = "FwdViaNexthopMacToNhIndexSm/8";

// Function texts of the traced operations, as GCC prints them.
inline const std::string kStage = "void FwdL3Unicast::ViaNexthopMacToNhIndexSm::";
inline const std::string kMachine = "void FwdL3Unicast::IntfViaNexthopMacToNhIndexSm::";
inline const std::string kNested =
    "void FwdL3Unicast::IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::";
inline const std::string kHandleAdd =
    kStage + "handleAdd(const FwdL3Unicast::NexthopToViaNexthopMacMapEntry&): ";
inline const std::string kHandleDel =
    kStage + "handleDel(const FwdL3Unicast::NexthopToViaNexthopMacMapEntry&): ";
inline const std::string kHandleRequest =
    kStage + "handleIntfViaNexthopMacToNhIndexRequest(Netval::IntfId): ";
inline const std::string kHandleNexthopMod = kStage + "handleNexthopMod(Netval::IntfId): ";
inline const std::string kAddStatus =
    kMachine + "addStatus(const FwdL3Unicast::RequesterColl::Ptr&, uint32_t): ";
inline const std::string kAddStatusHelper =
    kMachine + "addStatusHelper(const FwdL3Unicast::RequesterColl::Ptr&, uint32_t): ";
inline const std::string kDelStatus =
    kMachine + "delStatus(const FwdL3Unicast::RequesterColl::Ptr&, uint32_t): ";
inline const std::string kHandleNhIndexToMac = kMachine + "handleNhIndexToMac(uint32_t): ";
inline const std::string kHandleRequester = kNested + "handleRequester(const Netval::IpGenAddr&): ";

// The regular expression of an assertion failure with exactly `expression`, raised in `unit`.
inline std::string assertionFailure(std::string_view expression,
                                    std::string_view unit = "FwdViaNexthopMacToNhIndexSm") {
  return "Assertion failed: \"" + literalRegex(expression) + "\" in " + std::string(unit) + " line";
}

inline std::string statusName(const NexthopIntfId& key) {
  return key.nexthop().toString() + " " + key.intfId().name();
}

// The VRF's status map as "nexthop interface" -> nhIndex.
inline std::map<std::string, uint32_t> statuses(const ViaNexthopMacToNhIndexMap& status) {
  std::map<std::string, uint32_t> out;
  for (const ViaNexthopMacToNhIndexMapEntry& entry : status.map()) {
    out[statusName(entry.nexthopIntfId())] = entry.nhIndex();
  }
  return out;
}

// Every change of a status map in publication order: "set <nexthop> <intf> <nhIndex>" or
// "del <nexthop> <intf>".
class StatusLog {
 public:
  explicit StatusLog(const ViaNexthopMacToNhIndexMap::Ptr& status)
      : recorder_(TestSupport::recordChanges<NexthopIntfId>(status.get(),
                                                            ViaNexthopMacToNhIndexMap::mapAttr)) {
    const ViaNexthopMacToNhIndexMap* map = status.get();
    recorder_->onChange = [this, map](const NexthopIntfId& key) {
      const auto values = Core::getNotifyValues<ViaNexthopMacToNhIndexMapEntry>(
          map, ViaNexthopMacToNhIndexMap::mapAttr);
      if (values.newValue) {
        changes_.push_back("set " + statusName(key) + " " +
                           std::to_string(values.newValue->nhIndex()));
      } else {
        changes_.push_back("del " + statusName(key));
      }
    };
  }
  StatusLog(const StatusLog&) = delete;
  StatusLog& operator=(const StatusLog&) = delete;

  const std::vector<std::string>& changes() const { return changes_; }
  void clear() { changes_.clear(); }

 private:
  std::unique_ptr<TestSupport::ChangeRecorder<NexthopIntfId>> recorder_;
  std::vector<std::string> changes_;
};

// The table of a module in its iteration order.
inline std::vector<std::pair<uint32_t, Netval::EthAddr>> tableOrder(const NextHopMod& module) {
  std::vector<std::pair<uint32_t, Netval::EthAddr>> out;
  for (const auto& entry : module.nhIndexToMac()) out.emplace_back(entry.key, entry.value);
  return out;
}

// The index that comes first in the module's iteration order among `candidates`.
inline uint32_t firstInTableOrder(const NextHopMod& module, std::vector<uint32_t> candidates) {
  for (const auto& [nhIndex, ethAddr] : tableOrder(module)) {
    for (uint32_t candidate : candidates) {
      if (candidate == nhIndex) return nhIndex;
    }
  }
  return kInvalid;
}

// Stage 3 of VRF "red" with the inputs the pipeline and the engine hand it: a stage-2 map that
// the test writes as stage 2 would, the engine's L3 modules and the VRF's status map. Every test
// ends by releasing everything and checking that no entity is left alive.
class ViaNexthopMacToNhIndexSmTest : public ::testing::Test {
 protected:
  void TearDown() override {
    sm = nullptr;
    config = nullptr;
    l3Modules = nullptr;
    status = nullptr;
    EXPECT_EQ(Core::Node::liveCount(), liveAtStart_);
  }

  void start() { sm = viaNexthopMacToNhIndexSmFactory(vrf("red"), config, l3Modules, status); }

  NextHopMod::Ptr moduleIs(std::string_view intfName) {
    return l3Modules->nextHopModIs(NextHopMod::NextHopModIs(intf(intfName)));
  }
  // The entry stage 2 writes for (nexthop, interface) once the via has `macText`.
  static NexthopToViaNexthopMacMapEntry entry(std::string_view nexthop, std::string_view intfName,
                                              std::string_view macText) {
    return NexthopToViaNexthopMacMapEntry(nhIntf(nexthop, intfName), ip("10.0.0.254"),
                                          mac(macText));
  }
  void requestIs(std::string_view nexthop, std::string_view intfName, std::string_view macText) {
    config->mapIs(entry(nexthop, intfName, macText));
  }
  void requestDel(std::string_view nexthop, std::string_view intfName) {
    config->mapDel(nhIntf(nexthop, intfName));
  }
  IntfViaNexthopMacToNhIndexRequest::Ptr request(std::string_view intfName) const {
    return sm->allIntfViaNexthopMacToNhIndexRequest()->request(intf(intfName));
  }
  RequesterColl::Ptr group(std::string_view intfName, std::string_view macText) const {
    IntfViaNexthopMacToNhIndexRequest::Ptr record = request(intfName);
    return record ? record->requesterColl(mac(macText)) : nullptr;
  }
  IntfViaNexthopMacToNhIndexSm::Ptr machine(std::string_view intfName) const {
    return sm->allIntfViaNexthopMacToNhIndexSm()->sm(intf(intfName));
  }
  std::map<std::string, uint32_t> statuses() const { return Stage3::statuses(*status); }

  // Counted before the inputs below are built.
  const int64_t liveAtStart_ = Core::Node::liveCount();
  NexthopToViaNexthopMacMap::Ptr config = nexthopToViaNexthopMacMapFactory();
  L3Modules::Ptr l3Modules = L3Modules::L3ModulesIs();
  ViaNexthopMacToNhIndexMap::Ptr status = viaNexthopMacToNhIndexMapFactory(vrf("red"));
  ViaNexthopMacToNhIndexSm::Ptr sm;
};

using ViaNexthopMacToNhIndexSmDeathTest = ViaNexthopMacToNhIndexSmTest;

using StatusMap = std::map<std::string, uint32_t>;

}  // namespace FwdTest::Stage3
