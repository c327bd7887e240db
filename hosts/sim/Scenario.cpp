#include "hosts/sim/Scenario.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "framework/Kiln.h"
#include "hosts/ControlCommands.h"
#include "hosts/HostError.h"
#include "hosts/HostExplain.h"
#include "hosts/RequestFile.h"

namespace Sim {

namespace {

using Hosts::HostError;
using Hosts::keyText;
using Hosts::Prefix;
using Hosts::RoutingResolver;

// A line that cannot be run; reported, like the host's refusals, with the line's place.
struct InputError : HostError {
  using HostError::HostError;
};

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }
// Preferred over std::quoted, which argument-dependent lookup finds for a std::string.
std::string quoted(const std::string& text) { return quoted(std::string_view(text)); }

L3::VrfName vrfName(std::string_view text) {
  if (text.size() > L3::VrfName::maxLength()) {
    throw InputError("VRF name of " + std::to_string(text.size()) + " bytes is over " +
                     std::to_string(L3::VrfName::maxLength()));
  }
  return L3::VrfName(text);
}

// Any address the host's text form reads; the request checks the family itself.
Netval::IpGenAddr address(std::string_view text) {
  try {
    return Netval::IpGenAddr::fromText(text);
  } catch (const Kiln::ParseError&) {
    throw InputError("bad address " + quoted(text));
  }
}

Netval::IpGenAddr ipv4(std::string_view text) {
  try {
    const Netval::IpGenAddr addr = Netval::IpGenAddr::fromText(text);
    if (addr.af() == Netval::AddressFamily::ipv4_) return addr;
  } catch (const Kiln::ParseError&) {
  }
  throw InputError("bad IPv4 address " + quoted(text));
}

Netval::IntfId interface(std::string_view text) {
  try {
    const Netval::IntfId intfId = Netval::IntfId::fromText(text);
    if (!intfId.empty()) return intfId;
  } catch (const Kiln::ParseError&) {
  }
  throw InputError("bad interface name " + quoted(text));
}

Netval::EthAddr mac(std::string_view text) {
  try {
    return Netval::EthAddr::fromText(text);
  } catch (const Kiln::ParseError&) {
    throw InputError("bad MAC address " + quoted(text));
  }
}

uint64_t number(std::string_view text, uint64_t max) {
  uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value > max) {
    throw InputError("bad number " + quoted(text) + " (0 to " + std::to_string(max) + ")");
  }
  return value;
}

uint32_t number32(std::string_view text) {
  return static_cast<uint32_t>(number(text, std::numeric_limits<uint32_t>::max()));
}

// Far beyond any scenario, and far from overflowing the virtual clock.
constexpr uint64_t kMaxMs = uint64_t{1} << 40;

}  // namespace

namespace detail {

// The words of one command after its name, read in order; every complaint names the usage.
class ScenarioArgs {
 public:
  ScenarioArgs(std::vector<std::string_view> tokens, size_t first, std::string_view usage)
      : tokens_(std::move(tokens)), pos_(first), usage_(usage) {}

  std::string_view next(std::string_view what) {
    if (pos_ >= tokens_.size()) fail("missing " + std::string(what));
    return tokens_[pos_++];
  }
  bool more() const { return pos_ < tokens_.size(); }
  std::string_view peek() const { return more() ? tokens_[pos_] : std::string_view(); }
  void keyword(std::string_view word) {
    const std::string_view token = next(quoted(word));
    if (token != word) fail("expected " + quoted(word) + ", found " + quoted(token));
  }
  // One of `choices`, by position.
  size_t choice(std::string_view what, std::initializer_list<std::string_view> choices) {
    const std::string_view token = next(what);
    const auto found = std::find(choices.begin(), choices.end(), token);
    if (found == choices.end()) fail("expected " + std::string(what) + ", found " + quoted(token));
    return static_cast<size_t>(found - choices.begin());
  }
  void end() {
    if (more()) fail("unexpected " + quoted(tokens_[pos_]));
  }
  std::string rest() {
    std::string out;
    for (; pos_ < tokens_.size(); ++pos_)
      out += (out.empty() ? "" : " ") + std::string(tokens_[pos_]);
    return out;
  }
  [[noreturn]] void fail(const std::string& why) const {
    throw InputError(why + " (usage: " + std::string(usage_) + ")");
  }

 private:
  std::vector<std::string_view> tokens_;
  size_t pos_;
  std::string_view usage_;
};

}  // namespace detail

