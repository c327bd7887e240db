#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "hosts/sim/Scenario.h"
#include "hosts/sim/SimHost.h"
#include "support/FwdTestValues.h"
#include "support/SimScenarios.h"

namespace {

using Sim::Scenario;

// One scenario run on a fresh host, with what it printed.
struct SimRun {
  Scenario::ExitStatus status;
  std::string out;
  std::string err;
};

SimRun run(std::string_view text) {
  Sim::SimHost host;
  std::ostringstream out;
  std::ostringstream err;
  Scenario scenario(host, out, err);
  const Scenario::ExitStatus status = scenario.runText(text, "t.scn");
  return SimRun{status, out.str(), err.str()};
}

// The scenario is refused at its last line with exactly `message`.
void expectRefused(const std::string& text, const std::string& message) {
  const size_t lastLine = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  const SimRun result = run(text);
  EXPECT_EQ(result.status, Scenario::kInputError) << text;
  EXPECT_EQ(result.err, "t.scn:" + std::to_string(lastLine) + ": " + message + "\n") << text;
}

const std::string kLongName(101, 'x');

using SimScenarios::kResolved;

TEST(NexthopSimParser, RefusesUnknownAndIncompleteCommands) {
  expectRefused("foo", "unknown command 'foo'");
  expectRefused("vrf", "incomplete command 'vrf' (expected vrf add, vrf del)");
  expectRefused("vrf rename red", "unknown command 'vrf rename' (expected vrf add, vrf del)");
  expectRefused("show bogus",
                "unknown command 'show bogus' (expected show status, show requests, show vrfs, "
                "show arp, show routes, show neigh, show nh-table, show dump)");
}

TEST(NexthopSimParser, HelpNamesEveryCommandOnceAndOnlyCommandsItRuns) {
  std::istringstream help(Scenario::help());
  std::string line;
  ASSERT_TRUE(std::getline(help, line));
  EXPECT_EQ(line, "Scenario commands (one per line, '#' starts a comment):");
  std::vector<std::string> named;
  while (std::getline(help, line)) {
    std::istringstream words(line);
    std::string first, second;
    words >> first >> second;
    // A word of upper case is an argument: the command is one word long.
    const bool twoWords = !second.empty() && std::islower(static_cast<unsigned char>(second[0]));
    const std::string command = twoWords ? first + " " + second : first;
    named.push_back(command);
    // The command exists: alone it is incomplete or runs, never unknown.
    const SimRun result = run(command);
    EXPECT_EQ(result.err.find("unknown command"), std::string::npos) << command;
  }
  EXPECT_EQ(std::set<std::string>(named.begin(), named.end()).size(), named.size());
  for (const char* expected : {"vrf add", "fec-mode", "route replace", "show dump", "echo"}) {
    EXPECT_NE(std::find(named.begin(), named.end(), expected), named.end()) << expected;
  }
}

TEST(NexthopSimParser, RefusesMalformedLinesNamingTheUsage) {
  expectRefused("vrf add", "missing NAME (usage: vrf add NAME [id N])");
  expectRefused("vrf add red id", "missing N (usage: vrf add NAME [id N])");
  expectRefused("vrf add red name 5", "expected 'id', found 'name' (usage: vrf add NAME [id N])");
  expectRefused("vrf add red id 5 more", "unexpected 'more' (usage: vrf add NAME [id N])");
  expectRefused("restart now", "unexpected 'now' (usage: restart)");
  expectRefused("route add red 10.0.0.0/8",
                "missing 'dev' (usage: route add VRF PREFIX via ADDR dev INTF [via ADDR dev INTF "
                "...] | dev INTF)");
  expectRefused("neigh add Ethernet1 10.0.0.1 mac 00:00:00:00:00:01",
                "expected 'lladdr', found 'mac' (usage: neigh add INTF ADDR lladdr MAC|none [l2 "
                "INTF|none])");
  expectRefused("neigh add Ethernet1 10.0.0.1 lladdr 00:00:00:00:00:01 l2",
                "missing INTF or none (usage: neigh add INTF ADDR lladdr MAC|none [l2 INTF|none])");
  expectRefused("engine auto-nhindex maybe",
                "expected on|off, found 'maybe' (usage: engine auto-nhindex on|off)");
  expectRefused("expect status red 10.0.0.1 Ethernet1 maybe",
                "expected nhIndex or none, found 'maybe' (usage: expect status VRF ADDR INTF "
                "nhIndex N | none)");
  expectRefused("expect arp Ethernet1 10.0.0.1 maybe",
                "expected present|absent, found 'maybe' (usage: expect arp INTF ADDR "
                "present|absent)");
}

// A bad value is refused naming the value and the command's usage.
const std::string kVrfAdd = " (usage: vrf add NAME [id N])";
const std::string kRouteAdd =
    " (usage: route add VRF PREFIX via ADDR dev INTF [via ADDR dev INTF ...] | dev INTF)";
const std::string kHostAdd = " (usage: host add INTF ADDR [lladdr] MAC)";
const std::string kNeighAdd = " (usage: neigh add INTF ADDR lladdr MAC|none [l2 INTF|none])";
const std::string kNhIndexAdd = " (usage: nhindex add INTF INDEX MAC)";

TEST(NexthopSimParser, RefusesBadValuesNamingTheUsage) {
  expectRefused("vrf add red id five", "bad number 'five' (0 to 4294967295)" + kVrfAdd);
  expectRefused("vrf add red id 4294967296", "bad number '4294967296' (0 to 4294967295)" + kVrfAdd);
  expectRefused("advance -1", "bad number '-1' (0 to 18446744073709551615) (usage: advance MS)");
  expectRefused("arp-delay 1ms", "bad number '1ms' (0 to 1099511627776) (usage: arp-delay MS)");
  expectRefused("expect statuses x", "bad number 'x' (0 to 4294967295) (usage: expect statuses N)");
  expectRefused("vrf add " + kLongName, "VRF name of 101 bytes is over 100" + kVrfAdd);
  expectRefused("request add " + kLongName + " 10.0.0.1 Ethernet1",
                "VRF name of 101 bytes is over 100 (usage: request add VRF ADDR INTF)");
  expectRefused("request add red 10.0.0.300 Ethernet1",
                "bad address '10.0.0.300' (usage: request add VRF ADDR INTF)");
  expectRefused("route add red 10.0.0.0/8 via 10.0.0.300 dev Ethernet1",
                "bad IPv4 address '10.0.0.300'" + kRouteAdd);
  expectRefused("route add red 10.0.0.0/8 via ::1 dev Ethernet1",
                "bad IPv4 address '::1'" + kRouteAdd);
  expectRefused("neigh del Ethernet1 fe80::1",
                "bad IPv4 address 'fe80::1' (usage: neigh del INTF ADDR)");
  expectRefused("route add red 10.0.0.0/8 via 10.0.0.1 dev Bogus1",
                "bad interface name 'Bogus1'" + kRouteAdd);
  expectRefused("nh-table add Ethernet",
                "bad interface name 'Ethernet' (usage: nh-table add INTF)");
  expectRefused("neigh add Ethernet1 10.0.0.1 lladdr zz", "bad MAC address 'zz'" + kNeighAdd);
  expectRefused("host add Ethernet1 10.0.0.1 00:00:00:00:00",
                "bad MAC address '00:00:00:00:00'" + kHostAdd);
  expectRefused("nhindex add Ethernet1 4294967296 00:00:00:00:00:01",
                "bad number '4294967296' (0 to 4294967295)" + kNhIndexAdd);
}

TEST(NexthopSimParser, RefusesLeadingZerosInNumbersAndPrefixLengths) {
  expectRefused("vrf add red id 07", "bad number '07' (0 to 4294967295)" + kVrfAdd);
  expectRefused("advance 00", "bad number '00' (0 to 18446744073709551615) (usage: advance MS)");
  expectRefused("route add red 10.0.0.0/08 dev Ethernet1",
                "bad prefix '10.0.0.0/08': length is not a number from 0 to 32" + kRouteAdd);
  EXPECT_EQ(run("advance 0\nvrf add red id 10\nroute add red 0.0.0.0/0 dev Ethernet1").status,
            Scenario::kPassed);
}

TEST(NexthopSimParser, RefusesControlCharactersInNames) {
  expectRefused(std::string("vrf add r\x01"
                            "d"),
                "VRF name with a control character (byte 0x01 at 2)" + kVrfAdd);
  expectRefused(std::string("vrf add re\0d", 12),
                "VRF name with a control character (byte 0x00 at 3)" + kVrfAdd);
  expectRefused(std::string("nh-table add Ethernet1\x7f"),
                "interface name with a control character (byte 0x7f at 10) (usage: nh-table add "
                "INTF)");
}

TEST(NexthopSimParser, RefusesMacsNoHostHas) {
  for (const char* bad : {"00:00:00:00:00:00", "ff:ff:ff:ff:ff:ff", "01:00:5e:00:00:01"}) {
    const std::string why = "bad MAC address '" + std::string(bad) + "': not a unicast address";
    expectRefused("host add Ethernet1 10.0.0.1 " + std::string(bad), why + kHostAdd);
    expectRefused("nh-table add Ethernet1\nnhindex add Ethernet1 5 " + std::string(bad),
                  why + kNhIndexAdd);
  }
  for (const char* bad : {"00:00:00:00:00:00", "ff:ff:ff:ff:ff:ff", "01:00:5e:00:00:01"}) {
    expectRefused("neigh add Ethernet1 10.0.0.1 lladdr " + std::string(bad),
                  "bad MAC address '" + std::string(bad) + "': not a unicast address" + kNeighAdd);
  }
}

TEST(NexthopSimParser, NeighbourWithoutMacIsWrittenLladdrNone) {
  SimRun r =
      run("neigh add Ethernet1 10.0.0.1 lladdr none\n"
          "show neigh\n"
          "neigh replace Ethernet1 10.0.0.1 lladdr none l2 none\n");
  EXPECT_EQ(r.status, Scenario::kPassed) << r.err;
  EXPECT_NE(r.out.find("00:00:00:00:00:00"), std::string::npos) << r.out;
}

TEST(NexthopSimParser, RefusesNeighbourAndViaAddressesNoHostHas) {
  for (const char* bad : {"0.0.0.0", "255.255.255.255"}) {
    const std::string why = "bad address '" + std::string(bad) + "': not a host's address";
    expectRefused("neigh add Ethernet1 " + std::string(bad) + " lladdr 00:00:00:00:00:01",
                  why + kNeighAdd);
    expectRefused("host add Ethernet1 " + std::string(bad) + " 00:00:00:00:00:01", why + kHostAdd);
    expectRefused("route add red 10.0.0.0/8 via " + std::string(bad) + " dev Ethernet1",
                  why + kRouteAdd);
  }
}

TEST(NexthopSimParser, RefusesAVrfIdWhoseProactiveArpIdWouldNotFit) {
  expectRefused("vrf add red id 4294966296",
                "VRF id 4294966296 is too large: its proactive ARP id would not fit (at most "
                "4294966295)");
  EXPECT_EQ(run("vrf add red id 4294966295\nexpect statuses 0").status, Scenario::kPassed);
}

TEST(NexthopSimParser, RefusesAnAdvancePastTheClocksLimit) {
  expectRefused("advance 4611686018427387905",
                "advance 4611686018427387905 would take the virtual clock (0ms) past its limit "
                "of 4611686018427387904ms");
  expectRefused("advance 4611686018427387904\nadvance 1",
                "advance 1 would take the virtual clock (4611686018427387904ms) past its limit "
                "of 4611686018427387904ms");
}

TEST(NexthopSimParser, RefusesRequestsTheModuleMustNeverSee) {
  expectRefused("request add red 0.0.0.0 Ethernet1",
                "next hop 0.0.0.0 is not a non-zero IPv4 address");
  expectRefused("request add red 2001:db8::1 Ethernet1",
                "next hop 2001:db8::1 is not a non-zero IPv4 address");
  expectRefused("request add red 10.0.0.1 Ethernet1\nrequest add red 10.0.0.1 Ethernet1",
                "request red 10.0.0.1 Ethernet1 exists");
  expectRefused("request add red 10.0.0.1 Ethernet1\nrequest del red 10.0.0.1 Ethernet2",
                "no request red 10.0.0.1 Ethernet2");
}

TEST(NexthopSimParser, RefusesHostStateThatExistsOrIsAbsent) {
  expectRefused("vrf add red\nvrf add red", "VRF red exists");
  expectRefused("vrf del red", "no VRF red");
  expectRefused("vrf add red id 0", "VRF id 0 is not a VRF's id");
  expectRefused("vrf add red id 3\nvrf add blue id 3", "VRF id 3 belongs to VRF red");
  expectRefused("route add red 10.0.0.0/8 dev Ethernet1\nroute add red 10.0.0.0/8 dev Ethernet2",
                "route 10.0.0.0/8 exists in VRF red (use route replace)");
  expectRefused("route del red 10.0.0.0/8", "no route 10.0.0.0/8 in VRF red");
  expectRefused("route add red 10.0.0.0/8 via 10.0.0.1 dev Ethernet1 via 10.0.0.1 dev Ethernet1",
                "route 10.0.0.0/8 lists via 10.0.0.1 dev Ethernet1 twice");
  expectRefused(
      "neigh add Ethernet1 10.0.0.1 lladdr 00:00:00:00:00:01\n"
      "neigh add Ethernet1 10.0.0.1 lladdr 00:00:00:00:00:02",
      "neighbour Ethernet1 10.0.0.1 exists (use neigh replace)");
  expectRefused("neigh del Ethernet1 10.0.0.1", "no neighbour Ethernet1 10.0.0.1");
  expectRefused(
      "host add Ethernet1 10.0.0.1 00:00:00:00:00:01\nhost add Ethernet1 10.0.0.1 "
      "00:00:00:00:00:02",
      "host Ethernet1 10.0.0.1 exists");
  expectRefused("host del Ethernet1 10.0.0.1", "no host Ethernet1 10.0.0.1");
  expectRefused("nh-table add Ethernet1\nnh-table add Ethernet1",
                "interface Ethernet1 has a next-hop table already");
  expectRefused("nh-table del Ethernet1", "interface Ethernet1 has no next-hop table");
  expectRefused("nhindex add Ethernet1 5 00:00:00:00:00:01",
                "interface Ethernet1 has no next-hop table");
  expectRefused("nh-table add Ethernet1\nnhindex add Ethernet1 4294967295 00:00:00:00:00:01",
                "nhIndex 4294967295 is the invalid index");
  expectRefused("nh-table add Ethernet1\nnhindex replace Ethernet1 4294967295 00:00:00:00:00:01",
                "nhIndex 4294967295 is the invalid index");
  expectRefused(
      "nh-table add Ethernet1\nnhindex add Ethernet1 5 00:00:00:00:00:01\n"
      "nhindex add Ethernet1 5 00:00:00:00:00:02",
      "nhIndex 5 on Ethernet1 exists (use nhindex replace)");
  expectRefused("nh-table add Ethernet1\nnhindex del Ethernet1 5", "no nhIndex 5 on Ethernet1");
}

TEST(NexthopSimParser, TakesTheFecModeOnlyAsOneOrTwoAndBeforeTheFirstRequest) {
  expectRefused("fec-mode 3", "FEC mode 3 is neither 1 (per VRF) nor 2 (global)");
  expectRefused("fec-mode one", "bad number 'one' (0 to 4294967295) (usage: fec-mode 1|2)");
  expectRefused(
      "request add red 10.0.0.1 Ethernet1\nrequest del red 10.0.0.1 Ethernet1\nfec-mode 1",
      "fec-mode must come before the first request");
  EXPECT_EQ(run("fec-mode 1\nfec-mode 2\nrequest add red 10.0.0.1 Ethernet1").status,
            Scenario::kPassed);
}

TEST(NexthopSimParser, ExpectStatusTakesNhIndexAsPrintedAndNhindex) {
  const SimRun result = run(kResolved +
                            "expect status red 10.1.0.1 Ethernet1 nhIndex 17\n"
                            "expect status red 10.1.0.1 Ethernet1 nhindex 17\n"
                            "expect status red 10.1.0.1 Ethernet1 nhIndex 18\n");
  EXPECT_EQ(result.status, Scenario::kExpectFailed);
  EXPECT_EQ(result.err,
            "t.scn:9: expected status red 10.1.0.1 Ethernet1 nhIndex 18, found nhIndex 17\n");
}

TEST(NexthopSimParser, HostAddTakesLladdrBeforeTheMacOrNot) {
  const SimRun result =
      run("host add Ethernet1 10.0.0.1 00:00:00:00:00:01\n"
          "host add Ethernet1 10.0.0.2 lladdr 00:00:00:00:00:02\n"
          "host replace Ethernet1 10.0.0.2 lladdr 00:00:00:00:00:03\n"
          "host replace Ethernet1 10.0.0.3 00:00:00:00:00:04\n"
          "show arp\n");
  EXPECT_EQ(result.status, Scenario::kPassed) << result.err;
  EXPECT_EQ(result.out,
            "no proactive ARP entries\n"
            "host Ethernet1 10.0.0.1 00:00:00:00:00:01\n"
            "host Ethernet1 10.0.0.2 00:00:00:00:00:03\n"
            "host Ethernet1 10.0.0.3 00:00:00:00:00:04\n");
}

TEST(NexthopSimParser, ExplainRefusesWhatRequestAddRefuses) {
  for (const char* bad : {"0.0.0.0", "2001:db8::1"}) {
    expectRefused("explain red " + std::string(bad) + " Ethernet1",
                  "next hop " + std::string(bad) + " is not a non-zero IPv4 address");
  }
}

TEST(NexthopSimRunner, ExplainPrintsADirectlyAttachedViaAsShowRoutesDoes) {
  const SimRun result = run(
      "vrf add red\nroute add red 10.0.0.0/24 dev Ethernet2\nrequest add red 10.0.0.1 Ethernet1\n"
      "explain red 10.0.0.1 Ethernet1\nshow routes\n");
  EXPECT_EQ(result.status, Scenario::kPassed) << result.err;
  EXPECT_EQ(result.out,
            "explain red 10.0.0.1 Ethernet1: no via on Ethernet1: FEC 1 has dev Ethernet2\n"
            "route red 10.0.0.0/24 fec 1 dev Ethernet2\n");
}

TEST(NexthopSimRunner, VrfAddPicksTheLowestFreeIdAfterThousandsOfVrfs) {
  std::string text;
  for (int i = 1; i <= 4000; ++i) text += "vrf add v" + std::to_string(i) + "\n";
  text += "vrf del v17\nvrf del v3000\nvrf add again\nvrf add more\nvrf add last\n";
  Sim::SimHost host;
  std::ostringstream out, err;
  Scenario scenario(host, out, err);
  ASSERT_EQ(scenario.runText(text, "t.scn"), Scenario::kPassed) << err.str();
  const auto& ids = *host.vrfStatusAll();
  EXPECT_EQ(ids.vrfId(L3::VrfName("v4000")), 4000u);
  EXPECT_EQ(ids.vrfId(L3::VrfName("again")), 17u);
  EXPECT_EQ(ids.vrfId(L3::VrfName("more")), 3000u);
  EXPECT_EQ(ids.vrfId(L3::VrfName("last")), 4001u);
}

TEST(NexthopSimRunner, SummarizesTheExpectations) {
  Sim::SimHost host;
  std::ostringstream out, err;
  Scenario scenario(host, out, err);
  EXPECT_EQ(scenario.summary(), "0 expectations held, 0 failed");
  scenario.runText(kResolved + "expect statuses 1\nexpect statuses 2\nexpect statuses 1\n", "t");
  EXPECT_EQ(scenario.summary(), "2 expectations held, 1 failed");
}

TEST(NexthopSimRunner, StopsAtTheFirstRefusedLine) {
  const SimRun result = run(kResolved + "bogus\nrequest add red 10.1.0.2 Ethernet1\necho never");
  EXPECT_EQ(result.status, Scenario::kInputError);
  EXPECT_EQ(result.err, "t.scn:7: unknown command 'bogus'\n");
  EXPECT_EQ(result.out, "[0ms] status add red 10.1.0.1 Ethernet1 nhIndex 17\n");
}

TEST(NexthopSimRunner, CountsCommentsAndBlankLinesInLineNumbers) {
  const SimRun result = run("# a comment\n\n   \nvrf add red # trailing comment\n\nvrf add red");
  EXPECT_EQ(result.err, "t.scn:6: VRF red exists\n");
}

TEST(NexthopSimRunner, ReportsFailedExpectationsAndGoesOn) {
  const SimRun result = run(kResolved +
                            "expect status red 10.1.0.1 Ethernet1 nhindex 18\n"
                            "expect status red 10.1.0.1 Ethernet1 none\n"
                            "expect status red 10.1.0.2 Ethernet1 nhindex 17\n"
                            "expect statuses 2\n"
                            "expect arp Ethernet1 10.0.0.254 absent\n"
                            "expect arp Ethernet1 10.0.0.253 present\n"
                            "request del red 10.1.0.1 Ethernet1\n"
                            "expect statuses 0\n");
  EXPECT_EQ(result.status, Scenario::kExpectFailed);
  EXPECT_EQ(result.err,
            "t.scn:7: expected status red 10.1.0.1 Ethernet1 nhIndex 18, found nhIndex 17\n"
            "t.scn:8: expected no status for red 10.1.0.1 Ethernet1, found nhIndex 17\n"
            "t.scn:9: expected status red 10.1.0.2 Ethernet1 nhIndex 17, found none\n"
            "t.scn:10: expected 2 statuses, found 1\n"
            "t.scn:11: expected proactive ARP entry Ethernet1 10.0.0.254 absent, found present\n"
            "t.scn:12: expected proactive ARP entry Ethernet1 10.0.0.253 present, found absent\n");
  // The lines after the failures ran.
  EXPECT_NE(result.out.find("status del red 10.1.0.1 Ethernet1"), std::string::npos);
}

TEST(NexthopSimRunner, EndsWithZeroWhenEveryExpectationHolds) {
  const SimRun result = run(kResolved +
                            "expect status red 10.1.0.1 Ethernet1 nhindex 17\n"
                            "expect status red 10.1.0.2 Ethernet1 none\n"
                            "expect statuses 1\n"
                            "expect arp Ethernet1 10.0.0.254 present\n");
  EXPECT_EQ(result.status, Scenario::kPassed);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(run("").status, Scenario::kPassed);
}

TEST(NexthopSimRunner, RunsDueTasksAfterEachCommandAndMovesTimeWithAdvance) {
  const SimRun result =
      run("vrf add red\n"
          "route add red 10.1.0.0/16 via 10.0.0.254 dev Ethernet1\n"
          "host add Ethernet1 10.0.0.254 00:00:00:00:00:01\n"
          "nh-table add Ethernet1\n"
          "engine auto-nhindex on\n"
          "arp-delay 7\n"
          "request add red 10.1.0.1 Ethernet1\n"
          "expect status red 10.1.0.1 Ethernet1 none\n"
          "advance 6\n"
          "expect status red 10.1.0.1 Ethernet1 none\n"
          "advance 1\n"
          "expect status red 10.1.0.1 Ethernet1 nhindex 1\n");
  EXPECT_EQ(result.status, Scenario::kPassed) << result.err;
  EXPECT_EQ(result.out, "[7ms] status add red 10.1.0.1 Ethernet1 nhIndex 1\n");
}

TEST(NexthopSimRunner, ShowsTheHostState) {
  const SimRun result = run(kResolved +
                            "route add red 10.2.0.0/16 dev Ethernet2\n"
                            "host add Ethernet1 10.0.0.254 00:00:00:00:00:01\n"
                            "echo --- state\n"
                            "show status\nshow routes\nshow neigh\nshow nh-table\nshow arp\n"
                            "explain red 10.1.0.1 Ethernet1\n");
  EXPECT_EQ(result.status, Scenario::kPassed) << result.err;
  EXPECT_EQ(result.out.substr(result.out.find("--- state")),
            "--- state\n"
            "status red 10.1.0.1 Ethernet1 nhIndex 17\n"
            "route red 10.1.0.0/16 fec 1 via 10.0.0.254 dev Ethernet1\n"
            "route red 10.2.0.0/16 fec 2 dev Ethernet2\n"
            "neigh Ethernet1 10.0.0.254 lladdr 00:00:00:00:00:01 l2 Ethernet1\n"
            "nh-table Ethernet1: 1 nhIndex\n"
            "  nhindex 17 00:00:00:00:00:01\n"
            "arp Ethernet1 10.0.0.254 arpVrfId 1001 probes 2 triggers 0\n"
            "host Ethernet1 10.0.0.254 00:00:00:00:00:01\n"
            "explain red 10.1.0.1 Ethernet1: resolved: via 10.0.0.254, MAC 00:00:00:00:00:01, "
            "nhIndex 17\n");
}

TEST(NexthopSimRunner, ShowsStatusesAndRequestsOfOneVrfAndEveryVrf) {
  const SimRun result = run(kResolved +
                            "vrf add blue id 7\nrequest add blue 10.1.0.1 Ethernet1\n"
                            "echo --- state\n"
                            "show status red\nshow status blue\nshow requests\nshow requests blue\n"
                            "show vrfs\n");
  EXPECT_EQ(result.status, Scenario::kPassed) << result.err;
  EXPECT_EQ(result.out.substr(result.out.find("--- state")),
            "--- state\n"
            "status red 10.1.0.1 Ethernet1 nhIndex 17\n"
            "no statuses\n"
            "request blue 10.1.0.1 Ethernet1 unresolved\n"
            "request red 10.1.0.1 Ethernet1 nhIndex 17\n"
            "request blue 10.1.0.1 Ethernet1 unresolved\n"
            "vrf blue id 7 l3-status up\n"
            "vrf red id 1 l3-status up\n");
}

TEST(NexthopSimRunner, ShowsNoTableForAnInterfaceWithoutOneAndGoesOn) {
  const SimRun result = run("show nh-table Ethernet1\necho after");
  EXPECT_EQ(result.status, Scenario::kPassed) << result.err;
  EXPECT_EQ(result.out, "nh-table Ethernet1: no table\nafter\n");
}

TEST(NexthopSimRunner, ShowsEmptyState) {
  const SimRun result = run(
      "show status\nshow routes\nshow neigh\nshow nh-table\nshow arp\nshow requests\nshow vrfs\n");
  EXPECT_EQ(result.out,
            "no statuses\nno routes\nno neighbours\nno next-hop tables\nno proactive ARP "
            "entries\nno requests\nno VRFs\n");
}

TEST(NexthopSimRunner, ShowsTheRootsDumpAndRestartsTheModule) {
  const SimRun result = run(kResolved + "restart\nexpect statuses 1\nshow dump\n");
  EXPECT_EQ(result.status, Scenario::kPassed) << result.err;
  EXPECT_NE(result.out.find("NexthopNhIndexResolverSm\n  configDir\n"), std::string::npos);
  EXPECT_NE(result.out.find("[0ms] status del red 10.1.0.1 Ethernet1\n[0ms] status add red "
                            "10.1.0.1 Ethernet1 nhIndex 17\n"),
            std::string::npos);
}

TEST(NexthopSimRunner, InteractiveModeReportsRefusedLinesAndGoesOn) {
  Sim::SimHost host;
  std::ostringstream out;
  std::ostringstream err;
  Scenario scenario(host, out, err);
  std::istringstream in("vrf add red\nvrf add red\necho still here\nexpect statuses 1\n");
  EXPECT_EQ(scenario.runStream(in, "<stdin>", true), Scenario::kInputError);
  EXPECT_EQ(err.str(),
            "<stdin>:2: VRF red exists\n"
            "<stdin>:4: expected 1 statuses, found 0\n");
  EXPECT_EQ(out.str(), "still here\n");
}

TEST(NexthopSimRunner, InteractiveModeEndsWithAFailedExpectationWhenNoLineWasRefused) {
  Sim::SimHost host;
  std::ostringstream out, err;
  Scenario scenario(host, out, err);
  std::istringstream in("vrf add red\nexpect statuses 1\n");
  EXPECT_EQ(scenario.runStream(in, "<stdin>", true), Scenario::kExpectFailed);
}

TEST(NexthopSimRunner, QuitAndExitEndTheRun) {
  for (const char* word : {"quit", "exit"}) {
    const SimRun result = run("echo one\n" + std::string(word) + "\necho two\n");
    EXPECT_EQ(result.status, Scenario::kPassed) << word;
    EXPECT_EQ(result.out, "one\n") << word;
  }
}

TEST(NexthopSimRunner, HelpPrintsEveryCommandOrTheNamedOnes) {
  EXPECT_EQ(run("help").out, Scenario::help());
  EXPECT_EQ(run("help route").out,
            "  route add VRF PREFIX via ADDR dev INTF [via ADDR dev INTF ...] | dev INTF\n"
            "  route replace VRF PREFIX via ADDR dev INTF [via ADDR dev INTF ...] | dev INTF\n"
            "  route del VRF PREFIX\n");
  EXPECT_EQ(run("help vrf del").out, "  vrf del NAME\n");
  expectRefused("help bogus", "no command 'bogus' (help lists them) (usage: help [COMMAND])");
}

TEST(NexthopSimParser, CompletesCommandWords) {
  using V = std::vector<std::string>;
  EXPECT_EQ(Scenario::completions("sh", "sh"), V{"show"});
  EXPECT_EQ(Scenario::completions("e", "e"), (V{"engine", "explain", "expect", "echo", "exit"}));
  EXPECT_EQ(Scenario::completions("show n", "n"), (V{"neigh", "nh-table"}));
  EXPECT_EQ(Scenario::completions("vrf ", ""), (V{"add", "del"}));
  EXPECT_EQ(Scenario::completions("help ro", "ro"), V{"route"});
  EXPECT_EQ(Scenario::completions("vrf add re", "re"), V{});
  EXPECT_EQ(Scenario::completions("bogus ", ""), V{});
}

TEST(NexthopSimRunner, AStreamThatIsNotInteractiveStopsAtTheFirstRefusedLine) {
  Sim::SimHost host;
  std::ostringstream out;
  std::ostringstream err;
  Scenario scenario(host, out, err);
  std::istringstream in("vrf del red\necho never\n");
  EXPECT_EQ(scenario.runStream(in, "-", false), Scenario::kInputError);
  EXPECT_EQ(err.str(), "-:1: no VRF red\n");
  EXPECT_EQ(out.str(), "");
}

TEST(NexthopSimRunner, RefusedInputLeavesTheModulesInputsUntouched) {
  Sim::SimHost host;
  std::ostringstream out;
  std::ostringstream err;
  Scenario scenario(host, out, err);
  ASSERT_EQ(scenario.runText("request add red 10.0.0.1 Ethernet1", "t.scn"), Scenario::kPassed);
  for (const char* line :
       {"request add red 10.0.0.1 Ethernet1", "request del red 10.0.0.2 Ethernet1",
        "request add red 0.0.0.0 Ethernet1", "request add red ::1 Ethernet1"}) {
    EXPECT_EQ(scenario.runLine(line, "t.scn", 1), Scenario::LineResult::error) << line;
  }
  EXPECT_EQ(host.configDir()->configCount(), 1u);
  EXPECT_TRUE(host.requestHas(FwdTest::key("red", "10.0.0.1", "Ethernet1")));
}

}  // namespace
