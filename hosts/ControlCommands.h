#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Netval.h"
#include "hosts/ModuleHost.h"
#include "hosts/RequestFile.h"

namespace Hosts {

// The commands a running agent takes from its operators, one per line, against its ModuleHost:
//
//   request add|del VRF ADDR INTF
//   show status|arp|routes|neigh|dump
//   show nh-table [INTF]
//   explain VRF ADDR INTF
//
// Words are separated by blanks, '#' starts a comment. A request is checked as a request file's
// line is (VRF name, non-zero IPv4 next hop, an interface the host's parser takes), and the host
// refuses a duplicate or the delete of an absent request, so nothing unchecked reaches the
// module. run() only changes the module's inputs: the host's loop runs the tasks that follow.
class ControlCommands {
 public:
  ControlCommands(ModuleHost& host, IntfParser parseIntf);

  // Runs one command; returns its output, whole lines ("" for a request). Throws HostError, with
  // the reason and the usage, for a line it refuses; the module has then seen nothing.
  std::string run(std::string_view line);

  // One usage line per command.
  static std::string help();

 private:
  struct Command;
  static const std::vector<Command>& commands();

  std::string requestAdd(const std::vector<std::string_view>& args);
  std::string requestDel(const std::vector<std::string_view>& args);
  std::string showStatus(const std::vector<std::string_view>& args);
  std::string showArp(const std::vector<std::string_view>& args);
  std::string showRoutes(const std::vector<std::string_view>& args);
  std::string showNeigh(const std::vector<std::string_view>& args);
  std::string showNhTable(const std::vector<std::string_view>& args);
  std::string showDump(const std::vector<std::string_view>& args);
  std::string explainRequest(const std::vector<std::string_view>& args);

  FwdL3Unicast::NexthopNhIndexResolverKey requestKey(const std::vector<std::string_view>& args);

  ModuleHost& host_;
  IntfParser parseIntf_;
};

// The state the show commands print, shared by every host's tools. One line per item, sorted,
// or one line saying there is none.
// "status red 10.0.0.1 Ethernet1 nhIndex 17"; "no statuses".
std::string statusesText(const ModuleHost& host);
// "route red 10.0.0.0/24 fec 1 via 10.0.0.254 dev Ethernet1"; "no routes".
std::string routesText(const ModuleHost& host);
// "neigh Ethernet1 10.0.0.254 lladdr 00:1c:73:aa:bb:01 l2 Ethernet1"; "no neighbours".
std::string neighboursText(const ModuleHost& host);
// "nh-table Ethernet1: 2 nhIndexes" then "  nhindex 17 00:1c:73:aa:bb:01" per entry; "no
// next-hop tables". Only `only`'s table when given; throws HostError when it has none.
std::string nhTablesText(const ModuleHost& host, const std::optional<Netval::IntfId>& only);
// "arp Ethernet1 10.0.0.254 arpVrfId 0 triggers 1: STATE", STATE as the host's arpState() says
// it; "no proactive ARP entries".
std::string arpEntriesText(const ModuleHost& host);

}  // namespace Hosts
