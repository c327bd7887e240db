#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "hosts/linux/ControlSocket.h"
#include "hosts/linux/NetlinkMessages.h"
#include "support/ChildProcess.h"
#include "support/TestNetns.h"

// nexthop-agent as a process against a real kernel, inside namespaces the tests make: a host
// namespace h with h0 192.0.2.1/24 linked to p0 192.0.2.2/24 in the peer p, a route to
// 203.0.113.0/24 through the peer. Every wait is bounded; an agent still running at the end of a
// test is killed.
namespace {

using TestSupport::TestNetns;

constexpr int kWaitMs = 5000;

using TestSupport::ChildProcess;
using TestSupport::Finished;
using TestSupport::msLeft;
using Clock = std::chrono::steady_clock;

// Runs a command and returns what it printed on standard output.
std::string capture(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
  pclose(pipe);
  return out;
}

size_t countOf(const std::string& text, const std::string& word) {
  size_t count = 0;
  for (size_t pos = text.find(word); pos != std::string::npos; pos = text.find(word, pos + 1))
    ++count;
  return count;
}

class NexthopAgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!TestNetns::available(&why)) GTEST_SKIP() << why;
    h_ = std::make_unique<TestNetns>("ah");
    p_ = std::make_unique<TestNetns>("ap");
    h_->vethTo(*p_, "h0", "192.0.2.1/24", "p0", "192.0.2.2/24");
    h_->ip("route add 203.0.113.0/24 via 192.0.2.2 dev h0");
    dir_ = "/tmp/" + h_->name();
    std::filesystem::create_directory(dir_);
  }
  void TearDown() override {
    agent_.reset();
    std::filesystem::remove_all(dir_);
  }

  std::string file(const std::string& name, const std::string& text) const {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
  std::string socketPath() const { return dir_ + "/control.sock"; }

  ChildProcess& startAgent(std::vector<std::string> args) {
    args.insert(args.begin(), {NEXTHOP_AGENT, "--netns", h_->name()});
    agent_ = std::make_unique<ChildProcess>(args);
    return *agent_;
  }
  // The agent as a control client.
  Finished client(const std::string& command) {
    ChildProcess c({NEXTHOP_AGENT, "--socket", socketPath(), "-c", command});
    return c.finish();
  }
  // Waits until the control socket answers.
  bool socketUp() {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
    while (msLeft(deadline) > 0) {
      try {
        Hosts::Linux::controlRequest(socketPath(), "show status");
        return true;
      } catch (const std::exception&) {
        poll(nullptr, 0, 10);
      }
    }
    return false;
  }
  // Asks `command` until its output is `expected` or the wait ends; the last output.
  std::string askUntil(const std::string& command, const std::string& expected) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
    std::string text;
    while (msLeft(deadline) > 0) {
      text = Hosts::Linux::controlRequest(socketPath(), command).text;
      if (text == expected) break;
      poll(nullptr, 0, 20);
    }
    return text;
  }

  // Our entries in the host namespace: "proto 250" neighbours and nexthop objects.
  size_t ownNeighbours() const {
    return countOf(capture("ip -n " + h_->name() + " neigh show"), "proto 250");
  }
  size_t ownNexthops() const {
    return countOf(capture("ip -n " + h_->name() + " nexthop show"), "proto 250");
  }

  std::unique_ptr<TestNetns> h_;
  std::unique_ptr<TestNetns> p_;
  std::string dir_;
  std::unique_ptr<ChildProcess> agent_;
};

bool statusAdd(const std::string& line) { return line.find("] status add ") != std::string::npos; }

TEST_F(NexthopAgentTest, StatusStreamInTextWithWallClockStamps) {
  h_->ip("nexthop add id 17 via 192.0.2.2 dev h0");
  const std::string requests =
      file("requests", "# two requests\ndefault 203.0.113.1 h0\n\ndefault 203.0.113.2 h0\n");
  ChildProcess& agent = startAgent({"--requests", requests});
  ASSERT_TRUE(agent.waitLines(statusAdd, 2));
  const std::regex line(
      R"(\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z\] status add default 203\.0\.113\.[12] h0 nhIndex 17)");
  for (const auto& l : agent.lines()) EXPECT_TRUE(std::regex_match(l, line)) << l;
  EXPECT_EQ(agent.lines().size(), 2u);
  // The route goes: both statuses are withdrawn, each on its own line as it happens.
  h_->ip("route del 203.0.113.0/24");
  EXPECT_TRUE(agent.waitLines(
      [](const std::string& l) { return l.find("] status del default 203.0.113.") != l.npos; }, 2));
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.finish().status, 0);
}

