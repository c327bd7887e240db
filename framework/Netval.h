#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "framework/CoreHash.h"
#include "framework/Kiln.h"

// Network value types of the host: addresses, interface identifiers and MAC addresses. All are
// small, trivially copyable leaves of the reflection layer (text form, fromText, hash, ordering).
namespace Netval {

// The family of an IpGenAddr; unknown_ marks the empty address.
enum class AddressFamily : uint8_t { unknown_ = 0, ipv4_ = 4, ipv6_ = 6 };

// An IPv4 or IPv6 address, or the empty address of unknown family (the default, printed "unset").
// Bytes are held in network order; an IPv4 address uses the first 4 of the 16 bytes.
class IpGenAddr {
 public:
  using Bytes = std::array<uint8_t, 16>;

  IpGenAddr() = default;
  // The all-zero address of that family (the empty address for unknown_).
  explicit IpGenAddr(AddressFamily af) : af_(af) {}
  // Throws Kiln::ParseError for text that is not an address.
  explicit IpGenAddr(std::string_view text) : IpGenAddr(fromText(text)) {}

  static IpGenAddr ipv4(uint32_t hostOrder);
  static IpGenAddr ipv6(const Bytes& bytes);
  // Accepts dotted IPv4, RFC 4291 IPv6 (with an optional dotted tail) and "unset".
  static IpGenAddr fromText(std::string_view text);

  AddressFamily af() const { return af_; }
  bool isAddrZero() const { return bytes_ == Bytes{}; }
  // Host-order IPv4 value; 0 for other families.
  uint32_t v4() const;
  const Bytes& bytes() const { return bytes_; }

  // An IPv4 address hashes its one word (the other bytes are zero), an IPv6 one all 16 bytes.
  // The IPv4 case, a few instructions, is inlined into every table's look-up.
  [[gnu::always_inline]] uint32_t hash(uint32_t seed) const {
    if (af_ == AddressFamily::ipv4_) {
      return Core::hashMix(
          Core::hashCombine(Core::hashCombine(seed, v4Word()), static_cast<uint32_t>(af_)));
    }
    return hashOfBytes(seed);
  }
  friend bool operator==(const IpGenAddr& a, const IpGenAddr& b) {
    return a.af_ == b.af_ && std::memcmp(a.bytes_.data(), b.bytes_.data(), 16) == 0;
  }
  // By family first, then by address bytes (network order, so numerically).
  friend std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) {
    if (a.af_ != b.af_) return a.af_ <=> b.af_;
    return std::memcmp(a.bytes_.data(), b.bytes_.data(), 16) <=> 0;
  }
  // Dotted quad, RFC 5952 IPv6, or "unset".
  friend std::ostream& operator<<(std::ostream& os, const IpGenAddr& a);
  std::string toString() const;

 private:
  [[gnu::noinline]] uint32_t hashOfBytes(uint32_t seed) const {
    return Core::hashMix(Core::hashCombine(Core::hashBytes(bytes_.data(), bytes_.size(), seed),
                                           static_cast<uint32_t>(af_)));
  }
  // The first four bytes as one word, in memory order: only hashed, never interpreted.
  uint32_t v4Word() const {
    uint32_t word;
    std::memcpy(&word, bytes_.data(), sizeof word);
    return word;
  }

  Bytes bytes_{};
  AddressFamily af_ = AddressFamily::unknown_;
};

// A host interface as a numeric identifier that orders interfaces by type (Ethernet, Port-Channel,
// Vlan, Loopback, Management), then by their numbers. Id 0 is the empty interface (name "").
// Layout: 4 bits type, 12 bits first number, 8 + 8 bits for the second and third numbers + 1
// (0 = absent), so that "Ethernet3" < "Ethernet3/1" < "Ethernet3/1/1" < "Ethernet4".
//
// Kernel interface names ("eth0", "veth-a", "br0.100") are a last type: type 15 and, in the low
// 28 bits, the name's place in a process-wide intern table (1, 2, ... in first-use order). Such
// an id is stable for the life of the process and orders after every known type; it means
// nothing to another process. Only hosts create them (fromKernelName); fromText keeps refusing
// names of no known form.
class IntfId {
 public:
  // Longest kernel interface name (IFNAMSIZ - 1).
  static constexpr size_t kKernelNameMax = 15;
  // Room for any name, long forms included: "Ethernet4095/254/254" is the longest.
  static constexpr size_t kNameCapacity = 24;
  // The type field of an interned kernel name.
  static constexpr uint32_t kKernelType = 15;

