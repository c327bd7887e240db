#include "framework/RingLogReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace RingLog {

using detail::BlockHeader;
using detail::FileHeader;
using detail::kBlockBytes;
using detail::kBlockMagic;
using detail::kByteOrder;
using detail::kHeaderBytes;
using detail::kKindCount;
using detail::kMagic;
using detail::kOldestVersion;
using detail::kStringTruncated;
using detail::kVersion;
using detail::RecordHeader;

namespace {

constexpr size_t kDescFixedBytes = 16;

// A problem in the region a Cursor reads; the reader decides whether it ends the file or only
// the record or block.
struct Damage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Reads the bytes of one region of a trace file held in `data`, which starts at file offset
// `base`; every read is bounds-checked and a problem throws Damage naming the file and the
// offset.
class Cursor {
 public:
  Cursor(const std::string& path, std::string_view data, size_t begin, size_t end,
         uint64_t base = 0)
      : path_(path), data_(data), pos_(begin), end_(end), base_(base) {}

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
    throw Damage(path_ + ": corrupt ring trace at offset " + std::to_string(base_ + pos_) + ": " +
                 what);
  }

 private:
  const std::string& path_;
  std::string_view data_;
  size_t pos_;
  size_t end_;
  uint64_t base_;
};

[[noreturn]] void notRingTrace(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": not a ring trace file (" + why + ")");
}

FileHeader parseHeader(const std::string& path, std::string_view data, uint64_t fileBytes) {
  FileHeader h{};
  if (data.size() < kHeaderBytes) notRingTrace(path, "shorter than a header");
  std::memcpy(&h, data.data(), sizeof h);
  if (std::memcmp(h.magic, kMagic, sizeof h.magic) != 0) notRingTrace(path, "bad magic");
  if (h.version < kOldestVersion || h.version > kVersion) {
    notRingTrace(path, "unsupported version " + std::to_string(h.version) + ", expected " +
                           std::to_string(kVersion));
  }
  if (h.byteOrder != kByteOrder) notRingTrace(path, "written with another byte order");
  if (h.fileBytes != fileBytes) {
    notRingTrace(path, "header says " + std::to_string(h.fileBytes) + " bytes, file has " +
                           std::to_string(fileBytes));
  }
  bool fits = h.headerBytes == kHeaderBytes && h.blockBytes == kBlockBytes &&
              h.descOffset >= kHeaderBytes && h.descCapacity <= fileBytes &&
              h.descOffset <= fileBytes - h.descCapacity && h.descUsed <= h.descCapacity &&
              h.ringOffset >= h.descOffset + h.descCapacity && h.ringOffset <= fileBytes &&
              h.blockCount <= (fileBytes - h.ringOffset) / kBlockBytes && h.blockCount > 0;
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

void renderIntf(std::ostream& os, bool shortForm, Cursor& c) {
  auto id = c.take<uint32_t>("interface id");
  if (id >> 28 == Netval::IntfId::kKernelType) {
    auto length = c.take<uint8_t>("interface name length");
    if (length == 0 || length > Netval::IntfId::kKernelNameMax) {
      c.fail("interface name of " + std::to_string(length) + " bytes");
    }
    os << c.bytes(length, "interface name");
    return;
  }
  const Netval::IntfId intf = Netval::IntfId::fromId(id);
  if (shortForm) {
    os << Netval::IntfShortName(intf);
  } else {
    os << intf;
  }
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
    case Kind::intfShortName:
      renderIntf(os, kind == Kind::intfShortName, c);
      break;
  }
}

std::string renderText(const MessageInfo& m, Cursor& values) {
  std::ostringstream os;
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
  uint64_t index;
  uint64_t firstSeq;
  uint32_t used;
};

}  // namespace

std::string recordLine(const Record& r) {
  const MessageInfo& m = *r.message;
  return std::to_string(r.seq) + ' ' + m.file + ':' + std::to_string(m.line) + " [" + m.handle +
         '/' + std::to_string(m.level) + "] " + m.function + ": " + r.text;
}

Reader::Reader(const std::string& path) : fd_(-1), name_(path) {
  // Non-blocking, so that opening a FIFO does not wait for a writer.
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd_ < 0) throw std::runtime_error(path + ": cannot open: " + std::strerror(errno));
  loadOrClose();
}

