#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "framework/Core.h"

namespace TestSupport {

// Fails the test if any entity created in its scope outlives it.
class LiveCountTest : public ::testing::Test {
 protected:
  ~LiveCountTest() override { EXPECT_EQ(Core::Node::liveCount(), liveAtStart_); }

 private:
  int64_t liveAtStart_ = Core::Node::liveCount();
};

}  // namespace TestSupport
