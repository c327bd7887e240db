#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "framework/Assert.h"
#include "framework/CoreHash.h"

// The generated-type runtime: bounded strings and arrays, and the reflection that gives every value
// type its comparison, hash, validity test, text form and parser from one attribute list.
namespace Kiln {

// Raised when a bounded string, array or number would exceed its bound.
struct RangeError : std::out_of_range {
  using std::out_of_range::out_of_range;
};

// Raised when text does not parse; the message names what was expected and the offset.
struct ParseError : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

// Raise the bound errors of String and Array with their fixed texts. Public so that a type which
// stores a bounded value its own way (a vector standing for an Array) fails exactly like it.
[[noreturn]] void throwStringTooLong();
[[noreturn]] void throwArrayCountTooLarge();
[[noreturn]] void throwArrayIndexOutOfRange();

// Prints `items` in the text form of an Array: "[a, b]", each item as an attribute of its type.
template <class Range>
void printList(std::ostream& os, const Range& items);

namespace detail {
// Text in 16 bytes: up to 15 bytes in place, NUL-terminated, the unused bytes zero; longer text
// in a heap copy of its own. Names (the strings that keys carry) are short, so a key holding one
// stays small and a copy allocates nothing.
class CompactText {
 public:
  CompactText() noexcept { clear(); }
  explicit CompactText(std::string_view text) { assign(text); }
  CompactText(const CompactText& other) {
    if (other.inPlace()) {
      std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    } else {
      assign(other.view());
    }
  }
  CompactText(CompactText&& other) noexcept {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    other.clear();
  }
  CompactText& operator=(const CompactText& other) {
    CompactText copy(other);
    swap(copy);
    return *this;
  }
  // The old text goes with `other`.
  CompactText& operator=(CompactText&& other) noexcept {
    swap(other);
    return *this;
  }
  ~CompactText() {
    if (!inPlace()) release();
  }

  std::string_view view() const {
    if (inPlace()) return std::string_view(bytes_, kInPlace - uint8_t(bytes_[kInPlace]));
    return std::string_view(heapText(), heapSize());
  }
  const char* c_str() const { return inPlace() ? bytes_ : heapText(); }

  friend bool operator==(const CompactText& a, const CompactText& b) {
    // Text in place is compared as its 16 bytes; a heap copy holds more than 15.
    if (a.inPlace() && b.inPlace()) return std::memcmp(a.bytes_, b.bytes_, sizeof a.bytes_) == 0;
    return a.view() == b.view();
  }

 private:
  static constexpr size_t kInPlace = 15;
  // The last byte: 15 minus the size for text in place (so 0, a terminator, when 15 bytes are
  // used), this marker for a heap copy.
  static constexpr uint8_t kOnHeap = 0xff;

  bool inPlace() const { return uint8_t(bytes_[kInPlace]) != kOnHeap; }
  void clear() {
    std::memset(bytes_, 0, sizeof bytes_);
    bytes_[kInPlace] = char(kInPlace);
  }
  void swap(CompactText& other) noexcept {
    char bytes[sizeof bytes_];
    std::memcpy(bytes, bytes_, sizeof bytes_);
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    std::memcpy(other.bytes_, bytes, sizeof bytes_);
  }
  const char* heapText() const {
    const char* text;
    std::memcpy(&text, bytes_, sizeof text);
    return text;
  }
  uint32_t heapSize() const {
    uint32_t size;
    std::memcpy(&size, bytes_ + sizeof(char*), sizeof size);
    return size;
  }
  void assign(std::string_view text);
  void release();

  char bytes_[16];
};
static_assert(sizeof(CompactText) == 16);
}  // namespace detail

// A string of at most N bytes. Building one from longer text throws RangeError, so a held value
// always fits its bound.
template <size_t N>
class String {
 public:
  String() = default;
  String(const char* s) : String(std::string_view(s ? s : "")) {}
  String(const std::string& s) : String(std::string_view(s)) {}
  String(std::string_view s) : text_(checked(s)) {}

