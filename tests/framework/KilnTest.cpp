#include "framework/Kiln.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "framework/CoreHash.h"
#include "framework/Netval.h"

namespace {

using ::testing::HasSubstr;

// A nested value: two attributes, one a bounded string.
class Inner : public Kiln::Value<Inner> {
 public:
  Inner() = default;
  Inner(Kiln::String<10> label, int32_t level) : label_(std::move(label)), level_(level) {}

  static constexpr std::string_view kilnTypeName = "Test::Inner";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("label", &Inner::label_),
                           Kiln::attr("level", &Inner::level_));
  }

 private:
  Kiln::String<10> label_;
  int32_t level_ = 0;
};

// One attribute of every kind the reflection layer knows.
class Sample : public Kiln::Value<Sample> {
 public:
  Sample() = default;
  Sample(const char* begin, const char* end)
      : Sample(Sample::parse(std::string_view(begin, end - begin))) {}

  static constexpr std::string_view kilnTypeName = "Test::Sample";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("flag", &Sample::flag_), Kiln::attr("count", &Sample::count_),
                           Kiln::attr("name", &Sample::name_), Kiln::attr("inner", &Sample::inner_),
                           Kiln::attr("addr", &Sample::addr_), Kiln::attr("intf", &Sample::intf_),
                           Kiln::attr("mac", &Sample::mac_), Kiln::attr("list", &Sample::list_));
  }

  bool flag_ = false;
  uint32_t count_ = 0;
  Kiln::String<10> name_;
  Inner inner_;
  Netval::IpGenAddr addr_;
  Netval::IntfId intf_;
  Netval::EthAddr mac_;
  Kiln::Array<uint16_t, 3> list_;
};

class NoAttrs : public Kiln::Value<NoAttrs> {
 public:
  static constexpr std::string_view kilnTypeName = "Test::NoAttrs";
  static constexpr auto kilnAttrs() { return std::make_tuple(); }
};

constexpr std::string_view kDefaultText =
    "{flag=false, count=0, name=\"\", inner={label=\"\", level=0}, addr=unset, intf=, "
    "mac=00:00:00:00:00:00, list=[]}";

Sample fullSample() {
  Sample s;
  s.flag_ = true;
  s.count_ = 4000000000u;
  s.name_ = "red";
  s.inner_ = Inner("blue", -7);
  s.addr_ = Netval::IpGenAddr("10.0.0.1");
  s.intf_ = Netval::IntfId("Ethernet3/1");
  s.mac_ = Netval::EthAddr("00:1c:73:aa:bb:cc");
  s.list_.push(1);
  s.list_.push(65535);
  return s;
}

Sample roundTrip(const Sample& s) { return Sample::parse(s.toString()); }

std::string parseError(std::string_view text) {
  try {
    Sample::parse(text);
  } catch (const Kiln::ParseError& e) {
    return e.what();
  }
  return "no error";
}

TEST(KilnValue, DefaultValuePrintsEveryAttributeAndRoundTrips) {
  Sample s;
  EXPECT_EQ(s.toString(), kDefaultText);
  EXPECT_EQ(Kiln::toText(s), kDefaultText);
  EXPECT_EQ(roundTrip(s), s);
}

TEST(KilnValue, FullValuePrintsGenericTextForm) {
  EXPECT_EQ(fullSample().toString(),
            "{flag=true, count=4000000000, name=\"red\", inner={label=\"blue\", level=-7}, "
            "addr=10.0.0.1, intf=Ethernet3/1, mac=00:1c:73:aa:bb:cc, list=[1, 65535]}");
}

TEST(KilnValue, FullValueRoundTrips) {
  Sample s = fullSample();
  Sample back = roundTrip(s);
  EXPECT_EQ(back, s);
  EXPECT_EQ(back.toString(), s.toString());
}

TEST(KilnValue, CharacterRangeConstructorParses) {
  std::string text = fullSample().toString();
  Sample s(text.data(), text.data() + text.size());
  EXPECT_EQ(s, fullSample());
}