namespace {

using detail::ScenarioArgs;

struct RouteArgs {
  L3::VrfName vrf;
  Prefix prefix;
  RoutingResolver::ViaList vias;
};

// "VRF PREFIX" then vias: "via ADDR dev INTF" or, for a directly attached route, "dev INTF".
RouteArgs routeArgs(ScenarioArgs& args) {
  RouteArgs route{vrfName(args.next("VRF")), Prefix::fromText(args.next("PREFIX")), {}};
  const Netval::IpGenAddr attached = Netval::IpGenAddr::ipv4(0);
  do {
    Netval::IpGenAddr hop = attached;
    if (args.peek() == "via") {
      args.keyword("via");
      hop = ipv4(args.next("ADDR"));
    }
    args.keyword("dev");
    route.vias.emplace_back(interface(args.next("INTF")), hop);
  } while (args.more());
  return route;
}

// INTF ADDR lladdr MAC [l2 INTF|none]
std::pair<Plane::NextHopKey, Plane::NextHopInfo> neighArgs(ScenarioArgs& args) {
  const Netval::IntfId intfId = interface(args.next("INTF"));
  const Netval::IpGenAddr addr = ipv4(args.next("ADDR"));
  args.keyword("lladdr");
  const Netval::EthAddr ethAddr = mac(args.next("MAC"));
  Netval::IntfId l2Intf = intfId;
  if (args.more()) {
    args.keyword("l2");
    const std::string_view l2 = args.next("INTF or none");
    l2Intf = l2 == "none" ? Netval::IntfId() : interface(l2);
  }
  args.end();
  return {Plane::NextHopKey(intfId, addr), Plane::NextHopInfo(l2Intf, ethAddr)};
}

Plane::NextHopKey neighKey(ScenarioArgs& args) {
  const Netval::IntfId intfId = interface(args.next("INTF"));
  const Netval::IpGenAddr addr = ipv4(args.next("ADDR"));
  return Plane::NextHopKey(intfId, addr);
}

FwdL3Unicast::NexthopNhIndexResolverKey requestKey(ScenarioArgs& args) {
  const L3::VrfName vrf = vrfName(args.next("VRF"));
  const Netval::IpGenAddr addr = address(args.next("ADDR"));
  const Netval::IntfId intfId = interface(args.next("INTF"));
  return FwdL3Unicast::NexthopNhIndexResolverKey(vrf, addr, intfId);
}

}  // namespace

struct Scenario::Command {
  std::string_view words[2];
  std::string_view usage;
  void (Scenario::*run)(Args&);
  // Printed after the usage in the help, when not empty.
  std::string_view note = {};
};

const Scenario::Command* Scenario::commands(size_t& count) {
  static const Command table[] = {
      {{"vrf", "add"}, "vrf add NAME [id N]", &Scenario::cmdVrfAdd},
      {{"vrf", "del"}, "vrf del NAME", &Scenario::cmdVrfDel},
      {{"fec-mode"}, "fec-mode 1|2", &Scenario::cmdFecMode, "before the first request"},
      {{"route", "add"},
       "route add VRF PREFIX via ADDR dev INTF [via ADDR dev INTF ...] | dev INTF",
       &Scenario::cmdRouteAdd},
      {{"route", "replace"},
       "route replace VRF PREFIX via ADDR dev INTF [via ADDR dev INTF ...] | dev INTF",
       &Scenario::cmdRouteReplace},
      {{"route", "del"}, "route del VRF PREFIX", &Scenario::cmdRouteDel},
      {{"neigh", "add"}, "neigh add INTF ADDR lladdr MAC [l2 INTF|none]", &Scenario::cmdNeighAdd},
      {{"neigh", "replace"},
       "neigh replace INTF ADDR lladdr MAC [l2 INTF|none]",
       &Scenario::cmdNeighReplace},
      {{"neigh", "del"}, "neigh del INTF ADDR", &Scenario::cmdNeighDel},
      {{"host", "add"}, "host add INTF ADDR MAC", &Scenario::cmdHostAdd},
      {{"host", "del"}, "host del INTF ADDR", &Scenario::cmdHostDel},
      {{"arp-delay"}, "arp-delay MS", &Scenario::cmdArpDelay},
      {{"nh-table", "add"}, "nh-table add INTF", &Scenario::cmdNhTableAdd},
      {{"nh-table", "del"}, "nh-table del INTF", &Scenario::cmdNhTableDel},
      {{"nhindex", "add"}, "nhindex add INTF INDEX MAC", &Scenario::cmdNhIndexAdd},
      {{"nhindex", "replace"}, "nhindex replace INTF INDEX MAC", &Scenario::cmdNhIndexReplace},
      {{"nhindex", "del"}, "nhindex del INTF INDEX", &Scenario::cmdNhIndexDel},
      {{"engine", "auto-nhindex"}, "engine auto-nhindex on|off", &Scenario::cmdEngineAutoNhIndex},
      {{"request", "add"}, "request add VRF ADDR INTF", &Scenario::cmdRequestAdd},
      {{"request", "del"}, "request del VRF ADDR INTF", &Scenario::cmdRequestDel},
      {{"advance"}, "advance MS", &Scenario::cmdAdvance},
      {{"restart"}, "restart", &Scenario::cmdRestart},
      {{"show", "status"}, "show status", &Scenario::cmdShowStatus},
      {{"show", "arp"}, "show arp", &Scenario::cmdShowArp},
      {{"show", "routes"}, "show routes", &Scenario::cmdShowRoutes},
      {{"show", "neigh"}, "show neigh", &Scenario::cmdShowNeigh},
      {{"show", "nh-table"}, "show nh-table [INTF]", &Scenario::cmdShowNhTable},
      {{"show", "dump"}, "show dump", &Scenario::cmdShowDump},
      {{"explain"}, "explain VRF ADDR INTF", &Scenario::cmdExplain},
      {{"expect", "status"},
       "expect status VRF ADDR INTF nhindex N | none",
       &Scenario::cmdExpectStatus},
      {{"expect", "statuses"}, "expect statuses N", &Scenario::cmdExpectStatuses},
      {{"expect", "arp"}, "expect arp INTF ADDR present|absent", &Scenario::cmdExpectArp},
      {{"echo"}, "echo TEXT", &Scenario::cmdEcho},
  };
  count = std::size(table);
  return table;
}