  static constexpr size_t maxLength() { return N; }
  static String fromText(std::string_view text) { return String(text); }

  std::string_view str() const { return text_.view(); }
  const char* c_str() const { return text_.c_str(); }
  size_t size() const { return str().size(); }
  bool empty() const { return str().empty(); }
  uint32_t hash(uint32_t seed) const { return Core::hashString(str(), seed); }

  friend bool operator==(const String& a, const String& b) { return a.text_ == b.text_; }
  friend std::strong_ordering operator<=>(const String& a, const String& b) {
    return a.str().compare(b.str()) <=> 0;
  }
  friend std::ostream& operator<<(std::ostream& os, const String& s) { return os << s.str(); }

 private:
  static std::string_view checked(std::string_view s) {
    if (s.size() > N) throwStringTooLong();
    return s;
  }

  detail::CompactText text_;
};

// Up to N elements in place. Elements past count() are kept default-constructed.
template <class T, size_t N>
class Array {
 public:
  using value_type = T;
  using const_iterator = const T*;

  static constexpr size_t maxCount() { return N; }
  size_t count() const { return count_; }
  bool empty() const { return count_ == 0; }

  // Grows with default elements or shrinks, resetting the dropped ones; throws RangeError if n > N.
  void countIs(size_t n) {
    if (n > N) throwArrayCountTooLarge();
    std::fill(items_.begin() + std::min(n, count_), items_.begin() + count_, T{});
    count_ = n;
  }
  // Appends one element; throws RangeError when the array is full.
  void push(const T& item) {
    if (count_ == N) throwArrayCountTooLarge();
    items_[count_++] = item;
  }

  // Both throw RangeError when i >= count().
  const T& operator[](size_t i) const { return items_[checked(i)]; }
  T& operator[](size_t i) { return items_[checked(i)]; }
  const T& at(size_t i) const { return items_[checked(i)]; }
  T& at(size_t i) { return items_[checked(i)]; }

  const T* begin() const { return items_.data(); }
  const T* end() const { return items_.data() + count_; }

