#include <gtest/gtest.h>

#include <cstdint>
#include <map>

#include "Fwd/FwdViaNexthopMacToNhIndexSm.h"
#include "framework/Core.h"
#include "support/Stage3Fixture.h"
#include "support/TraceCapture.h"

// Stage 3's per-interface machine built on its own.

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;
using namespace FwdTest::Stage3;

// Assertions of the per-interface machine

class IntfViaNexthopMacToNhIndexSmTest : public ViaNexthopMacToNhIndexSmTest {
 protected:
  // A machine on its own, built from a request record and module prepared by the test.
  void SetUp() override {
    request_ =
        AllIntfViaNexthopMacToNhIndexRequest::AllIntfViaNexthopMacToNhIndexRequestIs()->requestIs(
            intf("Ethernet1"));
    module_ = moduleIs("Ethernet1");
  }
  void TearDown() override {
    machine_ = nullptr;
    request_ = nullptr;
    module_ = nullptr;
    ViaNexthopMacToNhIndexSmTest::TearDown();
  }
  IntfViaNexthopMacToNhIndexSm::Ptr build(const Core::Ptr<const NextHopMod>& module,
                                          const ViaNexthopMacToNhIndexMap::Ptr& map) {
    machine_ = IntfViaNexthopMacToNhIndexSm::IntfViaNexthopMacToNhIndexSmIs(intf("Ethernet1"),
                                                                            request_, module, map);
    return machine_;
  }

  IntfViaNexthopMacToNhIndexRequest::Ptr request_;
  NextHopMod::Ptr module_;
  IntfViaNexthopMacToNhIndexSm::Ptr machine_;
};

using IntfViaNexthopMacToNhIndexSmDeathTest = IntfViaNexthopMacToNhIndexSmTest;

TEST_F(IntfViaNexthopMacToNhIndexSmDeathTest, MachineWithoutRequestAsserts) {
  EXPECT_DEATH(IntfViaNexthopMacToNhIndexSm::IntfViaNexthopMacToNhIndexSmIs(
                   intf("Ethernet1"), nullptr, module_, status),
               assertionFailure("intfViaNexthopMacToNhIndexRequest()"));
}

TEST_F(IntfViaNexthopMacToNhIndexSmDeathTest, NullGroupAsserts) {
  build(module_, status);
  EXPECT_DEATH(machine_->addStatus(nullptr, 5), assertionFailure("requester"));
  EXPECT_DEATH(machine_->addStatusHelper(nullptr, 5), assertionFailure("requester"));
  EXPECT_DEATH(machine_->delStatus(nullptr, 5), assertionFailure("requester"));
}

TEST_F(IntfViaNexthopMacToNhIndexSmDeathTest, PublishingInvalidIndexAsserts) {
  build(module_, status);
  EXPECT_DEATH(machine_->addStatusHelper(RequesterColl::RequesterCollIs(mac(kMacA)), kInvalid),
               assertionFailure("NexthopNhIndexResolverConstants::invalidNhIndex() != nhIndex"));
}

TEST_F(IntfViaNexthopMacToNhIndexSmDeathTest, LosingIndexOfUnfoundGroupAsserts) {
  build(module_, status);
  EXPECT_DEATH(machine_->delStatus(RequesterColl::RequesterCollIs(mac(kMacA)), kInvalid),
               assertionFailure("requester->nhIndexFound()"));
}

TEST_F(IntfViaNexthopMacToNhIndexSmDeathTest, TableChangeWithoutModuleAsserts) {
  request_->addRequester(mac(kMacA), ip("10.0.0.1"));
  build(nullptr, status);
  EXPECT_DEATH(machine_->handleMacAdd(mac(kMacA), 5), assertionFailure("nextHopMod()"));
  EXPECT_DEATH(machine_->handleMacDel(mac(kMacA), 5), assertionFailure("nextHopMod()"));
}

TEST_F(IntfViaNexthopMacToNhIndexSmDeathTest, WatcherWithoutGroupOrMachineAsserts) {
  build(module_, status);
  using Nested = IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl;
  EXPECT_DEATH(Nested::NestedSm_RequesterCollIs(nullptr, machine_.get()),
               assertionFailure("requesterColl()"));
  EXPECT_DEATH(
      Nested::NestedSm_RequesterCollIs(RequesterColl::RequesterCollIs(mac(kMacA)), nullptr),
      assertionFailure("intfViaNexthopMacToNhIndexSm()"));
}