std::string Scenario::help() {
  std::string text = "Scenario commands (one per line, '#' starts a comment):\n";
  size_t count = 0;
  const Command* table = commands(count);
  for (size_t i = 0; i < count; ++i) {
    text += "  ";
    text += table[i].usage;
    if (!table[i].note.empty()) text += "  (" + std::string(table[i].note) + ")";
    text += '\n';
  }
  return text;
}

Scenario::Scenario(SimHost& host, std::ostream& out, std::ostream& err)
    : host_(host), out_(out), err_(err) {
  host_.statusSinkIs([this](const std::string& line) { out_ << line << '\n'; });
}

Scenario::~Scenario() { host_.statusSinkIs(nullptr); }

const Scenario::Command* Scenario::command(const std::vector<std::string_view>& words) {
  size_t count = 0;
  const Command* table = commands(count);
  for (size_t i = 0; i < count; ++i) {
    const Command& candidate = table[i];
    const bool oneWord = candidate.words[1].empty();
    if (words[0] == candidate.words[0] &&
        (oneWord || (words.size() > 1 && words[1] == candidate.words[1]))) {
      return &candidate;
    }
  }
  return nullptr;
}

std::string Scenario::unknownCommand(const std::vector<std::string_view>& words) {
  size_t count = 0;
  const Command* table = commands(count);
  std::string known;
  for (size_t i = 0; i < count; ++i) {
    if (table[i].words[0] == words[0] && !table[i].words[1].empty()) {
      known += (known.empty() ? "" : ", ") + std::string(table[i].words[0]) + " " +
               std::string(table[i].words[1]);
    }
  }
  if (known.empty()) return "unknown command " + quoted(words[0]);
  if (words.size() == 1)
    return "incomplete command " + quoted(words[0]) + " (expected " + known + ")";
  return "unknown command " + quoted(std::string(words[0]) + " " + std::string(words[1])) +
         " (expected " + known + ")";
}

Scenario::LineResult Scenario::runLine(std::string_view line, std::string_view file,
                                       size_t lineNo) {
  std::vector<std::string_view> words = Hosts::lineWords(line);
  if (words.empty()) return LineResult::ok;
  const std::string place = std::string(file) + ":" + std::to_string(lineNo) + ": ";
  const Command* found = command(words);
  if (!found) {
    err_ << place << unknownCommand(words) << '\n';
    return LineResult::error;
  }
  Args args(std::move(words), found->words[1].empty() ? 1 : 2, found->usage);
  failure_.clear();
  try {
    (this->*found->run)(args);
    host_.runDue();
  } catch (const HostError& e) {
    err_ << place << e.what() << '\n';
    return LineResult::error;
  } catch (const std::exception& e) {
    // Nothing should get here: the commands check their input. Still input, not a crash.
    err_ << place << "refused: " << e.what() << '\n';
    return LineResult::error;
  }
  if (failure_.empty()) return LineResult::ok;
  err_ << place << failure_ << '\n';
  expectFailed_ = true;
  return LineResult::expectFailed;
}

