#include "framework/RingLog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <mutex>
#include <stdexcept>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace RingLog {

using detail::BlockHeader;
using detail::FileHeader;
using detail::kBlockBytes;
using detail::kBlockMagic;
using detail::kByteOrder;
using detail::kHeaderBytes;
using detail::kKindCount;
using detail::kMagic;
using detail::kStringTruncated;
using detail::kVersion;
using detail::RecordHeader;

namespace {

constexpr uint64_t kMinDescBytes = 64 * 1024;
constexpr uint64_t kMinBlocks = 4;
constexpr size_t kDescFixedBytes = 16;

// Every message registered in the process; a deque keeps their addresses stable.
struct Registry {
  std::mutex mutex;
  std::deque<MessageInfo> messages;
};

// Never destroyed, so that trace statements in static destructors still find it.
Registry& registry() {
  static auto* r = new Registry;
  return *r;
}

// The open ring file.
struct Ring {
  int fd = -1;
  std::byte* base = nullptr;
  size_t bytes = 0;
  FileHeader* header = nullptr;
  bool descFull = false;  // a descriptor did not fit: no later one is written either
};
Ring ring;

struct Layout {
  uint64_t descCapacity;
  uint64_t ringOffset;
  uint64_t blockCount;
  uint64_t fileBytes;
};

Layout layoutFor(size_t bytes) {
  uint64_t desc = std::max<uint64_t>(kMinDescBytes, bytes / 8);
  desc = (desc + 4095) & ~uint64_t{4095};
  uint64_t ringOffset = kHeaderBytes + desc;
  uint64_t blocks = bytes > ringOffset ? (bytes - ringOffset) / kBlockBytes : 0;
  return {desc, ringOffset, blocks, ringOffset + blocks * kBlockBytes};
}

[[noreturn]] void throwOpenError(const std::string& path, const std::string& what) {
  throw std::runtime_error("RingLog::open: '" + path + "': " + what);
}

template <class T>
void appendRaw(std::string& out, const T& value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void appendString(std::string& out, std::string_view s) {
  appendRaw(out, static_cast<uint32_t>(s.size()));
  out.append(s);
}

std::string encodeDescriptor(const MessageInfo& m) {
  std::string out;
  appendRaw(out, uint32_t{0});  // entryBytes, set below
  appendRaw(out, m.id);
  appendRaw(out, m.line);
  appendRaw(out, static_cast<uint8_t>(m.level));
  appendRaw(out, uint8_t{0});
  appendRaw(out, static_cast<uint16_t>(m.items.size()));
  appendString(out, m.file);
  appendString(out, m.function);
  appendString(out, m.handle);
  for (const Item& item : m.items) {
    appendRaw(out, static_cast<uint8_t>(item.kind));
    if (item.kind == Kind::piece) appendString(out, item.piece);
  }
  out.resize((out.size() + 7) & ~size_t{7}, '\0');
  auto size = static_cast<uint32_t>(out.size());
  std::memcpy(out.data(), &size, sizeof size);
  return out;
}

void appendDescriptor(const MessageInfo& m) {
  if (ring.descFull) return;
  CORE_ASSERT(m.id == detail::writer.fileIds + 1);
  std::string entry = encodeDescriptor(m);
  FileHeader& h = *ring.header;
  if (h.descUsed + entry.size() > h.descCapacity) {
    ring.descFull = true;
    return;
  }
  std::memcpy(ring.base + h.descOffset + h.descUsed, entry.data(), entry.size());
  h.descUsed += entry.size();
  detail::writer.fileIds = m.id;
}

uint64_t timestamp() {
#if defined(__x86_64__)
  return __rdtsc();
#else
  return 0;
#endif
}

void startBlock(uint64_t index) {
  FileHeader& h = *ring.header;
  h.currentBlock = index;
  std::byte* block = ring.base + h.ringOffset + index * kBlockBytes;
  BlockHeader bh{detail::writer.nextSeq, timestamp(), 0, kBlockMagic};
  std::memcpy(block, &bh, sizeof bh);
  detail::writer.block = block;
  detail::writer.used = 0;
}

void writeHeader(const Layout& layout) {
  FileHeader h{};
  std::memcpy(h.magic, kMagic, sizeof h.magic);
  h.version = kVersion;
  h.byteOrder = kByteOrder;
  h.headerBytes = kHeaderBytes;
  h.blockBytes = kBlockBytes;
  h.fileBytes = layout.fileBytes;
  h.descOffset = kHeaderBytes;
  h.descCapacity = layout.descCapacity;
  h.ringOffset = layout.ringOffset;
  h.blockCount = layout.blockCount;
  std::memcpy(ring.header, &h, sizeof h);
}

}  // namespace

size_t minFileBytes() { return kHeaderBytes + kMinDescBytes + kMinBlocks * kBlockBytes; }

bool open(const std::string& path, size_t bytes) {
  close();
  if (bytes < minFileBytes()) {
    throwOpenError(path, "size " + std::to_string(bytes) + " is below the minimum of " +
                             std::to_string(minFileBytes()) + " bytes");
  }
  Layout layout = layoutFor(bytes);
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throwOpenError(path, std::string("cannot create: ") + std::strerror(errno));
  // Reserving the blocks now turns a full disk into an error here instead of a SIGBUS later.
  if (int rc = posix_fallocate(fd, 0, static_cast<off_t>(layout.fileBytes)); rc != 0) {
    ::close(fd);
    throwOpenError(path, std::string("cannot reserve space: ") + std::strerror(rc));
  }
  void* base = mmap(nullptr, layout.fileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) {
    int err = errno;
    ::close(fd);
    throwOpenError(path, std::string("cannot map: ") + std::strerror(err));
  }
  ring = Ring{fd, static_cast<std::byte*>(base), layout.fileBytes, static_cast<FileHeader*>(base),
              false};
  writeHeader(layout);
  detail::writer = detail::Writer{};
  {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    for (const MessageInfo& m : r.messages) appendDescriptor(m);
  }
  startBlock(0);
  detail::writer.on = true;
  return on();
}

void close() {
  if (!ring.base) return;
  detail::writer = detail::Writer{};
  munmap(ring.base, ring.bytes);
  ::close(ring.fd);
  ring = Ring{};
}

namespace detail {

void nextBlock(uint32_t size) noexcept {
  CORE_ASSERT(size <= detail::kBlockPayload);
  startBlock((ring.header->currentBlock + 1) % ring.header->blockCount);
}

void dropRecord() noexcept {
  if (ring.header) ++ring.header->droppedRecords;
}

}  // namespace detail

const MessageInfo& messageIs(MessageInfo info) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  info.id = static_cast<uint32_t>(r.messages.size() + 1);
  const MessageInfo& m = r.messages.emplace_back(std::move(info));
  if (on()) appendDescriptor(m);
  return m;
}

