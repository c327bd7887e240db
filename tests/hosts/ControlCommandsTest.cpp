#include "hosts/ControlCommands.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "hosts/HostError.h"
#include "hosts/sim/Scenario.h"
#include "hosts/sim/SimHost.h"
#include "support/FwdTestValues.h"

namespace {

using FwdTest::intf;
using FwdTest::ip;
using FwdTest::mac;
using FwdTest::vrf;
using Hosts::ControlCommands;
using Hosts::HostError;
using Sim::SimHost;

// A simulated host with one resolvable chain: red 10.1.0.1 on Ethernet1 resolves to nhIndex 17.
class ControlCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host.vrfAdd(vrf("red"));
    host.routeAdd(vrf("red"), Hosts::Prefix::fromText("10.1.0.0/16"),
                  {Memtab::FibGen::Via(intf("Ethernet1"), ip("10.0.0.254"))});
    host.hostAdd(Plane::NextHopKey(intf("Ethernet1"), ip("10.0.0.254")), mac("00:1c:73:00:00:01"));
    host.nhTableAdd(intf("Ethernet1"));
    host.nhIndexAdd(intf("Ethernet1"), 17, mac("00:1c:73:00:00:01"));
  }

  // Runs the command and the tasks it leads to, as the agent's loop does.
  std::string run(std::string_view line) {
    std::string out = commands.run(line);
    host.advance(1);
    return out;
  }
  // The error a refused command gives; "" when it is not refused.
  std::string refusal(std::string_view line) {
    try {
      commands.run(line);
    } catch (const HostError& e) {
      return e.what();
    }
    return "";
  }

  SimHost host;
  ControlCommands commands{host,
                           [](std::string_view name) { return Netval::IntfId::fromText(name); }};
};

TEST_F(ControlCommandsTest, RequestAddResolvesAndShowStatusListsIt) {
  EXPECT_EQ(run("show status"), "no statuses\n");
  EXPECT_EQ(run("request add red 10.1.0.1 Ethernet1"), "");
  EXPECT_EQ(run("show status"), "status red 10.1.0.1 Ethernet1 nhIndex 17\n");
  EXPECT_EQ(run("request del red 10.1.0.1 Ethernet1  # gone"), "");
  EXPECT_EQ(run("show status"), "no statuses\n");
}

TEST_F(ControlCommandsTest, ExplainNamesTheRequest) {
  run("request add red 10.1.0.1 Ethernet1");
  EXPECT_EQ(run("explain red 10.1.0.1 Ethernet1"),
            "explain red 10.1.0.1 Ethernet1: resolved: via 10.0.0.254, MAC 00:1c:73:00:00:01, "
            "nhIndex 17\n");
  EXPECT_EQ(run("explain red 10.9.0.1 Ethernet1"),
            "explain red 10.9.0.1 Ethernet1: no such request\n");
}

TEST_F(ControlCommandsTest, ShowCommandsPrintTheHostsState) {
  run("request add red 10.1.0.1 Ethernet1");
  EXPECT_EQ(run("show status red"), "status red 10.1.0.1 Ethernet1 nhIndex 17\n");
  EXPECT_EQ(run("show status blue"), "no statuses\n");
  EXPECT_EQ(run("show requests"), "request red 10.1.0.1 Ethernet1 nhIndex 17\n");
  run("request add red 10.9.0.1 Ethernet1");
  EXPECT_EQ(run("show requests red"),
            "request red 10.1.0.1 Ethernet1 nhIndex 17\nrequest red 10.9.0.1 Ethernet1 "
            "unresolved\n");
  EXPECT_EQ(run("show vrfs"), "vrf red id 1 l3-status up\n");
  EXPECT_EQ(run("show routes"), "route red 10.1.0.0/16 fec 1 via 10.0.0.254 dev Ethernet1\n");
  EXPECT_EQ(run("show neigh"),
            "neigh Ethernet1 10.0.0.254 lladdr 00:1c:73:00:00:01 l2 Ethernet1\n");
  EXPECT_EQ(run("show nh-table"),
            "nh-table Ethernet1: 1 nhIndex\n  nhindex 17 00:1c:73:00:00:01\n");
  EXPECT_EQ(run("show nh-table Ethernet1"), run("show nh-table"));
  // An interface without a table is an answer, as the simulator's show gives it.
  EXPECT_EQ(run("show nh-table Ethernet9"), "nh-table Ethernet9: no table\n");
  // The simulated host's own field, the probes sent, comes before the triggers.
  EXPECT_EQ(run("show arp"), "arp Ethernet1 10.0.0.254 arpVrfId 1001 probes 1 triggers 0\n");
  EXPECT_EQ(run("show dump"), host.dump());
  EXPECT_NE(host.dump().find("NexthopNhIndexResolverSm"), std::string::npos);
}

