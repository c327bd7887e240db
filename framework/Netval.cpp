#include "framework/Netval.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <deque>
#include <mutex>
#include <optional>
#include <sstream>
#include <unordered_map>

#include "framework/Assert.h"

namespace Netval {

namespace {

using Group = uint16_t;

// Parses `text` in `base` as an unsigned number of 1 to maxDigits digits, all of it.
std::optional<uint32_t> parseDigits(std::string_view text, int base, size_t maxDigits) {
  if (text.empty() || text.size() > maxDigits) return std::nullopt;
  uint32_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// A decimal number without superfluous leading zeros, so that every value has one spelling.
std::optional<uint32_t> parseDecimal(std::string_view text, size_t maxDigits) {
  if (text.size() > 1 && text.front() == '0') return std::nullopt;
  return parseDigits(text, 10, maxDigits);
}

bool parseV4(std::string_view text, uint8_t* out) {
  for (int i = 0; i < 4; ++i) {
    size_t dot = text.find('.');
    bool last = i == 3;
    if (last != (dot == std::string_view::npos)) return false;
    auto part = parseDecimal(text.substr(0, dot), 3);
    if (!part || *part > 255) return false;
    out[i] = static_cast<uint8_t>(*part);
    if (!last) text.remove_prefix(dot + 1);
  }
  return true;
}

// Parses colon-separated hex groups; a dotted IPv4 tail (when allowed) counts as two groups.
bool parseGroups(std::string_view text, bool dottedTail, Group* out, size_t& count) {
  count = 0;
  if (text.empty()) return true;
  while (true) {
    size_t colon = text.find(':');
    std::string_view piece = text.substr(0, colon);
    bool last = colon == std::string_view::npos;
    if (last && dottedTail && piece.find('.') != std::string_view::npos) {
      uint8_t v4[4];
      if (count > 6 || !parseV4(piece, v4)) return false;
      out[count++] = Group(v4[0] << 8 | v4[1]);
      out[count++] = Group(v4[2] << 8 | v4[3]);
      return true;
    }
    auto group = parseDigits(piece, 16, 4);
    if (!group || count == 8) return false;
    out[count++] = static_cast<Group>(*group);
    if (last) return true;
    text.remove_prefix(colon + 1);
  }
}

bool parseV6(std::string_view text, IpGenAddr::Bytes& bytes) {
  Group head[8], tail[8];
  size_t headCount = 0, tailCount = 0;
  size_t gap = text.find("::");
  if (gap == std::string_view::npos) {
    if (!parseGroups(text, true, head, headCount) || headCount != 8) return false;
  } else {
    std::string_view after = text.substr(gap + 2);
    if (after.find("::") != std::string_view::npos) return false;
    if (!parseGroups(text.substr(0, gap), false, head, headCount)) return false;
    if (!parseGroups(after, true, tail, tailCount)) return false;
    if (headCount + tailCount > 7) return false;
  }
  Group groups[8] = {};
  std::copy(head, head + headCount, groups);
  std::copy(tail, tail + tailCount, groups + 8 - tailCount);
  for (int i = 0; i < 8; ++i) {
    bytes[2 * i] = static_cast<uint8_t>(groups[i] >> 8);
    bytes[2 * i + 1] = static_cast<uint8_t>(groups[i]);
  }
  return true;
}

void printV4(std::ostream& os, const uint8_t* b) {
  os << unsigned(b[0]) << '.' << unsigned(b[1]) << '.' << unsigned(b[2]) << '.' << unsigned(b[3]);
}

void printHex(std::ostream& os, uint32_t value) {
  char buf[8];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value, 16);
  os.write(buf, end - buf);
}

// RFC 5952: lowercase, no leading zeros, the first longest run of two or more zero groups as
// "::", and IPv4-mapped addresses with a dotted tail.
void printV6(std::ostream& os, const IpGenAddr::Bytes& b) {
  Group g[8];
  for (int i = 0; i < 8; ++i) g[i] = Group(b[2 * i] << 8 | b[2 * i + 1]);
  if (g[0] == 0 && g[1] == 0 && g[2] == 0 && g[3] == 0 && g[4] == 0 && g[5] == 0xffff) {
    os << "::ffff:";
    printV4(os, &b[12]);
    return;
  }
  int bestStart = 8, bestLen = 1;
  for (int i = 0; i < 8;) {
    int j = i;
    while (j < 8 && g[j] == 0) ++j;
    if (j - i > bestLen) bestStart = i, bestLen = j - i;
    i = j == i ? i + 1 : j;
  }
  for (int i = 0; i < 8;) {
    if (i == bestStart) {
      os << "::";
      i += bestLen;
      continue;
    }
    if (i > 0 && i != bestStart + bestLen) os << ':';
    printHex(os, g[i]);
    ++i;
  }
}

[[noreturn]] void badText(std::string_view what, std::string_view text) {
  throw Kiln::ParseError("bad " + std::string(what) + " '" + std::string(text) + "'");
}

template <class T>
std::string streamed(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

}  // namespace

IpGenAddr IpGenAddr::ipv4(uint32_t hostOrder) {
  IpGenAddr a(AddressFamily::ipv4_);
  for (int i = 0; i < 4; ++i) a.bytes_[i] = static_cast<uint8_t>(hostOrder >> (24 - 8 * i));
  return a;
}

IpGenAddr IpGenAddr::ipv6(const Bytes& bytes) {
  IpGenAddr a(AddressFamily::ipv6_);
  a.bytes_ = bytes;
  return a;
}

IpGenAddr IpGenAddr::fromText(std::string_view text) {
  if (text == "unset") return IpGenAddr();
  if (text.find(':') != std::string_view::npos) {
    Bytes bytes{};
    if (!parseV6(text, bytes)) badText("IP address", text);
    return ipv6(bytes);
  }
  IpGenAddr a(AddressFamily::ipv4_);
  if (!parseV4(text, a.bytes_.data())) badText("IP address", text);
  return a;
}

uint32_t IpGenAddr::v4() const {
  if (af_ != AddressFamily::ipv4_) return 0;
  return uint32_t(bytes_[0]) << 24 | uint32_t(bytes_[1]) << 16 | uint32_t(bytes_[2]) << 8 |
         bytes_[3];
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& a) {
  switch (a.af_) {
    case AddressFamily::ipv4_:
      printV4(os, a.bytes_.data());
      break;
    case AddressFamily::ipv6_:
      printV6(os, a.bytes_);
      break;
    default:
      os << "unset";
  }
  return os;
}

// What operator<< prints on a fresh stream; IPv4 (status lines, traces, dumps) without one.
std::string IpGenAddr::toString() const {
  if (af_ != AddressFamily::ipv4_) return streamed(*this);
  char text[16];
  size_t size = 0;
  for (int i = 0; i < 4; ++i) {
    if (i > 0) text[size++] = '.';
    const unsigned byte = bytes_[i];
    if (byte >= 100) text[size++] = char('0' + byte / 100);
    if (byte >= 10) text[size++] = char('0' + byte / 10 % 10);
    text[size++] = char('0' + byte % 10);
  }
  return std::string(text, size);
}

namespace {

struct IntfType {
  std::string_view name;
  std::string_view shortName;
  size_t maxParts;
  uint32_t minFirst;
  uint32_t maxFirst;
};

// Indexed by the type field of the id; the order of the table is the order of interfaces.
constexpr IntfType kIntfTypes[] = {
    {"", "", 0, 0, 0},          {"Ethernet", "Et", 3, 0, 4095}, {"Port-Channel", "Po", 1, 0, 4095},
    {"Vlan", "Vl", 1, 1, 4094}, {"Loopback", "Lo", 1, 0, 4095}, {"Management", "Ma", 2, 0, 4095},
};
constexpr uint32_t kIntfTypeCount = sizeof(kIntfTypes) / sizeof(kIntfTypes[0]);
constexpr uint32_t kMaxSubNumber = 254;  // stored + 1 in 8 bits, 0 meaning absent

struct IntfParts {
  uint32_t type = 0;
  uint32_t numbers[3] = {};
  size_t count = 0;
};

bool validParts(const IntfParts& p) {
  if (p.type == 0 || p.type >= kIntfTypeCount) return false;
  const IntfType& t = kIntfTypes[p.type];
  if (p.count == 0 || p.count > t.maxParts) return false;
  if (p.numbers[0] < t.minFirst || p.numbers[0] > t.maxFirst) return false;
  for (size_t i = 1; i < p.count; ++i) {
    if (p.numbers[i] > kMaxSubNumber) return false;
  }
  return true;
}

uint32_t encode(const IntfParts& p) {
  uint32_t id = p.type << 28 | p.numbers[0] << 16;
  if (p.count > 1) id |= (p.numbers[1] + 1) << 8;
  if (p.count > 2) id |= p.numbers[2] + 1;
  return id;
}

IntfParts decode(uint32_t id) {
  IntfParts p;
  p.type = id >> 28;
  p.numbers[0] = id >> 16 & 0xfff;
  p.count = 1;
  uint32_t second = id >> 8 & 0xff, third = id & 0xff;
  if (second == 0 && third != 0) return {};  // a third number needs a second
  if (second != 0) p.numbers[p.count++] = second - 1;
  if (third != 0) p.numbers[p.count++] = third - 1;
  return p;
}

// The type whose full or short name prefixes `name` and is followed by a digit.
uint32_t matchType(std::string_view name, std::string_view& rest) {
  for (uint32_t type = 1; type < kIntfTypeCount; ++type) {
    for (std::string_view prefix : {kIntfTypes[type].name, kIntfTypes[type].shortName}) {
      if (name.size() > prefix.size() && name.starts_with(prefix) &&
          std::isdigit(static_cast<unsigned char>(name[prefix.size()]))) {
        rest = name.substr(prefix.size());
        return type;
      }
    }
  }
  return 0;
}

constexpr uint32_t kKernelIndexMask = 0x0fffffff;

// The kernel names interned by this process. Entries never move or change once added, so a
// name is copied out under the lock without allocating. Never destroyed: traces may run during
// static destruction.
class KernelNames {
 public:
  static KernelNames& instance() {
    static KernelNames* names = new KernelNames;
    return *names;
  }