const MessageInfo* message(uint32_t id) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (id == 0 || id > r.messages.size()) return nullptr;
  return &r.messages[id - 1];
}

namespace {

// Reads the bytes of one region of a trace file; every read is bounds-checked and a problem
// throws naming the file and the offset.
class Cursor {
 public:
  Cursor(const std::string& path, std::string_view data, size_t begin, size_t end)
      : path_(path), data_(data), pos_(begin), end_(end) {}

  size_t offset() const { return pos_; }
  bool atEnd() const { return pos_ >= end_; }

  template <class T>
  T take(std::string_view what) {
    T value;
    std::memcpy(&value, bytes(sizeof value, what).data(), sizeof value);
    return value;
  }
  std::string_view bytes(size_t n, std::string_view what) {
    if (n > end_ - pos_) fail("truncated " + std::string(what));
    std::string_view out = data_.substr(pos_, n);
    pos_ += n;
    return out;
  }
  std::string_view string(std::string_view what) { return bytes(take<uint32_t>(what), what); }
  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(path_ + ": corrupt ring trace at offset " + std::to_string(pos_) +
                             ": " + what);
  }

 private:
  const std::string& path_;
  std::string_view data_;
  size_t pos_;
  size_t end_;
};

[[noreturn]] void notRingTrace(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": not a ring trace file (" + why + ")");
}

