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
#include <tuple>
#include <utility>
#include <vector>

#include "framework/Kiln.h"
#include "hosts/HostError.h"
#include "hosts/HostExplain.h"
#include "hosts/HostShow.h"
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

// "byte 0x01 at 3" when `text` holds a NUL or another control character, else nothing.
std::optional<std::string> controlCharacter(std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f) {
      static constexpr char kHex[] = "0123456789abcdef";
      return std::string("byte 0x") + kHex[byte >> 4] + kHex[byte & 15] + " at " +
             std::to_string(i + 1);
    }
  }
  return std::nullopt;
}

L3::VrfName vrfName(std::string_view text) {
  if (const auto bad = controlCharacter(text)) {
    throw InputError("VRF name with a control character (" + *bad + ")");
  }
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
  if (const auto bad = controlCharacter(text)) {
    throw InputError("interface name with a control character (" + *bad + ")");
  }
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

// The MAC of a host, a neighbour or an nhIndex: never zero, broadcast or multicast.
Netval::EthAddr unicastMac(std::string_view text) {
  const Netval::EthAddr ethAddr = mac(text);
  const bool multicast = (ethAddr.value() >> 40) & 1;
  if (ethAddr.isZero() || multicast) {
    throw InputError("bad MAC address " + quoted(text) + ": not a unicast address");
  }
  return ethAddr;
}

// The address of a neighbour or a via: IPv4, neither 0.0.0.0 nor 255.255.255.255.
Netval::IpGenAddr hostAddress(std::string_view text) {
  const Netval::IpGenAddr addr = ipv4(text);
  if (addr.v4() == 0 || addr.v4() == 0xffffffffu) {
    throw InputError("bad address " + quoted(text) + ": not a host's address");
  }
  return addr;
}

Prefix prefix(std::string_view text) {
  try {
    return Prefix::fromText(text);
  } catch (const HostError& e) {
    throw InputError(e.what());
  }
}

uint64_t number(std::string_view text, uint64_t max) {
  uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool leadingZero = text.size() > 1 && text[0] == '0';
  if (ec != std::errc() || end != text.data() + text.size() || value > max || leadingZero) {
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
  RouteArgs route{vrfName(args.next("VRF")), prefix(args.next("PREFIX")), {}};
  const Netval::IpGenAddr attached = Netval::IpGenAddr::ipv4(0);
  do {
    Netval::IpGenAddr hop = attached;
    if (args.peek() == "via") {
      args.keyword("via");
      hop = hostAddress(args.next("ADDR"));
    }
    args.keyword("dev");
    route.vias.emplace_back(interface(args.next("INTF")), hop);
  } while (args.more());
  return route;
}

// INTF ADDR lladdr MAC|none [l2 INTF|none]; "lladdr none" is an incomplete entry, without MAC.
std::pair<Plane::NextHopKey, Plane::NextHopInfo> neighArgs(ScenarioArgs& args) {
  const Netval::IntfId intfId = interface(args.next("INTF"));
  const Netval::IpGenAddr addr = hostAddress(args.next("ADDR"));
  args.keyword("lladdr");
  const std::string_view macText = args.next("MAC or none");
  const Netval::EthAddr ethAddr = macText == "none" ? Netval::EthAddr() : unicastMac(macText);
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
  const Netval::IpGenAddr addr = hostAddress(args.next("ADDR"));
  return Plane::NextHopKey(intfId, addr);
}

// INTF ADDR [lladdr] MAC
std::pair<Plane::NextHopKey, Netval::EthAddr> hostArgs(ScenarioArgs& args) {
  const Plane::NextHopKey key = neighKey(args);
  if (args.peek() == "lladdr") args.keyword("lladdr");
  const Netval::EthAddr ethAddr = unicastMac(args.next("MAC"));
  args.end();
  return {key, ethAddr};
}

// INTF INDEX MAC
std::tuple<Netval::IntfId, uint32_t, Netval::EthAddr> nhIndexArgs(ScenarioArgs& args) {
  const Netval::IntfId intfId = interface(args.next("INTF"));
  const uint32_t nhIndex = number32(args.next("INDEX"));
  const Netval::EthAddr ethAddr = unicastMac(args.next("MAC"));
  args.end();
  return {intfId, nhIndex, ethAddr};
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
      {{"neigh", "add"},
       "neigh add INTF ADDR lladdr MAC|none [l2 INTF|none]",
       &Scenario::cmdNeighAdd},
      {{"neigh", "replace"},
       "neigh replace INTF ADDR lladdr MAC|none [l2 INTF|none]",
       &Scenario::cmdNeighReplace},
      {{"neigh", "del"}, "neigh del INTF ADDR", &Scenario::cmdNeighDel},
      {{"host", "add"}, "host add INTF ADDR [lladdr] MAC", &Scenario::cmdHostAdd},
      {{"host", "replace"}, "host replace INTF ADDR [lladdr] MAC", &Scenario::cmdHostReplace},
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
      {{"show", "status"}, "show status [VRF]", &Scenario::cmdShowStatus},
      {{"show", "requests"}, "show requests [VRF]", &Scenario::cmdShowRequests},
      {{"show", "vrfs"}, "show vrfs", &Scenario::cmdShowVrfs},
      {{"show", "arp"}, "show arp", &Scenario::cmdShowArp},
      {{"show", "routes"}, "show routes", &Scenario::cmdShowRoutes},
      {{"show", "neigh"}, "show neigh", &Scenario::cmdShowNeigh},
      {{"show", "nh-table"}, "show nh-table [INTF]", &Scenario::cmdShowNhTable},
      {{"show", "dump"}, "show dump", &Scenario::cmdShowDump},
      {{"explain"}, "explain VRF ADDR INTF", &Scenario::cmdExplain},
      {{"expect", "status"},
       "expect status VRF ADDR INTF nhIndex N | none",
       &Scenario::cmdExpectStatus},
      {{"expect", "statuses"}, "expect statuses N", &Scenario::cmdExpectStatuses},
      {{"expect", "arp"}, "expect arp INTF ADDR present|absent", &Scenario::cmdExpectArp},
      {{"echo"}, "echo TEXT", &Scenario::cmdEcho},
      {{"help"}, "help [COMMAND]", &Scenario::cmdHelp},
      {{"quit"}, "quit", &Scenario::cmdQuit, "ends the run, as exit does"},
      {{"exit"}, "exit", &Scenario::cmdQuit},
  };
  count = std::size(table);
  return table;
}

std::string Scenario::help() {
  std::string text = "Scenario commands (one per line, '#' starts a comment):\n";
  size_t count = 0;
  const Command* table = commands(count);
  for (size_t i = 0; i < count; ++i) text += helpLine(table[i]);
  return text;
}

std::string Scenario::helpLine(const Command& command) {
  std::string line = "  " + std::string(command.usage);
  if (!command.note.empty()) line += "  (" + std::string(command.note) + ")";
  return line + '\n';
}

Scenario::Scenario(SimHost& host, std::ostream& out, std::ostream& err, Hosts::OutputFormat format)
    : host_(host), out_(out), err_(err), format_(format) {
  host_.statusFormatIs(format);
  host_.statusSinkIs([this](const std::string& line) { out_ << line << '\n'; });
}

Scenario::~Scenario() {
  host_.statusSinkIs(nullptr);
  host_.statusFormatIs(Hosts::OutputFormat::text);
}

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
  // Only a refused or failed line names its place.
  const auto place = [&] { return std::string(file) + ":" + std::to_string(lineNo) + ": "; };
  const Command* found = command(words);
  if (!found) {
    err_ << place() << unknownCommand(words) << '\n';
    return LineResult::error;
  }
  Args args(std::move(words), found->words[1].empty() ? 1 : 2, found->usage);
  failure_.clear();
  try {
    (this->*found->run)(args);
    host_.runDue();
  } catch (const InputError& e) {
    // A malformed value: the message names the form the command expects.
    const std::string what = e.what();
    const bool named = what.find("(usage: ") != std::string::npos;
    err_ << place() << what << (named ? "" : " (usage: " + std::string(found->usage) + ")") << '\n';
    return LineResult::error;
  } catch (const HostError& e) {
    err_ << place() << e.what() << '\n';
    return LineResult::error;
  } catch (const std::exception& e) {
    // Nothing should get here: the commands check their input. Still input, not a crash.
    err_ << place() << "refused: " << e.what() << '\n';
    return LineResult::error;
  }
  if (failure_.empty()) return LineResult::ok;
  err_ << place() << failure_ << '\n';
  expectFailed_ = true;
  return LineResult::expectFailed;
}

