#include "common/tlvtrace/tlvtraceu.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <endian.h>
#include <fcntl.h>
#include <pthread.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/clock.h"
#include "platform/processes.h"
#include "common/tlvtrace/tlvtrace_testing.h"
#include "platform/folders.h"

// A program that links the trace writer without being the plug-in (gpc-pack) defines this, so
// that running it does not start anew the trace file of a browser that has the plug-in loaded.
extern "C" __attribute__((weak)) const bool gpc_program_keeps_no_trace_file;

namespace {

// Process-wide state, set at load. The flag and the file are read without the lock: they change
// only at load, on a short write and at unload.
std::atomic<bool> g_btlvtra_debugmode{false};
std::atomic<FILE*> g_tlvtra_fp{nullptr};
pthread_mutex_t g_tlvtra_mutex;
// getpid() is a system call; the pid is kept and renewed in a forked child.
std::atomic<uint32_t> g_tlvtra_pid{0};

constexpr size_t kPathSize = 256;
constexpr const char kTraceFileVariable[] = "GPC_TRACE_FILE";

void RememberPid() { g_tlvtra_pid.store(static_cast<uint32_t>(getpid()), std::memory_order_relaxed); }

// strlen(text) + 1, cut to `cap`.
size_t CappedLength(const char* text, size_t cap) { return strnlen(text, cap - 1) + 1; }

// Copies `length - 1` characters of `text` to `at` and terminates them.
void PutString(unsigned char* at, const char* text, size_t length) {
  memcpy(at, text, length - 1);
  at[length - 1] = '\0';
}

// The trace file path: GPC_TRACE_FILE when it is an absolute path that fits, else the default.
void TraceFilePath(char* path, size_t size) {
  const char* wanted = getenv(kTraceFileVariable);
  if (wanted != nullptr && wanted[0] == '/' && strlen(wanted) + 2 <= size) {
    nlFormat(path, size, "%s", wanted);
  } else {
    nlFormat(path, size, "%s/%s", platform::kSharedTempFolder, kTlvDefaultName);
  }
}

// The header is the same in every trace file: a file that starts with other bytes holds no trace.
bool HoldsTraceHeader(int fd) {
  tlvtraceheader_v3 wanted;
  tlvtraceheader_v3 found;
  tlvtra_initheader(&wanted);
  return pread(fd, &found, sizeof found, 0) == static_cast<ssize_t>(sizeof found) &&
         memcmp(&found, &wanted, sizeof found) == 0;
}

// Puts the header at the file's start, then cuts the file after it. A record another process
// appends meanwhile is cut off or has its start covered by the header: the file never starts
// with anything else.
bool StartAnew(int fd) {
  tlvtraceheader_v3 header;
  tlvtra_initheader(&header);
  return pwrite(fd, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header) &&
         ftruncate(fd, sizeof header) == 0;
}

// Locks the file for writing: to itself when `alone` is given and no other process writes the
// file (then *alone is set), else shared with the other writers. Another load has the file to
// itself only while it starts it anew; one that keeps it a second (a process stopped half-way)
// turns tracing off here rather than holding up this load. Where the file system takes no locks,
// every load has the file to itself, as with no other writer.
bool LockForWriting(int fd, bool* alone) {
  constexpr int kAttempts = 200;
  constexpr timespec kPause = {0, 5000000};
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (alone != nullptr && flock(fd, LOCK_EX | LOCK_NB) == 0) {
      *alone = true;
      return true;
    }
    if (flock(fd, LOCK_SH | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) {
      if (alone != nullptr) *alone = true;
      return true;
    }
    nanosleep(&kPause, nullptr);
  }
  return false;
}

// Opens the trace file for writing, creating it when missing. Only a plain file of this user that
// has no other name is taken: a link planted at the name (symbolic or hard) is never written
// through, nor is a pipe, a device or another user's file. The trace holds the page's parameters,
// so the file is readable by its owner alone.
//
// Every process that writes the file holds a shared lock on it while it has it open. A load that
// gets the file to itself (no other process writes it) starts it anew; one that shares it appends
// to it as it is, so that the records the other writers' readers have not read yet stay. A shared
// file that does not start with the header (emptied or overwritten by a writer that takes no
// lock) cannot be read at all: it is started anew too. Records are appended: when another process
// starts the file anew all the same, this process's next record follows what that one wrote
// instead of landing at its old offset past a run of zero bytes.
FILE* CreateTraceFileAt(const char* path) {
  const int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  struct stat info;
  FILE* fp = nullptr;
  bool alone = false;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1 && info.st_uid == geteuid() &&
      fchmod(fd, 0600) == 0 && LockForWriting(fd, &alone) &&
      ((!alone && HoldsTraceHeader(fd)) || StartAnew(fd)) && (!alone || LockForWriting(fd, nullptr)) &&
      fcntl(fd, F_SETFL, O_APPEND) == 0) {
    fp = fdopen(fd, "ab");
  }
  if (fp == nullptr) close(fd);
  return fp;
}

