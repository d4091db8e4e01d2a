// Trace files through tlvtracer's decoder and printer.
//
// Input: the trace file's bytes, decoded as tlvtracer does (header, then records until one is
// incomplete or corrupt); every record is printed as a line and as JSON. A line never spans lines,
// JSON is always a UTF-8 object without raw control characters, and the records read from any
// prefix of the file are the first records of the whole file.
#include <glib.h>

#include <string>
#include <vector>

#include "fuzz_support.h"
#include "tvtdecoder.h"
#include "tvtprinter.h"

namespace {

using tlvtracer::DecodeResult;

// The printed lines of the records; `corrupt` tells whether decoding stopped at a corrupt part.
std::vector<std::string> Decode(const std::vector<uint8_t>& bytes, bool* corrupt) {
  std::vector<std::string> lines;
  std::string problem;
  DecodeResult result = tlvtracer::CheckHeader(bytes.data(), bytes.size(), &problem);
  for (size_t at = tlvtracer::kHeaderSize, used = 0; result == DecodeResult::kRecord && at < bytes.size(); at += used) {
    tlvtracer::TraceRecord record;
    result = tlvtracer::DecodeRecord(bytes.data() + at, bytes.size() - at, at, &record, &used, &problem);
    if (result != DecodeResult::kRecord) break;
    if (used == 0 || used > bytes.size() - at) fuzz::Fail("a record of %zu bytes with %zu left", used, bytes.size() - at);
    lines.push_back(tlvtracer::FormatLine(record));
    if (lines.back().find_first_of("\n\r") != std::string::npos) fuzz::Fail("a line spans lines: %s", lines.back().c_str());
    const std::string json = tlvtracer::FormatJson(record);
    if (!g_utf8_validate(json.data(), static_cast<gssize>(json.size()), nullptr)) fuzz::Fail("JSON that is not UTF-8");
    for (unsigned char c : json) {
      if (c < 0x20) fuzz::Fail("JSON with a raw control character 0x%02x", c);
    }
    if (json.front() != '{' || json.back() != '}') fuzz::Fail("JSON that is no object: %s", json.c_str());
  }
  *corrupt = result == DecodeResult::kCorrupt;
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "UTC", 1);  // times print in one zone, whatever the machine's
  for (uint32_t level : {1u, 2u, 4u, 8u}) {
    if (tlvtracer::LevelFromName(tlvtracer::LevelName(level)) != level) fuzz::Fail("level %u does not read back", level);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Exact copies, so that any read past the end is caught; the prefix is a file still being written.
  const size_t cut = size == 0 ? 0 : (size_t{data[size - 1]} * 131) % (size + 1);
  bool whole_corrupt = false, part_corrupt = false;
  const std::vector<std::string> whole = Decode(std::vector<uint8_t>(data, data + size), &whole_corrupt);
  const std::vector<std::string> part = Decode(std::vector<uint8_t>(data, data + cut), &part_corrupt);
  if (part.size() > whole.size()) fuzz::Fail("a prefix holds more records than the file");
  for (size_t i = 0; i < part.size(); ++i) {
    if (part[i] != whole[i]) fuzz::Fail("record %zu reads differently in a prefix", i);
  }
  if (part_corrupt && !whole_corrupt) fuzz::Fail("a prefix is corrupt where the file is not");
  return 0;
}