Scenario::ExitStatus Scenario::runText(std::string_view text, std::string_view file) {
  size_t lineNo = 0;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    if (runLine(text.substr(0, end), file, ++lineNo) == LineResult::error) return kInputError;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return expectFailed_ ? kExpectFailed : kPassed;
}

Scenario::ExitStatus Scenario::runStream(std::istream& in, std::string_view file,
                                         bool interactive) {
  size_t lineNo = 0;
  std::string line;
  while (true) {
    if (interactive) out_ << "nexthop-sim> " << std::flush;
    if (!std::getline(in, line)) break;
    const LineResult result = runLine(line, file, ++lineNo);
    if (interactive) out_ << std::flush;
    if (result == LineResult::error && !interactive) return kInputError;
  }
  if (interactive) out_ << '\n';
  return expectFailed_ ? kExpectFailed : kPassed;
}

void Scenario::expect(bool holds, const std::string& expected, const std::string& found) {
  if (!holds) failure_ = "expected " + expected + ", found " + found;
}

void Scenario::cmdVrfAdd(Args& args) {
  const L3::VrfName name = vrfName(args.next("NAME"));
  std::optional<Plane::VrfId> vrfId;
  if (args.more()) {
    args.keyword("id");
    vrfId = number32(args.next("N"));
  }
  args.end();
  host_.vrfAdd(name, vrfId);
}

void Scenario::cmdVrfDel(Args& args) {
  const L3::VrfName name = vrfName(args.next("NAME"));
  args.end();
  host_.vrfDel(name);
}

void Scenario::cmdFecMode(Args& args) {
  const uint32_t mode = number32(args.next("N"));
  args.end();
  host_.fecModeIs(mode);
}

void Scenario::cmdRouteAdd(Args& args) {
  RouteArgs route = routeArgs(args);
  host_.routeAdd(route.vrf, route.prefix, std::move(route.vias));
}

void Scenario::cmdRouteReplace(Args& args) {
  RouteArgs route = routeArgs(args);
  host_.routeReplace(route.vrf, route.prefix, std::move(route.vias));
}

void Scenario::cmdRouteDel(Args& args) {
  const L3::VrfName vrf = vrfName(args.next("VRF"));
  const Prefix prefix = Prefix::fromText(args.next("PREFIX"));
  args.end();
  host_.routeDel(vrf, prefix);
}

void Scenario::cmdNeighAdd(Args& args) {
  const auto [key, info] = neighArgs(args);
  host_.neighAdd(key, info);
}

void Scenario::cmdNeighReplace(Args& args) {
  const auto [key, info] = neighArgs(args);
  host_.neighReplace(key, info);
}

void Scenario::cmdNeighDel(Args& args) {
  const Plane::NextHopKey key = neighKey(args);
  args.end();
  host_.neighDel(key);
}

void Scenario::cmdHostAdd(Args& args) {
  const Plane::NextHopKey key = neighKey(args);
  const Netval::EthAddr ethAddr = mac(args.next("MAC"));
  args.end();
  host_.hostAdd(key, ethAddr);
}

void Scenario::cmdHostDel(Args& args) {
  const Plane::NextHopKey key = neighKey(args);
  args.end();
  host_.hostDel(key);
}

void Scenario::cmdArpDelay(Args& args) {
  const uint64_t delay = number(args.next("MS"), kMaxMs);
  args.end();
  host_.arpDelayIs(delay);
}

void Scenario::cmdNhTableAdd(Args& args) {
  const Netval::IntfId intfId = interface(args.next("INTF"));
  args.end();
  host_.nhTableAdd(intfId);
}

void Scenario::cmdNhTableDel(Args& args) {
  const Netval::IntfId intfId = interface(args.next("INTF"));
  args.end();
  host_.nhTableDel(intfId);
}

void Scenario::cmdNhIndexAdd(Args& args) {
  const Netval::IntfId intfId = interface(args.next("INTF"));
  const uint32_t nhIndex = number32(args.next("INDEX"));
  const Netval::EthAddr ethAddr = mac(args.next("MAC"));
  args.end();
  host_.nhIndexAdd(intfId, nhIndex, ethAddr);
}

void Scenario::cmdNhIndexReplace(Args& args) {
  const Netval::IntfId intfId = interface(args.next("INTF"));
  const uint32_t nhIndex = number32(args.next("INDEX"));
  const Netval::EthAddr ethAddr = mac(args.next("MAC"));
  args.end();
  host_.nhIndexReplace(intfId, nhIndex, ethAddr);
}

