// Placeholder until the trace routing lands: formats and drops.
#include "trace.h"

#include <cstdarg>
#include <cstdio>

namespace {
void Drop(const char* format, va_list args) {
  char buffer[4096];
  vsnprintf(buffer, sizeof buffer, format, args);
}
}  // namespace

#define GPC_DEFINE_TRACE(name)        \
  void name(const char* format, ...) { \
    va_list args;                      \
    va_start(args, format);            \
    Drop(format, args);                \
    va_end(args);                      \
  }
GPC_DEFINE_TRACE(MacDebugTrace)
GPC_DEFINE_TRACE(MacInfoTrace)
GPC_DEFINE_TRACE(MacWarnTrace)
GPC_DEFINE_TRACE(MacErrorTrace)
