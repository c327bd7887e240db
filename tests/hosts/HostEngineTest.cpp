#include "hosts/HostEngine.h"

#include <gtest/gtest.h>

#include "hosts/HostError.h"
#include "support/FwdTestValues.h"

namespace {

using FwdTest::intf;
using FwdTest::ip;
using FwdTest::mac;
using Hosts::ForwardingEngine;
using Hosts::HostError;
using Plane::NextHopInfo;
using Plane::NextHopKey;

struct EngineWorld {
  FwdL3Unicast::L3Modules::Ptr l3Modules = FwdL3Unicast::L3Modules::L3ModulesIs();
  Plane::NextHopInfoWrapper::Ptr neighbours = Plane::NextHopInfoWrapper::NextHopInfoWrapperIs();
  ForwardingEngine::Ptr engine = ForwardingEngine::ForwardingEngineIs(l3Modules, neighbours);

  void neighbourIs(std::string_view intfName, std::string_view addr, std::string_view ethAddr,
                   bool withL2 = true) {
    neighbours->nextHopInfoIs(
        NextHopKey(intf(intfName), ip(addr)),
        NextHopInfo(withL2 ? intf(intfName) : Netval::IntfId(), mac(ethAddr)));
  }
  Core::Ptr<const FwdL3Unicast::NextHopMod> table(std::string_view intfName) const {
    return l3Modules->nextHopMod(intf(intfName));
  }
};

TEST(ForwardingEngine, ProgramsEntriesByHand) {
  EngineWorld world;
  world.engine->nhTableIs(intf("Ethernet1"));
  world.engine->nhIndexAdd(intf("Ethernet1"), 17, mac("00:00:00:00:00:01"));
  world.engine->nhIndexReplace(intf("Ethernet1"), 17, mac("00:00:00:00:00:02"));
  world.engine->nhIndexReplace(intf("Ethernet1"), 18, mac("00:00:00:00:00:03"));
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(17), mac("00:00:00:00:00:02"));
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(18), mac("00:00:00:00:00:03"));
  world.engine->nhIndexDel(intf("Ethernet1"), 17);
  EXPECT_FALSE(world.table("Ethernet1")->nhIndexToMacHas(17));
  world.engine->nhTableDel(intf("Ethernet1"));
  EXPECT_FALSE(world.table("Ethernet1"));
}

TEST(ForwardingEngine, RefusesWhatTheEngineCannotDo) {
  EngineWorld world;
  EXPECT_THROW(world.engine->nhIndexAdd(intf("Ethernet1"), 1, mac("00:00:00:00:00:01")), HostError);
  EXPECT_THROW(world.engine->nhTableDel(intf("Ethernet1")), HostError);
  world.engine->nhTableIs(intf("Ethernet1"));
  EXPECT_THROW(world.engine->nhTableIs(intf("Ethernet1")), HostError);
  EXPECT_THROW(world.engine->nhIndexAdd(intf("Ethernet1"), 0xFFFFFFFFu, mac("00:00:00:00:00:01")),
               HostError);
  EXPECT_THROW(
      world.engine->nhIndexReplace(intf("Ethernet1"), 0xFFFFFFFFu, mac("00:00:00:00:00:01")),
      HostError);
  world.engine->nhIndexAdd(intf("Ethernet1"), 1, mac("00:00:00:00:00:01"));
  EXPECT_THROW(world.engine->nhIndexAdd(intf("Ethernet1"), 1, mac("00:00:00:00:00:02")), HostError);
  EXPECT_THROW(world.engine->nhIndexDel(intf("Ethernet1"), 2), HostError);
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMacCount(), 1u);
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(1), mac("00:00:00:00:00:01"));
}

