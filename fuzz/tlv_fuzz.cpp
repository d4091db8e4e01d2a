// Trace files through tlvtracer's decoder and printer.
//
// Input: the trace file's bytes. They are decoded as tlvtracer does (header, then records until
// one is incomplete or corrupt) and every record is printed as a line and as JSON. A line never
// spans lines, JSON is always UTF-8 without raw control characters, and the records read from
// any prefix of the file are the first records of the whole file.
#include <glib.h>

#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "tvtdecoder.h"
#include "tvtprinter.h"

namespace {

struct Decoded {
  std::vector<std::string> lines;
  bool corrupt = false;
};

void CheckLine(const std::string& line) {
  if (line.find_first_of("\n\r") != std::string::npos) fuzz::Fail("a printed record spans lines: %s", line.c_str());
}

void CheckJson(const std::string& json) {
  if (!g_utf8_validate(json.data(), static_cast<gssize>(json.size()), nullptr)) fuzz::Fail("JSON that is not UTF-8");
  for (unsigned char c : json) {
    if (c < 0x20) fuzz::Fail("JSON with a raw control character 0x%02x", c);
  }
  if (json.front() != '{' || json.back() != '}') fuzz::Fail("JSON that is no object: %s", json.c_str());
}

Decoded Decode(const uint8_t* data, size_t size) {
  Decoded decoded;
  std::string problem;
  const tlvtracer::DecodeResult header = tlvtracer::CheckHeader(data, size, &problem);
  if (header != tlvtracer::DecodeResult::kRecord) {
    decoded.corrupt = header == tlvtracer::DecodeResult::kCorrupt;
    return decoded;
  }
  size_t at = tlvtracer::kHeaderSize;
  while (at < size) {
    tlvtracer::TraceRecord record;
    size_t used = 0;
    const tlvtracer::DecodeResult result = tlvtracer::DecodeRecord(data + at, size - at, at, &record, &used, &problem);
    if (result == tlvtracer::DecodeResult::kCorrupt) decoded.corrupt = true;
    if (result != tlvtracer::DecodeResult::kRecord) break;
    if (used == 0 || used > size - at) fuzz::Fail("a record of %zu bytes with %zu left", used, size - at);
    const std::string line = tlvtracer::FormatLine(record);
    CheckLine(line);
    CheckJson(tlvtracer::FormatJson(record));
    decoded.lines.push_back(line);
    at += used;
  }
  return decoded;
}

void CheckLevelNames() {
  for (uint32_t level : {1u, 2u, 4u, 8u}) {
    if (tlvtracer::LevelFromName(tlvtracer::LevelName(level)) != level) fuzz::Fail("level %u does not read back", level);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Times print in one zone, whatever the machine's.
  setenv("TZ", "UTC", 1);
  CheckLevelNames();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact copy: any read past the end is caught.
  std::vector<uint8_t> bytes(data, data + size);
  const Decoded whole = Decode(bytes.data(), bytes.size());
  // A file still being written: only a prefix of it is there yet.
  const size_t cut = size == 0 ? 0 : (size_t{data[size - 1]} * 131) % (size + 1);
  std::vector<uint8_t> prefix(data, data + cut);
  const Decoded part = Decode(prefix.data(), prefix.size());
  if (part.lines.size() > whole.lines.size()) fuzz::Fail("a prefix holds more records than the file");
  for (size_t i = 0; i < part.lines.size(); ++i) {
    if (part.lines[i] != whole.lines[i]) fuzz::Fail("record %zu reads differently in a prefix", i);
  }
  if (part.corrupt && !whole.corrupt) fuzz::Fail("a prefix is corrupt where the file is not");
  return 0;
}
