#include "framework/Netval.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "framework/CoreHash.h"
#include "framework/Kiln.h"

// Counts allocations, to show which operations allocate nothing.
namespace {
size_t allocations = 0;
}  // namespace

void* operator new(size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
// GCC takes these for mismatched pairs; malloc and free are the pair here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace {

using Netval::AddressFamily;
using Netval::EthAddr;
using Netval::IntfId;
using Netval::IntfShortName;
using Netval::IpGenAddr;

std::string errorOf(auto parse) {
  try {
    parse();
  } catch (const Kiln::ParseError& e) {
    return e.what();
  }
  return "no error";
}

TEST(IpGenAddr, DefaultIsTheUnsetAddress) {
  IpGenAddr a;
  EXPECT_EQ(a.af(), AddressFamily::unknown_);
  EXPECT_TRUE(a.isAddrZero());
  EXPECT_EQ(a.toString(), "unset");
  EXPECT_EQ(IpGenAddr::fromText("unset"), a);
  EXPECT_EQ(IpGenAddr(AddressFamily::unknown_), a);
}

TEST(IpGenAddr, ZeroAddressesOfEachFamilyDiffer) {
  IpGenAddr v4(AddressFamily::ipv4_), v6(AddressFamily::ipv6_), unset;
  EXPECT_TRUE(v4.isAddrZero());
  EXPECT_TRUE(v6.isAddrZero());
  EXPECT_EQ(v4.toString(), "0.0.0.0");
  EXPECT_EQ(v6.toString(), "::");
  EXPECT_NE(v4, unset);
  EXPECT_NE(v4, v6);
  EXPECT_NE(v4.hash(0), v6.hash(0));
  EXPECT_NE(v4.hash(0), unset.hash(0));
  EXPECT_EQ(IpGenAddr("0.0.0.0"), v4);
  EXPECT_EQ(IpGenAddr("::"), v6);
}

TEST(IpGenAddr, Ipv4FromHostOrder) {
  IpGenAddr a = IpGenAddr::ipv4(0x0a000001);
  EXPECT_EQ(a.af(), AddressFamily::ipv4_);
  EXPECT_EQ(a.v4(), 0x0a000001u);
  EXPECT_FALSE(a.isAddrZero());
  EXPECT_EQ(a.toString(), "10.0.0.1");
  EXPECT_EQ(a.bytes()[0], 10);
  EXPECT_EQ(a.bytes()[3], 1);
  EXPECT_EQ(a.bytes()[4], 0);
  EXPECT_EQ(IpGenAddr("10.0.0.1"), a);
  EXPECT_EQ(IpGenAddr("255.255.255.255").v4(), 0xffffffffu);
}

TEST(IpGenAddr, Ipv6FromBytes) {
  IpGenAddr::Bytes b{};
  b[0] = 0x20;
  b[1] = 0x01;
  b[15] = 1;
  IpGenAddr a = IpGenAddr::ipv6(b);
  EXPECT_EQ(a.af(), AddressFamily::ipv6_);
  EXPECT_EQ(a.bytes(), b);
  EXPECT_EQ(a.v4(), 0u);
  EXPECT_EQ(a.toString(), "2001::1");
}

TEST(IpGenAddr, Ipv6PrintsRfc5952Form) {
  struct Case {
    const char* in;
    const char* out;
  };
  for (auto [in, out] : std::vector<Case>{
           {"::", "::"},
           {"::1", "::1"},
           {"1::", "1::"},
           {"2001:db8::1", "2001:db8::1"},
           {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
           {"2001:0db8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
           {"2001:DB8::ABCD", "2001:db8::abcd"},
           {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // one zero group stays
           {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},           // the longer run wins
           {"0:0:0:0:0:0:0:0", "::"},
           {"fe80::1:2", "fe80::1:2"},
           {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
           {"::ffff:10.1.2.3", "::ffff:10.1.2.3"},
           {"::ffff:a01:203", "::ffff:10.1.2.3"},
           {"64:ff9b::1.2.3.4", "64:ff9b::102:304"},
       }) {
    IpGenAddr a(in);
    EXPECT_EQ(a.af(), AddressFamily::ipv6_) << in;
    EXPECT_EQ(a.toString(), out) << in;
    EXPECT_EQ(IpGenAddr(a.toString()), a) << in;
  }
}

TEST(IpGenAddr, BadTextIsRejected) {
  for (const char* text : {"",
                           "1.2.3",
                           "1.2.3.4.5",
                           "256.1.1.1",
                           "1.2.3.-4",
                           "01.2.3.4",
                           "1..2.3",
                           "1.2.3.4 ",
                           "a.b.c.d",
                           ":::",
                           "1:::2",
                           "1::2::3",
                           "12345::",
                           "1:2:3:4:5:6:7:8:9",
                           "1:2:3:4:5:6:7",
                           ":1:2:3:4:5:6:7",
                           "1:2:3:4:5:6:7:",
                           "::g",
                           "1.2.3.4::",
                           "::1.2.3",
                           "Unset"}) {
    EXPECT_THROW(IpGenAddr::fromText(text), Kiln::ParseError) << text;
  }
  EXPECT_EQ(errorOf([] { IpGenAddr("x"); }), "bad IP address 'x'");
}

TEST(IpGenAddr, OrdersByFamilyThenBytes) {
  std::vector<IpGenAddr> sorted{
      IpGenAddr(),           IpGenAddr("0.0.0.0"),  IpGenAddr("9.255.255.255"),
      IpGenAddr("10.0.0.1"), IpGenAddr("10.0.0.2"), IpGenAddr("200.0.0.0"),
      IpGenAddr("::"),       IpGenAddr("::1"),      IpGenAddr("2001:db8::")};
  for (size_t i = 0; i + 1 < sorted.size(); ++i) {
    EXPECT_LT(sorted[i], sorted[i + 1]) << sorted[i] << " < " << sorted[i + 1];
  }
  EXPECT_EQ(IpGenAddr("10.0.0.1") <=> IpGenAddr("10.0.0.1"), std::strong_ordering::equal);
}

TEST(IpGenAddr, HashFollowsValueAndSeed) {
  IpGenAddr a("10.0.0.1"), b = IpGenAddr::ipv4(0x0a000001);
  EXPECT_EQ(a.hash(3), b.hash(3));
  EXPECT_NE(a.hash(3), a.hash(4));
  EXPECT_NE(a.hash(3), IpGenAddr("10.0.0.2").hash(3));
}

TEST(IntfId, DefaultIsTheEmptyInterface) {
  IntfId i;
  EXPECT_TRUE(i.empty());
  EXPECT_EQ(i.id(), 0u);
  EXPECT_EQ(i.name(), "");
  EXPECT_EQ(i.shortName(), "");
  EXPECT_EQ(IntfId::fromText(""), i);
  EXPECT_EQ(IntfId::fromId(0), i);
}

TEST(IntfShortName, TracesAsTheShortNameWithoutBuildingOne) {
  for (const char* name : {"", "Ethernet1", "Ethernet3/1/2", "Vlan4094", "Port-Channel5",
                           "Loopback0", "Management1/1", "Ethernet4095/254/254"}) {
    const IntfId i = IntfId::fromText(name);
    std::ostringstream os;
    os << IntfShortName(i);
    EXPECT_EQ(os.str(), i.shortName()) << name;
  }
}

TEST(IntfId, NamesAndShortNames) {
  struct Case {
    const char* name;
    const char* shortName;
  };
  for (auto [name, shortName] : std::vector<Case>{{"Ethernet1", "Et1"},
                                                  {"Ethernet3/1", "Et3/1"},
                                                  {"Ethernet3/1/2", "Et3/1/2"},
                                                  {"Ethernet3/0", "Et3/0"},
                                                  {"Vlan100", "Vl100"},
                                                  {"Vlan4094", "Vl4094"},
                                                  {"Port-Channel5", "Po5"},
                                                  {"Loopback0", "Lo0"},
                                                  {"Management1", "Ma1"},
                                                  {"Management1/1", "Ma1/1"},
                                                  {"Ethernet4095/254/254", "Et4095/254/254"}}) {
    IntfId i(name);
    EXPECT_FALSE(i.empty()) << name;
    EXPECT_EQ(i.name(), name);
    EXPECT_EQ(i.shortName(), shortName);
    EXPECT_EQ(Kiln::toText(i), name);
    EXPECT_EQ(IntfId(shortName), i) << shortName;
    EXPECT_EQ(IntfId::fromId(i.id()), i) << name;
  }
}

TEST(IntfId, OrdersByTypeThenNumbers) {
  std::vector<const char*> sorted{"",
                                  "Ethernet2",
                                  "Ethernet3",
                                  "Ethernet3/1",
                                  "Ethernet3/1/1",
                                  "Ethernet3/2",
                                  "Ethernet10",
                                  "Port-Channel1",
                                  "Port-Channel20",
                                  "Vlan1",
                                  "Vlan100",
                                  "Loopback0",
                                  "Management1"};
  for (size_t i = 0; i + 1 < sorted.size(); ++i) {
    EXPECT_LT(IntfId(sorted[i]), IntfId(sorted[i + 1])) << sorted[i] << " < " << sorted[i + 1];
    EXPECT_LT(IntfId(sorted[i]).id(), IntfId(sorted[i + 1]).id());
  }
}

TEST(IntfId, BadNamesAreRejected) {
  for (const char* name :
       {"Foo1", "Ethernet", "ethernet1", "Ethernet01", "Ethernet1/", "Ethernet/1", "Ethernet1//2",
        "Ethernet1/2/3/4", "Ethernet1a", "Ethernet-1", "Vlan0", "Vlan4095", "Port-Channel1/1",
        "Ethernet4096", "Ethernet1/255", "Et", "Ethernet1 ", "Ethernet999999"}) {
    EXPECT_THROW(IntfId::fromText(name), Kiln::ParseError) << name;
  }
  EXPECT_EQ(errorOf([] { IntfId("Foo1"); }), "unknown interface name 'Foo1'");
}

TEST(IntfId, FromIdOfUnknownLayoutIsEmpty) {
  EXPECT_TRUE(IntfId::fromId(0xf0000000).empty());                    // no such type
  EXPECT_TRUE(IntfId::fromId(0x30000000).empty());                    // Vlan0
  EXPECT_TRUE(IntfId::fromId(IntfId("Ethernet1").id() | 1).empty());  // third number, no second
  EXPECT_TRUE(IntfId::fromId(IntfId("Vlan5").id() | 0x100).empty());  // Vlan has one number
}

TEST(IntfId, KernelNameInternsUnderAStableId) {
  const IntfId a = IntfId::fromKernelName("veth-a");
  EXPECT_FALSE(a.empty());
  EXPECT_TRUE(a.isKernelName());
  EXPECT_EQ(a.name(), "veth-a");
  EXPECT_EQ(IntfId::fromKernelName("veth-a"), a);
  EXPECT_EQ(IntfId::fromId(a.id()), a);
  const IntfId b = IntfId::fromKernelName("br0.100");
  EXPECT_NE(b, a);
  EXPECT_EQ(b.name(), "br0.100");
  EXPECT_EQ(IntfId::fromKernelName("veth-a").id(), a.id());
}

TEST(IntfId, KernelNamesOrderAfterEveryKnownType) {
  const IntfId k = IntfId::fromKernelName("eth0");
  for (const char* known : {"Ethernet4095/254/254", "Port-Channel4095", "Vlan4094", "Loopback4095",
                            "Management4095/254"}) {
    EXPECT_LT(IntfId(known), k) << known;
  }
}

TEST(IntfId, KernelNameOfAKnownFormIsTheKnownInterface) {
  EXPECT_EQ(IntfId::fromKernelName("Ethernet1"), IntfId("Ethernet1"));
  EXPECT_FALSE(IntfId::fromKernelName("Ethernet1").isKernelName());
  // "Et1" is only a short spelling of Ethernet1: the kernel device of that name is its own.
  const IntfId et1 = IntfId::fromKernelName("Et1");
  EXPECT_TRUE(et1.isKernelName());
  EXPECT_EQ(et1.name(), "Et1");
}

TEST(IntfId, BadKernelNamesAreRejected) {
  for (std::string name :
       {std::string(), std::string(16, 'a'), std::string("a/b"), std::string("a b"),
        std::string("a\tb"), std::string("a\nb"), std::string("a\x7f"), std::string("a\0b", 3)}) {
    EXPECT_THROW(IntfId::fromKernelName(name), Kiln::ParseError) << name;
  }
  EXPECT_EQ(errorOf([] { IntfId::fromKernelName("a/b"); }), "invalid kernel interface name 'a/b'");
  EXPECT_EQ(IntfId::fromKernelName(std::string(15, 'x')).name(), std::string(15, 'x'));
}

TEST(IntfId, FromTextStillRefusesKernelNames) {
  IntfId::fromKernelName("veth-b");
  EXPECT_THROW(IntfId::fromText("veth-b"), Kiln::ParseError);
  EXPECT_THROW(IntfId::fromText("eth0"), Kiln::ParseError);
}

TEST(IntfId, NameIntoWritesTheNameOrTheShortNameInPlace) {
  char text[IntfId::kNameCapacity];
  const IntfId longest = IntfId::fromText("Ethernet4095/254/254");
  EXPECT_EQ(std::string_view(text, longest.nameInto(text, false)), "Ethernet4095/254/254");
  EXPECT_EQ(std::string_view(text, longest.nameInto(text, true)), "Et4095/254/254");
  const IntfId vlan = IntfId::fromText("Vlan4094");
  EXPECT_EQ(std::string_view(text, vlan.nameInto(text, true)), vlan.shortName());
  EXPECT_EQ(std::string_view(text, vlan.nameInto(text, false)), "Vlan4094");
  const IntfId kernel = IntfId::fromKernelName("abcdefghijklmno");
  EXPECT_EQ(std::string_view(text, kernel.nameInto(text, true)), "abcdefghijklmno");
  EXPECT_EQ(std::string_view(text, kernel.nameInto(text, false)), "abcdefghijklmno");
  EXPECT_EQ(IntfId().nameInto(text, true), 0u);
}

TEST(IntfId, FromIdOfAKernelIndexNeverInternedIsEmpty) {
  EXPECT_TRUE(IntfId::fromId(IntfId::kKernelType << 28 | 0x0fffffff).empty());
}

TEST(IntfId, KernelNamePrintsAndTracesAsItselfWithoutAllocating) {
  const IntfId k = IntfId::fromKernelName("veth-trace");
  std::ostringstream os;
  os << "x";  // the stream's buffer exists before counting
  const Netval::IntfShortName shortName(k);
  std::ostringstream out;
  out.str(std::string(64, ' '));
  out.seekp(0);
  const size_t beforeStream = allocations;
  out << k << ' ' << shortName;
  EXPECT_EQ(allocations, beforeStream);
  EXPECT_EQ(out.str().substr(0, 21), "veth-trace veth-trace");
  EXPECT_EQ(Kiln::toText(k), "veth-trace");
  EXPECT_EQ(k.shortName(), "veth-trace");
}

TEST(IntfId, KnownNamePrintsWithoutAllocating) {
  std::ostringstream out;
  out.str(std::string(64, ' '));
  out.seekp(0);
  // Longer than std::string's inline buffer: building the name would allocate.
  const IntfId e = IntfId("Ethernet4095/254/254");
  const size_t before = allocations;
  out << e;
  EXPECT_EQ(allocations, before);
  EXPECT_EQ(out.str().substr(0, 20), "Ethernet4095/254/254");
}

TEST(IntfId, HashFollowsId) {
  EXPECT_EQ(IntfId("Ethernet1").hash(9), IntfId("Et1").hash(9));
  EXPECT_NE(IntfId("Ethernet1").hash(9), IntfId("Ethernet2").hash(9));
  EXPECT_NE(IntfId("Ethernet1").hash(9), IntfId("Ethernet1").hash(10));
}

// The id is kept as four bytes: interfaces that differ only in the lowest byte (the third
// number) or only in the highest (the type) stay apart, and the id reads back whole.
TEST(IntfId, IdsDifferingInOneByteStayApart) {
  const IntfId low("Ethernet3/1/1");
  const IntfId lowNext("Ethernet3/1/2");
  EXPECT_EQ((low.id() ^ lowNext.id()) >> 8, 0u);
  EXPECT_NE(low, lowNext);
  EXPECT_LT(low, lowNext);
  const IntfId vlan("Vlan1");
  const IntfId loopback("Loopback0");
  EXPECT_NE(vlan.id() >> 24, loopback.id() >> 24);
  EXPECT_NE(vlan, loopback);
  for (const IntfId intf : {low, lowNext, vlan, loopback}) {
    EXPECT_EQ(IntfId::fromId(intf.id()), intf) << intf;
    EXPECT_EQ(intf.hash(9), Core::hashMix(Core::hashCombine(9, intf.id()))) << intf;
  }
}

TEST(EthAddr, BothTextFormsParse) {
  EthAddr a("00:1c:73:aa:bb:cc");
  EXPECT_EQ(a.value(), 0x001c73aabbccu);
  EXPECT_EQ(EthAddr("001c.73aa.bbcc"), a);
  EXPECT_EQ(EthAddr("00:1C:73:AA:BB:CC"), a);
  EXPECT_EQ(EthAddr::fromText("001C.73AA.BBCC"), a);
  EXPECT_EQ(a.toString(), "00:1c:73:aa:bb:cc");
  EXPECT_EQ(EthAddr(a.toString()), a);
}

TEST(EthAddr, DefaultIsZero) {
  EthAddr a;
  EXPECT_TRUE(a.isZero());
  EXPECT_EQ(a.toString(), "00:00:00:00:00:00");
  EXPECT_FALSE(EthAddr(1).isZero());
  EXPECT_EQ(EthAddr(0xffffffffffffu).toString(), "ff:ff:ff:ff:ff:ff");
}

TEST(EthAddr, BadTextIsRejected) {
  for (const char* text : {"", "00:1c:73:aa:bb", "00:1c:73:aa:bb:cc:dd", "0:1c:73:aa:bb:cc",
                           "00-1c-73-aa-bb-cc", "00:1c:73:aa:bb:cg", "001c.73aa.bbc",
                           "001c:73aa:bbcc", "001c.73aa.bbcc.", "+0:1c:73:aa:bb:cc"}) {
    EXPECT_THROW(EthAddr::fromText(text), Kiln::ParseError) << text;
  }
  EXPECT_EQ(errorOf([] { EthAddr("zz"); }), "bad MAC address 'zz'");
}

TEST(EthAddr, OrdersAndHashesByValue) {
  EXPECT_LT(EthAddr(1), EthAddr(2));
  EXPECT_LT(EthAddr("00:00:00:00:00:ff"), EthAddr("00:00:00:00:01:00"));
  EXPECT_EQ(EthAddr(5).hash(1), EthAddr("00:00:00:00:00:05").hash(1));
  EXPECT_NE(EthAddr(5).hash(1), EthAddr(6).hash(1));
}

// The six bytes are held as three words: every bit comes back, each word alone tells two
// addresses apart, and order follows the whole value across words.
TEST(EthAddr, EveryBitOfTheFortyEightIsKept) {
  for (unsigned bit = 0; bit < 48; ++bit) {
    const uint64_t value = uint64_t{1} << bit;
    EXPECT_EQ(EthAddr(value).value(), value) << bit;
    EXPECT_NE(EthAddr(value), EthAddr()) << bit;
    EXPECT_FALSE(EthAddr(value).isZero()) << bit;
    EXPECT_EQ(EthAddr(value).hash(3), Core::hashOfWords(value, 3)) << bit;
  }
  EXPECT_EQ(EthAddr(0x123456789abcu).value(), 0x123456789abcu);
  EXPECT_EQ(EthAddr(0x123456789abcu).toString(), "12:34:56:78:9a:bc");
  EXPECT_LT(EthAddr(0x00000000ffffu), EthAddr(0x000000010000u));
  EXPECT_LT(EthAddr(0x0000ffffffffu), EthAddr(0x000100000000u));
  EXPECT_GT(EthAddr(0x000100000000u), EthAddr(0x0000ffff0001u));
}

}  // namespace