std::string readFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error(path + ": cannot open: " + std::strerror(errno));
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    throw std::runtime_error(path + ": not a regular file");
  }
  std::string data(static_cast<size_t>(st.st_size), '\0');
  for (size_t done = 0; done < data.size();) {
    ssize_t n = ::read(fd, data.data() + done, data.size() - done);
    if (n <= 0) throw std::runtime_error(path + ": cannot read: " + std::strerror(n ? errno : EIO));
    done += static_cast<size_t>(n);
  }
  return data;
}

FileHeader parseHeader(const std::string& path, std::string_view data) {
  FileHeader h{};
  if (data.size() < kHeaderBytes) notRingTrace(path, "shorter than a header");
  std::memcpy(&h, data.data(), sizeof h);
  if (std::memcmp(h.magic, kMagic, sizeof h.magic) != 0) notRingTrace(path, "bad magic");
  if (h.version != kVersion) {
    notRingTrace(path, "unsupported version " + std::to_string(h.version) + ", expected " +
                           std::to_string(kVersion));
  }
  if (h.byteOrder != kByteOrder) notRingTrace(path, "written with another byte order");
  if (h.fileBytes != data.size()) {
    notRingTrace(path, "header says " + std::to_string(h.fileBytes) + " bytes, file has " +
                           std::to_string(data.size()));
  }
  bool fits = h.headerBytes == kHeaderBytes && h.blockBytes == kBlockBytes &&
              h.descOffset >= kHeaderBytes && h.descCapacity <= data.size() &&
              h.descOffset <= data.size() - h.descCapacity && h.descUsed <= h.descCapacity &&
              h.ringOffset >= h.descOffset + h.descCapacity && h.ringOffset <= data.size() &&
              h.blockCount <= (data.size() - h.ringOffset) / kBlockBytes && h.blockCount > 0;
  if (!fits) notRingTrace(path, "inconsistent layout");
  return h;
}

MessageInfo parseDescriptor(Cursor& c, uint32_t expectedId) {
  size_t start = c.offset();
  auto entryBytes = c.take<uint32_t>("descriptor size");
  if (entryBytes < kDescFixedBytes || entryBytes % 8 != 0) c.fail("bad descriptor size");
  MessageInfo m;
  m.id = c.take<uint32_t>("descriptor id");
  if (m.id != expectedId) c.fail("descriptor id " + std::to_string(m.id) + " out of order");
  m.line = c.take<uint32_t>("descriptor line");
  m.level = c.take<uint8_t>("descriptor level");
  c.take<uint8_t>("descriptor");
  auto itemCount = c.take<uint16_t>("descriptor item count");
  m.file = c.string("descriptor file");
  m.function = c.string("descriptor function");
  m.handle = c.string("descriptor handle");
  for (uint16_t i = 0; i < itemCount; ++i) {
    auto kind = c.take<uint8_t>("descriptor item");
    if (kind >= kKindCount) c.fail("unknown item kind " + std::to_string(kind));
    Item item{static_cast<Kind>(kind), {}};
    if (item.kind == Kind::piece) item.piece = c.string("descriptor piece");
    m.items.push_back(std::move(item));
  }
  if (c.offset() > start + entryBytes) c.fail("descriptor overruns its size");
  c.bytes(start + entryBytes - c.offset(), "descriptor padding");
  return m;
}

std::vector<MessageInfo> parseDescriptors(const std::string& path, std::string_view data,
                                          const FileHeader& h) {
  std::vector<MessageInfo> messages;
  Cursor c(path, data, h.descOffset, h.descOffset + h.descUsed);
  while (!c.atEnd()) {
    messages.push_back(parseDescriptor(c, static_cast<uint32_t>(messages.size() + 1)));
  }
  return messages;
}

Netval::IpGenAddr ipAddr(Cursor& c) {
  auto af = static_cast<Netval::AddressFamily>(c.take<uint8_t>("address family"));
  if (af == Netval::AddressFamily::ipv4_) {
    auto bytes = c.take<std::array<uint8_t, 4>>("IPv4 address");
    return Netval::IpGenAddr::ipv4(uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 |
                                   uint32_t(bytes[2]) << 8 | bytes[3]);
  }
  if (af == Netval::AddressFamily::ipv6_) {
    return Netval::IpGenAddr::ipv6(c.take<Netval::IpGenAddr::Bytes>("IPv6 address"));
  }
  if (af != Netval::AddressFamily::unknown_) {
    c.fail("bad address family " + std::to_string(static_cast<int>(af)));
  }
  return Netval::IpGenAddr();
}

