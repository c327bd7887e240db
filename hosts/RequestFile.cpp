#include "hosts/RequestFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "framework/L3VrfName.h"

namespace Hosts {

namespace {

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

}  // namespace

L3::VrfName vrfNameParse(std::string_view text) {
  if (text.size() > L3::VrfName::maxLength()) {
    throw std::invalid_argument("VRF name of " + std::to_string(text.size()) + " bytes is over " +
                                std::to_string(L3::VrfName::maxLength()));
  }
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      throw std::invalid_argument("VRF name " + quoted(text) + " has a control character");
    }
  }
  return L3::VrfName(text);
}

namespace {

Netval::IpGenAddr nexthop(std::string_view text) {
  Netval::IpGenAddr addr;
  try {
    addr = Netval::IpGenAddr::fromText(text);
  } catch (const std::exception&) {
    throw std::invalid_argument("bad address " + quoted(text));
  }
  if (addr.af() != Netval::AddressFamily::ipv4_ || addr.isAddrZero()) {
    throw std::invalid_argument("next hop " + quoted(text) + " is not a non-zero IPv4 address");
  }
  return addr;
}

}  // namespace

Netval::IntfId intfParse(std::string_view text, const IntfParser& parseIntf) {
  try {
    const Netval::IntfId id = parseIntf(text);
    if (!id.empty()) return id;
  } catch (const std::exception&) {
  }
  throw std::invalid_argument("bad interface name " + quoted(text));
}

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

}  // namespace

// A character loop rather than find_first_of: the library's version searches the set once per
// character of the line, and this runs for every line of every scenario and request file.
std::vector<std::string_view> lineWords(std::string_view line) {
  line = line.substr(0, line.find('#'));
  std::vector<std::string_view> out;
  const size_t size = line.size();
  size_t pos = 0;
  while (true) {
    while (pos < size && isBlank(line[pos])) ++pos;
    if (pos == size) break;
    size_t end = pos;
    while (end < size && !isBlank(line[end])) ++end;
    // Most lines are a command of a handful of words: one allocation.
    if (out.empty()) out.reserve(8);
    out.push_back(line.substr(pos, end - pos));
    pos = end;
  }
  return out;
}

FwdL3Unicast::NexthopNhIndexResolverKey requestKeyParse(std::string_view vrf, std::string_view addr,
                                                        std::string_view intfName,
                                                        const IntfParser& parseIntf) {
  return FwdL3Unicast::NexthopNhIndexResolverKey(vrfNameParse(vrf), nexthop(addr),
                                                 intfParse(intfName, parseIntf));
}

RequestFile requestFileParse(std::string_view text, std::string_view file,
                             const IntfParser& parseIntf) {
  RequestFile parsed;
  std::map<FwdL3Unicast::NexthopNhIndexResolverKey, size_t> firstLine;
  size_t lineNo = 0;
  while (!text.empty()) {
    ++lineNo;
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    const std::string place = std::string(file) + ":" + std::to_string(lineNo) + ": ";
    const std::vector<std::string_view> fields = lineWords(line);
    if (fields.empty()) continue;
    try {
      if (fields.size() != 3) {
        throw std::invalid_argument("expected VRF ADDR INTF, found " +
                                    std::to_string(fields.size()) + " words");
      }
      const auto key = requestKeyParse(fields[0], fields[1], fields[2], parseIntf);
      const auto [first, added] = firstLine.emplace(key, lineNo);
      if (!added) {
        throw std::invalid_argument("request given twice (first on line " +
                                    std::to_string(first->second) + ")");
      }
      parsed.requests.push_back(key);
    } catch (const std::exception& e) {
      parsed.errors.push_back(place + e.what());
    }
  }
  return parsed;
}

RequestFile requestFileRead(const std::string& path, const IntfParser& parseIntf) {
  const auto refused = [&](const std::string& why) {
    RequestFile failed;
    failed.errors.push_back("cannot open request file " + path + ": " + why);
    return failed;
  };
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return refused(std::strerror(errno));
  if (S_ISDIR(info.st_mode)) return refused(std::strerror(EISDIR));
  if (!S_ISREG(info.st_mode)) return refused("not a regular file");
  std::ifstream in(path, std::ios::binary);
  if (!in) return refused(std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) return refused(std::strerror(errno));
  return requestFileParse(text.str(), path, parseIntf);
}

}  // namespace Hosts
