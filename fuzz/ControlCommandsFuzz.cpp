// Fuzz target: arbitrary bytes as the lines an operator sends to the agent's control socket, run
// one after another through ControlCommands::run() against a small host: one VRF with a route,
// a neighbour that answers ARP and a next-hop table. Every line is answered (whole lines, or
// nothing for a request) or refused with a HostError; nothing else may happen. A refused line
// leaves the module's requests as they were, an accepted request adds or removes exactly one,
// and the host leaves no entity alive behind it.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "framework/Core.h"
#include "framework/L3VrfName.h"
#include "framework/Netval.h"
#include "fuzz/FuzzCheck.h"
#include "hosts/ControlCommands.h"
#include "hosts/HostError.h"
#include "hosts/RequestFile.h"
#include "hosts/sim/SimHost.h"

namespace {

// Bounds that keep one input fast; an input beyond them is skipped, not refused.
constexpr size_t kMaxBytes = 8192;
constexpr size_t kMaxLines = 64;

// The host a running agent could have: red 10.1.0.1 on Ethernet1 resolves to nhIndex 17, and
// eth2 (a kernel name) carries a directly attached route without a next-hop table.
void hostBuild(Sim::SimHost& host) {
  const Netval::IntfId ethernet1 = Netval::IntfId::fromKernelName("Ethernet1");
  const Netval::IntfId eth2 = Netval::IntfId::fromKernelName("eth2");
  const Netval::IpGenAddr via("10.0.0.254");
  const Netval::EthAddr mac("00:1c:73:00:00:01");
  host.vrfAdd(L3::VrfName("red"));
  host.routeAdd(L3::VrfName("red"), Hosts::Prefix::fromText("10.1.0.0/16"),
                {Memtab::FibGen::Via(ethernet1, via)});
  host.routeAdd(L3::VrfName("red"), Hosts::Prefix::fromText("10.2.0.0/16"),
                {Memtab::FibGen::Via(eth2, Netval::IpGenAddr("0.0.0.0"))});
  host.hostAdd(Plane::NextHopKey(ethernet1, via), mac);
  host.nhTableAdd(ethernet1);
  host.nhIndexAdd(ethernet1, 17, mac);
  host.advance(1);
}

size_t lineCount(std::string_view text) {
  size_t lines = 0;
  for (const char c : text) lines += c == '\n';
  return lines + 1;
}

// Runs one line as the agent's control socket does (its '\r' taken off) and checks the answer.
void lineRun(Sim::SimHost& host, Hosts::ControlCommands& commands, std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const size_t requestsBefore = host.configDir()->configCount();
  std::vector<std::string_view> words = Hosts::lineWords(line);
  // A leading -j or --json asks for the JSON form of the same answer: a request stays a request.
  if (!words.empty() && (words[0] == "-j" || words[0] == "--json")) words.erase(words.begin());
  const bool isRequest = !words.empty() && words[0] == "request";
  bool refused = false;
  try {
    const std::string answer = commands.run(line);
    FUZZ_CHECK(answer.empty() || answer.back() == '\n');
    if (!isRequest) FUZZ_CHECK(!answer.empty());
  } catch (const Hosts::HostError& e) {
    refused = true;
    FUZZ_CHECK(std::string_view(e.what()).size() > 0);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "command refused with a %s-derived error, not a HostError: %s\n",
                 typeid(e).name(), e.what());
    FUZZ_CHECK(!"refusal is not a HostError");
  }
  const size_t requestsAfter = host.configDir()->configCount();
  if (refused || !isRequest) {
    FUZZ_CHECK(requestsAfter == requestsBefore);
  } else if (words[1] == "add") {
    FUZZ_CHECK(requestsAfter == requestsBefore + 1);
  } else {
    FUZZ_CHECK(words[1] == "del" && requestsAfter + 1 == requestsBefore);
  }
  // The agent's loop runs the tasks that follow a command before it reads the next.
  host.advance(1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxBytes) return -1;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  if (lineCount(text) > kMaxLines) return -1;

  const int64_t entitiesBefore = Core::Node::liveCount();
  {
    Sim::SimHost host;
    hostBuild(host);
    // The agent's interface parser: kernel names, a known full name being that interface.
    Hosts::ControlCommands commands(
        host, [](std::string_view name) { return Netval::IntfId::fromKernelName(name); });
    while (true) {
      const size_t end = text.find('\n');
      lineRun(host, commands, text.substr(0, end));
      if (end == std::string_view::npos) break;
      text.remove_prefix(end + 1);
    }
  }
  FUZZ_CHECK(Core::Node::liveCount() == entitiesBefore);
  return 0;
}