  IntfId() = default;
  // Throws Kiln::ParseError for a name that is not a known interface.
  explicit IntfId(std::string_view name) : IntfId(fromText(name)) {}

  // Accepts full names ("Ethernet3/1") and short names ("Et3/1"); "" is the empty interface.
  static IntfId fromText(std::string_view name);
  // The interface of a known id or of a kernel name interned by this process; the empty
  // interface for any other id.
  static IntfId fromId(uint32_t id);
  // The interface named `name` by the kernel: the known interface when `name` is exactly a known
  // full name, otherwise `name` interned (the same id for the same name, for the process's
  // life). Throws Kiln::ParseError unless `name` is 1-15 bytes without '/', blank or control
  // character.
  static IntfId fromKernelName(std::string_view name);

  uint32_t id() const { return std::bit_cast<uint32_t>(bytes_); }
  bool empty() const { return id() == 0; }
  // Whether this is an interned kernel name rather than a known form.
  bool isKernelName() const { return id() >> 28 == kKernelType; }
  std::string name() const;
  std::string shortName() const;
  // Writes the name, or the short name, into `out` (kNameCapacity bytes) without allocating and
  // returns its length. A kernel name is its own short name.
  size_t nameInto(char* out, bool shortForm) const;

  uint32_t hash(uint32_t seed) const { return Core::hashMix(Core::hashCombine(seed, id())); }
  friend bool operator==(IntfId a, IntfId b) { return a.bytes_ == b.bytes_; }
  friend std::strong_ordering operator<=>(IntfId a, IntfId b) { return a.id() <=> b.id(); }
  // Formats in place: printing builds no string.
  friend std::ostream& operator<<(std::ostream& os, IntfId i);

 private:
  explicit constexpr IntfId(uint32_t id, int) : bytes_(std::bit_cast<Bytes>(id)) {}

  // The id's bytes in the machine's order, aligned to one: records that hold an interface id
  // beside an address (17 bytes) or a MAC need no padding for it.
  using Bytes = std::array<unsigned char, 4>;
  Bytes bytes_{};
};

// An interface traced by its short name ("Et3/1", the text IntfId::shortName() returns), for hot
// trace statements: printing formats it in place, and the ring trace records only the id and
// names it when the trace is read.
class IntfShortName {
 public:
  explicit IntfShortName(IntfId intf) : intf_(intf) {}
  IntfId intf() const { return intf_; }
  friend std::ostream& operator<<(std::ostream& os, IntfShortName n);

 private:
  IntfId intf_;
};

// A 48-bit MAC address; zero is the default.
class EthAddr {
 public:
  EthAddr() = default;
  // The value must fit in 48 bits.
  EthAddr(uint64_t value);
  // Accepts "00:1c:73:aa:bb:cc" and "001c.73aa.bbcc"; throws Kiln::ParseError otherwise.
  explicit EthAddr(std::string_view text) : EthAddr(fromText(text)) {}
  static EthAddr fromText(std::string_view text);

  bool isZero() const { return value() == 0; }
  uint64_t value() const {
    return uint64_t{words_[0]} | uint64_t{words_[1]} << 16 | uint64_t{words_[2]} << 32;
  }

  uint32_t hash(uint32_t seed) const { return Core::hashOfWords(value(), seed); }
  friend bool operator==(EthAddr a, EthAddr b) { return a.words_ == b.words_; }
  friend std::strong_ordering operator<=>(EthAddr a, EthAddr b) { return a.value() <=> b.value(); }
  // "00:1c:73:aa:bb:cc".
  friend std::ostream& operator<<(std::ostream& os, EthAddr a);
  std::string toString() const;

 private:
  // Three 16-bit words, low first: six bytes aligned to two, so that a record holding a MAC
  // beside addresses and interface ids needs no padding for it.
  std::array<uint16_t, 3> words_{};
};

// These travel in keys on hot paths: copies must stay cheap.
static_assert(sizeof(IpGenAddr) <= 20 && std::is_trivially_copyable_v<IpGenAddr>);
static_assert(sizeof(IntfId) == 4 && alignof(IntfId) == 1 && std::is_trivially_copyable_v<IntfId>);
static_assert(sizeof(EthAddr) == 6 && std::is_trivially_copyable_v<EthAddr>);

}  // namespace Netval
