// Captures the utilities' log lines in a test program instead of the trace routing: the program
// that includes this header (exactly one source file of it) defines the four logging calls, so
// the linker never takes them from the trace library.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "trace.h"

struct CapturedTrace {
  int level;
  std::string text;
};

inline std::vector<CapturedTrace>& CapturedTraces() {
  static std::vector<CapturedTrace> traces;
  return traces;
}

inline bool TraceContains(int level, const std::string& fragment) {
  for (const CapturedTrace& t : CapturedTraces()) {
    if (t.level == level && t.text.find(fragment) != std::string::npos) return true;
  }
  return false;
}

inline void CaptureTrace(int level, const char* format, va_list args) {
  char buffer[4096];
  vsnprintf(buffer, sizeof buffer, format, args);
  CapturedTraces().push_back({level, buffer});
}

#define GPC_CAPTURE_TRACE(name, level)  \
  void name(const char* format, ...) {  \
    va_list args;                       \
    va_start(args, format);             \
    CaptureTrace(level, format, args);  \
    va_end(args);                       \
  }
GPC_CAPTURE_TRACE(MacDebugTrace, 0)
GPC_CAPTURE_TRACE(MacInfoTrace, 1)
GPC_CAPTURE_TRACE(MacWarnTrace, 2)
GPC_CAPTURE_TRACE(MacErrorTrace, 3)
#undef GPC_CAPTURE_TRACE
