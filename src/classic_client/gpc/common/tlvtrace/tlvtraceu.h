// The binary trace file: one file per process, "/tmp/tlvgpc.tvt", opened when the plug-in is loaded
// and then truncated and given its header, unless another process still writes it (then records are
// appended to it as it is); one record appended and flushed per message, closed at unload.
// GPC_TRACE_FILE, when it holds an absolute path, names another file instead.
//
// Layout (all integers little-endian): a 48-byte header, then records, each a multiple of 4 bytes:
// a 48-byte head, the module name, the function name (may be absent) and the text, each
// NUL-terminated, then zero padding.
//
// Also home of the bounded, always-terminated text helpers nlStrCpy, nlStrCat and nlFormat.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Trace levels as stored in the file.
enum {
  TLVTRACE_LEVEL_DEBUG = 1,
  TLVTRACE_LEVEL_INFO = 2,
  TLVTRACE_LEVEL_WARN = 4,
  TLVTRACE_LEVEL_ERROR = 8,
};

// Results of every writing entry point.
enum {
  TLVTRACE_WRITTEN = 1,        // record written and flushed
  TLVTRACE_DEBUG_OFF = 0,      // debug record dropped: debug mode is off
  TLVTRACE_NO_FILE = -1,       // no trace file is open
  TLVTRACE_SHORT_WRITE = -2,   // write was short; the file is closed for good
  TLVTRACE_NULL_TEXT = -3,     // a required text argument was null
  TLVTRACE_MUTEX_FAILED = -4,  // the write mutex could not be taken
};

constexpr size_t kTlvHeaderSize = 48;
constexpr size_t kTlvItemHeadSize = 48;
constexpr size_t kTlvModuleCap = 128;
constexpr size_t kTlvFunctionCap = 128;
constexpr size_t kTlvTextCap = 2048;
constexpr size_t kTlvMaxItemSize = (kTlvItemHeadSize + kTlvModuleCap + kTlvFunctionCap + kTlvTextCap + 3) & ~size_t{3};
constexpr const char kTlvDefaultModule[] = "GPCPlugin";
// The trace file's name in the shared temporary folder ("/tmp/tlvgpc.tvt").
constexpr const char kTlvDefaultName[] = "tlvgpc.tvt";

#pragma pack(push, 1)
// File header; every field is little-endian on disk.
struct tlvtraceheader_v3 {
  char magic[4];            // "TLVT"
  uint16_t bom;             // 0xFEFF
  uint8_t version;          // 3
  uint8_t fixed2;           // 2
  uint32_t fixed_00010030;  // 48 | (1 << 16)
  uint8_t reserved1[16];
  uint32_t header_len1;     // 48
  uint32_t header_len2;     // 48
  uint32_t reserved2[3];
};

// Fixed head of a record; the strings follow it.
struct tlvtraceitem_v3 {
  uint16_t length;          // whole record, multiple of 4
  uint8_t version;          // 3
  uint8_t zero1[3];
  uint8_t fixed4;           // 4
  uint8_t encrypted;        // always 0
  uint32_t level;           // 1, 2, 4 or 8
  uint32_t pid;
  uint32_t thread;          // low 32 bits of the thread handle
  uint32_t zero2;
  uint32_t seconds;         // low 32 bits of the Unix time
  uint16_t milliseconds;
  uint16_t module_offset;   // always 48
  uint16_t function_offset;
  uint16_t text_offset;
  uint8_t zero3[12];
};
#pragma pack(pop)
static_assert(sizeof(tlvtraceheader_v3) == kTlvHeaderSize, "trace header is 48 bytes");
static_assert(sizeof(tlvtraceitem_v3) == kTlvItemHeadSize, "trace record head is 48 bytes");

// Assembles and writes one record. A null module means "GPCPlugin"; a null function stores no
// function name; a null text stores an empty one. Debug records (level 1) are dropped, returning 0,
// unless debug mode is on. The text is stored as given, never used as a format.
int TLVTRACERAW(uint32_t level, const char* module, const char* function, const char* text);

// Like TLVTRACERAW, but -3 when `text` or `extra` is null; `extra` is only checked.
int TLVTRACE(uint32_t level, const char* module, const char* function, const char* text, const void* extra);

// Level writers with module "GPCPlugin" and no function name. The variable arguments are accepted
// and ignored: callers format first. -3 for a null text.
int TLVDEBUG(const char* text, ...);
int TLVINFO(const char* text, ...);
int TLVWARN(const char* text, ...);
int TLVERROR(const char* text, ...);

// The same with a module name of the caller's choice.
int TLVDEBUG2(const char* module, const char* text, ...);
int TLVINFO2(const char* module, const char* text, ...);
int TLVWARN2(const char* module, const char* text, ...);
int TLVERROR2(const char* module, const char* text, ...);

// True when the last "/"-separated piece of `name` is exactly "tlvtracer". Null or piece-less
// names give false.
bool tlvtra_is_debugmode(const char* name);
// True when a running process's short command name passes the test above; false when the
// process table cannot be read.
bool tlvtra_is_debugmode();

// Zeroes the 48 bytes of `header` and fills in the fixed values.
void tlvtra_initheader(tlvtraceheader_v3* header);
// Opens the trace file, started anew with its header unless another process still writes it;
// returns it open, or null.
FILE* tlvtra_create_tracefile();
// Writes the local time as "HH:MM:SS.mmm yy/mm/dd" into `buffer`, or "N/A" when it cannot be had.
void tlvtra_get_time(char* buffer, size_t size);
// Record-scrambling hook: marks the record plain and changes nothing else.
void tlvtra_encrypt(tlvtraceitem_v3* item, char* buffer, int length);
// There is no trace-file history: nothing is deleted.
void tlvtra_delete_histroy_files(const char* directory);
// Orders records of 32-bit words by their third word, descending (qsort-style).
int tlvtra_comparefiles(const void* a, const void* b);

// Copies at most size - 1 characters and terminates. A null `src` or a size below 2 stores only
// the NUL in dst[0]. Returns dst.
char* nlStrCpy(char* dst, size_t size, const char* src);
// Appends to the text in `dst` (whose end is sought within `size`) at most room - 1 characters and
// terminates. With no room left, or a null `src`, `dst` stays as it is. Returns dst.
char* nlStrCat(char* dst, size_t size, const char* src);
// Formats with a limit of size - 1 and stores a NUL at dst[size - 1]: at most size - 2 characters
// are kept. Returns what the formatter wanted to write (-1 for a null `dst` or a zero size).
int nlFormat(char* dst, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
