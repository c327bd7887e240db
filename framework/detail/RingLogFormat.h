#pragma once

#include <cstdint>

// The ring trace file's layout: what the writer (framework/RingLog.h) lays down and the decoder
// reads. Only the ring trace and code that inspects ring files use it.
//
// File format (version 4, all integers in the writer's byte order, checked through byteOrder):
//
//   offset 0, 4096 bytes: FileHeader
//     magic "RNGTRACE", version 4 (versions 2 and 3 read too: version 2 holds no kernel names,
//     neither holds intfShortName items),
//     byteOrder 0x01020304, headerBytes, blockBytes, fileBytes, descOffset/descCapacity/descUsed
//     (the descriptor area and how much of it is written), ringOffset/blockCount (the ring),
//     currentBlock (the block being written), droppedRecords (occurrences not recorded because
//     their descriptor did not fit).
//   descOffset, descCapacity bytes: descriptor area, append-only, never overwritten by the ring.
//     One entry per message, in id order starting at 1; descUsed is raised after an entry is
//     complete. Entry: u32 entryBytes (multiple of 8), u32 id, u32 line, u8 level, u8 reserved,
//     u16 itemCount, then the strings file (base name), function, handle, then itemCount items.
//     A string is u32 length + bytes. An item is u8 Kind; a piece item is followed by its string.
//   ringOffset: blockCount blocks of blockBytes. Each block starts with a BlockHeader
//     (u64 firstSeq, u64 startTime, u32 used payload bytes, u32 magic "BLK1") followed by
//     records that never straddle blocks. Record: RecordHeader (u32 message id, u32 recordBytes,
//     a multiple of 8) then the values in the message's value order: boolean/character 1 byte,
//     signedInt/unsignedInt/floating/ethAddr 8 bytes, intfId/intfShortName 4 bytes (an
//     interned kernel name, whose id means nothing to a reader, adds u8 length and the name),
//     ipGenAddr 1 byte family then the address in network order (4 bytes for IPv4, 16 for IPv6,
//     none for an unset address), string/text u32 length (bit 31 set when truncated) + bytes.
//     Records carry no sequence number: a record's is its block's firstSeq plus its index in the
//     block. A block's `used` is raised only after a record is complete.
namespace RingLog::detail {

inline constexpr char kMagic[8] = {'R', 'N', 'G', 'T', 'R', 'A', 'C', 'E'};
inline constexpr uint32_t kVersion = 4;
// The oldest version a reader accepts.
inline constexpr uint32_t kOldestVersion = 2;
inline constexpr uint32_t kByteOrder = 0x01020304u;
inline constexpr uint32_t kHeaderBytes = 4096;
inline constexpr uint32_t kBlockBytes = 64 * 1024;
inline constexpr uint32_t kBlockMagic = 0x314b4c42u;  // "BLK1"
// Set in a string's length when the writer cut the string.
inline constexpr uint32_t kStringTruncated = 0x80000000u;
// Item kinds below this are known (RingLog::Kind).
inline constexpr uint8_t kKindCount = 12;

// The first bytes of a ring file; written by open(), descUsed, currentBlock and droppedRecords
// kept current by the writer.
struct FileHeader {
  char magic[8];
  uint32_t version;
  uint32_t byteOrder;
  uint32_t headerBytes;
  uint32_t blockBytes;
  uint64_t fileBytes;
  uint64_t descOffset;
  uint64_t descCapacity;
  uint64_t descUsed;
  uint64_t ringOffset;
  uint64_t blockCount;
  uint64_t currentBlock;
  uint64_t droppedRecords;
};

// The start of each block; reset by the writer whenever it starts (or restarts) the block.
struct BlockHeader {
  uint64_t firstSeq;
  uint64_t startTime;
  uint32_t used;
  uint32_t magic;
};

// The start of each record; its values follow. Records carry no sequence number of their own:
// sequence numbers are contiguous, so a block's first one and a record's place give it.
struct RecordHeader {
  uint32_t id;
  uint32_t bytes;
};
static_assert(sizeof(BlockHeader) == 24 && sizeof(RecordHeader) == 8);

}  // namespace RingLog::detail
