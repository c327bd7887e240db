#include "framework/L3VrfName.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

TEST(L3VrfName, HoldsUpToOneHundredBytes) {
  std::string name(100, 'v');
  L3::VrfName vrf(name);
  EXPECT_EQ(vrf.str(), name);
  EXPECT_EQ(L3::VrfName::maxLength(), 100u);
}

TEST(L3VrfName, LongerNameThrowsRangeError) {
  std::string name(101, 'v');
  try {
    L3::VrfName vrf(name);
    FAIL() << "no exception";
  } catch (const Kiln::RangeError& e) {
    EXPECT_STREQ(e.what(), "Kiln::String::bytes > maxLength() not allowed");
  }
  EXPECT_THROW(L3::VrfName(name.c_str()), std::out_of_range);
}

TEST(L3VrfName, DefaultVrfIsNamedDefault) {
  EXPECT_EQ(L3::defaultVrfName().str(), "default");
  EXPECT_EQ(L3::defaultVrfName(), L3::VrfName(L3::defaultVrf));
  EXPECT_TRUE(L3::VrfName().empty());
}

}  // namespace