TEST_F(ControlCommandsTest, ShowIsTheSimulatorsShowWordForWord) {
  run("request add red 10.1.0.1 Ethernet1");
  std::ostringstream scenarioOut, scenarioErr;
  Sim::Scenario scenario(host, scenarioOut, scenarioErr, Hosts::OutputFormat::text);
  for (const char* command :
       {"show status", "show requests red", "show vrfs", "show routes", "show neigh",
        "show nh-table", "show nh-table Ethernet9", "explain red 10.1.0.1 Ethernet1"}) {
    scenarioOut.str("");
    ASSERT_EQ(scenario.runText(std::string(command) + "\n", "cmd"), Sim::Scenario::kPassed)
        << scenarioErr.str();
    EXPECT_EQ(commands.run(command), scenarioOut.str()) << command;
  }
}

TEST_F(ControlCommandsTest, JsonPrefixAnswersEveryShowAsOneDocument) {
  run("request add red 10.1.0.1 Ethernet1");
  for (const char* prefix : {"-j ", "--json "}) {
    const auto doc = [&](const std::string& command) {
      const std::string out = run(prefix + command);
      EXPECT_EQ(out.find('\n'), out.size() - 1) << command << ": " << out;
      return nlohmann::json::parse(out);
    };
    const auto status = doc("show status");
    ASSERT_EQ(status.size(), 1u);
    EXPECT_EQ(status[0].at("vrf"), "red");
    EXPECT_EQ(status[0].at("nexthop"), "10.1.0.1");
    EXPECT_EQ(status[0].at("interface"), "Ethernet1");
    EXPECT_EQ(status[0].at("nhIndex"), 17);
    EXPECT_EQ(doc("show status blue"), nlohmann::json::array());
    EXPECT_EQ(doc("show requests red")[0].at("nhIndex"), 17);
    EXPECT_EQ(doc("show vrfs")[0].at("l3Status"), true);
    const auto routes = doc("show routes");
    EXPECT_EQ(routes[0].at("prefix"), "10.1.0.0/16");
    EXPECT_EQ(routes[0].at("nexthops")[0].at("gateway"), "10.0.0.254");
    EXPECT_EQ(doc("show neigh")[0].at("lladdr"), "00:1c:73:00:00:01");
    EXPECT_EQ(doc("show nh-table")[0].at("nhIndexes")[0].at("nhIndex"), 17);
    EXPECT_EQ(doc("show nh-table Ethernet9"),
              nlohmann::json::parse(R"([{"dev": "Ethernet9", "present": false}])"));
    const auto arp = doc("show arp");
    EXPECT_EQ(arp.at("entries")[0].at("dst"), "10.0.0.254");
    EXPECT_EQ(arp.at("entries")[0].at("probes"), 1);
    const auto explained = doc("explain red 10.1.0.1 Ethernet1");
    EXPECT_EQ(explained.at("resolved"), true);
    EXPECT_EQ(explained.at("reason").get<std::string>().rfind("resolved: via 10.0.0.254", 0), 0u);
    const auto dump = doc("show dump");
    ASSERT_TRUE(dump.is_array());
    EXPECT_NE(dump.dump().find("NexthopNhIndexResolverSm"), std::string::npos);
  }
  // A request answers nothing in either form.
  EXPECT_EQ(run("-j request add red 10.1.0.2 Ethernet1"), "");
  EXPECT_TRUE(host.requestHas(
      FwdL3Unicast::NexthopNhIndexResolverKey(vrf("red"), ip("10.1.0.2"), intf("Ethernet1"))));
  EXPECT_EQ(run("--json request del red 10.1.0.2 Ethernet1"), "");
}