TEST_F(NexthopAgentTest, StatusStreamInJson) {
  h_->ip("nexthop add id 17 via 192.0.2.2 dev h0");
  ChildProcess& agent = startAgent({"--json", "--requests", file("r", "default 203.0.113.1 h0\n")});
  ASSERT_TRUE(agent.waitLine([](const std::string& l) { return !l.empty(); }));
  const auto doc = nlohmann::json::parse(agent.lines().front());
  EXPECT_EQ(doc.at("event"), "add");
  EXPECT_EQ(doc.at("vrf"), "default");
  EXPECT_EQ(doc.at("nexthop"), "203.0.113.1");
  EXPECT_EQ(doc.at("interface"), "h0");
  EXPECT_EQ(doc.at("nhIndex"), 17);
  const auto nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
  EXPECT_LE(doc.at("unixTimeMs").get<int64_t>(), nowMs);
  EXPECT_GT(doc.at("unixTimeMs").get<int64_t>(), nowMs - 60000);
  h_->ip("nexthop del id 17");
  ASSERT_TRUE(agent.waitLine([](const std::string& l) { return l.find("\"del\"") != l.npos; }));
  const auto del = nlohmann::json::parse(agent.lines().back());
  EXPECT_EQ(del.at("event"), "del");
  EXPECT_FALSE(del.contains("nhIndex"));
  agent.signal(SIGINT);
  EXPECT_EQ(agent.finish().status, 0);
}

TEST_F(NexthopAgentTest, BadRequestFileIsRefusedWithEveryLineBeforeStarting) {
  const std::string requests = file("bad",
                                    "default 203.0.113.1 h0\n"
                                    "default 203.0.113.300 h0\n"
                                    "# fine\n"
                                    "default 0.0.0.0 h0\n"
                                    "default 203.0.113.1 h0\n"
                                    "default 203.0.113.2\n");
  // A namespace that does not exist: the agent must stop before it would open it.
  ChildProcess agent({NEXTHOP_AGENT, "--netns", h_->name() + "-absent", "--requests", requests});
  const Finished done = agent.finish();
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.out, "");
  EXPECT_EQ(done.err, requests + ":2: bad address '203.0.113.300'\n" + requests +
                          ":4: next hop '0.0.0.0' is not a non-zero IPv4 address\n" + requests +
                          ":5: request given twice (first on line 1)\n" + requests +
                          ":6: expected VRF ADDR INTF, found 2 words\n");
}

TEST_F(NexthopAgentTest, MissingRequestFileIsRefused) {
  ChildProcess agent({NEXTHOP_AGENT, "--netns", h_->name(), "--requests", dir_ + "/none"});
  const Finished done = agent.finish();
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.err, "cannot open request file " + dir_ + "/none: No such file or directory\n");
}

TEST_F(NexthopAgentTest, ControlSocketAnswersEveryCommand) {
  h_->ip("nexthop add id 17 via 192.0.2.2 dev h0");
  ChildProcess& agent = startAgent({"--socket", socketPath()});
  ASSERT_TRUE(socketUp());
  struct stat info {};
  ASSERT_EQ(stat(socketPath().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  Finished added = client("request add default 203.0.113.1 h0");
  EXPECT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.out, "");
  ASSERT_TRUE(agent.waitLine(statusAdd));
  EXPECT_EQ(client("show status").out, "status default 203.0.113.1 h0 nhIndex 17\n");
  EXPECT_EQ(client("explain default 203.0.113.1 h0")
                .out.rfind("explain default 203.0.113.1 h0: resolved: via 192.0.2.2, MAC ", 0),
            0u);
  EXPECT_NE(client("show routes").out.find("route default 203.0.113.0/24 fec "), std::string::npos);
  EXPECT_NE(client("show neigh").out.find("neigh h0 192.0.2.2 lladdr "), std::string::npos);
  const std::string arp = client("show arp").out;
  EXPECT_TRUE(std::regex_match(
      arp,
      std::regex(
          R"(arp h0 192\.0\.2\.2 arpVrfId 1001 managed true kernelState [A-Z|]+ triggers 0\n)")))
      << arp;
  EXPECT_EQ(client("show nh-table h0").out.find("nh-table h0: 1 nhIndex\n  nhindex 17 "), 0u);
  EXPECT_EQ(client("show nh-table").out, client("show nh-table h0").out);
  // An interface without a table is an answer, as in the simulator.
  const Finished noTable = client("show nh-table h9");
  EXPECT_EQ(noTable.status, 0) << noTable.err;
  EXPECT_EQ(noTable.out, "nh-table h9: no table\n");
  EXPECT_EQ(client("show requests").out, "request default 203.0.113.1 h0 nhIndex 17\n");
  EXPECT_EQ(client("show vrfs").out, "vrf default id 1 l3-status up\n");
  EXPECT_NE(client("show dump").out.find("NexthopNhIndexResolverSm"), std::string::npos);

  Finished deleted = client("request del default 203.0.113.1 h0");
  EXPECT_EQ(deleted.status, 0);
  ASSERT_TRUE(agent.waitLine([](const std::string& l) {
    return l.find("] status del default 203.0.113.1 h0") != l.npos;
  }));
  EXPECT_EQ(client("show status").out, "no statuses\n");
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.finish().status, 0);
  EXPECT_FALSE(std::filesystem::exists(socketPath()));
}