TEST(KilnValue, StringsWithSpecialCharactersRoundTrip) {
  for (const char* name : {"a\"b", "x,y", "{}", "[]", "\\", "\\\"", "a=b, c", "\"", " "}) {
    Sample s;
    s.name_ = name;
    s.inner_ = Inner(name, 1);
    Sample back = roundTrip(s);
    EXPECT_EQ(back, s) << name;
    EXPECT_EQ(back.name_.str(), name);
  }
}

TEST(KilnValue, StringsAreQuotedWithEscapes) {
  Sample s;
  s.name_ = "a\"b\\c";
  EXPECT_THAT(s.toString(), HasSubstr("name=\"a\\\"b\\\\c\""));
}

TEST(KilnValue, OtherLeafValuesRoundTrip) {
  Sample s;
  s.addr_ = Netval::IpGenAddr("2001:db8::1");
  EXPECT_EQ(roundTrip(s), s);
  s.addr_ = Netval::IpGenAddr(Netval::AddressFamily::ipv4_);
  EXPECT_EQ(roundTrip(s), s);
  EXPECT_EQ(roundTrip(s).addr_.af(), Netval::AddressFamily::ipv4_);
  s.intf_ = Netval::IntfId("Port-Channel5");
  s.list_.countIs(3);
  EXPECT_EQ(roundTrip(s), s);
}

TEST(KilnValue, TypeWithoutAttributes) {
  NoAttrs a, b;
  EXPECT_EQ(a.toString(), "{}");
  EXPECT_EQ(NoAttrs::parse("{}"), a);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a <=> b, std::strong_ordering::equal);
  EXPECT_FALSE(static_cast<bool>(a));
  EXPECT_THROW(NoAttrs::parse("{x=1}"), Kiln::ParseError);
}

TEST(KilnValue, OrderingFollowsAttributeOrder) {
  Sample low, high;
  low.count_ = 5;
  high.flag_ = true;  // the first attribute decides although count is smaller
  EXPECT_LT(low, high);
  EXPECT_GT(high, low);

  Sample a = fullSample(), b = fullSample();
  b.inner_ = Inner("blue", -6);
  EXPECT_LT(a, b);
  b = a;
  b.list_.push(0);  // a longer list with the same prefix sorts after
  EXPECT_LT(a, b);
  EXPECT_EQ(a <=> a, std::strong_ordering::equal);
}

TEST(KilnValue, OrderingOfLeavesUsesTheirOwnOrder) {
  Sample a, b;
  a.intf_ = Netval::IntfId("Ethernet2");
  b.intf_ = Netval::IntfId("Ethernet10");
  EXPECT_LT(a, b);
  a.name_ = "b";
  b.name_ = "ab";
  EXPECT_GT(a, b);
}

TEST(KilnValue, EqualityComparesEveryAttribute) {
  Sample a = fullSample();
  Sample b = a;
  EXPECT_TRUE(a.isEq(b));
  EXPECT_TRUE(a.isEq(a));
  b.mac_ = Netval::EthAddr(1);
  EXPECT_FALSE(a.isEq(b));
  EXPECT_NE(a, b);
}

TEST(KilnValue, HashMixesAttributesInOrder) {
  Sample s = fullSample();
  uint32_t h = 42;
  for (uint32_t part :
       {Core::hashOf(s.flag_, 0), Core::hashOf(s.count_, 0), s.name_.hash(0), s.inner_.hash(0),
        s.addr_.hash(0), s.intf_.hash(0), s.mac_.hash(0), s.list_.hash(0)}) {
    h = Core::hashCombine(h, part);
  }
  EXPECT_EQ(s.hash(42), Core::hashMix(h));
}

TEST(KilnValue, HashDependsOnlyOnAttributes) {
  Sample a = fullSample();
  Sample b = roundTrip(a);
  EXPECT_EQ(a.hash(7), b.hash(7));
  EXPECT_EQ(Core::hashOf(a, 7), a.hash(7));
  EXPECT_NE(a.hash(7), a.hash(8));
  b.count_ += 1;
  EXPECT_NE(a.hash(7), b.hash(7));
}