Scenario::ExitStatus Scenario::runText(std::string_view text, std::string_view file) {
  size_t lineNo = 0;
  while (!text.empty() && !quit_) {
    const size_t end = std::min(text.find('\n'), text.size());
    if (runLine(text.substr(0, end), file, ++lineNo) == LineResult::error) return kInputError;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return expectFailed_ ? kExpectFailed : kPassed;
}

Scenario::ExitStatus Scenario::runStream(std::istream& in, std::string_view file,
                                         bool interactive) {
  std::string line;
  const LineReader next = [&]() -> std::optional<std::string> {
    if (!std::getline(in, line)) return std::nullopt;
    return line;
  };
  if (interactive) return runInteractive(next, file);
  // Straight from the stream's line: no copy per line.
  size_t lineNo = 0;
  while (!quit_ && std::getline(in, line)) {
    if (runLine(line, file, ++lineNo) == LineResult::error) return kInputError;
  }
  return expectFailed_ ? kExpectFailed : kPassed;
}

Scenario::ExitStatus Scenario::runInteractive(const LineReader& next, std::string_view file) {
  size_t lineNo = 0;
  bool refused = false;
  while (!quit_) {
    const std::optional<std::string> line = next();
    if (!line) break;
    refused |= runLine(*line, file, ++lineNo) == LineResult::error;
    out_ << std::flush;
  }
  if (refused) return kInputError;
  return expectFailed_ ? kExpectFailed : kPassed;
}

std::vector<std::string> Scenario::completions(std::string_view line, std::string_view word) {
  std::vector<std::string_view> before =
      Hosts::lineWords(line.substr(0, line.size() - word.size()));
  if (!before.empty() && before[0] == "help") before.erase(before.begin());
  size_t count = 0;
  const Command* table = commands(count);
  std::vector<std::string> out;
  for (size_t i = 0; i < count && before.size() < 2; ++i) {
    const Command& c = table[i];
    if (!before.empty() && c.words[0] != before[0]) continue;
    const std::string_view candidate = c.words[before.size()];
    if (!candidate.empty() && candidate.starts_with(word) &&
        std::find(out.begin(), out.end(), candidate) == out.end()) {
      out.emplace_back(candidate);
    }
  }
  return out;
}

void Scenario::expect(bool holds, const std::string& expected, const std::string& found) {
  ++(holds ? expectationsHeld_ : expectationsFailed_);
  if (!holds) failure_ = "expected " + expected + ", found " + found;
}

std::string Scenario::summary() const {
  return std::to_string(expectationsHeld_) + " expectation" + (expectationsHeld_ == 1 ? "" : "s") +
         " held, " + std::to_string(expectationsFailed_) + " failed";
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
  const Prefix routePrefix = prefix(args.next("PREFIX"));
  args.end();
  host_.routeDel(vrf, routePrefix);
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
  const auto [key, ethAddr] = hostArgs(args);
  host_.hostAdd(key, ethAddr);
}

void Scenario::cmdHostReplace(Args& args) {
  const auto [key, ethAddr] = hostArgs(args);
  host_.hostReplace(key, ethAddr);
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
  const auto [intfId, nhIndex, ethAddr] = nhIndexArgs(args);
  host_.nhIndexAdd(intfId, nhIndex, ethAddr);
}

void Scenario::cmdNhIndexReplace(Args& args) {
  const auto [intfId, nhIndex, ethAddr] = nhIndexArgs(args);
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
  const uint64_t delta = number(args.next("MS"), std::numeric_limits<uint64_t>::max());
  args.end();
  host_.advance(delta);
}

void Scenario::cmdRestart(Args& args) {
  args.end();
  host_.restart();
}

std::optional<L3::VrfName> Scenario::optionalVrf(Args& args) {
  std::optional<L3::VrfName> vrf;
  if (args.more()) vrf = vrfName(args.next("VRF"));
  args.end();
  return vrf;
}

void Scenario::show(const Hosts::Json& doc, std::string (*text)(const Hosts::Json&)) {
  out_ << Hosts::Show::render(doc, text, format_);
}

void Scenario::cmdShowStatus(Args& args) {
  show(Hosts::Show::statuses(host_, optionalVrf(args)), Hosts::Show::statusesText);
}

void Scenario::cmdShowRequests(Args& args) {
  show(Hosts::Show::requests(host_, optionalVrf(args)), Hosts::Show::requestsText);
}

void Scenario::cmdShowVrfs(Args& args) {
  args.end();
  show(Hosts::Show::vrfs(host_), Hosts::Show::vrfsText);
}

namespace {

// Show::arp() and "hosts": [{"dev", "dst", "lladdr"}], the simulated hosts that answer it.
Hosts::Json arpJson(const SimHost& host) {
  Hosts::Json doc = Hosts::Show::arp(host);
  doc["hosts"] = Hosts::Json::array();
  for (const auto& [key, ethAddr] : host.arp()->hosts()) {
    doc["hosts"].push_back({{"dev", key.intfId().name()},
                            {"dst", key.addr().toString()},
                            {"lladdr", ethAddr.toString()}});
  }
  return doc;
}

std::string arpText(const Hosts::Json& doc) {
  std::string text = Hosts::Show::arpText(doc);
  for (const auto& h : doc["hosts"]) {
    text += "host " + h["dev"].get<std::string>() + " " + h["dst"].get<std::string>() + " " +
            h["lladdr"].get<std::string>() + '\n';
  }
  return text;
}

}  // namespace

void Scenario::cmdShowArp(Args& args) {
  args.end();
  show(arpJson(host_), arpText);
}

void Scenario::cmdShowRoutes(Args& args) {
  args.end();
  show(Hosts::Show::routes(host_), Hosts::Show::routesText);
}

void Scenario::cmdShowNeigh(Args& args) {
  args.end();
  show(Hosts::Show::neighbours(host_), Hosts::Show::neighboursText);
}

void Scenario::cmdShowNhTable(Args& args) {
  std::optional<Netval::IntfId> only;
  if (args.more()) only = interface(args.next("INTF"));
  args.end();
  show(Hosts::Show::nhTables(host_, only), Hosts::Show::nhTablesText);
}

void Scenario::cmdShowDump(Args& args) {
  args.end();
  dumpOut();
}

void Scenario::dumpOut() { out_ << Hosts::Show::renderDump(host_.dump(), format_); }

void Scenario::cmdExplain(Args& args) {
  const auto key = requestKey(args);
  args.end();
  Hosts::ModuleHost::requestKeyCheck(key);
  show(Hosts::Show::explanation(key, Hosts::explain(host_, key)), Hosts::Show::explanationText);
}

void Scenario::cmdExpectStatus(Args& args) {
  const auto key = requestKey(args);
  const std::optional<uint32_t> found = host_.statusNhIndex(key);
  const std::string foundText = found ? "nhIndex " + std::to_string(*found) : "none";
  // nhIndex as the status lines print it; nhindex as the engine's commands spell it.
  if (args.choice("nhIndex or none", {"nhIndex", "nhindex", "none"}) == 2) {
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

void Scenario::cmdHelp(Args& args) {
  const std::string topic = args.rest();
  const std::vector<std::string_view> words = Hosts::lineWords(topic);
  size_t count = 0;
  const Command* table = commands(count);
  std::string text = topic.empty() ? help() : "";
  for (size_t i = 0; i < count && !topic.empty(); ++i) {
    const Command& c = table[i];
    if (c.words[0] != words[0] || (words.size() > 1 && c.words[1] != words[1])) continue;
    text += helpLine(c);
  }
  if (text.empty()) throw InputError("no command " + quoted(topic) + " (help lists them)");
  if (format_ == Hosts::OutputFormat::json) {
    out_ << Hosts::Json{{"help", text}}.dump() << '\n';
  } else {
    out_ << text;
  }
}

void Scenario::cmdQuit(Args& args) {
  args.end();
  quit_ = true;
}

void Scenario::cmdEcho(Args& args) {
  const std::string text = args.rest();
  if (format_ == Hosts::OutputFormat::json) {
    out_ << Hosts::Json{{"echo", text}}.dump() << '\n';
  } else {
    out_ << text << '\n';
  }
}

}  // namespace Sim