TEST_F(NexthopAgentTest, ControlSocketAnswersJsonWhenAsked) {
  h_->ip("nexthop add id 17 via 192.0.2.2 dev h0");
  ChildProcess& agent =
      startAgent({"--socket", socketPath(), "--requests", file("r", "default 203.0.113.1 h0\n")});
  ASSERT_TRUE(agent.waitLine(statusAdd));
  // Every kind of answer, through the client's -j and as the line's own prefix.
  for (const char* command : {"show status", "show status default", "show requests", "show vrfs",
                              "show arp", "show routes", "show neigh", "show nh-table",
                              "show nh-table h9", "show dump", "explain default 203.0.113.1 h0"}) {
    ChildProcess c({NEXTHOP_AGENT, "--socket", socketPath(), "-j", "-c", command});
    const Finished done = c.finish();
    ASSERT_EQ(done.status, 0) << command << ": " << done.err;
    EXPECT_EQ(done.out.find('\n'), done.out.size() - 1) << command << ": " << done.out;
    nlohmann::json doc;
    EXPECT_NO_THROW(doc = nlohmann::json::parse(done.out)) << command << ": " << done.out;
    EXPECT_EQ(Hosts::Linux::controlRequest(socketPath(), std::string("-j ") + command).text,
              done.out)
        << command;
    EXPECT_EQ(Hosts::Linux::controlRequest(socketPath(), std::string("--json ") + command).text,
              done.out)
        << command;
  }
  const auto status = nlohmann::json::parse(client("-j show status").out);
  ASSERT_EQ(status.size(), 1u);
  EXPECT_EQ(status[0].at("vrf"), "default");
  EXPECT_EQ(status[0].at("nexthop"), "203.0.113.1");
  EXPECT_EQ(status[0].at("interface"), "h0");
  EXPECT_EQ(status[0].at("nhIndex"), 17);
  const auto arp = nlohmann::json::parse(client("--json show arp").out);
  ASSERT_EQ(arp.at("entries").size(), 1u);
  EXPECT_EQ(arp.at("entries")[0].at("dst"), "192.0.2.2");
  EXPECT_EQ(arp.at("entries")[0].at("managed"), true);
  EXPECT_TRUE(arp.at("entries")[0].at("kernelState").is_string());
  EXPECT_EQ(nlohmann::json::parse(client("-j show nh-table h9").out),
            nlohmann::json::parse(R"([{"dev": "h9", "present": false}])"));
  const auto explained = nlohmann::json::parse(client("-j explain default 203.0.113.1 h0").out);
  EXPECT_EQ(explained.at("resolved"), true);
  const auto routes = nlohmann::json::parse(client("-j show routes").out);
  const auto viaPeer = std::find_if(routes.begin(), routes.end(), [](const nlohmann::json& r) {
    return r.at("prefix") == "203.0.113.0/24";
  });
  ASSERT_NE(viaPeer, routes.end()) << routes;
  EXPECT_EQ(viaPeer->at("nexthops")[0].at("gateway"), "192.0.2.2");
  EXPECT_EQ(viaPeer->at("nexthops")[0].at("dev"), "h0");
  // A request answers nothing in either form; a refusal stays a message on stderr.
  ChildProcess add({NEXTHOP_AGENT, "--socket", socketPath(), "--json", "-c",
                    "request add default 203.0.113.2 h0"});
  const Finished added = add.finish();
  EXPECT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.out, "");
  ChildProcess dup(
      {NEXTHOP_AGENT, "--socket", socketPath(), "-j", "-c", "request add default 203.0.113.2 h0"});
  const Finished refused = dup.finish();
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.err, "nexthop-agent: request default 203.0.113.2 h0 exists\n");
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.finish().status, 0);
}

