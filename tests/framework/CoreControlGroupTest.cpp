#include "framework/detail/CoreControlGroup.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

using Core::detail::kCtrlDeleted;
using Core::detail::kCtrlEmpty;
using Core::detail::ProbeMarks;

// What a probe of `positions` control bytes at `ctrl` must learn, position by position: the tag
// matches before the first empty position, and whether there is an empty position.
struct Expected {
  std::vector<size_t> tags;
  bool empty = false;
};

Expected expectedAt(const uint8_t* ctrl, size_t positions, uint8_t tag) {
  Expected expected;
  for (size_t p = 0; p < positions; ++p) {
    if (ctrl[p] == kCtrlEmpty) {
      expected.empty = true;
      break;
    }
    if (ctrl[p] == tag) expected.tags.push_back(p);
  }
  return expected;
}

template <class Group>
std::vector<size_t> positionsOf(uint64_t marks) {
  std::vector<size_t> positions;
  for (; marks != 0; marks &= marks - 1) positions.push_back(Group::position(marks));
  return positions;
}

// Control bytes drawn from few tags, so that every group holds matches, deleted positions and
// empty ones in every order.
std::vector<uint8_t> randomControl(std::mt19937& rng, size_t n) {
  static constexpr uint8_t kBytes[] = {0, 1, 0x7f, 0x3c, kCtrlDeleted, kCtrlEmpty};
  std::vector<uint8_t> ctrl(n);
  for (uint8_t& c : ctrl) c = kBytes[rng() % std::size(kBytes)];
  return ctrl;
}

template <class Group>
void probeMatchesBytes() {
  std::mt19937 rng(5);
  for (int round = 0; round < 4000; ++round) {
    const std::vector<uint8_t> ctrl = randomControl(rng, Group::kPositions + 3);
    const size_t at = rng() % 4;
    for (const uint8_t tag : {uint8_t{0}, uint8_t{1}, uint8_t{0x7f}, uint8_t{0x3c}, uint8_t{9}}) {
      const Expected expected = expectedAt(ctrl.data() + at, Group::kPositions, tag);
      const ProbeMarks marks = Group::probe(ctrl.data(), at, tag);
      ASSERT_EQ(positionsOf<Group>(marks.tags), expected.tags) << round << " tag " << int{tag};
      ASSERT_EQ(marks.empties != 0, expected.empty) << round;
    }
  }
}

TEST(ControlGroup, WordProbeFindsTheTagsBeforeTheFirstEmptyPosition) {
  probeMatchesBytes<Core::detail::WordGroup>();
}

#if defined(__SSE2__)
TEST(ControlGroup, Sse2ProbeFindsTheTagsBeforeTheFirstEmptyPosition) {
  probeMatchesBytes<Core::detail::Sse2Group>();
}
#endif

// A group with no empty position keeps every match; an empty first position keeps none.
TEST(ControlGroup, ProbeKeepsEveryMatchWithoutAnEmptyPositionAndNoneAfterOneAtTheStart) {
  std::vector<uint8_t> ctrl(16, 7);
  ctrl[3] = kCtrlDeleted;
  const ProbeMarks full = Core::detail::ProbeGroup::probe(ctrl.data(), 0, 7);
  EXPECT_EQ(full.empties, 0u);
  EXPECT_EQ(positionsOf<Core::detail::ProbeGroup>(full.tags).size(),
            Core::detail::ProbeGroup::kPositions - 1);
  ctrl[0] = kCtrlEmpty;
  const ProbeMarks none = Core::detail::ProbeGroup::probe(ctrl.data(), 0, 7);
  EXPECT_NE(none.empties, 0u);
  EXPECT_EQ(none.tags, 0u);
}

// The word group reads its first position from the lowest address, and tells members from free
// positions (empty or deleted).
TEST(ControlGroup, WordGroupMarksMembersAndFreePositionsInAddressOrder) {
  using Core::detail::WordGroup;
  const uint8_t ctrl[8] = {kCtrlDeleted, kCtrlEmpty, 0x11, kCtrlEmpty, 0x7f, 0, kCtrlDeleted, 5};
  const uint64_t group = WordGroup::at(ctrl, 0);
  EXPECT_EQ(positionsOf<WordGroup>(WordGroup::memberMarks(group)),
            (std::vector<size_t>{2, 4, 5, 7}));
  EXPECT_EQ(positionsOf<WordGroup>(WordGroup::freeMarks(group)),
            (std::vector<size_t>{0, 1, 3, 6}));
  EXPECT_EQ(positionsOf<WordGroup>(WordGroup::emptyMarks(group)), (std::vector<size_t>{1, 3}));
}

}  // namespace
