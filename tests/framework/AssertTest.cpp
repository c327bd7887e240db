// Built with NDEBUG to show that assertions are never compiled out.
#ifndef NDEBUG
#define NDEBUG
#endif

#include "framework/Assert.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

// Functions with known signatures that assert; each records the line of its assertion.
namespace AssertTestUnit {

int assertLine = 0;
int evaluations = 0;

void checkTwo(const int& x) {
  assertLine = __LINE__ + 2;
  // clang-format off
  CORE_ASSERT( x == 2 );
  // clang-format on
}

struct Coll {
  bool configHas(int key) const { return key == 1; }
};

void checkAbsent(const Coll& coll, int key) {
  assertLine = __LINE__ + 2;
  // clang-format off
  CORE_ASSERT(!coll.configHas( key ));
  // clang-format on
}

template <class T>
void checkPositive(const T& value) {
  assertLine = __LINE__ + 1;
  CORE_ASSERT(++evaluations && value > 0);
}

}  // namespace AssertTestUnit

namespace {

// The text as a POSIX extended regular expression that matches it literally.
std::string literal(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

std::string expectedMessage(std::string_view expression, std::string_view function) {
  return literal("Assertion failed: \"" + std::string(expression) + "\" in AssertTest line " +
                 std::to_string(AssertTestUnit::assertLine) + ", function " +
                 std::string(function) + "\n");
}

TEST(Assert, PassingAssertionEvaluatesOnceAndReturns) {
  AssertTestUnit::evaluations = 0;
  AssertTestUnit::checkPositive(5);
  EXPECT_EQ(AssertTestUnit::evaluations, 1);
}

TEST(AssertDeathTest, MessageNamesExpressionUnitLineAndSignature) {
  AssertTestUnit::checkTwo(2);  // records the line
  EXPECT_DEATH(AssertTestUnit::checkTwo(3),
               expectedMessage("x == 2", "void AssertTestUnit::checkTwo(const int&)"));
}

TEST(AssertDeathTest, ExpressionKeepsItsInnerBlanks) {
  AssertTestUnit::checkAbsent({}, 2);
  EXPECT_DEATH(AssertTestUnit::checkAbsent({}, 1),
               expectedMessage("!coll.configHas( key )",
                               "void AssertTestUnit::checkAbsent(const Coll&, int)"));
}

TEST(AssertDeathTest, TemplateSignatureNamesItsArguments) {
  AssertTestUnit::checkPositive(1);
  EXPECT_DEATH(AssertTestUnit::checkPositive(-1),
               expectedMessage("++evaluations && value > 0",
                               "void AssertTestUnit::checkPositive(const T&) [with T = int]"));
}

TEST(Assert, SourceUnitIsTheBaseNameWithoutExtension) {
  static_assert(Core::sourceUnit("/work/Fwd/FwdNexthopNhIndexResolverSm.cpp") ==
                "FwdNexthopNhIndexResolverSm");
  static_assert(Core::sourceUnit("Plain.h") == "Plain");
  static_assert(Core::sourceUnit("dir/NoExtension") == "NoExtension");
  EXPECT_EQ(Core::sourceUnit(__FILE__), "AssertTest");
}

}  // namespace
