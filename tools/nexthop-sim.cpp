// nexthop-sim: runs the resolver module in a simulated host, driven by a scenario.

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/HostCli.h"
#include "hosts/HostLineEditor.h"
#include "hosts/HostOutput.h"
#include "hosts/sim/Scenario.h"
#include "hosts/sim/SimHost.h"

namespace {

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
  std::string file;
  std::string trace;
  Hosts::Cli::RingOptions ring;
  bool dump = false;
  bool interactive = false;
  bool json = false;
};

constexpr const char* kProgram = "nexthop-sim";

void optionsIs(CLI::App& app, Options& options) {
  Hosts::Cli::conventionsIs(app, kProgram);
  app.description(
      "Runs the next-hop index resolver in a simulated host, driven by a scenario. Without a "
      "file it runs the built-in demo; '-' reads the scenario from standard input.");
  app.add_option("SCENARIO_FILE", options.file, "scenario file, or '-' for standard input");
  Hosts::Cli::traceOptionIs(app, options.trace);
  Hosts::Cli::ringOptionsIs(app, options.ring);
  app.add_flag("--dump", options.dump, "print the module's dump at the end");
  app.add_flag("-i", options.interactive,
               "interactive: read commands (after SCENARIO_FILE's) with line editing, history in "
               "~/.nexthop_sim_history and completion; a refused line is reported and the "
               "run goes on");
  Hosts::Cli::jsonOptionIs(app, options.json,
                           "print status lines and command output as JSON, one document per line");
  app.footer("Exit status: 0 all expectations held, 1 an expectation failed, 2 bad input.\n\n" +
             Sim::Scenario::help());
}

Sim::Scenario::ExitStatus runScenario(const Options& options, Sim::Scenario& scenario) {
  if (options.file.empty()) {
    if (options.interactive) return Sim::Scenario::kPassed;
    return scenario.runText(kDemo, "demo");
  }
  if (options.file == "-") return scenario.runStream(std::cin, "<stdin>", false);
  std::ifstream in(options.file);
  return scenario.runStream(in, options.file, false);
}

// Commands from the terminal with line editing, history and completion, and a prompt; from
// anything else line by line, without a prompt.
Sim::Scenario::ExitStatus runInteractive(Sim::Scenario& scenario) {
  if (!isatty(STDIN_FILENO)) return scenario.runStream(std::cin, "<stdin>", true);
  Hosts::LineEditor editor(Hosts::LineEditor::homeFile(".nexthop_sim_history"),
                           Sim::Scenario::completions);
  return scenario.runInteractive([&editor] { return editor.line("nexthop-sim> "); }, "<stdin>");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app;
  Options options;
  optionsIs(app, options);
  if (auto done = Hosts::Cli::parse(app, argc, argv)) return *done;
  // The scenario file, and standard input when -i reads it.
  std::vector<std::string> inputs;
  if (!options.file.empty()) inputs.push_back(options.file);
  if (options.interactive && options.file != "-") inputs.push_back("-");
  for (const std::string& input : inputs) {
    if (auto problem = Hosts::Cli::inputProblem(input, "scenario file")) {
      std::cerr << kProgram << ": " << *problem << '\n';
      return Sim::Scenario::kInputError;
    }
  }
  int status = Sim::Scenario::kPassed;
  // Trace lines carry the virtual time, also those written while the host is built.
  const Sim::SimHost* clock = nullptr;
  std::optional<Hosts::Cli::Tracing> tracing;
  try {
    tracing.emplace(options.trace, options.ring, std::vector<std::string>{options.file},
                    [&clock] { return std::to_string(clock ? clock->now() : 0) + "ms"; });
  } catch (const std::exception& e) {
    return Hosts::Cli::usageError(app, e.what());
  }
  {
    Sim::SimHost host;
    clock = &host;
    Sim::Scenario scenario(host, std::cout, std::cerr,
                           options.json ? Hosts::OutputFormat::json : Hosts::OutputFormat::text);
    status = runScenario(options, scenario);
    const bool ranFile = !options.file.empty() || !options.interactive;
    if (ranFile && status != Sim::Scenario::kInputError) std::cerr << scenario.summary() << '\n';
    if (status != Sim::Scenario::kInputError && options.interactive) {
      status = runInteractive(scenario);
    }
    if (options.dump) scenario.dumpOut();
    clock = nullptr;
  }
  tracing.reset();
  return Hosts::Cli::finishOutput(kProgram, status);
}
