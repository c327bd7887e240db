// nexthop-agent: runs the resolver module over a running Linux kernel. It takes requests from a
// file and from its control socket and prints one line per status change; SIGINT or SIGTERM
// stop it and remove from the kernel what it added.

#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "framework/L3VrfName.h"
#include "hosts/ControlCommands.h"
#include "hosts/HostCli.h"
#include "hosts/HostError.h"
#include "hosts/RequestFile.h"
#include "hosts/linux/ControlSocket.h"
#include "hosts/linux/EventLoop.h"
#include "hosts/linux/LinuxHost.h"

namespace {

using Hosts::Linux::ControlAnswer;
using Hosts::Linux::ControlServer;
using Hosts::Linux::EventLoop;
using Hosts::Linux::LinuxHost;
using Hosts::Linux::LinuxHostConfig;

using Hosts::Cli::kFailed;
using Hosts::Cli::kUsageError;

constexpr const char* kProgram = "nexthop-agent";

struct Options {
  std::string netns;
  std::vector<std::string> vrfs;
  std::string requests;
  std::string socket;
  std::optional<std::string> programNexthops;
  bool program = false;
  int fecMode = 2;
  bool json = false;
  std::string trace;
  Hosts::Cli::RingOptions ring;
  std::string command;
};

// "FIRST-LAST", 1 <= FIRST <= LAST < 2^32.
bool parseRange(std::string_view text, uint32_t& first, uint32_t& last) {
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos) return false;
  const auto number = [](std::string_view word, uint32_t& value) {
    const auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), value);
    return ec == std::errc() && end == word.data() + word.size() && !word.empty();
  };
  return number(text.substr(0, dash), first) && number(text.substr(dash + 1), last) && first >= 1 &&
         first <= last;
}

// Builds the host's configuration from the options; a message for options it refuses.
std::optional<std::string> configFrom(const Options& options, LinuxHostConfig& config) {
  config.defaultNetns = options.netns;
  config.fecMode = static_cast<Memtab::Fib::FecMode>(options.fecMode);
  for (const std::string& vrf : options.vrfs) {
    const size_t eq = vrf.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == vrf.size()) {
      return "--vrf " + vrf + ": expected NAME=NETNS";
    }
    const std::string name = vrf.substr(0, eq);
    if (name.size() > L3::VrfName::maxLength()) {
      return "--vrf " + vrf + ": VRF name over " + std::to_string(L3::VrfName::maxLength()) +
             " bytes";
    }
    if (name == "default") return "--vrf " + vrf + ": VRF default is --netns's";
    if (!config.vrfNetns.emplace(name, vrf.substr(eq + 1)).second) {
      return "--vrf " + vrf + ": VRF " + name + " given twice";
    }
  }
  if (options.program) {
    config.programming = true;
    if (options.programNexthops && !options.programNexthops->empty() &&
        !parseRange(*options.programNexthops, config.programIdMin, config.programIdMax)) {
      return "--program-nexthops " + *options.programNexthops +
             ": expected FIRST-LAST with 1 <= FIRST <= LAST";
    }
  }
  return std::nullopt;
}

// "2026-01-31T12:34:56.789Z": the wall-clock time, UTC, in milliseconds.
Hosts::StatusStamp wallClockStamp() {
  const auto now = std::chrono::system_clock::now();
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
  const std::time_t seconds = static_cast<std::time_t>(ms.count() / 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  const size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + n, sizeof text - n, ".%03dZ", static_cast<int>(ms.count() % 1000));
  return {text, "unixTimeMs", static_cast<uint64_t>(ms.count())};
}

int runClient(const CLI::App& app, const Options& options) {
  if (options.socket.empty()) return Hosts::Cli::usageError(app, "-c needs --socket PATH");
  ControlAnswer answer;
  try {
    answer = Hosts::Linux::controlRequest(options.socket,
                                          (options.json ? "--json " : "") + options.command);
  } catch (const std::exception& e) {
    std::cerr << "nexthop-agent: " << e.what() << '\n';
    return kFailed;
  }
  if (!answer.ok) {
    std::cerr << "nexthop-agent: " << answer.text << '\n';
    return kUsageError;
  }
  std::cout << answer.text;
  return Hosts::Cli::finishOutput(kProgram, 0);
}

// Keeps the loop watching exactly the control server's descriptors, which change as clients
// come and go.
class ControlWatch {
 public:
  ControlWatch(EventLoop& loop, ControlServer& server) : loop_(loop), server_(server) { sync(); }
  ~ControlWatch() {
    for (const int fd : watched_) loop_.fdDel(fd);
  }

 private:
  void sync() {
    const std::vector<int> now = server_.fds();
    const std::set<int> current(now.begin(), now.end());
    for (auto it = watched_.begin(); it != watched_.end();) {
      if (current.contains(*it)) {
        ++it;
        continue;
      }
      loop_.fdDel(*it);
      it = watched_.erase(it);
    }
    for (const int fd : current) {
      if (!watched_.insert(fd).second) continue;
      loop_.fdIs(fd, [this, fd] {
        server_.handleReadable(fd);
        sync();
      });
    }
  }

  EventLoop& loop_;
  ControlServer& server_;
  std::set<int> watched_;
};

