#include "tvtdecoder.h"

#include <cstring>

namespace tlvtracer {

namespace {

uint16_t Le16(const unsigned char* at) { return static_cast<uint16_t>(at[0] | at[1] << 8); }

uint32_t Le32(const unsigned char* at) {
  return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
         static_cast<uint32_t>(at[3]) << 24;
}

DecodeResult Corrupt(std::string* problem, const std::string& why) {
  *problem = why;
  return DecodeResult::kCorrupt;
}

// Reads the NUL-terminated string at `start` within a record of `length` bytes.
bool ReadString(const unsigned char* record, size_t length, size_t start, std::string* out) {
  if (start >= length) return false;
  const void* end = memchr(record + start, '\0', length - start);
  if (end == nullptr) return false;
  out->assign(reinterpret_cast<const char*>(record + start),
              static_cast<const unsigned char*>(end) - (record + start));
  return true;
}

}  // namespace

DecodeResult CheckHeader(const unsigned char* data, size_t size, std::string* problem) {
  static const unsigned char kExpected[kHeaderSize] = {
      'T', 'L', 'V', 'T', 0xFF, 0xFE, 3, 2, 0x30, 0x00, 0x01, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
      0,   0,   0,   0,   48,   0,    0, 0, 48,   0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  const size_t present = size < kHeaderSize ? size : kHeaderSize;
  if (present >= 4 && memcmp(data, "TLVT", 4) != 0) return Corrupt(problem, "no \"TLVT\" magic: not a trace file");
  for (size_t i = 0; i < present; ++i) {
    if (data[i] != kExpected[i]) return Corrupt(problem, "unexpected header byte at offset " + std::to_string(i));
  }
  return size < kHeaderSize ? DecodeResult::kNeedMore : DecodeResult::kRecord;
}

DecodeResult DecodeRecord(const unsigned char* data, size_t size, uint64_t offset, TraceRecord* record,
                          size_t* used, std::string* problem) {
  if (size < 2) return DecodeResult::kNeedMore;
  const size_t length = Le16(data);
  if (length < kRecordHeadSize + 4 || length % 4 != 0 || length > kMaxRecordSize) {
    return Corrupt(problem, "impossible record length " + std::to_string(length));
  }
  if (size < kRecordHeadSize) return DecodeResult::kNeedMore;
  if (data[2] != 3 || data[6] != 4) return Corrupt(problem, "unknown record format");
  if (data[7] != 0) return Corrupt(problem, "scrambled record");
  if (size < length) return DecodeResult::kNeedMore;

  const size_t module_at = Le16(data + 30);
  const size_t function_at = Le16(data + 32);
  const size_t text_at = Le16(data + 34);
  if (module_at != kRecordHeadSize || function_at < module_at || text_at <= function_at || text_at >= length) {
    return Corrupt(problem, "string offsets out of place");
  }
  TraceRecord decoded;
  if (!ReadString(data, length, module_at, &decoded.module) ||
      !ReadString(data, length, function_at, &decoded.function) ||
      !ReadString(data, length, text_at, &decoded.text)) {
    return Corrupt(problem, "unterminated string");
  }
  decoded.offset = offset;
  decoded.level = Le32(data + 8);
  decoded.pid = Le32(data + 12);
  decoded.thread = Le32(data + 16);
  decoded.seconds = Le32(data + 24);
  decoded.milliseconds = Le16(data + 28);
  if (decoded.milliseconds > 999) return Corrupt(problem, "milliseconds out of range");
  *record = std::move(decoded);
  *used = length;
  return DecodeResult::kRecord;
}

size_t HoleLength(const unsigned char* data, size_t size) {
  size_t zeros = 0;
  while (zeros < size && data[zeros] == 0) ++zeros;
  if (zeros == size) return kHoleUnended;
  return zeros & ~static_cast<size_t>(3);
}

std::string LevelName(uint32_t level) {
  switch (level) {
    case 1: return "debug";
    case 2: return "info";
    case 4: return "warn";
    case 8: return "error";
    default: return "level" + std::to_string(level);
  }
}

uint32_t LevelFromName(const std::string& name) {
  if (name == "debug") return 1;
  if (name == "info") return 2;
  if (name == "warn" || name == "warning") return 4;
  if (name == "error") return 8;
  return 0;
}

}  // namespace tlvtracer