TEST(KilnValue, OperatorBoolIsTrueWhenAnyAttributeDiffers) {
  EXPECT_FALSE(static_cast<bool>(Sample()));
  std::vector<Sample> changed(8);
  changed[0].flag_ = true;
  changed[1].count_ = 1;
  changed[2].name_ = "x";
  changed[3].inner_ = Inner("", 1);
  changed[4].addr_ = Netval::IpGenAddr(Netval::AddressFamily::ipv6_);
  changed[5].intf_ = Netval::IntfId("Loopback0");
  changed[6].mac_ = Netval::EthAddr(1);
  changed[7].list_.push(0);
  for (const Sample& s : changed) EXPECT_TRUE(static_cast<bool>(s)) << s;
}

TEST(KilnValue, ForEachAttrVisitsNamesInDeclarationOrder) {
  std::vector<std::string> names;
  Kiln::forEachAttr(Sample(),
                    [&](std::string_view name, const auto&) { names.emplace_back(name); });
  EXPECT_THAT(names, ::testing::ElementsAre("flag", "count", "name", "inner", "addr", "intf", "mac",
                                            "list"));
}

TEST(KilnParse, MissingEqualsNamesAttributeAndOffset) {
  EXPECT_EQ(parseError("{flag:true"), "expected '=' after attribute 'flag' at offset 5");
}

TEST(KilnParse, WrongAttributeNameNamesExpectedAttribute) {
  EXPECT_EQ(parseError("{flag=true, cnt=0"), "expected attribute 'count' at offset 12");
}

TEST(KilnParse, MissingSeparatorAndBraces) {
  EXPECT_EQ(parseError("flag=true"), "expected '{' at offset 0");
  EXPECT_EQ(parseError("{flag=true,count=0"),
            "expected ', ' before attribute 'count' at offset 10");
  std::string text(kDefaultText);
  text.pop_back();
  EXPECT_EQ(parseError(text),
            "expected '}' after attribute 'list' at offset " + std::to_string(text.size()));
  EXPECT_THAT(parseError("{flag=false, count=0, name=\"\", inner=1"),
              HasSubstr("expected '{' for attribute 'inner' at offset 37"));
}

TEST(KilnParse, TrailingTextIsRejected) {
  std::string text = std::string(kDefaultText) + " x";
  EXPECT_EQ(parseError(text),
            "unexpected text after the value at offset " + std::to_string(kDefaultText.size()));
}

TEST(KilnParse, BadLeafValueCarriesLeafMessage) {
  std::string text(kDefaultText);
  text.replace(text.find("unset"), 5, "10.0.0");
  EXPECT_THAT(parseError(text), HasSubstr("bad value for attribute 'addr' at offset"));
  EXPECT_THAT(parseError(text), HasSubstr("bad IP address '10.0.0'"));
}

TEST(KilnParse, BadScalarsAndStrings) {
  EXPECT_EQ(parseError("{flag=yes"), "expected true or false for attribute 'flag' at offset 6");
  EXPECT_EQ(parseError("{flag=true, count=-1"),
            "expected an integer for attribute 'count' at offset 18");
  EXPECT_EQ(parseError("{flag=true, count=1x"),
            "expected an integer for attribute 'count' at offset 18");
  EXPECT_EQ(parseError("{flag=true, count=1, name=red"),
            "expected '\"' to open the string for attribute 'name' at offset 26");
  EXPECT_EQ(parseError("{flag=true, count=1, name=\"red"),
            "unterminated string for attribute 'name' at offset 26");
  EXPECT_EQ(parseError("{flag=true, count=1, name=\"\\n\""),
            "bad escape in string for attribute 'name' at offset 27");
}

TEST(KilnParse, OutOfRangeValuesThrowRangeError) {
  std::string text(kDefaultText);
  text.replace(text.find("count=0"), 7, "count=4294967296");
  EXPECT_THROW(Sample::parse(text), Kiln::RangeError);

  text = kDefaultText;
  text.replace(text.find("name=\"\""), 7, "name=\"12345678901\"");
  try {
    Sample::parse(text);
    FAIL() << "no exception";
  } catch (const Kiln::RangeError& e) {
    EXPECT_STREQ(e.what(), "Kiln::String::bytes > maxLength() not allowed");
  }

  text = kDefaultText;
  text.replace(text.find("list=[]"), 7, "list=[1, 2, 3, 4]");
  EXPECT_THROW(Sample::parse(text), Kiln::RangeError);
}