void renderValue(std::ostream& os, Kind kind, Cursor& c) {
  switch (kind) {
    case Kind::piece:
      break;
    case Kind::boolean:
      os << (c.take<uint8_t>("boolean") != 0);
      break;
    case Kind::character:
      os << c.take<char>("character");
      break;
    case Kind::signedInt:
      os << c.take<int64_t>("integer");
      break;
    case Kind::unsignedInt:
      os << c.take<uint64_t>("integer");
      break;
    case Kind::floating:
      os << c.take<double>("number");
      break;
    case Kind::string:
    case Kind::text: {
      auto length = c.take<uint32_t>("string length");
      os << c.bytes(length & ~kStringTruncated, "string");
      if (length & kStringTruncated) os << "...";
      break;
    }
    case Kind::ipGenAddr:
      os << ipAddr(c);
      break;
    case Kind::ethAddr: {
      auto value = c.take<uint64_t>("MAC address");
      if (value >> 48) c.fail("MAC address wider than 48 bits");
      os << Netval::EthAddr(value);
      break;
    }
    case Kind::intfId:
      os << Netval::IntfId::fromId(c.take<uint32_t>("interface id")).name();
      break;
  }
}

std::string renderRecord(uint64_t seq, const MessageInfo& m, Cursor& values) {
  std::ostringstream os;
  os << seq << ' ' << m.file << ':' << m.line << " [" << m.handle << '/' << m.level << "] "
     << m.function << ": ";
  for (const Item& item : m.items) {
    if (item.kind == Kind::piece) {
      os << item.piece;
    } else {
      renderValue(os, item.kind, values);
    }
  }
  return std::move(os).str();
}

struct BlockRef {
  uint64_t firstSeq;
  size_t payload;  // offset of the first record
  uint32_t used;
};

std::vector<BlockRef> usedBlocks(const std::string& path, std::string_view data,
                                 const FileHeader& h) {
  std::vector<BlockRef> blocks;
  for (uint64_t b = 0; b < h.blockCount; ++b) {
    size_t offset = h.ringOffset + b * kBlockBytes;
    Cursor c(path, data, offset, offset + sizeof(BlockHeader));
    auto bh = c.take<BlockHeader>("block header");
    if (bh.used == 0) continue;
    if (bh.magic != kBlockMagic) c.fail("bad block magic in block " + std::to_string(b));
    if (bh.used > detail::kBlockPayload) c.fail("block " + std::to_string(b) + " overfull");
    blocks.push_back({bh.firstSeq, offset + sizeof(BlockHeader), bh.used});
  }
  std::sort(blocks.begin(), blocks.end(),
            [](const BlockRef& a, const BlockRef& b) { return a.firstSeq < b.firstSeq; });
  return blocks;
}

void decodeBlock(const std::string& path, std::string_view data, const BlockRef& block,
                 const std::vector<MessageInfo>& messages, std::vector<std::string>& out) {
  Cursor c(path, data, block.payload, block.payload + block.used);
  for (uint64_t seq = block.firstSeq; !c.atEnd(); ++seq) {
    size_t start = c.offset();
    auto r = c.take<RecordHeader>("record header");
    if (r.bytes < sizeof r || r.bytes % 8 != 0) c.fail("bad record size");
    if (r.id == 0 || r.id > messages.size()) c.fail("unknown message id " + std::to_string(r.id));
    c.bytes(r.bytes - sizeof r, "record");
    Cursor values(path, data, start + sizeof r, start + r.bytes);
    out.push_back(renderRecord(seq, messages[r.id - 1], values));
  }
}

}  // namespace

std::vector<std::string> decodeFile(const std::string& path) {
  return decode(readFile(path), path);
}

std::vector<std::string> decode(std::string_view data, const std::string& name) {
  FileHeader h = parseHeader(name, data);
  std::vector<MessageInfo> messages = parseDescriptors(name, data, h);
  std::vector<std::string> lines;
  for (const BlockRef& block : usedBlocks(name, data, h)) {
    decodeBlock(name, data, block, messages, lines);
  }
  return lines;
}

}  // namespace RingLog
