#include "hosts/ControlCommands.h"

#include <algorithm>
#include <exception>
#include <map>
#include <sstream>
#include <utility>

#include "hosts/HostError.h"
#include "hosts/HostExplain.h"
#include "hosts/HostStatusLog.h"

namespace Hosts {

namespace {

std::string quotedText(std::string_view text) { return "'" + std::string(text) + "'"; }

}  // namespace

struct ControlCommands::Command {
  std::string_view words[2];
  std::string_view usage;
  // The words after the command's name: at least min, at most max.
  size_t minArgs;
  size_t maxArgs;
  std::string (ControlCommands::*run)(const std::vector<std::string_view>& args);
};

const std::vector<ControlCommands::Command>& ControlCommands::commands() {
  static const std::vector<Command> table = {
      {{"request", "add"}, "request add VRF ADDR INTF", 3, 3, &ControlCommands::requestAdd},
      {{"request", "del"}, "request del VRF ADDR INTF", 3, 3, &ControlCommands::requestDel},
      {{"show", "status"}, "show status", 0, 0, &ControlCommands::showStatus},
      {{"show", "arp"}, "show arp", 0, 0, &ControlCommands::showArp},
      {{"show", "routes"}, "show routes", 0, 0, &ControlCommands::showRoutes},
      {{"show", "neigh"}, "show neigh", 0, 0, &ControlCommands::showNeigh},
      {{"show", "nh-table"}, "show nh-table [INTF]", 0, 1, &ControlCommands::showNhTable},
      {{"show", "dump"}, "show dump", 0, 0, &ControlCommands::showDump},
      {{"explain"}, "explain VRF ADDR INTF", 3, 3, &ControlCommands::explainRequest},
  };
  return table;
}

std::string ControlCommands::help() {
  std::string text;
  for (const Command& command : commands()) text += std::string(command.usage) + '\n';
  return text;
}

ControlCommands::ControlCommands(ModuleHost& host, IntfParser parseIntf)
    : host_(host), parseIntf_(std::move(parseIntf)) {}

std::string ControlCommands::run(std::string_view line) {
  const std::vector<std::string_view> all = lineWords(line);
  if (all.empty()) throw HostError("empty command");
  const Command* found = nullptr;
  std::string known;
  for (const Command& command : commands()) {
    const bool oneWord = command.words[1].empty();
    if (all[0] == command.words[0] && (oneWord || (all.size() > 1 && all[1] == command.words[1]))) {
      found = &command;
      break;
    }
    if (all[0] == command.words[0]) {
      known += (known.empty() ? "" : ", ") + std::string(command.words[0]) + " " +
               std::string(command.words[1]);
    }
  }
  if (!found) {
    if (known.empty()) throw HostError("unknown command " + quotedText(all[0]));
    if (all.size() == 1) {
      throw HostError("incomplete command " + quotedText(all[0]) + " (expected " + known + ")");
    }
    throw HostError("unknown command " +
                    quotedText(std::string(all[0]) + " " + std::string(all[1])) + " (expected " +
                    known + ")");
  }
  const size_t first = found->words[1].empty() ? 1 : 2;
  const std::vector<std::string_view> args(all.begin() + static_cast<long>(first), all.end());
  const auto usage = " (usage: " + std::string(found->usage) + ")";
  if (args.size() < found->minArgs) throw HostError("missing arguments" + usage);
  if (args.size() > found->maxArgs)
    throw HostError("unexpected " + quotedText(args[found->maxArgs]) + usage);
  try {
    return (this->*found->run)(args);
  } catch (const HostError&) {
    throw;
  } catch (const std::exception& e) {
    // A value the checks refused: std::invalid_argument from the request checks.
    throw HostError(e.what() + usage);
  }
}

FwdL3Unicast::NexthopNhIndexResolverKey ControlCommands::requestKey(
    const std::vector<std::string_view>& args) {
  return requestKeyParse(args[0], args[1], args[2], parseIntf_);
}

std::string ControlCommands::requestAdd(const std::vector<std::string_view>& args) {
  host_.requestAdd(requestKey(args));
  return {};
}

std::string ControlCommands::requestDel(const std::vector<std::string_view>& args) {
  host_.requestDel(requestKey(args));
  return {};
}

std::string ControlCommands::showStatus(const std::vector<std::string_view>&) {
  return statusesText(host_);
}

std::string ControlCommands::showArp(const std::vector<std::string_view>&) {
  return arpEntriesText(host_);
}

std::string ControlCommands::showRoutes(const std::vector<std::string_view>&) {
  return routesText(host_);
}

std::string ControlCommands::showNeigh(const std::vector<std::string_view>&) {
  return neighboursText(host_);
}

std::string ControlCommands::showNhTable(const std::vector<std::string_view>& args) {
  std::optional<Netval::IntfId> only;
  if (!args.empty()) {
    try {
      only = parseIntf_(args[0]);
    } catch (const std::exception&) {
    }
    if (!only || only->empty()) throw HostError("bad interface name " + quotedText(args[0]));
  }
  return nhTablesText(host_, only);
}

std::string ControlCommands::showDump(const std::vector<std::string_view>&) { return host_.dump(); }

std::string ControlCommands::explainRequest(const std::vector<std::string_view>& args) {
  const auto key = requestKey(args);
  return "explain " + keyText(key) + ": " + explain(host_, key) + '\n';
}

std::string statusesText(const ModuleHost& host) {
  std::map<FwdL3Unicast::NexthopNhIndexResolverKey, uint32_t> sorted;
  for (const auto& status : host.statusDir()->status()) sorted[status.key()] = status.nhIndex();
  if (sorted.empty()) return "no statuses\n";
  std::string out;
  for (const auto& [key, nhIndex] : sorted) {
    out += "status " + keyText(key) + " nhIndex " + std::to_string(nhIndex) + '\n';
  }
  return out;
}

std::string routesText(const ModuleHost& host) {
  std::ostringstream out;
  bool any = false;
  for (const auto& [vrf, table] : host.routing()->routes()) {
    for (const auto& [prefix, route] : table) {
      any = true;
      out << "route " << vrf << " " << prefix.toString() << " fec " << route.fecId;
      for (const Memtab::FibGen::Via& via : route.vias) {
        if (!via.hop().isAddrZero()) out << " via " << via.hop();
        out << " dev " << via.intfId();
      }
      out << '\n';
    }
  }
  if (!any) out << "no routes\n";
  return out.str();
}

std::string neighboursText(const ModuleHost& host) {
  std::map<Plane::NextHopKey, Plane::NextHopInfo> sorted;
  for (const auto& entry : host.nextHopInfoWrapper()->nextHopInfo())
    sorted[entry.key] = entry.value;
  std::ostringstream out;
  if (sorted.empty()) out << "no neighbours\n";
  for (const auto& [key, info] : sorted) {
    out << "neigh " << key.intfId() << " " << key.addr() << " lladdr " << info.ethAddr() << " l2 "
        << (info.l2Intf().empty() ? "none" : info.l2Intf().name()) << '\n';
  }
  return out.str();
}

std::string nhTablesText(const ModuleHost& host, const std::optional<Netval::IntfId>& only) {
  if (only && !host.l3Modules()->nextHopModHas(*only)) {
    throw HostError("interface " + only->name() + " has no next-hop table");
  }
  std::map<Netval::IntfId, std::map<uint32_t, Netval::EthAddr>> sorted;
  for (const auto& module : host.l3Modules()->nextHopMod()) {
    if (only && module->intfId() != *only) continue;
    auto& table = sorted[module->intfId()];
    for (const auto& entry : module->nhIndexToMac()) table[entry.key] = entry.value;
  }
  std::ostringstream out;
  if (sorted.empty()) out << "no next-hop tables\n";
  for (const auto& [intfId, table] : sorted) {
    out << "nh-table " << intfId << ": " << table.size() << " nhIndex"
        << (table.size() == 1 ? "" : "es") << '\n';
    for (const auto& [nhIndex, ethAddr] : table) {
      out << "  nhindex " << nhIndex << " " << ethAddr << '\n';
    }
  }
  return out.str();
}

std::string arpEntriesText(const ModuleHost& host) {
  std::vector<Arp::ProactiveArp::ClientEntry> entries;
  for (const auto& entry : host.clientConfig()->entry()) entries.push_back(entry);
  std::sort(entries.begin(), entries.end());
  std::ostringstream out;
  if (entries.empty()) out << "no proactive ARP entries\n";
  for (const auto& entry : entries) {
    const Plane::NextHopKey& key = entry.key();
    out << "arp " << key.intfId() << " " << key.addr() << " arpVrfId " << entry.arpVrfId()
        << " triggers " << host.clientConfig()->resolutionTrigger(key) << ": " << host.arpState(key)
        << '\n';
  }
  return out.str();
}

}  // namespace Hosts