TEST(KilnParse, NegativeSignedIntegersRoundTrip) {
  Sample s;
  s.inner_ = Inner("", INT32_MIN);
  EXPECT_EQ(roundTrip(s), s);
}

TEST(KilnString, BoundIsEnforced) {
  using S = Kiln::String<3>;
  EXPECT_EQ(S::maxLength(), 3u);
  EXPECT_EQ(S("abc").size(), 3u);
  EXPECT_EQ(S(std::string("ab")).str(), "ab");
  EXPECT_EQ(S(std::string_view("a")).str(), "a");
  EXPECT_EQ(S::fromText("xyz"), S("xyz"));
  try {
    S s("abcd");
    FAIL() << "no exception";
  } catch (const Kiln::RangeError& e) {
    EXPECT_STREQ(e.what(), "Kiln::String::bytes > maxLength() not allowed");
  }
  EXPECT_THROW(S::fromText("abcd"), std::out_of_range);
}

TEST(KilnString, ComparesAndHashesByBytes) {
  using S = Kiln::String<10>;
  EXPECT_TRUE(S().empty());
  EXPECT_LT(S("ab"), S("b"));
  EXPECT_LT(S("a"), S("ab"));
  EXPECT_EQ(S("red"), "red");
  EXPECT_EQ(S("red").hash(5), Core::hashString("red", 5));
  EXPECT_STREQ(S("red").c_str(), "red");
  EXPECT_EQ(Kiln::toText(S("a\"b")), "a\"b");  // raw bytes outside a composite
}

// Texts of 15 bytes and fewer are held in place, longer ones in a heap copy: every length on
// either side of that edge, up to the bound.
std::string textOfLength(size_t n) {
  std::string text;
  for (size_t i = 0; i < n; ++i) text.push_back(char('a' + i % 26));
  return text;
}

TEST(KilnString, TextOfEveryLengthUpToTheBoundIsKept) {
  using S = Kiln::String<100>;
  for (size_t n = 0; n <= S::maxLength(); ++n) {
    const std::string text = textOfLength(n);
    const S s(text);
    EXPECT_EQ(s.str(), text) << n;
    EXPECT_EQ(s.size(), n);
    EXPECT_EQ(std::string(s.c_str()), text) << n;
    EXPECT_EQ(s.hash(7), Core::hashString(text, 7)) << n;
    const S copy(s);
    EXPECT_EQ(copy, s) << n;
    EXPECT_EQ(copy.str(), text) << n;
  }
}

TEST(KilnString, TextsDifferingInOneByteOrInLengthAreUnequal) {
  using S = Kiln::String<100>;
  for (const size_t n : {1u, 14u, 15u, 16u, 40u}) {
    const std::string text = textOfLength(n);
    std::string other = text;
    other.back() = '#';
    EXPECT_NE(S(text), S(other)) << n;
    EXPECT_NE(S(text), S(text + "a")) << n;
    EXPECT_NE(S(text), S(text.substr(0, n - 1))) << n;
    EXPECT_EQ(S(text), S(std::string(text))) << n;
  }
  // Bytes after a zero byte count.
  EXPECT_NE(S(std::string_view("a\0b", 3)), S(std::string_view("a\0c", 3)));
  EXPECT_EQ(S(std::string_view("a\0b", 3)).size(), 3u);
}

TEST(KilnString, OrderIsByBytesAcrossShortAndLongTexts) {
  using S = Kiln::String<100>;
  const S fifteen(textOfLength(15));
  const S sixteen(textOfLength(16));
  const S longer(textOfLength(40));
  EXPECT_LT(fifteen, sixteen);
  EXPECT_LT(sixteen, longer);
  EXPECT_GT(S("b"), longer);
  EXPECT_LT(S(""), fifteen);
  EXPECT_EQ(longer <=> S(textOfLength(40)), std::strong_ordering::equal);
}

TEST(KilnString, CopiesMovesAndAssignmentsKeepTheText) {
  using S = Kiln::String<100>;
  for (const size_t n : {0u, 15u, 16u, 100u}) {
    const std::string text = textOfLength(n);
    S source(text);
    S moved(std::move(source));
    EXPECT_EQ(moved.str(), text) << n;
    EXPECT_TRUE(source.empty()) << n;  // NOLINT(bugprone-use-after-move): moved-from is empty
    for (const size_t m : {0u, 15u, 16u, 100u}) {
      S target(textOfLength(m));
      target = moved;
      EXPECT_EQ(target.str(), text) << n << " over " << m;
      S other(textOfLength(m));
      other = std::move(target);
      EXPECT_EQ(other.str(), text) << n << " over " << m;
    }
    const S& self = moved;
    moved = self;
    EXPECT_EQ(moved.str(), text) << n;
  }
}