TEST_F(NexthopAgentTest, RefusedCommandsExitTwoAndNeverReachTheModule) {
  startAgent({"--socket", socketPath()});
  ASSERT_TRUE(socketUp());
  const Finished bad = client("request add default 0.0.0.0 h0");
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.err,
            "nexthop-agent: next hop '0.0.0.0' is not a non-zero IPv4 address (usage: request add "
            "VRF ADDR INTF)\n");
  EXPECT_EQ(client("frobnicate").err, "nexthop-agent: unknown command 'frobnicate'\n");
  EXPECT_EQ(client("request del default 203.0.113.1 h0").err,
            "nexthop-agent: no request default 203.0.113.1 h0\n");
  EXPECT_EQ(client("request add default 203.0.113.1 " + std::string(20, 'x')).status, 2);
  // The module's request collection is still empty.
  EXPECT_NE(client("show dump").out.find("      config: #0\n"), std::string::npos);
  EXPECT_EQ(client("show status").out, "no statuses\n");
  // No server there: the client says so and fails.
  ChildProcess none({NEXTHOP_AGENT, "--socket", dir_ + "/none.sock", "-c", "show status"});
  EXPECT_EQ(none.finish().status, 1);
}

TEST_F(NexthopAgentTest, ClientsOneAfterAnotherAndOneLeavingMidLine) {
  h_->ip("nexthop add id 17 via 192.0.2.2 dev h0");
  startAgent({"--socket", socketPath()});
  ASSERT_TRUE(socketUp());
  EXPECT_EQ(Hosts::Linux::controlRequest(socketPath(), "request add default 203.0.113.1 h0").ok,
            true);
  // A client that sends half a command and goes: the line is lost, nothing else.
  {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socketPath().c_str());
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
    const std::string half = "request del default 203.0.113.1";
    ASSERT_EQ(send(fd, half.data(), half.size(), MSG_NOSIGNAL), static_cast<ssize_t>(half.size()));
    close(fd);
  }
  EXPECT_EQ(askUntil("show status", "status default 203.0.113.1 h0 nhIndex 17\n"),
            "status default 203.0.113.1 h0 nhIndex 17\n");
  const Finished second = client("show status");
  EXPECT_EQ(second.status, 0);
  EXPECT_EQ(second.out, "status default 203.0.113.1 h0 nhIndex 17\n");
}

TEST_F(NexthopAgentTest, SigtermRemovesProgrammedNexthopsAndManagedNeighbours) {
  // No nexthop object of its own: the agent programs one from the given range.
  ChildProcess& agent = startAgent(
      {"--program-nexthops", "5000-5999", "--requests", file("r", "default 203.0.113.1 h0\n")});
  ASSERT_TRUE(agent.waitLine(statusAdd));
  const std::string line = agent.lines().front();
  EXPECT_NE(line.find("] status add default 203.0.113.1 h0 nhIndex 5000"), std::string::npos)
      << line;
  const std::string nexthops = capture("ip -n " + h_->name() + " nexthop show");
  EXPECT_NE(nexthops.find("id 5000 via 192.0.2.2 dev h0"), std::string::npos) << nexthops;
  EXPECT_EQ(ownNexthops(), 1u);
  EXPECT_EQ(ownNeighbours(), 1u);
  agent.signal(SIGTERM);
  const Finished done = agent.finish();
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(ownNexthops(), 0u) << capture("ip -n " + h_->name() + " nexthop show");
  EXPECT_EQ(ownNeighbours(), 0u) << capture("ip -n " + h_->name() + " neigh show");
}

TEST_F(NexthopAgentTest, ProgramNexthopsWithoutRangeUsesTheDefaultRange) {
  ChildProcess& agent =
      startAgent({"--requests", file("r", "default 203.0.113.1 h0\n"), "--program-nexthops"});
  ASSERT_TRUE(agent.waitLine(statusAdd));
  EXPECT_NE(agent.lines().front().find(" nhIndex 1000000"), std::string::npos)
      << agent.lines().front();
}

