// nexthop-sim: runs the resolver module in a simulated host, driven by a scenario.

#include <charconv>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>

#include "framework/DualLog.h"
#include "framework/RingLog.h"
#include "hosts/sim/Scenario.h"
#include "hosts/sim/SimHost.h"

namespace {

constexpr const char* kUsage =
    "usage: nexthop-sim [options] [SCENARIO_FILE|-]\n"
    "Runs the next-hop index resolver in a simulated host. Without a file it runs the built-in\n"
    "demo; '-' reads the scenario from standard input.\n"
    "options:\n"
    "  --trace FILTER  text trace to stderr, e.g. '*/8' (same syntax as FWD_TRACE)\n"
    "  --ring FILE     binary ring trace to FILE (read it with ringlog-cat)\n"
    "  --ring-bytes N  size of the ring trace file (default 8 MiB)\n"
    "  --dump          print the module's dump at the end\n"
    "  -i              interactive: read commands from the terminal with a prompt\n"
    "  --help          this text\n"
    "exit status: 0 all expectations held, 1 an expectation failed, 2 bad input\n";

// The road of one request, then ECMP, a MAC move and an nhIndex change.
constexpr std::string_view kDemo = R"(# nexthop-sim built-in demo
echo == The road of one request: red 10.0.0.1 on Ethernet1
vrf add red
route add red 10.0.0.0/24 via 10.0.0.254 dev Ethernet1
host add Ethernet1 10.0.0.254 00:1c:73:00:00:01
nh-table add Ethernet1
nhindex add Ethernet1 17 00:1c:73:00:00:01
request add red 10.0.0.1 Ethernet1
echo (the resolver has answered, stage 1 chose via 10.0.0.254, proactive ARP probes it)
explain red 10.0.0.1 Ethernet1
advance 1
explain red 10.0.0.1 Ethernet1
expect status red 10.0.0.1 Ethernet1 nhindex 17

echo == ECMP: 10.1.0.0/16 through Ethernet1 and Ethernet2, one request per interface
route add red 10.1.0.0/16 via 10.0.0.254 dev Ethernet1 via 10.0.1.254 dev Ethernet2
host add Ethernet2 10.0.1.254 00:1c:73:00:00:02
nh-table add Ethernet2
nhindex add Ethernet2 21 00:1c:73:00:00:02
request add red 10.1.2.3 Ethernet1
request add red 10.1.2.3 Ethernet2
advance 1
expect status red 10.1.2.3 Ethernet1 nhindex 17
expect status red 10.1.2.3 Ethernet2 nhindex 21

echo == MAC move: the neighbour 10.0.0.254 answers from a new MAC, the engine has it at 18
nhindex add Ethernet1 18 00:1c:73:00:00:03
neigh replace Ethernet1 10.0.0.254 lladdr 00:1c:73:00:00:03
expect status red 10.0.0.1 Ethernet1 nhindex 18

echo == nhIndex change: the engine moves that MAC from 18 to 19
nhindex add Ethernet1 19 00:1c:73:00:00:03
nhindex del Ethernet1 18
expect status red 10.0.0.1 Ethernet1 nhindex 19
expect statuses 3

echo == The requests go away
request del red 10.1.2.3 Ethernet2
request del red 10.1.2.3 Ethernet1
request del red 10.0.0.1 Ethernet1
expect statuses 0
)";

struct Options {
  std::optional<std::string> trace;
  std::optional<std::string> ring;
  size_t ringBytes = size_t{8} << 20;
  std::optional<std::string> file;
  bool dump = false;
  bool interactive = false;
};

int usageError(const std::string& why) {
  std::cerr << "nexthop-sim: " << why << '\n' << kUsage;
  return Sim::Scenario::kInputError;
}

// Returns the exit status for a command line that ends the program, nothing to go on.
std::optional<int> parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string(argv[++i]);
    };
    if (arg == "--help" || arg == "-h") {
      std::cout << kUsage << '\n' << Sim::Scenario::help();
      return 0;
    }
    if (arg == "--trace" || arg == "--ring") {
      std::optional<std::string> given = value();
      if (!given) return usageError(std::string(arg) + " needs a value");
      (arg == "--trace" ? options.trace : options.ring) = std::move(given);
    } else if (arg == "--ring-bytes") {
      const std::optional<std::string> given = value();
      if (!given) return usageError("--ring-bytes needs a value");
      const char* end = given->data() + given->size();
      const auto [last, ec] = std::from_chars(given->data(), end, options.ringBytes);
      if (ec != std::errc() || last != end) {
        return usageError("--ring-bytes: not a number: '" + *given + "'");
      }
    } else if (arg == "--dump") {
      options.dump = true;
    } else if (arg == "-i") {
      options.interactive = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      return usageError("unknown option '" + std::string(arg) + "'");
    } else if (options.file) {
      return usageError("more than one scenario file");
    } else {
      options.file = std::string(arg);
    }
  }
  return std::nullopt;
}

std::optional<int> startTracing(const Options& options) {
  try {
    if (options.trace) DualLog::textFilterIs(*options.trace);
    if (options.ring) RingLog::open(*options.ring, options.ringBytes);
  } catch (const std::exception& e) {
    return usageError(e.what());
  }
  return std::nullopt;
}

Sim::Scenario::ExitStatus runScenario(const Options& options, Sim::Scenario& scenario) {
  if (!options.file) {
    if (options.interactive) return Sim::Scenario::kPassed;
    return scenario.runText(kDemo, "demo");
  }
  if (*options.file == "-") return scenario.runStream(std::cin, "<stdin>", false);
  std::ifstream in(*options.file);
  if (!in) {
    std::cerr << "nexthop-sim: cannot open scenario file '" << *options.file << "'\n";
    return Sim::Scenario::kInputError;
  }
  return scenario.runStream(in, *options.file, false);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (auto done = parseOptions(argc, argv, options)) return *done;
  if (auto failed = startTracing(options)) return *failed;
  int status = Sim::Scenario::kPassed;
  {
    Sim::SimHost host;
    Sim::Scenario scenario(host, std::cout, std::cerr);
    status = runScenario(options, scenario);
    if (status != Sim::Scenario::kInputError && options.interactive) {
      status = scenario.runStream(std::cin, "<stdin>", true);
    }
    if (options.dump) std::cout << host.dump();
  }
  if (options.ring) RingLog::close();
  return status;
}