// Writes `length` bytes under the mutex and flushes them. A short write closes the file for good.
int WriteRecord(const unsigned char* record, size_t length) {
  if (pthread_mutex_lock(&g_tlvtra_mutex) != 0) return TLVTRACE_MUTEX_FAILED;
  int result = TLVTRACE_WRITTEN;
  FILE* fp = g_tlvtra_fp.load(std::memory_order_relaxed);
  if (fp == nullptr) {
    result = TLVTRACE_NO_FILE;
  } else if (fwrite_unlocked(record, 1, length, fp) != length || fflush_unlocked(fp) != 0) {
    // (The stream's own lock is not needed: g_tlvtra_mutex is its only way in.)
    // A failed flush means the bytes never reached the file: the same as a short write.
    fclose(fp);
    g_tlvtra_fp.store(nullptr, std::memory_order_relaxed);
    result = TLVTRACE_SHORT_WRITE;
  }
  pthread_mutex_unlock(&g_tlvtra_mutex);
  return result;
}

// Decides debug mode, readies the mutex and creates the trace file when the module is loaded;
// closes it when the module is unloaded.
class tlvtra_init_class {
 public:
  tlvtra_init_class() {
    g_btlvtra_debugmode.store(tlvtra_is_debugmode(), std::memory_order_relaxed);
    pthread_mutex_init(&g_tlvtra_mutex, nullptr);
    RememberPid();
    pthread_atfork(nullptr, nullptr, RememberPid);
    if (&gpc_program_keeps_no_trace_file != nullptr) return;
    g_tlvtra_fp.store(tlvtra_create_tracefile(), std::memory_order_relaxed);
  }
  // Another thread may be tracing while the module goes: the file is closed under the mutex, and
  // the mutex stays usable for a writer that comes later and finds no file.
  ~tlvtra_init_class() {
    pthread_mutex_lock(&g_tlvtra_mutex);
    FILE* fp = g_tlvtra_fp.exchange(nullptr);
    if (fp != nullptr) fclose(fp);
    pthread_mutex_unlock(&g_tlvtra_mutex);
  }
  tlvtra_init_class(const tlvtra_init_class&) = delete;
  tlvtra_init_class& operator=(const tlvtra_init_class&) = delete;
};

// Built before any other static object of the plug-in, so that all of them can trace.
tlvtra_init_class g_tlvtra_init __attribute__((init_priority(101)));

}  // namespace