  uint32_t hash(uint32_t seed) const {
    uint32_t h = Core::hashCombine(seed, static_cast<uint32_t>(count_));
    for (const T& item : *this) h = Core::hashCombine(h, Core::hashOf(item, 0));
    return Core::hashMix(h);
  }
  friend bool operator==(const Array& a, const Array& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }
  friend std::strong_ordering operator<=>(const Array& a, const Array& b) {
    return std::lexicographical_compare_three_way(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  size_t checked(size_t i) const {
    if (i >= count_) throwArrayIndexOutOfRange();
    return i;
  }

  std::array<T, N> items_{};
  size_t count_ = 0;
};

// One reflected attribute: its name in the text form and the member that holds it.
template <class C, class M>
struct Attr {
  std::string_view name;
  M C::*member;
};

template <class C, class M>
constexpr Attr<C, M> attr(std::string_view name, M C::*member) {
  return {name, member};
}

// A type with reflection data: `kilnTypeName` and `kilnAttrs()` returning a tuple of Attr.
template <class T>
concept Reflected = requires {
  { T::kilnTypeName } -> std::convertible_to<std::string_view>;
  T::kilnAttrs();
};

// A value printed and parsed as one token: its text form must not contain ',', '}' or ']'.
template <class T>
concept Leaf = requires(const T& v, std::ostream& os, std::string_view text, uint32_t seed) {
  { T::fromText(text) } -> std::same_as<T>;
  os << v;
  { v.hash(seed) } -> std::convertible_to<uint32_t>;
  { v == v } -> std::convertible_to<bool>;
  { v <=> v } -> std::convertible_to<std::strong_ordering>;
};

// Calls f(name, value) for each attribute of v, in declaration order.
template <Reflected T, class F>
void forEachAttr(const T& v, F&& f) {
  std::apply([&](const auto&... a) { (f(a.name, v.*a.member), ...); }, T::kilnAttrs());
}

template <class T>
std::string toText(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

namespace detail {

template <class M>
struct IsString : std::false_type {};
template <size_t N>
struct IsString<String<N>> : std::true_type {};

template <class M>
struct IsArray : std::false_type {};
template <class T, size_t N>
struct IsArray<Array<T, N>> : std::true_type {};

// A cursor over the text being parsed; every error names the offset in the whole text.
class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  size_t offset() const { return pos_; }
  // Consumes `token` if the text continues with it.
  bool consume(std::string_view token);
  // Consumes `token` or throws "expected '<token>' <where> at offset N".
  void expect(std::string_view token, std::string_view where);
  // Consumes `name=` or throws naming the attribute that was expected.
  void expectAttr(std::string_view name);
  // The text up to the next ',', '}' or ']' (or the end), consumed.
  std::string_view token();
  // A double-quoted string with \" and \\ escapes, decoded.
  std::string quoted(std::string_view attr);
  void expectEnd();
  [[noreturn]] void fail(std::string_view what, size_t offset, std::string_view cause = {}) const;

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

void printQuoted(std::ostream& os, std::string_view s);
std::string forAttr(std::string_view attr);  // " for attribute 'x'", or "" at the top level

template <class M>
void printAttr(std::ostream& os, const M& v);
template <class M>
void parseAttr(Parser& p, M& out, std::string_view attr);

template <Reflected T>
void printComposite(std::ostream& os, const T& v) {
  os << '{';
  const char* sep = "";
  forEachAttr(v, [&](std::string_view name, const auto& value) {
    os << sep << name << '=';
    printAttr(os, value);
    sep = ", ";
  });
  os << '}';
}

template <Reflected T>
void parseComposite(Parser& p, T& out, std::string_view attr) {
  p.expect("{", forAttr(attr));
  std::string_view last;
  auto parseOne = [&](const auto& a) {
    if (!last.empty()) p.expect(", ", "before attribute '" + std::string(a.name) + "'");
    p.expectAttr(a.name);
    parseAttr(p, out.*a.member, a.name);
    last = a.name;
  };
  std::apply([&](const auto&... a) { (parseOne(a), ...); }, T::kilnAttrs());
  p.expect("}", last.empty() ? forAttr(attr) : "after attribute '" + std::string(last) + "'");
}

template <class T, size_t N>
void parseArray(Parser& p, Array<T, N>& out, std::string_view attr) {
  p.expect("[", forAttr(attr));
  out.countIs(0);
  if (p.consume("]")) return;
  do {
    T item{};
    parseAttr(p, item, attr);
    out.push(item);
  } while (p.consume(", "));
  p.expect("]", "closing the list" + forAttr(attr));
}

template <class M>
void parseNumber(Parser& p, M& out, std::string_view attr) {
  size_t at = p.offset();
  std::string_view tok = p.token();
  auto [end, ec] = std::from_chars(tok.data(), tok.data() + tok.size(), out);
  if (ec == std::errc::result_out_of_range) {
    throw RangeError("value '" + std::string(tok) + "' out of range" + forAttr(attr) +
                     " at offset " + std::to_string(at));
  }
  if (ec != std::errc() || end != tok.data() + tok.size() || tok.empty()) {
    p.fail("expected an integer" + forAttr(attr), at);
  }
}

template <class M>
void printAttr(std::ostream& os, const M& v) {
  if constexpr (std::is_same_v<M, bool>) {
    os << (v ? "true" : "false");
  } else if constexpr (std::is_enum_v<M>) {
    printAttr(os, static_cast<std::underlying_type_t<M>>(v));
  } else if constexpr (std::is_integral_v<M>) {
    char buf[24];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    os.write(buf, end - buf);
  } else if constexpr (IsString<M>::value) {
    printQuoted(os, v.str());
  } else if constexpr (Reflected<M>) {
    printComposite(os, v);
  } else if constexpr (IsArray<M>::value) {
    printList(os, v);
  } else {
    static_assert(Leaf<M>, "attribute type has no text form");
    os << v;
  }
}

template <class M>
void parseAttr(Parser& p, M& out, std::string_view attr) {
  if constexpr (std::is_same_v<M, bool>) {
    size_t at = p.offset();
    std::string_view tok = p.token();
    if (tok != "true" && tok != "false") p.fail("expected true or false" + forAttr(attr), at);
    out = tok == "true";
  } else if constexpr (std::is_enum_v<M>) {
    std::underlying_type_t<M> raw{};
    parseNumber(p, raw, attr);
    out = static_cast<M>(raw);
  } else if constexpr (std::is_integral_v<M>) {
    parseNumber(p, out, attr);
  } else if constexpr (IsString<M>::value) {
    out = M(p.quoted(attr));
  } else if constexpr (Reflected<M>) {
    parseComposite(p, out, attr);
  } else if constexpr (IsArray<M>::value) {
    parseArray(p, out, attr);
  } else {
    static_assert(Leaf<M>, "attribute type has no parser");
    size_t at = p.offset();
    std::string_view tok = p.token();
    try {
      out = M::fromText(tok);
    } catch (const ParseError& e) {
      p.fail("bad value" + forAttr(attr), at, e.what());
    }
  }
}

}  // namespace detail

template <class Range>
void printList(std::ostream& os, const Range& items) {
  os << '[';
  const char* sep = "";
  for (const auto& item : items) {
    os << sep;
    detail::printAttr(os, item);
    sep = ", ";
  }
  os << ']';
}

// CRTP base of a value type T that declares `kilnTypeName` and `kilnAttrs()`. Gives T, from the
// attribute list alone: equality, ordering (attributes in declaration order), a hash that depends
// only on the attributes, a validity test, the text form `{a=1, b="x"}` and its parser.
// T may hide isEq or hash with its own version; the operators then use it.
template <class T>
class Value {
 public:
  // Inlined into its callers, as hash() is: every look-up that finds a key compares it.
  [[gnu::always_inline]] bool isEq(const T& other) const {
    const T& self = derived();
    if (&self == &other) return true;
    return std::apply(
        [&](const auto&... a) { return ((self.*a.member == other.*a.member) && ...); },
        T::kilnAttrs());
  }

  // Inlined into its callers: keys are hashed on every look-up, and a call per attribute list
  // costs as much as the few multiplies of the hash itself.
  [[gnu::always_inline]] uint32_t hash(uint32_t seed) const {
    return std::apply(
        [this, seed](const auto&... a) {
          uint32_t h = seed;
          ((h = Core::hashCombine(h, Core::hashOf(derived().*a.member, 0))), ...);
          return Core::hashMix(h);
        },
        T::kilnAttrs());
  }

  // True when any attribute differs from a default-constructed T.
  explicit operator bool() const { return !derived().isEq(T{}); }

  // Parses the text form; throws ParseError (or RangeError for a value beyond its bound).
  static T parse(std::string_view text) {
    T out{};
    detail::Parser p(text);
    detail::parseComposite(p, out, {});
    p.expectEnd();
    return out;
  }
  static T fromText(std::string_view text) { return parse(text); }

  std::string toString() const { return toText(derived()); }

  friend bool operator==(const T& a, const T& b) { return a.isEq(b); }

  friend std::strong_ordering operator<=>(const T& a, const T& b) {
    if (&a == &b) return std::strong_ordering::equal;
    std::strong_ordering result = std::strong_ordering::equal;
    auto differs = [&](const auto& attr) {
      result = std::compare_three_way{}(a.*attr.member, b.*attr.member);
      return result != 0;
    };
    std::apply([&](const auto&... attr) { (void)(differs(attr) || ...); }, T::kilnAttrs());
    return result;
  }

  friend std::ostream& operator<<(std::ostream& os, const T& v) {
    detail::printComposite(os, v);
    return os;
  }

 private:
  const T& derived() const { return static_cast<const T&>(*this); }
};

}  // namespace Kiln
