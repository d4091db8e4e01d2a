// The plug-in's logging calls. Each formats its message printf-style (at most 4095 bytes kept),
// posts it as a trace entry to the in-process notification hub, and so reaches the trace catcher
// and the binary trace file. Nothing is printed to a console.
#pragma once

#define GPC_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))

void MacDebugTrace(const char* format, ...) GPC_PRINTF_LIKE(1, 2);  // level 0
void MacInfoTrace(const char* format, ...) GPC_PRINTF_LIKE(1, 2);   // level 1
void MacWarnTrace(const char* format, ...) GPC_PRINTF_LIKE(1, 2);   // level 2
void MacErrorTrace(const char* format, ...) GPC_PRINTF_LIKE(1, 2);  // level 3