TEST_F(IntfViaNexthopMacToNhIndexSmDeathTest, WatcherEventWithoutGroupAsserts) {
  build(module_, status);
  auto nested = IntfViaNexthopMacToNhIndexSm::NestedSm_RequesterColl::NestedSm_RequesterCollIs(
      RequesterColl::RequesterCollIs(mac(kMacA)), machine_.get());
  nested->notifierIs(nullptr);
  EXPECT_DEATH(nested->handleRequester(ip("10.0.0.1")), assertionFailure("requesterColl()"));
}

TEST_F(IntfViaNexthopMacToNhIndexSmDeathTest, FoundGroupWithoutStatusMapAsserts) {
  module_->nhIndexToMacIs(5, mac(kMacA));
  build(module_, nullptr);
  // The new group is found while still empty; its first nexthop needs the status map.
  EXPECT_DEATH(request_->addRequester(mac(kMacA), ip("10.0.0.1")),
               assertionFailure("intfViaNexthopMacToNhIndexSm()->status()"));
}

// The per-interface machine on its own

TEST_F(IntfViaNexthopMacToNhIndexSmTest, MachineKeepsArgumentsAndCleansOnlyItsInterface) {
  module_->nhIndexToMacIs(5, mac(kMacA));
  request_->addRequester(mac(kMacA), ip("10.0.0.1"));
  status->mapIs(ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet2"), 3));
  build(module_, status);
  EXPECT_EQ(machine_->intfId(), intf("Ethernet1"));
  EXPECT_EQ(machine_->intfViaNexthopMacToNhIndexRequest(), request_);
  EXPECT_EQ(machine_->nextHopMod().get(), module_.get());
  EXPECT_EQ(machine_->status(), status);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}, {"10.0.0.1 Ethernet2", 3}}));

  machine_->cleanupStatus();
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet2", 3}}));
  EXPECT_TRUE(request_->requesterColl(mac(kMacA))->nhIndexFound());

  machine_->doCleanup();
  EXPECT_FALSE(request_->requesterColl(mac(kMacA))->nhIndexFound());
}

TEST_F(IntfViaNexthopMacToNhIndexSmTest, GroupLeftFoundIsRewrittenWithSearchResultAtStart) {
  module_->nhIndexToMacIs(5, mac(kMacA));
  request_->addRequester(mac(kMacA), ip("10.0.0.1"));
  RequesterColl::Ptr stale = request_->requesterColl(mac(kMacA));
  stale->nhIndexFoundIs(true);
  stale->nhIndexIs(99);
  TestSupport::TraceCapture trace(kFilter);
  build(module_, status);
  EXPECT_TRUE(
      trace.contains(kAddStatus + "NhIndex already found for mac : 00:1c:73:00:00:0a..skipping"));
  EXPECT_TRUE(trace.contains(kNested +
                             "handleInitialized(): Found nhIndex : 5 for mac: 00:1c:73:00:00:0a"));
  EXPECT_EQ(stale->nhIndex(), 5u);
  EXPECT_EQ(statuses(), (StatusMap{{"10.0.0.1 Ethernet1", 5}}));
}

TEST_F(IntfViaNexthopMacToNhIndexSmTest, MachineStartMatchesEveryGroupWithFirstIndexOfItsMac) {
  // 64 indexes over 16 MACs, in an order unrelated to the index values; groups for 20 MACs.
  for (uint32_t i = 0; i < 64; ++i)
    module_->nhIndexToMacIs((i * 37) % 101, Netval::EthAddr(i % 16));
  for (uint32_t m = 0; m < 20; ++m) {
    request_->addRequester(Netval::EthAddr(m), Netval::IpGenAddr::ipv4(0x0a000001u + m));
  }
  build(module_, status);
  for (uint32_t m = 0; m < 20; ++m) {
    const uint32_t expected = getNextHopMacNhIndex(module_, Netval::EthAddr(m));
    const RequesterColl::Ptr matched = request_->requesterColl(Netval::EthAddr(m));
    const NexthopIntfId key(Netval::IpGenAddr::ipv4(0x0a000001u + m), intf("Ethernet1"));
    EXPECT_EQ(matched->nhIndex(), expected) << m;
    EXPECT_EQ(matched->nhIndexFound(), m < 16) << m;
    EXPECT_EQ(status->mapHas(key), m < 16) << m;
    if (m < 16) {
      EXPECT_EQ(status->map(key).nhIndex(), expected) << m;
    }
  }
}

}  // namespace
