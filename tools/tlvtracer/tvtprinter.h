// Rendering of decoded trace records, one line each.
#pragma once

#include <string>

#include "tvtdecoder.h"

namespace tlvtracer {

// "2024-05-01 12:34:56.789 info  pid 1234 thread 0x1a2b3c4d GPCPlugin - text", in local time; the
// function name stands where "-" is when there is one. Control characters are escaped so that a
// record never spans lines.
std::string FormatLine(const TraceRecord& record);

// One JSON object: offset, time (local, with milliseconds), seconds, milliseconds, level, level
// value, pid, thread, module, function and text. Bytes that are not UTF-8 become U+FFFD.
std::string FormatJson(const TraceRecord& record);

}  // namespace tlvtracer