int TLVTRACERAW(uint32_t level, const char* module, const char* function, const char* text) {
  if (g_tlvtra_fp.load(std::memory_order_relaxed) == nullptr) return TLVTRACE_NO_FILE;
  if (level == TLVTRACE_LEVEL_DEBUG && !g_btlvtra_debugmode.load(std::memory_order_relaxed)) {
    return TLVTRACE_DEBUG_OFF;
  }
  if (module == nullptr) module = kTlvDefaultModule;
  const size_t m = CappedLength(module, kTlvModuleCap);
  const size_t f = function != nullptr ? CappedLength(function, kTlvFunctionCap) : 0;
  const size_t t = text != nullptr ? CappedLength(text, kTlvTextCap) : 1;
  const size_t length = (kTlvItemHeadSize + m + f + t + 3) & 0xFFFC;

  alignas(8) unsigned char record[kTlvMaxItemSize];
  memset(record, 0, kTlvItemHeadSize);
  tlvtraceitem_v3* item = reinterpret_cast<tlvtraceitem_v3*>(record);
  const int64_t now = platform::WallClockMicros();
  item->length = htole16(static_cast<uint16_t>(length));
  item->version = 3;
  item->fixed4 = 4;
  item->level = htole32(level);
  item->pid = htole32(g_tlvtra_pid.load(std::memory_order_relaxed));
  item->thread = htole32(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pthread_self())));
  item->seconds = htole32(static_cast<uint32_t>(now / 1000000));
  item->milliseconds = htole16(static_cast<uint16_t>(now % 1000000 / 1000));
  item->module_offset = htole16(kTlvItemHeadSize);
  // Without a function name its offset points at the module name's NUL: an empty string.
  item->function_offset = htole16(static_cast<uint16_t>(kTlvItemHeadSize + m - (f == 0 ? 1 : 0)));
  item->text_offset = htole16(static_cast<uint16_t>(kTlvItemHeadSize + m + f));

  unsigned char* at = record + kTlvItemHeadSize;
  PutString(at, module, m);
  at += m;
  if (f != 0) {
    PutString(at, function, f);
    at += f;
  }
  if (text != nullptr) {
    PutString(at, text, t);
  } else {
    *at = '\0';
  }
  at += t;
  memset(at, 0, record + length - at);
  tlvtra_encrypt(item, reinterpret_cast<char*>(record), static_cast<int>(length));
  return WriteRecord(record, length);
}

int TLVTRACE(uint32_t level, const char* module, const char* function, const char* text, const void* extra) {
  if (text == nullptr || extra == nullptr) return TLVTRACE_NULL_TEXT;
  if (level == TLVTRACE_LEVEL_DEBUG && !g_btlvtra_debugmode.load(std::memory_order_relaxed)) {
    return TLVTRACE_DEBUG_OFF;
  }
  return TLVTRACERAW(level, module, function, text);
}

namespace {
int WriteLevel(uint32_t level, const char* module, const char* text) {
  if (text == nullptr) return TLVTRACE_NULL_TEXT;
  if (level == TLVTRACE_LEVEL_DEBUG && !g_btlvtra_debugmode.load(std::memory_order_relaxed)) {
    return TLVTRACE_DEBUG_OFF;
  }
  return TLVTRACERAW(level, module, nullptr, text);
}
}  // namespace

// The variable arguments are deliberately ignored: the text is never a format.
int TLVDEBUG(const char* text, ...) { return WriteLevel(TLVTRACE_LEVEL_DEBUG, kTlvDefaultModule, text); }
int TLVINFO(const char* text, ...) { return WriteLevel(TLVTRACE_LEVEL_INFO, kTlvDefaultModule, text); }
int TLVWARN(const char* text, ...) { return WriteLevel(TLVTRACE_LEVEL_WARN, kTlvDefaultModule, text); }
int TLVERROR(const char* text, ...) { return WriteLevel(TLVTRACE_LEVEL_ERROR, kTlvDefaultModule, text); }
int TLVDEBUG2(const char* module, const char* text, ...) { return WriteLevel(TLVTRACE_LEVEL_DEBUG, module, text); }
int TLVINFO2(const char* module, const char* text, ...) { return WriteLevel(TLVTRACE_LEVEL_INFO, module, text); }
int TLVWARN2(const char* module, const char* text, ...) { return WriteLevel(TLVTRACE_LEVEL_WARN, module, text); }
int TLVERROR2(const char* module, const char* text, ...) { return WriteLevel(TLVTRACE_LEVEL_ERROR, module, text); }

