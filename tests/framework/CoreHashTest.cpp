#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <set>

#include "framework/CoreHash.h"

namespace {

enum class Narrow : uint32_t { kA = 7 };
enum class Wide : uint64_t { kA = 7 };

// Values chosen to have few set bits, many, and a mixture.
constexpr std::array<uint64_t, 4> kBases = {0, 1, 0x0123456789abcdefu, ~uint64_t{0}};

TEST(CoreHash, IntegersUpToThirtyTwoBitsKeepTheWordHash) {
  for (uint32_t v : {0u, 1u, 5u, 0x80000000u, 0xffffffffu}) {
    EXPECT_EQ(Core::hashOf(v, 3), Core::hashOfWords(v, 3)) << v;
    EXPECT_EQ(Core::hashOf(static_cast<uint16_t>(v), 3),
              Core::hashOfWords(static_cast<uint16_t>(v), 3))
        << v;
  }
  EXPECT_EQ(Core::hashOf(Narrow::kA, 9), Core::hashOfWords(7, 9));
}

// Tables keyed by 32-bit integers and MAC addresses list their members in an order that follows
// these values: they must not move.
TEST(CoreHash, WordHashValuesAreFixed) {
  EXPECT_EQ(Core::hashOfWords(0, 0), Core::hashMixCombine(Core::hashMixCombine(0, 0), 0));
  EXPECT_EQ(Core::hashOfWords(0x123456789abcu, 3),
            Core::hashMixCombine(Core::hashMixCombine(3, 0x56789abcu), 0x1234u));
  EXPECT_EQ(Core::hashMix(1), 0x514e28b7u);
  EXPECT_EQ(Core::hashOfWords(5, 1), 0xc8abf2d8u);
  EXPECT_EQ(Core::hashOfWords(0x123456789abcu, 3), 0x033cdb70u);
}

TEST(CoreHash, SixtyFourBitIntegersUseTheWideHash) {
  for (uint64_t v : kBases) {
    EXPECT_EQ(Core::hashOf(v, 11), Core::hashOfWide(v, 11)) << v;
    EXPECT_EQ(Core::hashOf(static_cast<int64_t>(v), 11), Core::hashOfWide(v, 11)) << v;
  }
  EXPECT_EQ(Core::hashOf(Wide::kA, 11), Core::hashOfWide(7, 11));
}

TEST(CoreHash, WideHashDependsOnEveryBitOfTheValue) {
  for (uint32_t seed : {0u, 1u, 0x9e3779b9u}) {
    for (uint64_t base : kBases) {
      const uint32_t h = Core::hashOfWide(base, seed);
      for (unsigned bit = 0; bit < 64; ++bit) {
        EXPECT_NE(Core::hashOfWide(base ^ (uint64_t{1} << bit), seed), h)
            << "seed " << seed << " base " << base << " bit " << bit;
      }
    }
  }
}

TEST(CoreHash, WideHashDependsOnTheSeed) {
  for (uint64_t base : kBases) {
    std::set<uint32_t> hashes;
    for (uint32_t seed = 0; seed < 64; ++seed) hashes.insert(Core::hashOfWide(base, seed));
    EXPECT_EQ(hashes.size(), 64u) << base;
  }
}

// A table places a key by the low bits of its hash and tags it with the top seven: keys that
// count up (identifiers handed out in order), or that differ only in their high word, must spread
// over both.
void expectSpread(uint64_t step, uint32_t seed) {
  constexpr unsigned kKeys = 1u << 16;
  constexpr unsigned kHomes = 1u << 12;
  constexpr unsigned kTags = 128;
  std::array<unsigned, kHomes> homes{};
  std::array<unsigned, kTags> tags{};
  for (uint64_t i = 0; i < kKeys; ++i) {
    const uint32_t h = Core::hashOfWide(i * step, seed);
    ++homes[h % kHomes];
    ++tags[h >> 25];
  }
  // 16 keys per home and 512 per tag on average; a fair hash stays well inside these bounds.
  for (unsigned n : homes) EXPECT_LE(n, 48u) << "step " << step;
  for (unsigned n : tags) {
    EXPECT_GE(n, 384u) << "step " << step;
    EXPECT_LE(n, 640u) << "step " << step;
  }
}

TEST(CoreHash, WideHashSpreadsCountingKeysOverHomesAndTags) {
  expectSpread(1, 0);
  expectSpread(1, 0x2545f491u);
  expectSpread(uint64_t{1} << 32, 5);
  expectSpread(uint64_t{1} << 48, 5);
  expectSpread(4096, 5);
}

}  // namespace
