#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// The control bytes of Core::HashTable read a group of positions at a time. A member's byte is a
// 7-bit tag of its key's hash; empty and deleted positions have the top bit set.
namespace Core::detail {

inline constexpr uint8_t kCtrlEmpty = 0xff;
inline constexpr uint8_t kCtrlDeleted = 0xfe;

// What a probe for a key learns from one group: `tags` marks the positions whose byte is the key's
// tag, up to the group's first empty position (no probe runs through an empty position, so no
// member past it is the key); `empties` is not zero when the group has an empty position.
struct ProbeMarks {
  uint64_t tags;
  uint64_t empties;
};

// Eight positions as one 64-bit word whose lowest byte is the first position, whatever the
// machine's byte order. A position's mark is its byte's top bit. Portable.
struct WordGroup {
  static constexpr size_t kPositions = 8;
  static constexpr uint64_t kLowBits = 0x7f7f7f7f7f7f7f7full;
  static constexpr uint64_t kHighBits = ~kLowBits;

  static uint64_t at(const uint8_t* ctrl, size_t i) {
    uint64_t group;
    std::memcpy(&group, ctrl + i, sizeof group);
    if constexpr (std::endian::native == std::endian::big) group = __builtin_bswap64(group);
    return group;
  }
  // Marks exactly the bytes of `group` equal to `byte` (no carry runs from one byte to the next).
  static uint64_t bytesEqual(uint64_t group, uint8_t byte) {
    const uint64_t x = group ^ (0x0101010101010101ull * byte);
    return ~(((x & kLowBits) + kLowBits) | x | kLowBits);
  }
  // The empty bytes are the only ones with both the top bit and the lowest set.
  static uint64_t emptyMarks(uint64_t group) { return group & (group << 7) & kHighBits; }
  static_assert((kCtrlEmpty & 0x81) == 0x81 && (kCtrlDeleted & 0x81) == 0x80);
  static uint64_t freeMarks(uint64_t group) { return group & kHighBits; }
  static uint64_t memberMarks(uint64_t group) { return ~group & kHighBits; }
  // The index in the group of the first position marked in `marks` (not zero).
  static size_t position(uint64_t marks) {
    return static_cast<size_t>(std::countr_zero(marks)) / 8;
  }

  static ProbeMarks probe(const uint8_t* ctrl, size_t i, uint8_t tag) {
    const uint64_t group = at(ctrl, i);
    const uint64_t empties = emptyMarks(group);
    // empties - 1 keeps the marks before the first empty position, or all of them without one.
    return {bytesEqual(group, tag) & (empties - 1), empties};
  }
};

#if defined(__SSE2__)
// Sixteen positions, one bit each, matched by three instructions per byte sought.
struct Sse2Group {
  static constexpr size_t kPositions = 16;

  static size_t position(uint64_t marks) { return static_cast<size_t>(std::countr_zero(marks)); }

  static ProbeMarks probe(const uint8_t* ctrl, size_t i, uint8_t tag) {
    const __m128i group = _mm_loadu_si128(reinterpret_cast<const __m128i*>(ctrl + i));
    const auto marks = [&group](uint8_t byte) {
      const __m128i equal = _mm_cmpeq_epi8(group, _mm_set1_epi8(static_cast<char>(byte)));
      return uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(equal))};
    };
    const uint64_t empties = marks(kCtrlEmpty);
    return {marks(tag) & (empties - 1), empties};
  }
};
// Look-ups read the widest group the machine compares at once.
using ProbeGroup = Sse2Group;
#else
using ProbeGroup = WordGroup;
#endif

}  // namespace Core::detail
