#include "hosts/HostStatusLog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hosts/sim/SimHost.h"
#include "support/FwdTestValues.h"

namespace {

using FwdTest::intf;
using FwdTest::ip;
using FwdTest::key;
using FwdTest::mac;
using FwdTest::vrf;
using Hosts::OutputFormat;
using Hosts::StatusChange;

const FwdL3Unicast::NexthopNhIndexResolverKey kRequest = key("red", "10.1.0.1", "Ethernet1");

TEST(StatusLine, TextNamesTheChangeAfterTheStamp) {
  const auto stamp = Hosts::virtualTimeStamp(12);
  EXPECT_EQ(Hosts::statusLine({StatusChange::Kind::add, kRequest, 17}, stamp, OutputFormat::text),
            "[12ms] status add red 10.1.0.1 Ethernet1 nhIndex 17");
  EXPECT_EQ(
      Hosts::statusLine({StatusChange::Kind::change, kRequest, 18}, stamp, OutputFormat::text),
      "[12ms] status change red 10.1.0.1 Ethernet1 nhIndex 18");
  EXPECT_EQ(Hosts::statusLine({StatusChange::Kind::del, kRequest, 0}, stamp, OutputFormat::text),
            "[12ms] status del red 10.1.0.1 Ethernet1");
}

TEST(StatusLine, JsonIsOneObjectWithTheStampFieldFirst) {
  const Hosts::StatusStamp stamp{"2026-01-31T12:00:00.000Z", "unixTimeMs", 1769860800000};
  EXPECT_EQ(Hosts::statusLine({StatusChange::Kind::add, kRequest, 17}, stamp, OutputFormat::json),
            R"({"unixTimeMs":1769860800000,"event":"add","vrf":"red","nexthop":"10.1.0.1",)"
            R"("interface":"Ethernet1","nhIndex":17})");
  EXPECT_EQ(Hosts::statusLine({StatusChange::Kind::del, kRequest, 0}, stamp, OutputFormat::json),
            R"({"unixTimeMs":1769860800000,"event":"del","vrf":"red","nexthop":"10.1.0.1",)"
            R"("interface":"Ethernet1"})");
}

TEST(StatusLog, WritesEachChangeWithTheHostsStampAndFormat) {
  std::vector<std::string> lines;
  Sim::SimHost host([&](const std::string& line) { lines.push_back(line); });
  host.statusFormatIs(OutputFormat::json);
  host.statusStamperIs([] { return Hosts::StatusStamp{"now", "tick", 7}; });
  host.vrfAdd(vrf("red"));
  host.routeAdd(vrf("red"), Hosts::Prefix::fromText("10.1.0.0/16"),
                {Memtab::FibGen::Via(intf("Ethernet1"), ip("10.0.0.254"))});
  host.neighAdd(Plane::NextHopKey(intf("Ethernet1"), ip("10.0.0.254")),
                Plane::NextHopInfo(intf("Ethernet1"), mac("00:1c:73:00:00:01")));
  host.nhTableAdd(intf("Ethernet1"));
  host.nhIndexAdd(intf("Ethernet1"), 17, mac("00:1c:73:00:00:01"));
  host.requestAdd(kRequest);
  host.advance(1);
  host.statusFormatIs(OutputFormat::text);
  host.statusStamperIs(nullptr);
  host.requestDel(kRequest);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            R"({"tick":7,"event":"add","vrf":"red","nexthop":"10.1.0.1","interface":"Ethernet1",)"
            R"("nhIndex":17})");
  EXPECT_EQ(lines[1], "[" + std::to_string(host.now()) + "ms] status del red 10.1.0.1 Ethernet1");
}

}  // namespace