  // The index of `name`, added when new (1, 2, ...).
  uint32_t indexIs(std::string_view name) {
    std::lock_guard lock(mutex_);
    auto it = index_.find(std::string(name));
    if (it != index_.end()) return it->second;
    CORE_ASSERT(names_.size() < kKernelIndexMask);
    Name& entry = names_.emplace_back();
    entry.size = static_cast<uint8_t>(name.size());
    std::copy(name.begin(), name.end(), entry.text);
    const auto index = static_cast<uint32_t>(names_.size());
    index_.emplace(std::string(name), index);
    return index;
  }
  bool has(uint32_t index) {
    std::lock_guard lock(mutex_);
    return index != 0 && index <= names_.size();
  }
  // Copies the name of a valid index into `out` and returns its length.
  size_t copy(uint32_t index, char* out) {
    std::lock_guard lock(mutex_);
    CORE_ASSERT(index != 0 && index <= names_.size());
    const Name& entry = names_[index - 1];
    std::copy(entry.text, entry.text + entry.size, out);
    return entry.size;
  }

 private:
  struct Name {
    char text[Netval::IntfId::kKernelNameMax];
    uint8_t size;
  };
  std::mutex mutex_;
  std::deque<Name> names_;
  std::unordered_map<std::string, uint32_t> index_;
};

bool validKernelName(std::string_view name) {
  if (name.empty() || name.size() > Netval::IntfId::kKernelNameMax) return false;
  for (char c : name) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '/' || c == ' ' || u < 0x20 || u == 0x7f) return false;
  }
  return true;
}

// Writes the name of `id` into `out` (IntfId::kNameCapacity bytes, which every name fits) and
// returns its length; formatted in place so that trace values need no std::string.
size_t formatIntfName(uint32_t id, bool shortForm, char* out) {
  if (id == 0) return 0;
  if (id >> 28 == IntfId::kKernelType) {
    return KernelNames::instance().copy(id & kKernelIndexMask, out);
  }
  IntfParts p = decode(id);
  CORE_ASSERT(validParts(p));
  const std::string_view type = shortForm ? kIntfTypes[p.type].shortName : kIntfTypes[p.type].name;
  char* end = std::copy(type.begin(), type.end(), out);
  for (size_t i = 0; i < p.count; ++i) {
    if (i > 0) *end++ = '/';
    end = std::to_chars(end, out + IntfId::kNameCapacity, p.numbers[i]).ptr;
  }
  return static_cast<size_t>(end - out);
}

std::string intfName(uint32_t id, bool shortForm) {
  char text[IntfId::kNameCapacity];
  return std::string(text, formatIntfName(id, shortForm, text));
}

}  // namespace