TEST_F(NexthopAgentTest, BadOptionsAreRefused) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--program-nexthops", "9-3"},
        std::vector<std::string>{"--program-nexthops", "0-3"},
        {"--fec-mode", "3"},
        {"--vrf", "blue"},
        {"--vrf", "default=x"},
        {"--bogus"}}) {
    std::vector<std::string> argv{NEXTHOP_AGENT, "--netns", h_->name()};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess agent(argv);
    const Finished done = agent.finish();
    EXPECT_EQ(done.status, 2) << args.front();
    EXPECT_EQ(done.err.rfind("nexthop-agent: ", 0), 0u) << done.err;
    EXPECT_NE(done.err.find("\nUsage: nexthop-agent [OPTIONS]"), std::string::npos) << done.err;
  }
}

TEST_F(NexthopAgentTest, RingRecordsTheTraceAndOverwritesOnlyARingOrWithForce) {
  const std::string ring = dir_ + "/agent.ring";
  const auto runWithRing = [&](std::vector<std::string> extra) {
    extra.insert(extra.end(),
                 {"--trace", "*/8", "--requests", file("r", "default 203.0.113.1 h0\n")});
    ChildProcess& agent = startAgent(extra);
    const bool up = agent.waitLine(statusAdd);
    agent.signal(SIGTERM);
    const Finished done = agent.finish();
    EXPECT_TRUE(up);
    EXPECT_EQ(done.status, 0) << done.err;
    return done;
  };
  h_->ip("nexthop add id 17 via 192.0.2.2 dev h0");
  const Finished first = runWithRing({"--ring", ring, "--ring-size", "1048576"});
  // Text trace lines carry the wall-clock time, as the status lines do.
  EXPECT_TRUE(std::regex_search(first.err, std::regex(R"((^|\n)\[\d{4}-\d\d-\d\dT[^\]]*Z\] )")))
      << first.err.substr(0, 300);
  ASSERT_TRUE(std::filesystem::exists(ring));
  EXPECT_LE(std::filesystem::file_size(ring), 1048576u);
  EXPECT_GT(std::filesystem::file_size(ring), 1048576u - 1048576u / 8);
  // An old ring is overwritten, with the default size.
  runWithRing({"--ring", ring});
  EXPECT_GT(std::filesystem::file_size(ring), (size_t{8} << 20) - (size_t{1} << 20));
  // A file that is not a ring is kept unless --force.
  const std::string notes = file("notes.txt", "keep me\n");
  ChildProcess refused({NEXTHOP_AGENT, "--netns", h_->name(), "--ring", notes});
  const Finished done = refused.finish();
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.err.rfind("nexthop-agent: ring file " + notes +
                               " exists and is not a ring trace (use --force to overwrite it)\n",
                           0),
            0u)
      << done.err;
  EXPECT_EQ(std::filesystem::file_size(notes), 8u);
  runWithRing({"--force", "--ring", notes});
  EXPECT_GT(std::filesystem::file_size(notes), 8u);
  // Nor may the ring be the request file.
  const std::string requests = file("r2", "default 203.0.113.1 h0\n");
  ChildProcess same({NEXTHOP_AGENT, "--netns", h_->name(), "--force", "--requests", requests,
                     "--ring", requests});
  const Finished sameDone = same.finish();
  EXPECT_EQ(sameDone.status, 2);
  EXPECT_NE(sameDone.err.find("is the input"), std::string::npos) << sameDone.err;
}

TEST_F(NexthopAgentTest, RestartConvergesToTheSameStatuses) {
  TestNetns q("aq");
  h_->vethTo(q, "h1", "198.51.100.1/24", "q0", "198.51.100.2/24");
  h_->ip("route add 192.0.2.128/25 nexthop via 192.0.2.2 dev h0 nexthop via 198.51.100.2 dev h1");
  h_->ip("nexthop add id 17 via 192.0.2.2 dev h0");
  const std::string requests = file("r",
                                    "default 203.0.113.1 h0\n"
                                    "default 192.0.2.130 h0\n"
                                    "default 192.0.2.130 h1\n"
                                    "default 203.0.113.9 h1\n");
  const std::vector<std::string> args{"--socket",  socketPath(), "--program-nexthops",
                                      "7000-7999", "--requests", requests};
  const std::string expected =
      "status default 192.0.2.130 h0 nhIndex 17\n"
      "status default 192.0.2.130 h1 nhIndex 7000\n"
      "status default 203.0.113.1 h0 nhIndex 17\n";
  startAgent(args);
  ASSERT_TRUE(socketUp());
  const std::string first = askUntil("show status", expected);
  EXPECT_EQ(first, expected);
  agent_->signal(SIGTERM);
  ASSERT_EQ(agent_->finish().status, 0);
  startAgent(args);
  ASSERT_TRUE(socketUp());
  EXPECT_EQ(askUntil("show status", first), first);
}