TEST(ForwardingEngine, AutoProgrammingGivesEachResolvedNeighbourTheLowestFreeIndex) {
  EngineWorld world;
  world.engine->nhTableIs(intf("Ethernet1"));
  world.engine->nhIndexAdd(intf("Ethernet1"), 1, mac("00:00:00:00:00:99"));
  world.engine->autoNhIndexIs(true);
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:01");
  world.neighbourIs("Ethernet1", "10.0.0.2", "00:00:00:00:00:02");
  EXPECT_EQ(world.engine->autoNhIndexOf(NextHopKey(intf("Ethernet1"), ip("10.0.0.1"))), 2u);
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(2), mac("00:00:00:00:00:01"));
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(3), mac("00:00:00:00:00:02"));
  // A neighbour on an interface without table gets nothing.
  world.neighbourIs("Ethernet2", "10.0.1.1", "00:00:00:00:00:03");
  EXPECT_EQ(world.engine->autoNhIndexOf(NextHopKey(intf("Ethernet2"), ip("10.0.1.1"))), 0u);
}

TEST(ForwardingEngine, AutoProgrammingFollowsAMacMoveInPlace) {
  EngineWorld world;
  world.engine->nhTableIs(intf("Ethernet1"));
  world.engine->autoNhIndexIs(true);
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:01");
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:05");
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMacCount(), 1u);
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(1), mac("00:00:00:00:00:05"));
}

TEST(ForwardingEngine, AutoProgrammingFreesTheIndexOfAnUnresolvedNeighbour) {
  EngineWorld world;
  world.engine->nhTableIs(intf("Ethernet1"));
  world.engine->autoNhIndexIs(true);
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:01");
  // Without an L2 interface the neighbour is not resolved.
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:01", false);
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMacCount(), 0u);
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:01");
  world.neighbours->nextHopInfoDel(NextHopKey(intf("Ethernet1"), ip("10.0.0.1")));
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMacCount(), 0u);
}

TEST(ForwardingEngine, ProgramsKnownNeighboursWhenSwitchedOnOrWhenATableArrives) {
  EngineWorld world;
  world.neighbourIs("Ethernet1", "10.0.0.2", "00:00:00:00:00:02");
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:01");
  world.neighbourIs("Ethernet2", "10.0.1.1", "00:00:00:00:00:03");
  world.engine->nhTableIs(intf("Ethernet1"));
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMacCount(), 0u);
  world.engine->autoNhIndexIs(true);
  // In neighbour order, so the same state always gives the same indices.
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(1), mac("00:00:00:00:00:01"));
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(2), mac("00:00:00:00:00:02"));
  world.engine->nhTableIs(intf("Ethernet2"));
  EXPECT_EQ(world.table("Ethernet2")->nhIndexToMac(1), mac("00:00:00:00:00:03"));
}

TEST(ForwardingEngine, SwitchedOffItKeepsWhatItProgrammed) {
  EngineWorld world;
  world.engine->nhTableIs(intf("Ethernet1"));
  world.engine->autoNhIndexIs(true);
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:01");
  world.engine->autoNhIndexIs(false);
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:07");
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(1), mac("00:00:00:00:00:01"));
  EXPECT_EQ(world.engine->autoNhIndexOf(NextHopKey(intf("Ethernet1"), ip("10.0.0.1"))), 0u);
}

TEST(ForwardingEngine, AHandSetEntryTakesOverAnAutoProgrammedIndex) {
  EngineWorld world;
  world.engine->nhTableIs(intf("Ethernet1"));
  world.engine->autoNhIndexIs(true);
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:01");
  world.engine->nhIndexReplace(intf("Ethernet1"), 1, mac("00:00:00:00:00:09"));
  // The neighbour moves on to a new index; the hand-set one stays.
  world.neighbourIs("Ethernet1", "10.0.0.1", "00:00:00:00:00:02");
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(1), mac("00:00:00:00:00:09"));
  EXPECT_EQ(world.table("Ethernet1")->nhIndexToMac(2), mac("00:00:00:00:00:02"));
}

}  // namespace
