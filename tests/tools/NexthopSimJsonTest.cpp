#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/SimScenarios.h"
#include "support/ToolRun.h"

// nexthop-sim -j: every line it prints is one JSON document, read back here.
namespace {

using nlohmann::json;
using ToolRun::Input;
using ToolRun::Result;

std::vector<json> documents(const std::string& out) {
  std::vector<json> docs;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    docs.push_back(json::parse(line));  // throws, failing the test, on a line that is not JSON
  }
  return docs;
}

std::vector<json> runJson(const std::string& scenario, const std::vector<std::string>& extra = {}) {
  std::vector<std::string> args = {"-j"};
  args.insert(args.end(), extra.begin(), extra.end());
  args.push_back("-");
  const Result r = ToolRun::run(ToolRun::tool("nexthop-sim"), args, Input::text(scenario));
  EXPECT_EQ(r.status, 0) << r.err;
  return documents(r.out);
}

const std::string kState = SimScenarios::kResolved +
                           "route add red 10.2.0.0/16 dev Ethernet2\n"
                           "host add Ethernet1 10.0.0.254 00:00:00:00:00:01\n"
                           "advance 3\n";

TEST(NexthopSimJson, StatusLinesAreOneObjectEach) {
  const std::vector<json> docs =
      runJson(SimScenarios::kResolved + "advance 2\nrequest del red 10.1.0.1 Ethernet1\n");
  ASSERT_EQ(docs.size(), 2u);
  EXPECT_EQ(docs[0], json::parse(R"({"timeMs": 0, "event": "add", "vrf": "red",
      "nexthop": "10.1.0.1", "interface": "Ethernet1", "nhIndex": 17})"));
  EXPECT_EQ(docs[1], json::parse(R"({"timeMs": 2, "event": "del", "vrf": "red",
      "nexthop": "10.1.0.1", "interface": "Ethernet1"})"));
}

TEST(NexthopSimJson, ShowCommandsPrintOneDocumentEach) {
  const std::vector<json> docs =
      runJson(kState +
              "show status\nshow requests\nshow vrfs\nshow routes\nshow neigh\n"
              "show nh-table\nshow nh-table Ethernet9\nshow arp\n");
  ASSERT_EQ(docs.size(), 9u);
  EXPECT_EQ(docs[1], json::parse(R"([{"vrf": "red", "nexthop": "10.1.0.1",
      "interface": "Ethernet1", "nhIndex": 17}])"));
  EXPECT_EQ(docs[2], docs[1]);
  EXPECT_EQ(docs[3], json::parse(R"([{"vrf": "red", "id": 1, "l3Status": true}])"));
  EXPECT_EQ(docs[4], json::parse(R"([
      {"vrf": "red", "prefix": "10.1.0.0/16", "fec": 1,
       "nexthops": [{"dev": "Ethernet1", "gateway": "10.0.0.254"}]},
      {"vrf": "red", "prefix": "10.2.0.0/16", "fec": 2, "nexthops": [{"dev": "Ethernet2"}]}])"));
  EXPECT_EQ(docs[5], json::parse(R"([{"dev": "Ethernet1", "dst": "10.0.0.254",
      "lladdr": "00:00:00:00:00:01", "l2": "Ethernet1"}])"));
  EXPECT_EQ(docs[6], json::parse(R"([{"dev": "Ethernet1", "present": true,
      "nhIndexes": [{"nhIndex": 17, "lladdr": "00:00:00:00:00:01"}]}])"));
  EXPECT_EQ(docs[7], json::parse(R"([{"dev": "Ethernet9", "present": false}])"));
  EXPECT_EQ(docs[8]["entries"][0]["dev"], "Ethernet1");
  EXPECT_EQ(docs[8]["entries"][0]["arpVrfId"], 1001);
  EXPECT_EQ(docs[8]["hosts"], json::parse(R"([{"dev": "Ethernet1", "dst": "10.0.0.254",
      "lladdr": "00:00:00:00:00:01"}])"));
}

TEST(NexthopSimJson, ExplainEchoAndDumpAreDocuments) {
  const std::vector<json> docs =
      runJson("vrf add red\nexplain red 10.0.0.1 Ethernet1\n" + SimScenarios::kResolved.substr(12) +
                  "explain red 10.1.0.1 Ethernet1\necho hello world\nshow dump\n",
              {"--dump"});
  ASSERT_EQ(docs.size(), 6u);
  EXPECT_EQ(docs[0], json::parse(R"({"vrf": "red", "nexthop": "10.0.0.1",
      "interface": "Ethernet1", "resolved": false,
      "reason": "no such request"})"));
  EXPECT_EQ(docs[2]["resolved"], true);
  EXPECT_EQ(docs[2]["reason"], "resolved: via 10.0.0.254, MAC 00:00:00:00:00:01, nhIndex 17");
  EXPECT_EQ(docs[3], json::parse(R"({"echo": "hello world"})"));
  // The dump is a tree of lines; the root's node comes first.
  ASSERT_TRUE(docs[4].is_array());
  EXPECT_EQ(docs[4][0]["line"], "NexthopNhIndexResolverSm");
  EXPECT_EQ(docs[4][0]["children"][0]["line"], "configDir");
  EXPECT_EQ(docs[5], docs[4]);
}

TEST(NexthopSimJson, TextStaysTheDefault) {
  const Result r = ToolRun::run(ToolRun::tool("nexthop-sim"), {"-"},
                                Input::text(SimScenarios::kResolved + "show status\n"));
  EXPECT_EQ(r.out,
            "[0ms] status add red 10.1.0.1 Ethernet1 nhIndex 17\n"
            "status red 10.1.0.1 Ethernet1 nhIndex 17\n");
}

TEST(NexthopSimJson, HelpAndTheTraceUnitsAreDocumentsToo) {
  const std::vector<json> docs = runJson("help\nhelp vrf del\n");
  ASSERT_EQ(docs.size(), 2u);
  EXPECT_THAT(docs[0]["help"].get<std::string>(), ::testing::HasSubstr("  vrf add NAME [id N]\n"));
  EXPECT_EQ(docs[1], json::parse(R"({"help": "  vrf del NAME\n"})"));
  const Result r = ToolRun::run(ToolRun::tool("nexthop-sim"), {"--json", "--trace", "list"});
  EXPECT_EQ(r.status, 0);
  const json units = json::parse(r.out);
  ASSERT_TRUE(units.is_array());
  EXPECT_EQ(units[0], "FwdNexthopNhIndexResolverSm");
}

}  // namespace
