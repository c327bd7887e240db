#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "framework/Assert.h"
#include "framework/Netval.h"
#include "framework/detail/RingLogFormat.h"

// The binary ring trace: one memory-mapped, fixed-size, wrapping file per process. A message is
// described once (where it is, its literal pieces, the kinds of its values); each occurrence
// writes only an 8-byte header (the message id and the record's size) and the encoded values. A
// record's sequence number is not stored: it follows from its block's first number and the
// record's place in the block. The file's layout is in framework/detail/RingLogFormat.h.
//
// Wrapping: the ring is cut into blocks, and records never straddle blocks. When a record does
// not fit in the current block, the writer moves to the next block (cyclically), resets its header
// and starts filling it; the whole block's old records are lost at once. Sequence numbers are
// contiguous, so a reader takes every block with records, orders the blocks by their first
// sequence number (the oldest block has the smallest) and reads each block's records in order.
// Descriptors live outside the ring, so every surviving record can be decoded.
//
// Time: a block's header holds the CPU timestamp counter (__rdtsc on x86_64, else 0) of when the
// writer started it, which bounds the time of its records. Records carry no timestamp of their
// own: reading the counter costs more than the rest of a record.
//
// Trace statements are written from one thread, the agent's event loop.
namespace RingLog {

// What an item of a message is: a literal piece (descriptor only) or the kind of a value.
enum class Kind : uint8_t {
  piece = 0,
  boolean = 1,
  character = 2,
  signedInt = 3,
  unsignedInt = 4,
  floating = 5,
  string = 6,
  ipGenAddr = 7,
  ethAddr = 8,
  intfId = 9,
  text = 10,           // the operator<< text of a type without a binary codec
  intfShortName = 11,  // an interface id, read as its short name
};
static_assert(static_cast<uint8_t>(Kind::intfShortName) + 1 == detail::kKindCount);

// One item of a message in statement order; `piece` holds the literal text of a piece item.
struct Item {
  Kind kind = Kind::piece;
  std::string piece;
  friend bool operator==(const Item&, const Item&) = default;
};

// A registered message. Written once by messageIs(); the registry keeps it (at a stable address)
// for the life of the process.
struct MessageInfo {
  uint32_t id = 0;   // 1, 2, ... in registration order
  std::string file;  // the source file's base name
  uint32_t line = 0;
  std::string function;
  uint32_t level = 0;
  std::string handle;
  std::vector<Item> items;
};

// Bounds that keep every record inside one block: strings are cut at kMaxStringBytes and a
// message has at most kMaxValues values.
inline constexpr uint32_t kMaxStringBytes = 2048;
inline constexpr uint32_t kMaxValues = 24;

// The smallest file open() accepts: header, minimal descriptor area, four blocks.
size_t minFileBytes();

// Creates (or truncates) `path`, maps it and starts recording; a ring already open is closed
// first. The file takes at most `bytes`: a header, a descriptor area of an eighth of the file (at
// least 64 KiB) and as many whole blocks as fit. Throws std::runtime_error naming the path and
// the cause when the file cannot be created or `bytes` is below minFileBytes(). Returns on().
bool open(const std::string& path, size_t bytes = 8 << 20);
// Stops recording and unmaps the file, which keeps everything written so far.
void close();

namespace detail {
// The writer's state, read inline by every trace statement.
struct Writer {
  bool on = false;
  uint32_t fileIds = 0;        // messages 1..fileIds have a descriptor in the file
  std::byte* block = nullptr;  // the block being written
  uint32_t used = 0;           // payload bytes of that block already committed
  uint64_t nextSeq = 1;
};
inline Writer writer;

// Switches to the next block, which must hold a record of `size` bytes.
void nextBlock(uint32_t size) noexcept;
void dropRecord() noexcept;

template <class T>
inline std::byte* putRaw(std::byte* p, const T& value) {
  std::memcpy(p, &value, sizeof value);
  return p + sizeof value;
}

inline constexpr uint32_t kBlockPayload = kBlockBytes - sizeof(BlockHeader);
inline constexpr uint32_t kPrefetchAhead = 512;
static_assert(sizeof(RecordHeader) + kMaxValues * (sizeof(uint32_t) + kMaxStringBytes) + 7 <=
                  kBlockPayload,
              "the largest record must fit in a block");

// Starts a record of `size` bytes (header included, a multiple of 8); returns where its values
// go, or null when the record is not written.
inline std::byte* reserve(uint32_t id, uint32_t size) noexcept {
  Writer& w = writer;
  if (id - 1 >= w.fileIds) [[unlikely]] {
    dropRecord();
    return nullptr;
  }
  if (w.used + size > kBlockPayload) [[unlikely]]
    nextBlock(size);
  std::byte* record = w.block + sizeof(BlockHeader) + w.used;
  ++w.nextSeq;
#if defined(__GNUC__)
  // Records go out at about a cache line each: asking for the lines a few records ahead keeps
  // the writes from waiting on memory (the ring is far larger than the caches).
  __builtin_prefetch(record + kPrefetchAhead, 1, 3);
#endif
  putRaw(record + offsetof(RecordHeader, id), id);
  putRaw(record + offsetof(RecordHeader, bytes), size);
  return record + sizeof(RecordHeader);
}

// Publishes the record of `size` bytes started by reserve().
inline void commit(uint32_t size) noexcept {
  Writer& w = writer;
  w.used += size;
  putRaw(w.block + offsetof(BlockHeader, used), w.used);
}

// Wire forms: each knows its Kind, its encoded size and how to encode itself.
struct PieceWire {
  static constexpr Kind kind = Kind::piece;
  size_t size() const { return 0; }
  std::byte* put(std::byte* p) const { return p; }
};

template <Kind K, class V>
struct ScalarWire {
  static constexpr Kind kind = K;
  V value;
  size_t size() const { return sizeof(V); }
  std::byte* put(std::byte* p) const { return putRaw(p, value); }
};

template <Kind K>
struct StringWireOf {
  static constexpr Kind kind = K;
  std::string_view s;
  uint32_t length() const {
    return s.size() > kMaxStringBytes ? kMaxStringBytes : static_cast<uint32_t>(s.size());
  }
  size_t size() const { return sizeof(uint32_t) + length(); }
  std::byte* put(std::byte* p) const {
    uint32_t n = length();
    p = putRaw(p, n | (n < s.size() ? kStringTruncated : 0));
    std::memcpy(p, s.data(), n);
    return p + n;
  }
};
using StringWire = StringWireOf<Kind::string>;

// The text of a value without a binary codec; owns it because it is formatted on the spot.
struct TextWire {
  static constexpr Kind kind = Kind::text;
  std::string text;
  size_t size() const { return StringWireOf<Kind::text>{text}.size(); }
  std::byte* put(std::byte* p) const { return StringWireOf<Kind::text>{text}.put(p); }
};

struct IpWire {
  static constexpr Kind kind = Kind::ipGenAddr;
  const Netval::IpGenAddr& addr;
  size_t addressBytes() const {
    switch (addr.af()) {
      case Netval::AddressFamily::ipv4_:
        return 4;
      case Netval::AddressFamily::ipv6_:
        return 16;
      default:
        return 0;
    }
  }
  size_t size() const { return 1 + addressBytes(); }
  std::byte* put(std::byte* p) const {
    p = putRaw(p, static_cast<uint8_t>(addr.af()));
    // A copy of a constant size is a move or two; one of a variable size is a call.
    switch (addressBytes()) {
      case 4:
        return putBytes<4>(p);
      case 16:
        return putBytes<16>(p);
      default:
        return p;
    }
  }
  template <size_t N>
  std::byte* putBytes(std::byte* p) const {
    std::memcpy(p, addr.bytes().data(), N);
    return p + N;
  }
};

// An interface id, read as its name or (intfShortName) its short name; a kernel name travels
// with its text, which only this process can look up.
template <Kind K>
struct IntfWireOf {
  static constexpr Kind kind = K;
  Netval::IntfId intf;
  uint8_t nameSize = 0;  // of a kernel name only
  char name[Netval::IntfId::kNameCapacity];
  explicit IntfWireOf(Netval::IntfId i) : intf(i) {
    if (i.isKernelName()) nameSize = static_cast<uint8_t>(i.nameInto(name, false));
  }
  size_t size() const { return sizeof(uint32_t) + (intf.isKernelName() ? 1 + nameSize : 0); }
  std::byte* put(std::byte* p) const {
    p = putRaw(p, intf.id());
    if (!intf.isKernelName()) return p;
    p = putRaw(p, nameSize);
    std::memcpy(p, name, nameSize);
    return p + nameSize;
  }
};
using IntfWire = IntfWireOf<Kind::intfId>;

// A literal piece is an lvalue of type const char[N], as a string literal is.
template <class A>
inline constexpr bool isPiece =
    std::is_lvalue_reference_v<A>&& std::is_array_v<std::remove_reference_t<A>>&&
        std::is_same_v<std::remove_extent_t<std::remove_reference_t<A>>, const char>;

template <class T>
concept CharType =
    std::is_same_v<T, char> || std::is_same_v<T, signed char> || std::is_same_v<T, unsigned char>;

template <class T>
concept CharPointer = std::is_same_v < std::decay_t<T>,
const char* > || std::is_same_v<std::decay_t<T>, char*>;

template <class T>
concept HasStr = requires(const T& v) {
  { v.str() } -> std::convertible_to<std::string_view>;
};

template <class T>
concept Printable = requires(std::ostream& os, const T& v) {
  os << v;
};

inline std::string_view orNull(const char* s) { return s ? std::string_view(s) : "(null)"; }

// The wire form of one argument of a trace statement; A is its forwarding-reference type.
template <class A>
auto wireOf(const std::remove_reference_t<A>& arg) {
  using T = std::remove_cvref_t<A>;
  if constexpr (isPiece<A>) {
    return PieceWire{};
  } else if constexpr (std::is_same_v<T, bool>) {
    return ScalarWire<Kind::boolean, uint8_t>{arg};
  } else if constexpr (CharType<T>) {
    return ScalarWire<Kind::character, char>{static_cast<char>(arg)};
  } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
    return ScalarWire<Kind::signedInt, int64_t>{arg};
  } else if constexpr (std::is_integral_v<T>) {
    return ScalarWire<Kind::unsignedInt, uint64_t>{arg};
  } else if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
    return ScalarWire<Kind::floating, double>{arg};
  } else if constexpr (CharPointer<T>) {
    return StringWire{orNull(arg)};
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    return StringWire{std::string_view(arg)};
  } else if constexpr (HasStr<T>) {
    return StringWire{std::string_view(arg.str())};
  } else if constexpr (std::is_same_v<T, Netval::IpGenAddr>) {
    return IpWire{arg};
  } else if constexpr (std::is_same_v<T, Netval::EthAddr>) {
    return ScalarWire<Kind::ethAddr, uint64_t>{arg.value()};
  } else if constexpr (std::is_same_v<T, Netval::IntfId>) {
    return IntfWire{arg};
  } else if constexpr (std::is_same_v<T, Netval::IntfShortName>) {
    return IntfWireOf<Kind::intfShortName>{arg.intf()};
  } else {
    static_assert(Printable<T>, "a trace value needs a codec or operator<<");
    std::ostringstream os;
    os << arg;
    return TextWire{std::move(os).str()};
  }
}