TEST_F(ControlCommandsTest, BadCommandsAreRefusedBeforeTheModule) {
  EXPECT_EQ(refusal(""), "empty command");
  EXPECT_EQ(refusal("  # only a comment"), "empty command");
  EXPECT_EQ(refusal("frobnicate"), "unknown command 'frobnicate'");
  EXPECT_EQ(refusal("-j"), "empty command");
  EXPECT_EQ(refusal("--json # nothing"), "empty command");
  EXPECT_EQ(refusal("show -j status"),
            "unknown command 'show -j' (expected show status, show "
            "requests, show vrfs, show arp, show routes, show neigh, "
            "show nh-table, show dump)");
  EXPECT_EQ(refusal("show"),
            "incomplete command 'show' (expected show status, show requests, show vrfs, show arp, "
            "show routes, show neigh, show nh-table, show dump)");
  EXPECT_EQ(refusal("request move red 10.1.0.1 Ethernet1"),
            "unknown command 'request move' (expected request add, request del)");
  EXPECT_EQ(refusal("request add red 10.1.0.1"),
            "missing arguments (usage: request add VRF ADDR INTF)");
  EXPECT_EQ(refusal("show status red now"), "unexpected 'now' (usage: show status [VRF])");
  EXPECT_EQ(refusal("show vrfs red"), "unexpected 'red' (usage: show vrfs)");
  EXPECT_EQ(refusal("show requests " + std::string(101, 'v')),
            "VRF name of 101 bytes is over 100 (usage: show requests [VRF])");
  EXPECT_EQ(refusal("request add red 10.1.0 Ethernet1"),
            "bad address '10.1.0' (usage: request add VRF ADDR INTF)");
  EXPECT_EQ(refusal("request add red 0.0.0.0 Ethernet1"),
            "next hop '0.0.0.0' is not a non-zero IPv4 address (usage: request add VRF ADDR INTF)");
  EXPECT_EQ(refusal("request add red 2001:db8::1 Ethernet1"),
            "next hop '2001:db8::1' is not a non-zero IPv4 address (usage: request add VRF ADDR "
            "INTF)");
  EXPECT_EQ(refusal("request add red 10.1.0.1 Bogus7"),
            "bad interface name 'Bogus7' (usage: request add VRF ADDR INTF)");
  EXPECT_EQ(refusal("request add " + std::string(101, 'v') + " 10.1.0.1 Ethernet1"),
            "VRF name of 101 bytes is over 100 (usage: request add VRF ADDR INTF)");
  EXPECT_EQ(refusal("show nh-table Bogus7"),
            "bad interface name 'Bogus7' (usage: show nh-table [INTF])");
  EXPECT_EQ(host.configDir()->configCount(), 0u);
}

TEST_F(ControlCommandsTest, DuplicateAndAbsentRequestsAreRefused) {
  run("request add red 10.1.0.1 Ethernet1");
  EXPECT_EQ(refusal("request add red 10.1.0.1 Ethernet1"), "request red 10.1.0.1 Ethernet1 exists");
  EXPECT_EQ(refusal("request del red 10.1.0.2 Ethernet1"), "no request red 10.1.0.2 Ethernet1");
  EXPECT_EQ(host.configDir()->configCount(), 1u);
}

TEST_F(ControlCommandsTest, HelpListsEveryCommand) {
  const std::string help = ControlCommands::help();
  for (const char* usage :
       {"request add VRF ADDR INTF", "request del VRF ADDR INTF", "show status [VRF]",
        "show requests [VRF]", "show vrfs", "show arp", "show routes", "show neigh",
        "show nh-table [INTF]", "show dump", "explain VRF ADDR INTF"}) {
    EXPECT_NE(help.find(std::string(usage) + "\n"), std::string::npos) << usage;
  }
}

}  // namespace