IntfId IntfId::fromText(std::string_view name) {
  if (name.empty()) return IntfId();
  IntfParts p;
  std::string_view rest;
  p.type = matchType(name, rest);
  if (p.type == 0) throw Kiln::ParseError("unknown interface name '" + std::string(name) + "'");
  while (true) {
    size_t slash = rest.find('/');
    auto number = parseDecimal(rest.substr(0, slash), 5);
    if (!number || p.count == 3) {
      throw Kiln::ParseError("unknown interface name '" + std::string(name) + "'");
    }
    p.numbers[p.count++] = *number;
    if (slash == std::string_view::npos) break;
    rest.remove_prefix(slash + 1);
  }
  if (!validParts(p)) {
    throw Kiln::ParseError("interface number out of range in '" + std::string(name) + "'");
  }
  return IntfId(encode(p), 0);
}

IntfId IntfId::fromId(uint32_t id) {
  if (id >> 28 == kKernelType) {
    return KernelNames::instance().has(id & kKernelIndexMask) ? IntfId(id, 0) : IntfId();
  }
  if (id == 0 || !validParts(decode(id))) return IntfId();
  return IntfId(id, 0);
}

IntfId IntfId::fromKernelName(std::string_view name) {
  if (!validKernelName(name)) {
    throw Kiln::ParseError("invalid kernel interface name '" + std::string(name) + "'");
  }
  // A kernel device that carries exactly a known full name is that interface, so that one name
  // never has two ids.
  try {
    IntfId known = fromText(name);
    if (known.name() == name) return known;
  } catch (const Kiln::ParseError&) {
    // not a known form: interned below
  }
  return IntfId(kKernelType << 28 | KernelNames::instance().indexIs(name), 0);
}

