#include "hosts/ControlCommands.h"

#include <exception>
#include <optional>
#include <utility>

#include "hosts/HostError.h"
#include "hosts/HostExplain.h"
#include "hosts/HostShow.h"

namespace Hosts {

namespace {

std::string quotedText(std::string_view text) { return "'" + std::string(text) + "'"; }

// The VRF a show command is limited to, when given.
std::optional<L3::VrfName> optionalVrf(const std::vector<std::string_view>& args) {
  if (args.empty()) return std::nullopt;
  return vrfNameParse(args[0]);
}

}  // namespace

struct ControlCommands::Command {
  std::string_view words[2];
  std::string_view usage;
  // The words after the command's name: at least min, at most max.
  size_t minArgs;
  size_t maxArgs;
  std::string (ControlCommands::*run)(const Args& args, OutputFormat format);
};

const std::vector<ControlCommands::Command>& ControlCommands::commands() {
  static const std::vector<Command> table = {
      {{"request", "add"}, "request add VRF ADDR INTF", 3, 3, &ControlCommands::requestAdd},
      {{"request", "del"}, "request del VRF ADDR INTF", 3, 3, &ControlCommands::requestDel},
      {{"show", "status"}, "show status [VRF]", 0, 1, &ControlCommands::showStatus},
      {{"show", "requests"}, "show requests [VRF]", 0, 1, &ControlCommands::showRequests},
      {{"show", "vrfs"}, "show vrfs", 0, 0, &ControlCommands::showVrfs},
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
  std::vector<std::string_view> all = lineWords(line);
  OutputFormat format = OutputFormat::text;
  if (!all.empty() && (all[0] == "-j" || all[0] == "--json")) {
    format = OutputFormat::json;
    all.erase(all.begin());
  }
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
    return (this->*found->run)(args, format);
  } catch (const HostError&) {
    throw;
  } catch (const std::exception& e) {
    // A value the checks refused: std::invalid_argument from the request checks.
    throw HostError(e.what() + usage);
  }
}

FwdL3Unicast::NexthopNhIndexResolverKey ControlCommands::requestKey(const Args& args) {
  return requestKeyParse(args[0], args[1], args[2], parseIntf_);
}

std::string ControlCommands::requestAdd(const Args& args, OutputFormat) {
  host_.requestAdd(requestKey(args));
  return {};
}

std::string ControlCommands::requestDel(const Args& args, OutputFormat) {
  host_.requestDel(requestKey(args));
  return {};
}

std::string ControlCommands::showStatus(const Args& args, OutputFormat format) {
  return Show::render(Show::statuses(host_, optionalVrf(args)), Show::statusesText, format);
}

std::string ControlCommands::showRequests(const Args& args, OutputFormat format) {
  return Show::render(Show::requests(host_, optionalVrf(args)), Show::requestsText, format);
}

std::string ControlCommands::showVrfs(const Args&, OutputFormat format) {
  return Show::render(Show::vrfs(host_), Show::vrfsText, format);
}

std::string ControlCommands::showArp(const Args&, OutputFormat format) {
  return Show::render(Show::arp(host_), Show::arpText, format);
}

std::string ControlCommands::showRoutes(const Args&, OutputFormat format) {
  return Show::render(Show::routes(host_), Show::routesText, format);
}

std::string ControlCommands::showNeigh(const Args&, OutputFormat format) {
  return Show::render(Show::neighbours(host_), Show::neighboursText, format);
}

std::string ControlCommands::showNhTable(const Args& args, OutputFormat format) {
  std::optional<Netval::IntfId> only;
  if (!args.empty()) only = intfParse(args[0], parseIntf_);
  return Show::render(Show::nhTables(host_, only), Show::nhTablesText, format);
}

std::string ControlCommands::showDump(const Args&, OutputFormat format) {
  return Show::renderDump(host_.dump(), format);
}

std::string ControlCommands::explainRequest(const Args& args, OutputFormat format) {
  const auto key = requestKey(args);
  return Show::render(Show::explanation(key, explain(host_, key)), Show::explanationText, format);
}

}  // namespace Hosts