Reader::Reader(int fd, std::string name) : fd_(fd), name_(std::move(name)) { loadOrClose(); }

void Reader::loadOrClose() {
  // A constructor that throws runs no destructor: the descriptor is closed here.
  try {
    load();
  } catch (...) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    throw;
  }
}

Reader::~Reader() {
  if (fd_ >= 0) ::close(fd_);
}

void Reader::load() {
  struct stat st {};
  if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd_);
    fd_ = -1;
    throw std::runtime_error(name_ + ": not a regular file");
  }
  const auto fileBytes = static_cast<uint64_t>(st.st_size);
  header_ = parseHeader(name_, readAt(0, std::min<uint64_t>(kHeaderBytes, fileBytes)), fileBytes);
  const std::string desc = readAt(header_.descOffset, header_.descUsed);
  Cursor c(name_, desc, 0, desc.size(), header_.descOffset);
  try {
    while (!c.atEnd()) {
      messages_.push_back(parseDescriptor(c, static_cast<uint32_t>(messages_.size() + 1)));
    }
  } catch (const Damage& e) {
    // Without its descriptors no record can be read.
    throw std::runtime_error(e.what());
  }
}

std::string Reader::readAt(uint64_t offset, size_t bytes) const {
  std::string data(bytes, '\0');
  for (size_t done = 0; done < bytes;) {
    const ssize_t n =
        ::pread(fd_, data.data() + done, bytes - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      throw std::runtime_error(name_ + ": cannot read: " + std::strerror(n ? errno : EIO));
    }
    done += static_cast<size_t>(n);
  }
  return data;
}

void Reader::forEach(const std::function<void(const Record&)>& record,
                     const std::function<void(const std::string&)>& damage) const {
  std::vector<BlockRef> blocks;
  for (uint64_t b = 0; b < header_.blockCount; ++b) {
    const uint64_t offset = header_.ringOffset + b * kBlockBytes;
    const std::string raw = readAt(offset, sizeof(BlockHeader));
    BlockHeader bh{};
    std::memcpy(&bh, raw.data(), sizeof bh);
    if (bh.used == 0) continue;
    const std::string where = name_ + ": corrupt ring trace at offset " + std::to_string(offset) +
                              ": block " + std::to_string(b);
    if (bh.magic != kBlockMagic) {
      damage(where + " has a bad block magic");
    } else if (bh.used > detail::kBlockPayload) {
      damage(where + " is overfull");
    } else {
      blocks.push_back({b, bh.firstSeq, bh.used});
    }
  }
  std::sort(blocks.begin(), blocks.end(),
            [](const BlockRef& a, const BlockRef& b) { return a.firstSeq < b.firstSeq; });
  for (const BlockRef& block : blocks) {
    const uint64_t payload = header_.ringOffset + block.index * kBlockBytes + sizeof(BlockHeader);
    const std::string data = readAt(payload, block.used);
    Cursor c(name_, data, 0, data.size(), payload);
    Record out;
    for (out.seq = block.firstSeq; !c.atEnd(); ++out.seq) {
      const size_t start = c.offset();
      RecordHeader r{};
      try {
        r = c.take<RecordHeader>("record header");
        if (r.bytes < sizeof r || r.bytes % 8 != 0) c.fail("bad record size");
        c.bytes(r.bytes - sizeof r, "record");
      } catch (const Damage& e) {
        // Without its size the rest of the block cannot be found.
        damage(std::string(e.what()) + " (the rest of block " + std::to_string(block.index) + ")");
        break;
      }
      try {
        if (r.id == 0 || r.id > messages_.size()) {
          Cursor(name_, data, start, start + r.bytes, payload)
              .fail("unknown message id " + std::to_string(r.id));
        }
        out.message = &messages_[r.id - 1];
        Cursor values(name_, data, start + sizeof r, start + r.bytes, payload);
        out.text = renderText(*out.message, values);
      } catch (const Damage& e) {
        damage(std::string(e.what()) + " (record " + std::to_string(out.seq) + ")");
        continue;
      }
      record(out);
    }
  }
}

std::vector<std::string> decodeFile(const std::string& path) {
  std::vector<std::string> lines;
  Reader(path).forEach([&](const Record& r) { lines.push_back(recordLine(r)); },
                       [](const std::string& what) { throw std::runtime_error(what); });
  return lines;
}

}  // namespace RingLog