int runAgent(const CLI::App& app, const Options& options) {
  LinuxHostConfig config;
  if (auto refused = configFrom(options, config)) return Hosts::Cli::usageError(app, *refused);
  const Hosts::IntfParser parseIntf = [](std::string_view name) {
    return Netval::IntfId::fromKernelName(name);
  };
  Hosts::RequestFile requests;
  if (!options.requests.empty()) {
    requests = Hosts::requestFileRead(options.requests, parseIntf);
    for (const std::string& error : requests.errors) std::cerr << error << '\n';
    if (!requests.errors.empty()) return kUsageError;
  }
  std::optional<Hosts::Cli::Tracing> tracing;
  try {
    std::vector<std::string> inputs;
    if (!options.requests.empty()) inputs.push_back(options.requests);
    tracing.emplace(options.trace, options.ring, inputs, [] { return wallClockStamp().text; });
  } catch (const std::exception& e) {
    return Hosts::Cli::usageError(app, e.what());
  }
  // A reader that goes away must not kill the agent before it has cleaned up.
  ::signal(SIGPIPE, SIG_IGN);
  const auto print = [](const std::string& line) { std::cout << line << '\n' << std::flush; };
  int status = 0;
  try {
    EventLoop loop;
    loop.signalsIs({SIGINT, SIGTERM}, [&loop](int) { loop.stop(); });
    LinuxHost host(loop, config, print);
    host.statusFormatIs(options.json ? Hosts::OutputFormat::json : Hosts::OutputFormat::text);
    host.statusStamperIs(wallClockStamp);
    Hosts::ControlCommands commands(host, parseIntf);
    std::optional<ControlServer> server;
    std::optional<ControlWatch> watch;
    if (!options.socket.empty()) {
      server.emplace(options.socket, [&commands](std::string_view line) {
        try {
          return ControlAnswer{true, commands.run(line)};
        } catch (const Hosts::HostError& e) {
          return ControlAnswer{false, e.what()};
        }
      });
      watch.emplace(loop, *server);
    }
    for (const auto& key : requests.requests) host.requestAdd(key);
    loop.run();
    watch.reset();
    server.reset();
    host.cleanup();
  } catch (const std::exception& e) {
    std::cerr << kProgram << ": " << e.what() << '\n';
    status = kFailed;
  }
  return status;
}

// Every line of `text` indented by two blanks, as the help's lists are.
std::string indented(const std::string& text) {
  std::string out;
  size_t pos = 0;
  while (pos < text.size()) {
    const size_t end = std::min(text.find('\n', pos), text.size());
    out += "  " + text.substr(pos, end - pos) + '\n';
    pos = end + 1;
  }
  return out;
}

void optionsIs(CLI::App& app, Options& options) {
  Hosts::Cli::conventionsIs(app, kProgram);
  app.description(
      "Runs the next-hop index resolver over the running Linux kernel: requests from a file and "
      "the control socket, one line per status change on standard output. With -c it is a "
      "client of a running agent's control socket instead.");
  app.add_option("--netns", options.netns,
                 "run for network namespace NS as the VRF \"default\" (default: our own)")
      ->type_name("NS");
  app.add_option("--vrf", options.vrfs, "map a VRF to a named network namespace (repeatable)")
      ->type_name("NAME=NETNS")
      ->take_all();
  app.add_option("--requests", options.requests,
                 "requests, one \"VRF ADDR INTF\" per line, '#' comments")
      ->type_name("FILE");
  app.add_option("--socket", options.socket, "control socket (owner-only Unix stream socket)")
      ->type_name("PATH");
  app.add_option("--program-nexthops", options.programNexthops,
                 "keep a nexthop object per via proactive ARP keeps, ids in FIRST-LAST "
                 "(default 1000000-1999999)")
      ->type_name("[FIRST-LAST]")
      ->expected(0, 1);
  app.add_option("--fec-mode", options.fecMode, "the FIB's FEC mode: 1 per VRF, 2 global")
      ->check(CLI::IsMember({1, 2}))
      ->option_text("1|2");
  Hosts::Cli::jsonOptionIs(app, options.json,
                           "status lines as one JSON object per line; with -c, the answer as JSON");
  Hosts::Cli::traceOptionIs(app, options.trace);
  Hosts::Cli::ringOptionsIs(app, options.ring);
  app.add_option("-c", options.command,
                 "client: send COMMAND to the agent at --socket PATH and print its answer")
      ->type_name("COMMAND");
  app.footer(
      "Exit status: 0 after SIGINT or SIGTERM (for -c, a command answered), 1 when it cannot "
      "start (or, for -c, reach the agent), 2 for a refused command line, request file or, for "
      "-c, command.\n\n"
      "Control commands (one per line on the socket, or with -c):\n" +
      indented(Hosts::ControlCommands::help()) +
      "\nA first word -j or --json (what -c sends with -j) asks for the answer as one JSON "
      "document, with the field names of nexthop-sim -j.");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app;
  Options options;
  optionsIs(app, options);
  if (auto done = Hosts::Cli::parse(app, argc, argv)) return *done;
  // Given with or without a range, the option turns programming on.
  options.program = app.count("--program-nexthops") > 0;
  if (app.count("-c") > 0) return runClient(app, options);
  return runAgent(app, options);
}
