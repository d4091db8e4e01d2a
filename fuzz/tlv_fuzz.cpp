// Trace files through tlvtracer's decoder and printer: a printed line never spans lines, JSON is UTF-8
// without raw control characters, and a prefix (a file still being written) reads as the whole file began.
#include <glib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "tvtdecoder.h"
#include "tvtprinter.h"

namespace {

using tlvtracer::DecodeResult;

// The printed lines of the records, then "corrupt" when decoding stopped at a corrupt part.
std::vector<std::string> Decode(const uint8_t* data, size_t size) {
  std::vector<std::string> lines;
  std::string problem;
  DecodeResult result = tlvtracer::CheckHeader(data, size, &problem);
  for (size_t at = tlvtracer::kHeaderSize, used = 0; result == DecodeResult::kRecord && at < size; at += used) {
    tlvtracer::TraceRecord record;
    result = tlvtracer::DecodeRecord(data + at, size - at, at, &record, &used, &problem);
    if (result != DecodeResult::kRecord) break;
    if (used == 0 || used > size - at) fuzz::Fail("a record of %zu bytes with %zu left", used, size - at);
    lines.push_back(tlvtracer::FormatLine(record));
    if (lines.back().find_first_of("\n\r") != std::string::npos) fuzz::Fail("a line spans lines: %s", lines.back().c_str());
    const std::string json = tlvtracer::FormatJson(record);
    if (!g_utf8_validate(json.data(), static_cast<gssize>(json.size()), nullptr) ||
        std::any_of(json.begin(), json.end(), [](unsigned char c) { return c < 0x20; })) {
      fuzz::Fail("JSON that is not UTF-8 or holds a raw control character: %s", json.c_str());
    }
  }
  if (result == DecodeResult::kCorrupt) lines.push_back("corrupt");
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "UTC", 1);  // times print in one zone, whatever the machine's
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const size_t cut = size == 0 ? 0 : (size_t{data[size - 1]} * 131) % (size + 1);
  const std::vector<uint8_t> part(data, data + cut);  // an exact copy, so that a read past its end is caught
  const std::vector<std::string> whole = Decode(data, size), prefix = Decode(part.data(), cut);
  if (prefix.size() > whole.size() || !std::equal(prefix.begin(), prefix.end(), whole.begin())) {
    fuzz::Fail("a prefix reads differently from the whole file");
  }
  return 0;
}