template <class A>
constexpr Kind kindOf() {
  return decltype(wireOf<A>(std::declval<const std::remove_reference_t<A>&>()))::kind;
}

template <class A>
Item itemOf(const std::remove_reference_t<A>& arg) {
  if constexpr (isPiece<A>) {
    return {Kind::piece, std::string(arg, strnlen(arg, std::extent_v<std::remove_reference_t<A>>))};
  } else {
    return {kindOf<A>(), {}};
  }
}

template <class... W>
void writeWire(uint32_t id, const W&... wire) noexcept {
  size_t bytes = sizeof(RecordHeader) + (wire.size() + ... + 0);
  auto size = static_cast<uint32_t>((bytes + 7) & ~size_t{7});
  std::byte* p = reserve(id, size);
  if (!p) return;
  ((p = wire.put(p)), ...);
  commit(size);
}
}  // namespace detail

// True while a ring file is open and recording.
inline bool on() { return detail::writer.on; }

// The items of a message whose arguments are `args` (pieces and values in order).
template <class... A>
std::vector<Item> itemsOf(A&&... args) {
  return {detail::itemOf<A>(args)...};
}

// Registers a message and returns it with its id; when a ring is open its descriptor is also
// appended to the file (every registered message is written to each newly opened file).
const MessageInfo& messageIs(MessageInfo info);
// The registered message `id`, or null.
const MessageInfo* message(uint32_t id);

// Records one occurrence of `message`; `args` are the statement's arguments, pieces included, of
// the kinds the message was registered with. Does nothing unless on().
template <class... A>
void write(const MessageInfo& message, A&&... args) noexcept {
  static_assert(((detail::isPiece<A> ? 0 : 1) + ... + 0) <= kMaxValues, "too many trace values");
  if (!on()) return;
  detail::writeWire(message.id, detail::wireOf<A>(args)...);
}

// Decodes a ring file into one line per surviving record, oldest first:
// "<seq> <file>:<line> [<handle>/<level>] <function>: <pieces and values>". Throws
// std::runtime_error naming the file and the problem for a file that is missing, not a ring trace
// (magic, version, byte order, size) or corrupt. RingLogReader.h reads a file a block at a time.
std::vector<std::string> decodeFile(const std::string& path);
// The same for the bytes of a ring file already read; `name` names them in errors.
std::vector<std::string> decode(std::string_view data, const std::string& name);

}  // namespace RingLog
