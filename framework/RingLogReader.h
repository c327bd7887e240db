#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "framework/RingLog.h"
#include "framework/detail/RingLogFormat.h"

namespace RingLog {

// One surviving record of a ring file.
struct Record {
  uint64_t seq = 0;
  const MessageInfo* message = nullptr;  // owned by the Reader
  std::string text;                      // the message's pieces and values
};

// "<seq> <file>:<line> [<handle>/<level>] <function>: <text>", as decodeFile prints a record.
std::string recordLine(const Record& record);

// Reads a ring trace file a block at a time, so that its size does not matter: the header is
// checked first, then the descriptors and the block headers are read, then each block in turn,
// oldest first. A damaged block or record is reported and skipped; the rest is still read.
class Reader {
 public:
  // Opens `path`, which must be a regular file (a FIFO, device or directory is refused without
  // blocking on it), and reads its header and descriptors. Throws std::runtime_error naming the
  // path and the problem for a file that cannot be opened or is not a ring trace.
  explicit Reader(const std::string& path);
  // As above, over `fd` (owned from now on, a regular file), named `name` in messages.
  Reader(int fd, std::string name);
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  const detail::FileHeader& header() const { return header_; }
  const std::vector<MessageInfo>& messages() const { return messages_; }

  // Calls `record` for each surviving record, oldest first, and `damage` with a message naming
  // the file, the offset and the problem for each damaged block or record, which is skipped
  // (for a record whose size is damaged, with the rest of its block).
  // Throws std::runtime_error when the file cannot be read.
  void forEach(const std::function<void(const Record&)>& record,
               const std::function<void(const std::string&)>& damage) const;

 private:
  void load();
  void loadOrClose();
  std::string readAt(uint64_t offset, size_t bytes) const;

  int fd_;
  std::string name_;
  detail::FileHeader header_{};
  std::vector<MessageInfo> messages_;
};

}  // namespace RingLog
