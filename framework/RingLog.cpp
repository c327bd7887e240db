#include "framework/RingLog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
using detail::kOldestVersion;
using detail::kVersion;
using detail::RecordHeader;

namespace {

constexpr uint64_t kMinDescBytes = 64 * 1024;
constexpr uint64_t kMinBlocks = 4;

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

}  // namespace RingLog