TEST_F(NexthopAgentTest, VrfInItsOwnNamespace) {
  TestNetns blue("ab");
  TestNetns peer("abp");
  blue.vethTo(peer, "b0", "198.51.100.1/24", "bp0", "198.51.100.2/24");
  blue.ip("route add 203.0.113.0/24 via 198.51.100.2 dev b0");
  blue.ip("nexthop add id 41 via 198.51.100.2 dev b0");
  ChildProcess& agent = startAgent(
      {"--vrf", "blue=" + blue.name(), "--requests", file("r", "blue 203.0.113.1 b0\n")});
  ASSERT_TRUE(agent.waitLine(statusAdd));
  EXPECT_NE(agent.lines().front().find("] status add blue 203.0.113.1 b0 nhIndex 41"),
            std::string::npos)
      << agent.lines().front();
}

// The command line alone: these runs end before the agent would open a namespace, and name one
// that does not exist so that none could ever run in the machine's own.
Finished agentRun(std::vector<std::string> args) {
  args.insert(args.begin(), {NEXTHOP_AGENT, "--netns", "fwdt-absent-" + std::to_string(getpid())});
  ChildProcess agent(args);
  return agent.finish();
}

TEST(NexthopAgent, HelpPrintsTheOptionsAndTheControlCommands) {
  for (const char* flag : {"--help", "-h"}) {
    const Finished done = agentRun({flag});
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.err, "");
    for (const char* text :
         {"Usage: nexthop-agent [OPTIONS]", "--netns NS", "--vrf NAME=NETNS", "--requests FILE",
          "--socket PATH", "--program-nexthops [FIRST-LAST]", "--fec-mode 1|2 ", "-j,--json",
          "--trace FILTER", "--ring FILE", "--ring-size BYTES", "--force", "-c COMMAND",
          "--version", "\n  show nh-table [INTF]\n", "\n  request add VRF ADDR INTF\n",
          "\n  show requests [VRF]\n", "first word -j or --json"}) {
      EXPECT_NE(done.out.find(text), std::string::npos) << text << "\n" << done.out;
    }
  }
}

TEST(NexthopAgent, VersionIsTheProjectsVersion) {
  const Finished done = agentRun({"--version"});
  EXPECT_EQ(done.status, 0);
  EXPECT_TRUE(std::regex_match(done.out, std::regex(R"(nexthop-agent \d+\.\d+\.\d+\n)")))
      << done.out;
}

TEST(NexthopAgent, UnknownOptionOrMissingValueExitsTwoWithTheUsage) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--bogus"}, {"--socket"}, {"--ring-size", "lots"}, {"--ring"}}) {
    const Finished done = agentRun(args);
    EXPECT_EQ(done.status, 2) << args.front();
    EXPECT_EQ(done.out, "");
    EXPECT_EQ(done.err.rfind("nexthop-agent: ", 0), 0u) << done.err;
    EXPECT_NE(done.err.find("\nUsage: nexthop-agent [OPTIONS]"), std::string::npos) << done.err;
  }
}

TEST(NexthopAgent, TraceListPrintsTheUnitsAndAnUnknownUnitIsRefused) {
  const Finished list = agentRun({"--trace", "list"});
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.out.rfind("FwdNexthopNhIndexResolverSm\n", 0), 0u) << list.out;
  EXPECT_NE(list.out.find("\nFwdViaNexthopMacToNhIndexSm\n"), std::string::npos) << list.out;
  const Finished json = agentRun({"--json", "--trace", "list"});
  EXPECT_EQ(json.status, 0);
  const auto units = nlohmann::json::parse(json.out);
  ASSERT_TRUE(units.is_array());
  EXPECT_EQ(units.size(), static_cast<size_t>(countOf(list.out, "\n")));
  const Finished bad = agentRun({"--trace", "Bogus/8"});
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.out, "");
  EXPECT_EQ(bad.err.rfind("nexthop-agent: unknown trace unit 'Bogus' (known units: *, "
                          "FwdNexthopNhIndexResolverSm, ",
                          0),
            0u)
      << bad.err;
  EXPECT_NE(bad.err.find("Usage: nexthop-agent [OPTIONS]"), std::string::npos) << bad.err;
}

}  // namespace
