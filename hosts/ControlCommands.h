#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "hosts/HostOutput.h"
#include "hosts/ModuleHost.h"
#include "hosts/RequestFile.h"

namespace Hosts {

// The commands a running agent takes from its operators, one per line, against its ModuleHost:
//
//   request add|del VRF ADDR INTF
//   show status|requests [VRF]
//   show vrfs|arp|routes|neigh|dump
//   show nh-table [INTF]
//   explain VRF ADDR INTF
//
// Words are separated by blanks, '#' starts a comment. A first word -j or --json asks for the
// answer as JSON, one document on one line, as nexthop-sim -j prints it. The answers are
// HostShow's, the same text and JSON every host's `show` prints. A request is checked as a
// request file's line is (VRF name, non-zero IPv4 next hop, an interface the host's parser
// takes), and the host refuses a duplicate or the delete of an absent request, so nothing
// unchecked reaches the module. run() only changes the module's inputs: the host's loop runs
// the tasks that follow.
class ControlCommands {
 public:
  ControlCommands(ModuleHost& host, IntfParser parseIntf);

  // Runs one command; returns its output, whole lines ("" for a request, in either format).
  // Throws HostError, with the reason and the usage, for a line it refuses; the module has then
  // seen nothing.
  std::string run(std::string_view line);

  // One usage line per command.
  static std::string help();

 private:
  using Args = std::vector<std::string_view>;
  struct Command;
  static const std::vector<Command>& commands();

  std::string requestAdd(const Args& args, OutputFormat format);
  std::string requestDel(const Args& args, OutputFormat format);
  std::string showStatus(const Args& args, OutputFormat format);
  std::string showRequests(const Args& args, OutputFormat format);
  std::string showVrfs(const Args& args, OutputFormat format);
  std::string showArp(const Args& args, OutputFormat format);
  std::string showRoutes(const Args& args, OutputFormat format);
  std::string showNeigh(const Args& args, OutputFormat format);
  std::string showNhTable(const Args& args, OutputFormat format);
  std::string showDump(const Args& args, OutputFormat format);
  std::string explainRequest(const Args& args, OutputFormat format);

  FwdL3Unicast::NexthopNhIndexResolverKey requestKey(const Args& args);

  ModuleHost& host_;
  IntfParser parseIntf_;
};

}  // namespace Hosts
