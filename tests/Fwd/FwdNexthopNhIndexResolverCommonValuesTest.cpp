#include <gtest/gtest.h>

#include <compare>
#include <string>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "support/FwdTestValues.h"

namespace {

using namespace FwdL3Unicast;
using namespace FwdTest;

// Prints a value, parses the text back through the character-range constructor and returns it.
template <class T>
T roundTrip(const T& value) {
  const std::string text = value.toString();
  return T(text.data(), text.data() + text.size());
}

TEST(NexthopNhIndexResolverKey, DefaultIsEmptyAndFalse) {
  NexthopNhIndexResolverKey k;
  EXPECT_TRUE(k.vrfName().empty());
  EXPECT_EQ(k.nexthop(), Netval::IpGenAddr());
  EXPECT_TRUE(k.intfId().empty());
  EXPECT_FALSE(static_cast<bool>(k));
}

TEST(NexthopNhIndexResolverKey, AnyAttributeMakesItTrue) {
  EXPECT_TRUE(static_cast<bool>(NexthopNhIndexResolverKey(vrf("red"), {}, {})));
  EXPECT_TRUE(static_cast<bool>(NexthopNhIndexResolverKey({}, ip("10.0.0.1"), {})));
  EXPECT_TRUE(static_cast<bool>(NexthopNhIndexResolverKey({}, {}, intf("Ethernet1"))));
}

TEST(NexthopNhIndexResolverKey, AccessorsReturnConstructorArguments) {
  NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  EXPECT_EQ(k.vrfName(), vrf("red"));
  EXPECT_EQ(k.nexthop(), ip("10.0.0.1"));
  EXPECT_EQ(k.intfId(), intf("Ethernet1"));
}

TEST(NexthopNhIndexResolverKey, VrfNameOver100BytesThrowsRangeError) {
  const std::string longest(100, 'v');
  EXPECT_EQ(key(longest, "10.0.0.1", "Ethernet1").vrfName().size(), 100u);
  try {
    key(longest + "v", "10.0.0.1", "Ethernet1");
    FAIL() << "a 101-byte VRF name was accepted";
  } catch (const Kiln::RangeError& e) {
    EXPECT_STREQ(e.what(), "Kiln::String::bytes > maxLength() not allowed");
  }
}

TEST(NexthopNhIndexResolverKey, KeysDifferingOnlyInInterfaceSortByNumericId) {
  // By name "Ethernet10" < "Ethernet2"; by numeric id Ethernet2 comes first.
  NexthopNhIndexResolverKey two = key("red", "10.0.0.1", "Ethernet2");
  NexthopNhIndexResolverKey ten = key("red", "10.0.0.1", "Ethernet10");
  EXPECT_NE(two, ten);
  EXPECT_LT(two, ten);
  EXPECT_GT(ten, two);
}

TEST(NexthopNhIndexResolverKey, OrdersByVrfThenNexthopThenInterface) {
  EXPECT_LT(key("a", "10.0.0.9", "Ethernet9"), key("b", "10.0.0.1", "Ethernet1"));
  EXPECT_LT(key("a", "10.0.0.1", "Ethernet9"), key("a", "10.0.0.9", "Ethernet1"));
  EXPECT_LT(key("a", "10.0.0.1", "Ethernet1"), key("a", "10.0.0.1", "Ethernet9"));
}

TEST(NexthopNhIndexResolverKey, ComparedWithItselfIsEqual) {
  NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  EXPECT_EQ(k <=> k, std::strong_ordering::equal);
  EXPECT_TRUE(k.isEq(k));
  EXPECT_EQ(k <=> key("red", "10.0.0.1", "Ethernet1"), std::strong_ordering::equal);
}

TEST(NexthopNhIndexResolverKey, HashDependsOnEveryAttributeAndSeed) {
  NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  EXPECT_EQ(k.hash(7), key("red", "10.0.0.1", "Ethernet1").hash(7));
  EXPECT_NE(k.hash(7), k.hash(8));
  EXPECT_NE(k.hash(7), key("blue", "10.0.0.1", "Ethernet1").hash(7));
  EXPECT_NE(k.hash(7), key("red", "10.0.0.2", "Ethernet1").hash(7));
  EXPECT_NE(k.hash(7), key("red", "10.0.0.1", "Ethernet2").hash(7));
}

TEST(NexthopNhIndexResolverKey, TextFormRoundTrips) {
  NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  EXPECT_EQ(k.toString(), "{vrfName=\"red\", nexthop=10.0.0.1, intfId=Ethernet1}");
  EXPECT_EQ(roundTrip(k), k);
  EXPECT_EQ(roundTrip(NexthopNhIndexResolverKey()), NexthopNhIndexResolverKey());
}

TEST(NexthopNhIndexResolverKey, MalformedTextThrowsParseError) {
  const std::string text = "{vrfName=\"red\", nexthop=10.0.0.1}";
  EXPECT_THROW(NexthopNhIndexResolverKey(text.data(), text.data() + text.size()), Kiln::ParseError);
}

TEST(NexthopIntfId, IsBuiltFromKeyAndRebuildsIt) {
  NexthopNhIndexResolverKey k = key("red", "10.0.0.1", "Ethernet1");
  NexthopIntfId n(k);
  EXPECT_EQ(n, nhIntf("10.0.0.1", "Ethernet1"));
  EXPECT_EQ(NexthopNhIndexResolverKey(vrf("red"), n), k);
}

TEST(NexthopIntfId, OrdersByNexthopThenInterfaceId) {
  EXPECT_LT(nhIntf("10.0.0.1", "Ethernet9"), nhIntf("10.0.0.2", "Ethernet1"));
  EXPECT_LT(nhIntf("10.0.0.1", "Ethernet2"), nhIntf("10.0.0.1", "Ethernet10"));
  EXPECT_FALSE(static_cast<bool>(NexthopIntfId()));
  EXPECT_TRUE(static_cast<bool>(nhIntf("10.0.0.1", "")));
}

TEST(NexthopIntfId, HashDependsOnBothAttributes) {
  NexthopIntfId n = nhIntf("10.0.0.1", "Ethernet1");
  EXPECT_EQ(n.hash(0), nhIntf("10.0.0.1", "Ethernet1").hash(0));
  EXPECT_NE(n.hash(0), nhIntf("10.0.0.2", "Ethernet1").hash(0));
  EXPECT_NE(n.hash(0), nhIntf("10.0.0.1", "Ethernet2").hash(0));
}

TEST(NexthopIntfId, TextFormRoundTrips) {
  NexthopIntfId n = nhIntf("10.0.0.1", "Ethernet1");
  EXPECT_EQ(n.toString(), "{nexthop=10.0.0.1, intfId=Ethernet1}");
  EXPECT_EQ(roundTrip(n), n);
}

TEST(NexthopNhIndexResolverStatus, DefaultKeyWithIndexZeroIsFalse) {
  EXPECT_FALSE(static_cast<bool>(NexthopNhIndexResolverStatus()));
  EXPECT_FALSE(static_cast<bool>(NexthopNhIndexResolverStatus(NexthopNhIndexResolverKey(), 0)));
}

TEST(NexthopNhIndexResolverStatus, DefaultKeyWithOtherIndexIsTrue) {
  EXPECT_TRUE(static_cast<bool>(NexthopNhIndexResolverStatus(NexthopNhIndexResolverKey(), 1)));
  EXPECT_TRUE(static_cast<bool>(NexthopNhIndexResolverStatus(
      NexthopNhIndexResolverKey(), NexthopNhIndexResolverConstants::invalidNhIndex())));
  EXPECT_TRUE(
      static_cast<bool>(NexthopNhIndexResolverStatus(key("red", "10.0.0.1", "Ethernet1"), 0)));
}

TEST(NexthopNhIndexResolverStatus, EqualOnlyWhenKeyAndIndexAreEqual) {
  NexthopNhIndexResolverStatus s(key("red", "10.0.0.1", "Ethernet1"), 5);
  EXPECT_EQ(s, s);
  EXPECT_EQ(s, NexthopNhIndexResolverStatus(key("red", "10.0.0.1", "Ethernet1"), 5));
  EXPECT_NE(s, NexthopNhIndexResolverStatus(key("red", "10.0.0.1", "Ethernet1"), 6));
  EXPECT_NE(s, NexthopNhIndexResolverStatus(key("red", "10.0.0.1", "Ethernet2"), 5));
  EXPECT_EQ(s.key(), key("red", "10.0.0.1", "Ethernet1"));
  EXPECT_EQ(s.nhIndex(), 5u);
}

TEST(NexthopNhIndexResolverStatus, OrdersByKeyThenIndex) {
  EXPECT_LT(NexthopNhIndexResolverStatus(key("a", "10.0.0.1", "Ethernet1"), 9),
            NexthopNhIndexResolverStatus(key("b", "10.0.0.1", "Ethernet1"), 1));
  EXPECT_LT(NexthopNhIndexResolverStatus(key("a", "10.0.0.1", "Ethernet1"), 1),
            NexthopNhIndexResolverStatus(key("a", "10.0.0.1", "Ethernet1"), 2));
}

TEST(NexthopNhIndexResolverStatus, TextFormRoundTrips) {
  NexthopNhIndexResolverStatus s(key("red", "10.0.0.1", "Ethernet1"), 4294967294u);
  EXPECT_EQ(s.toString(),
            "{key={vrfName=\"red\", nexthop=10.0.0.1, intfId=Ethernet1}, nhIndex=4294967294}");
  EXPECT_EQ(roundTrip(s), s);
}

TEST(NexthopNhIndexResolverConstants, InvalidNhIndexIsAllOnes) {
  static_assert(NexthopNhIndexResolverConstants::invalidNhIndex() == 0xFFFFFFFFu);
  EXPECT_EQ(NexthopNhIndexResolverConstants::invalidNhIndex(), 4294967295u);
}

TEST(NexthopNhIndexResolverConstants, ValuesAlwaysCompareEqual) {
  NexthopNhIndexResolverConstants a, b;
  EXPECT_EQ(a, b);
  EXPECT_EQ(a <=> b, std::strong_ordering::equal);
  EXPECT_FALSE(static_cast<bool>(a));
  EXPECT_EQ(a.toString(), "{}");
  EXPECT_EQ(roundTrip(a), b);
}

TEST(NexthopToViaNexthopMapEntry, ComparesByRequestThenVia) {
  NexthopToViaNexthopMapEntry e(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254"));
  EXPECT_EQ(e.nexthopIntfId(), nhIntf("10.0.0.1", "Ethernet1"));
  EXPECT_EQ(e.viaNexthop(), ip("10.0.0.254"));
  EXPECT_LT(e, NexthopToViaNexthopMapEntry(nhIntf("10.0.0.2", "Ethernet1"), ip("10.0.0.1")));
  EXPECT_LT(e, NexthopToViaNexthopMapEntry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.255")));
  EXPECT_NE(e, NexthopToViaNexthopMapEntry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.253")));
  EXPECT_FALSE(static_cast<bool>(NexthopToViaNexthopMapEntry()));
  EXPECT_TRUE(static_cast<bool>(e));
}

TEST(NexthopToViaNexthopMapEntry, HashDependsOnEveryAttribute) {
  NexthopToViaNexthopMapEntry e(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254"));
  EXPECT_EQ(e.hash(3), NexthopToViaNexthopMapEntry(e).hash(3));
  EXPECT_NE(e.hash(3),
            NexthopToViaNexthopMapEntry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.253")).hash(3));
  EXPECT_NE(e.hash(3),
            NexthopToViaNexthopMapEntry(nhIntf("10.0.0.1", "Ethernet2"), ip("10.0.0.254")).hash(3));
}

TEST(NexthopToViaNexthopMapEntry, TextFormRoundTrips) {
  NexthopToViaNexthopMapEntry e(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254"));
  EXPECT_EQ(e.toString(),
            "{nexthopIntfId={nexthop=10.0.0.1, intfId=Ethernet1}, viaNexthop=10.0.0.254}");
  EXPECT_EQ(roundTrip(e), e);
}

TEST(NexthopToViaNexthopMacMapEntry, ComparesByRequestThenViaThenMac) {
  NexthopToViaNexthopMacMapEntry e(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254"),
                                   mac("00:1c:73:00:00:02"));
  EXPECT_EQ(e.macAddr(), mac("00:1c:73:00:00:02"));
  EXPECT_LT(e, NexthopToViaNexthopMacMapEntry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254"),
                                              mac("00:1c:73:00:00:03")));
  EXPECT_GT(e, NexthopToViaNexthopMacMapEntry(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.253"),
                                              mac("00:1c:73:00:00:09")));
  EXPECT_NE(e.hash(0), NexthopToViaNexthopMacMapEntry(nhIntf("10.0.0.1", "Ethernet1"),
                                                      ip("10.0.0.254"), mac("00:1c:73:00:00:03"))
                           .hash(0));
}

TEST(NexthopToViaNexthopMacMapEntry, TextFormRoundTrips) {
  NexthopToViaNexthopMacMapEntry e(nhIntf("10.0.0.1", "Ethernet1"), ip("10.0.0.254"),
                                   mac("00:1c:73:aa:bb:cc"));
  EXPECT_EQ(e.toString(),
            "{nexthopIntfId={nexthop=10.0.0.1, intfId=Ethernet1}, viaNexthop=10.0.0.254, "
            "macAddr=00:1c:73:aa:bb:cc}");
  EXPECT_EQ(roundTrip(e), e);
}

TEST(ViaNexthopMacToNhIndexMapEntry, ComparesByRequestThenIndex) {
  ViaNexthopMacToNhIndexMapEntry e(nhIntf("10.0.0.1", "Ethernet1"), 7);
  EXPECT_EQ(e.nhIndex(), 7u);
  EXPECT_EQ(e, ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 7));
  EXPECT_NE(e, ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 8));
  EXPECT_NE(e, ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet2"), 7));
  EXPECT_LT(e, ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 0xFFFFFFF0u));
  EXPECT_LT(e, ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.2", "Ethernet1"), 0));
  EXPECT_NE(e.hash(0), ViaNexthopMacToNhIndexMapEntry(nhIntf("10.0.0.1", "Ethernet1"), 8).hash(0));
}

TEST(ViaNexthopMacToNhIndexMapEntry, TextFormRoundTrips) {
  ViaNexthopMacToNhIndexMapEntry e(nhIntf("10.0.0.1", "Ethernet1"), 3000000000u);
  EXPECT_EQ(e.toString(),
            "{nexthopIntfId={nexthop=10.0.0.1, intfId=Ethernet1}, nhIndex=3000000000}");
  EXPECT_EQ(roundTrip(e), e);
}

}  // namespace
