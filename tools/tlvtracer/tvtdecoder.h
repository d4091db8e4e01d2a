// Decoding of the binary trace file: a 48-byte header, then records of a 48-byte head, the
// module, function and text (each NUL-terminated) and padding up to a multiple of 4 bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tlvtracer {

constexpr size_t kHeaderSize = 48;
constexpr size_t kRecordHeadSize = 48;
constexpr size_t kMaxRecordSize = 2352;

struct TraceRecord {
  uint64_t offset = 0;  // byte offset of the record in the file
  uint32_t level = 0;
  uint32_t pid = 0;
  uint32_t thread = 0;
  uint32_t seconds = 0;
  uint16_t milliseconds = 0;
  std::string module;
  std::string function;
  std::string text;
};

enum class DecodeResult {
  kRecord,    // one record decoded; `used` bytes consumed
  kNeedMore,  // the bytes end inside the header or record
  kCorrupt,   // the bytes are not a valid header or record; `problem` says why
};

// Checks the file header in `data`.
DecodeResult CheckHeader(const unsigned char* data, size_t size, std::string* problem);

// Decodes the record at the start of `data`, which lies at `offset` in the file.
DecodeResult DecodeRecord(const unsigned char* data, size_t size, uint64_t offset, TraceRecord* record,
                          size_t* used, std::string* problem);

// Where a record should start but the bytes are zero, another process's writer left a hole: a
// plug-in loaded later cut the file short and an older one wrote on at its own offset. Records
// start on 4-byte boundaries and the third byte of every record is its format version (3), so the
// first 4-byte word that is not all zero starts the next record. Returns the length of the zero
// run at the start of `data` that ends before such a word (0 when `data` starts with a record), or
// kHoleUnended when `data` holds nothing but zeros, so that where the run ends is not known yet.
constexpr size_t kHoleUnended = static_cast<size_t>(-1);
size_t HoleLength(const unsigned char* data, size_t size);

// "debug", "info", "warn", "error", or "level<N>" for any other value.
std::string LevelName(uint32_t level);

// The level value for a name given on the command line, or 0 when the name is unknown.
uint32_t LevelFromName(const std::string& name);

}  // namespace tlvtracer