TEST(KilnString, KeepsNamesInSixteenBytes) {
  // Keys carry VRF names: the size of a key is part of every table's size.
  EXPECT_EQ(sizeof(Kiln::String<100>), 16u);
  EXPECT_EQ(sizeof(Kiln::String<3>), 16u);
}

TEST(KilnArray, CountIsBounded) {
  Kiln::Array<int, 2> a;
  EXPECT_EQ(a.maxCount(), 2u);
  EXPECT_TRUE(a.empty());
  a.countIs(2);
  EXPECT_EQ(a.count(), 2u);
  try {
    a.countIs(3);
    FAIL() << "no exception";
  } catch (const Kiln::RangeError& e) {
    EXPECT_STREQ(e.what(), "Kiln::Array::count > maxCount() not allowed");
  }
  EXPECT_EQ(a.count(), 2u);
  EXPECT_THROW(a.push(1), Kiln::RangeError);
}

TEST(KilnArray, IndexIsCheckedAgainstCount) {
  Kiln::Array<int, 4> a;
  a.push(7);
  EXPECT_EQ(a[0], 7);
  EXPECT_EQ(a.at(0), 7);
  EXPECT_THROW(a[1], Kiln::RangeError);
  EXPECT_THROW(a.at(1), Kiln::RangeError);
  a[0] = 8;
  EXPECT_EQ(a.at(0), 8);
}

TEST(KilnArray, ShrinkingResetsDroppedElements) {
  Kiln::Array<int, 4> a;
  a.push(1);
  a.push(2);
  a.countIs(1);
  a.countIs(2);
  EXPECT_EQ(a[1], 0);
}

TEST(KilnArray, ComparesOnlyCountedElements) {
  Kiln::Array<int, 4> a, b;
  a.push(1);
  b.push(1);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(3), b.hash(3));
  b.push(0);
  EXPECT_NE(a, b);
  EXPECT_LT(a, b);
  EXPECT_NE(a.hash(3), b.hash(3));
}

// The message of the RangeError that `raise` throws.
std::string rangeError(void (*raise)()) {
  try {
    raise();
  } catch (const Kiln::RangeError& e) {
    return e.what();
  }
  return "no error";
}

// The bound errors are public so that a type storing an array its own way fails like Array.
TEST(KilnArray, PublicBoundErrorsCarryTheArrayTexts) {
  EXPECT_EQ(rangeError(Kiln::throwArrayCountTooLarge),
            "Kiln::Array::count > maxCount() not allowed");
  EXPECT_EQ(rangeError(Kiln::throwArrayIndexOutOfRange),
            "Kiln::Array::index >= count() not allowed");
  EXPECT_EQ(rangeError(Kiln::throwStringTooLong), "Kiln::String::bytes > maxLength() not allowed");
}

TEST(KilnArray, PrintListOfAVectorReadsLikeTheArray) {
  Kiln::Array<Inner, 3> array;
  array.push(Inner("a", 1));
  array.push(Inner("b", -2));
  const std::vector<Inner> vector(array.begin(), array.end());
  std::ostringstream fromArray;
  std::ostringstream fromVector;
  Kiln::printList(fromArray, array);
  Kiln::printList(fromVector, vector);
  EXPECT_EQ(fromVector.str(), "[{label=\"a\", level=1}, {label=\"b\", level=-2}]");
  EXPECT_EQ(fromVector.str(), fromArray.str());
  std::ostringstream empty;
  Kiln::printList(empty, std::vector<int>{});
  EXPECT_EQ(empty.str(), "[]");
}

TEST(KilnToText, PrintsAnyPrintableValue) {
  EXPECT_EQ(Kiln::toText(17), "17");
  EXPECT_EQ(Kiln::toText(Netval::IntfId("Vlan100")), "Vlan100");
}

}  // namespace