bool tlvtra_is_debugmode(const char* name) {
  if (name == nullptr) return false;
  std::string_view rest(name);
  // A trailing "/" ends the last piece rather than starting an empty one.
  if (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
  const size_t slash = rest.rfind('/');
  const std::string_view last = slash == std::string_view::npos ? rest : rest.substr(slash + 1);
  return last == "tlvtracer";
}

bool tlvtra_is_debugmode() {
  std::vector<platform::ProcessInfo> processes;
  if (!platform::ListProcesses(&processes)) return false;
  for (const platform::ProcessInfo& process : processes) {
    if (tlvtra_is_debugmode(process.name.c_str())) return true;
  }
  return false;
}

void tlvtra_initheader(tlvtraceheader_v3* header) {
  if (header == nullptr) return;
  memset(header, 0, sizeof *header);
  memcpy(header->magic, "TLVT", 4);
  header->bom = htole16(0xFEFF);
  header->version = 3;
  header->fixed2 = 2;
  header->fixed_00010030 = htole32(0x00010030);
  header->header_len1 = htole32(kTlvHeaderSize);
  header->header_len2 = htole32(kTlvHeaderSize);
}

FILE* tlvtra_create_tracefile() {
  // The stamp is worked out but the file name carries none: one fixed file per machine.
  char stamp[32];
  const time_t now = static_cast<time_t>(platform::WallClockMicros() / 1000000);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr || strftime(stamp, sizeof stamp, "%m%d%Y_%H%M%S", &local) == 0) {
    nlStrCpy(stamp, sizeof stamp, "00000000_000000");
  }
  (void)stamp;
  char path[kPathSize];
  TraceFilePath(path, sizeof path);
  return CreateTraceFileAt(path);
}

void tlvtra_get_time(char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return;
  const int64_t micros = platform::WallClockMicros();
  const time_t seconds = static_cast<time_t>(micros / 1000000);
  const unsigned short millis = static_cast<unsigned short>(micros % 1000000 / 1000);
  struct tm local;
  char clock[32];
  char date[32];
  if (localtime_r(&seconds, &local) == nullptr || strftime(clock, sizeof clock, "%H:%M:%S", &local) == 0 ||
      strftime(date, sizeof date, "%y/%m/%d", &local) == 0) {
    nlStrCpy(buffer, size, "N/A");
    return;
  }
  nlFormat(buffer, size, "%s.%03hu ", clock, millis);
  nlStrCat(buffer, size, date);
}

void tlvtra_encrypt(tlvtraceitem_v3* item, char* /*buffer*/, int /*length*/) {
  if (item != nullptr) item->encrypted = 0;
}

void tlvtra_delete_histroy_files(const char* /*directory*/) {}

int tlvtra_comparefiles(const void* a, const void* b) {
  uint32_t first;
  uint32_t second;
  memcpy(&first, static_cast<const unsigned char*>(a) + 8, sizeof first);
  memcpy(&second, static_cast<const unsigned char*>(b) + 8, sizeof second);
  return static_cast<int>(second - first);
}

char* nlStrCpy(char* dst, size_t size, const char* src) {
  if (dst == nullptr || size == 0) return dst;
  if (src == nullptr || size < 2) {
    dst[0] = '\0';
    return dst;
  }
  const size_t n = strnlen(src, size - 1);
  memmove(dst, src, n);
  dst[n] = '\0';
  return dst;
}

char* nlStrCat(char* dst, size_t size, const char* src) {
  if (dst == nullptr || src == nullptr) return dst;
  const size_t used = strnlen(dst, size);
  if (used >= size) return dst;
  const size_t room = size - used;
  const size_t n = strnlen(src, room - 1);
  if (n == 0) return dst;
  memmove(dst + used, src, n);
  dst[used + n] = '\0';
  return dst;
}

int nlFormat(char* dst, size_t size, const char* format, ...) {
  if (dst == nullptr || size == 0 || format == nullptr) return -1;
  va_list args;
  va_start(args, format);
  // The limit is size - 1 and the last byte is then cleared: one character fewer than fits.
  const int wanted = vsnprintf(dst, size - 1, format, args);
  va_end(args);
  dst[size - 1] = '\0';
  return wanted;
}

bool tlvtra_reopen_for_testing(const char* path) {
  if (pthread_mutex_lock(&g_tlvtra_mutex) != 0) return false;
  FILE* old = g_tlvtra_fp.exchange(nullptr);
  if (old != nullptr) fclose(old);
  FILE* fp = path != nullptr ? CreateTraceFileAt(path) : nullptr;
  g_tlvtra_fp.store(fp);
  pthread_mutex_unlock(&g_tlvtra_mutex);
  return path == nullptr || fp != nullptr;
}

void tlvtra_set_debugmode_for_testing(bool on) { g_btlvtra_debugmode.store(on); }

bool tlvtra_debugmode_for_testing() { return g_btlvtra_debugmode.load(); }