size_t IntfId::nameInto(char* out, bool shortForm) const {
  return formatIntfName(id(), shortForm, out);
}

namespace {
std::ostream& printName(std::ostream& os, IntfId i, bool shortForm) {
  char text[IntfId::kNameCapacity];
  return os.write(text, static_cast<std::streamsize>(i.nameInto(text, shortForm)));
}
}  // namespace

std::ostream& operator<<(std::ostream& os, IntfId i) { return printName(os, i, false); }

std::ostream& operator<<(std::ostream& os, IntfShortName n) {
  return printName(os, n.intf(), true);
}

std::string IntfId::name() const { return intfName(id(), false); }

std::string IntfId::shortName() const { return intfName(id(), true); }

EthAddr::EthAddr(uint64_t value)
    : words_{uint16_t(value), uint16_t(value >> 16), uint16_t(value >> 32)} {
  CORE_ASSERT(value >> 48 == 0);
}

namespace {

// Parses `groups` hex groups of exactly `width` digits separated by `sep`.
std::optional<uint64_t> parseMac(std::string_view text, size_t groups, size_t width, char sep) {
  if (text.size() != groups * width + groups - 1) return std::nullopt;
  uint64_t value = 0;
  for (size_t i = 0; i < groups; ++i) {
    std::string_view group = text.substr(i * (width + 1), width);
    if (i + 1 < groups && text[i * (width + 1) + width] != sep) return std::nullopt;
    if (group.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos) {
      return std::nullopt;
    }
    auto digits = parseDigits(group, 16, width);
    if (!digits) return std::nullopt;
    value = value << (4 * width) | *digits;
  }
  return value;
}

}  // namespace

EthAddr EthAddr::fromText(std::string_view text) {
  auto value = parseMac(text, 6, 2, ':');
  if (!value) value = parseMac(text, 3, 4, '.');
  if (!value) badText("MAC address", text);
  return EthAddr(*value);
}

namespace {

constexpr size_t kMacTextSize = 17;

// "xx:xx:xx:xx:xx:xx", lowercase.
void formatMac(uint64_t value, char* out) {
  static constexpr char kHex[] = "0123456789abcdef";
  for (int i = 0; i < 6; ++i) {
    uint32_t byte = value >> (40 - 8 * i) & 0xff;
    out[3 * i] = kHex[byte >> 4];
    out[3 * i + 1] = kHex[byte & 0xf];
    if (i < 5) out[3 * i + 2] = ':';
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& os, EthAddr a) {
  char buf[kMacTextSize];
  formatMac(a.value(), buf);
  return os.write(buf, sizeof buf);
}

std::string EthAddr::toString() const {
  char buf[kMacTextSize];
  formatMac(value(), buf);
  return std::string(buf, sizeof buf);
}

}  // namespace Netval