void Scenario::cmdNhIndexDel(Args& args) {
  const Netval::IntfId intfId = interface(args.next("INTF"));
  const uint32_t nhIndex = number32(args.next("INDEX"));
  args.end();
  host_.nhIndexDel(intfId, nhIndex);
}

void Scenario::cmdEngineAutoNhIndex(Args& args) {
  const bool on = args.choice("on|off", {"off", "on"}) == 1;
  args.end();
  host_.autoNhIndexIs(on);
}

void Scenario::cmdRequestAdd(Args& args) {
  const auto key = requestKey(args);
  args.end();
  host_.requestAdd(key);
}

void Scenario::cmdRequestDel(Args& args) {
  const auto key = requestKey(args);
  args.end();
  host_.requestDel(key);
}

void Scenario::cmdAdvance(Args& args) {
  const uint64_t delta = number(args.next("MS"), kMaxMs);
  args.end();
  host_.advance(delta);
}

void Scenario::cmdRestart(Args& args) {
  args.end();
  host_.restart();
}

void Scenario::cmdShowStatus(Args& args) {
  args.end();
  out_ << Hosts::statusesText(host_);
}

void Scenario::cmdShowArp(Args& args) {
  args.end();
  std::vector<Arp::ProactiveArp::ClientEntry> entries;
  for (const auto& entry : host_.clientConfig()->entry()) entries.push_back(entry);
  std::sort(entries.begin(), entries.end());
  if (entries.empty()) out_ << "no proactive ARP entries\n";
  const ProactiveArpService& arp = *host_.arp();
  for (const auto& entry : entries) {
    const Plane::NextHopKey& key = entry.key();
    out_ << "arp " << key.intfId() << " " << key.addr() << " arpVrfId " << entry.arpVrfId()
         << " probes " << arp.probeCount(key) << " triggers "
         << host_.clientConfig()->resolutionTrigger(key) << '\n';
  }
  for (const auto& [key, ethAddr] : arp.hosts()) {
    out_ << "host " << key.intfId() << " " << key.addr() << " " << ethAddr << '\n';
  }
}

void Scenario::cmdShowRoutes(Args& args) {
  args.end();
  out_ << Hosts::routesText(host_);
}

void Scenario::cmdShowNeigh(Args& args) {
  args.end();
  out_ << Hosts::neighboursText(host_);
}

void Scenario::cmdShowNhTable(Args& args) {
  std::optional<Netval::IntfId> only;
  if (args.more()) only = interface(args.next("INTF"));
  args.end();
  out_ << Hosts::nhTablesText(host_, only);
}

void Scenario::cmdShowDump(Args& args) {
  args.end();
  out_ << host_.dump();
}

void Scenario::cmdExplain(Args& args) {
  const auto key = requestKey(args);
  args.end();
  out_ << "explain " << keyText(key) << ": " << Hosts::explain(host_, key) << '\n';
}

void Scenario::cmdExpectStatus(Args& args) {
  const auto key = requestKey(args);
  const std::optional<uint32_t> found = host_.statusNhIndex(key);
  const std::string foundText = found ? "nhIndex " + std::to_string(*found) : "none";
  if (args.choice("nhindex or none", {"nhindex", "none"}) == 1) {
    args.end();
    expect(!found, "no status for " + keyText(key), foundText);
    return;
  }
  const uint32_t nhIndex = number32(args.next("N"));
  args.end();
  expect(found == nhIndex, "status " + keyText(key) + " nhIndex " + std::to_string(nhIndex),
         foundText);
}

void Scenario::cmdExpectStatuses(Args& args) {
  const uint64_t count = number(args.next("N"), std::numeric_limits<uint32_t>::max());
  args.end();
  const size_t found = host_.statusDir()->statusCount();
  expect(found == count, std::to_string(count) + " statuses", std::to_string(found));
}

void Scenario::cmdExpectArp(Args& args) {
  const Plane::NextHopKey key = neighKey(args);
  const bool present = args.choice("present|absent", {"absent", "present"}) == 1;
  args.end();
  const auto state = [](bool on) { return std::string(on ? "present" : "absent"); };
  const bool found = host_.arpWanted(key);
  expect(found == present,
         "proactive ARP entry " + key.intfId().name() + " " + key.addr().toString() + " " +
             state(present),
         state(found));
}

void Scenario::cmdEcho(Args& args) { out_ << args.rest() << '\n'; }

}  // namespace Sim
