#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

// Hashing shared by every value type and collection: 32-bit hashes with a 32-bit seed, mixed with
// the murmur3 finaliser (64-bit integers: with a folded 128-bit multiply). Constants are fixed so
// that table layouts, dumps and traces reproduce.
namespace Core {

constexpr uint32_t hashMix(uint32_t h) {
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  h *= 0xc2b2ae35u;
  h ^= h >> 16;
  return h;
}

// Folds one more 32-bit value into a running hash: one rotate and one multiply, so that a value of
// several parts pays for a single full mix. Order-sensitive, but not a mixer on its own: every
// hash handed to a table must end with hashMix.
constexpr uint32_t hashCombine(uint32_t h, uint32_t value) {
  return (std::rotl(h, 5) ^ value) * 0x9e3779b1u;
}

// Folds one more 32-bit value with a full mix of the value and of the result.
constexpr uint32_t hashMixCombine(uint32_t h, uint32_t value) {
  return hashMix(h ^ (hashMix(value) + 0x9e3779b9u + (h << 6) + (h >> 2)));
}

// The hash of integers and enums of up to 32 bits, and of MAC addresses: kept as it is so that
// tables keyed by them keep their layout (dumps list members in table order, and the search for
// a MAC in a next-hop table takes the first match in that order). Inlined always, as hashOf() is.
[[gnu::always_inline]] constexpr uint32_t hashOfWords(uint64_t value, uint32_t seed) {
  return hashMixCombine(hashMixCombine(seed, static_cast<uint32_t>(value)),
                        static_cast<uint32_t>(value >> 32));
}

// The hash of 64-bit integers and enums: one 64 x 64 -> 128-bit multiply, folded. The product's
// high half depends on every bit of the value, and folding it into the low half and then into 32
// bits spreads that into both the home bits and the tag bits of a table. One multiply where
// hashOfWords() chains eight, on the critical path of every look-up in a table keyed by such a
// value.
constexpr uint32_t hashOfWide(uint64_t value, uint32_t seed) {
  __extension__ using Product = unsigned __int128;
  const Product product =
      Product{value ^ (uint64_t{seed} * 0x9e3779b97f4a7c15u)} * 0xd6e8feb86659fd93u;
  const uint64_t folded = static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
  return static_cast<uint32_t>(folded) ^ static_cast<uint32_t>(folded >> 32);
}

constexpr uint32_t hashBytes(const void* data, size_t size, uint32_t seed) {
  auto* p = static_cast<const unsigned char*>(data);
  uint32_t h = seed ^ static_cast<uint32_t>(size);
  size_t i = 0;
  for (; i + 4 <= size; i += 4) {
    uint32_t word = uint32_t(p[i]) | uint32_t(p[i + 1]) << 8 | uint32_t(p[i + 2]) << 16 |
                    uint32_t(p[i + 3]) << 24;
    h = hashCombine(h, word);
  }
  uint32_t tail = 0;
  for (size_t shift = 0; i < size; ++i, shift += 8) tail |= uint32_t(p[i]) << shift;
  return hashMix(hashCombine(h, tail));
}

// hashString() of a text fed one character at a time, whose size is known beforehand.
class StringHash {
 public:
  constexpr StringHash(size_t size, uint32_t seed) : h_(seed ^ static_cast<uint32_t>(size)) {}
  constexpr void add(char c) { h_ = (h_ ^ static_cast<unsigned char>(c)) * 0x01000193u; }
  constexpr uint32_t value() const { return hashMix(h_); }

 private:
  uint32_t h_;
};

constexpr uint32_t hashString(std::string_view s, uint32_t seed) {
  StringHash h(s.size(), seed);
  for (char c : s) h.add(c);
  return h.value();
}

// The seed of seedOf().
inline constexpr uint32_t kTypeNameSeed = 0x2545f491u;

// A per-type seed, derived from the type's name so that it is fixed across runs.
constexpr uint32_t seedOf(std::string_view typeName) { return hashString(typeName, kTypeNameSeed); }

template <class T>
concept SelfHashing = requires(const T& v, uint32_t seed) {
  { v.hash(seed) } -> std::convertible_to<uint32_t>;
};

// Inlined always: a table's look-up is a few instructions around the hash, which the compiler
// then schedules together.
template <class T>
[[gnu::always_inline]] inline uint32_t hashOf(const T& value, uint32_t seed) {
  if constexpr (SelfHashing<T>) {
    return value.hash(seed);
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    if constexpr (sizeof(T) == sizeof(uint64_t)) {
      return hashOfWide(static_cast<uint64_t>(value), seed);
    } else {
      return hashOfWords(static_cast<uint64_t>(value), seed);
    }
  } else {
    static_assert(sizeof(T) == 0, "no hash for this type");
  }
}

}  // namespace Core
