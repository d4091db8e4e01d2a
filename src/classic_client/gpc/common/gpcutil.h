// Small utilities shared across the plug-in: profile files, text helpers, the tick clock and
// file-system helpers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "common/trace.h"

// Logs a failed check of an argument or state at error level, in the one form every utility
// uses, and yields false; yields true when `cond` holds. It never aborts. `text` is the
// expression as the log names it, `file` the source path the log names.
#define GPC_ASSERT_TEXT(cond, text, file)                                                     \
  ((cond) ? true                                                                             \
          : (MacErrorTrace("ASSERT %s failed at file %s, line %d\r\n", (text), (file), __LINE__), \
             false))
#define GPC_ASSERT_IN(cond, file) GPC_ASSERT_TEXT(cond, #cond, file)

// The source path that the utilities' own assertion logs name.
#define GPC_UTIL_SOURCE_PATH "src/classic_client/gpc/common/gpcutil"
#define GPCUTIL_ASSERT_TEXT(cond, text) GPC_ASSERT_TEXT(cond, text, GPC_UTIL_SOURCE_PATH)

// ---- Bounded copies ----

// Copies at most size - 1 bytes of `text` into `dest` and terminates it; nothing when `dest` is
// null or `size` is 0. Returns the bytes copied. The plug-in's one copy into a caller's buffer.
size_t CopyBounded(char* dest, size_t size, std::string_view text);
// As above for a C text, read no further than size - 1 bytes.
size_t CopyBounded(char* dest, size_t size, const char* text);

// ---- Profile files: sections of key=value lines ----

// Scans `file` from its current position for `key` in `section` (both matched without regard
// to case). True when found; the value, trimmed and stripped of one pair of matching quotes,
// is copied to `dest` bounded by `size` and always terminated.
bool ZRReadIni(FILE* file, const char* section, const char* key, char* dest, size_t size);

// The value of `key` in `section` of the profile file at `path`, or `def` (bounded by
// size - 1) when the file cannot be opened or the key is missing. Returns the length of the
// text now in `dest`.
size_t ZRGetPrivateProfileString(const char* section, const char* key, const char* def, char* dest,
                                 size_t size, const char* path);

// The value of `key` as a signed decimal integer (leading blanks and a sign allowed, trailing
// text ignored); `def` when the file cannot be opened, the key is missing or no number starts it.
int ZRGetPrivateProfileInt(const char* section, const char* key, int def, const char* path);

// ---- Text helpers ----

// Overwrites trailing blanks, tabs, CRs and LFs of `text` with NULs and returns a pointer to its
// first other character (possibly its terminating NUL). Null `text` is logged and yields null.
char* ZRTrimStringA(char* text);
char* ZRTrimString(char* text);

// Splits `text` at each character of `separators`. Adjacent separators, or one at the start,
// give empty pieces; a trailing empty piece is dropped. Empty input gives an empty list.
std::vector<std::string> divideStr(const std::string& text, const std::string& separators);

// Replaces every occurrence of `from` in `text` with `to`, left to right, resuming after each
// replacement (so a `to` containing `from` is not replaced again). Returns `text`.
std::string& replaceall(std::string& text, const std::string& from, const std::string& to);

// ---- Clock ----

// Milliseconds since the first call, from the wall clock; wraps at 2^32. A clock found earlier
// than the start restarts the count at 0.
uint32_t GetTickCount();

// b - a in 32-bit arithmetic, so that tick values compare correctly across a wrap.
uint32_t CalcSequenceDistance(uint32_t a, uint32_t b);

// ---- Folders and files ----

// The user's application-support folder; an empty string when there is none.
std::string GetApplicationSupportDirectory();

// "<application support>/Talvo Folder" (not created), or an empty string after an error line in the
// folder lookups' words: "<caller>,call FSFindFolder result code =-43" when there is no
// application-support folder, "<caller>,call FSRefMakePath result code =-2110" when the path would
// be longer than 1023 bytes.
std::string TalvoFolderFor(const char* caller);
// The result code logged for a path longer than 1023 bytes.
constexpr int kPathTooLongResult = -2110;

// Creates one folder level with mode 0775. True on success.
bool MakeDirectory(const char* path);
inline bool MakeDirectory(const std::string& path) { return MakeDirectory(path.c_str()); }

// The temporary folder, ending in "/"; an empty string when there is none.
std::string GetTempPath();

// One family of numbered temporary names ("/tmp/gpc_tmp_<n>", "<folder>APK<n>.tmp", ...): a
// process-wide counter and the one loop that skips names already taken. Each family keeps its
// own counter and format.
class TempNameSeries {
 public:
  // Numbers start at `first`; none is handed out above `limit`.
  explicit TempNameSeries(uint32_t first, uint32_t limit = UINT32_MAX)
      : m_first(first), m_next(first), m_limit(limit) {}
  // The first number from the counter on whose name (`name(n)`) `isTaken` refuses, with that name
  // in `result`. Past the limit the count goes back to `first` once; 0 when no number from `first`
  // to the limit is free. With `advance` the counter moves past the number handed out,
  // else it stays on it (the name is free until somebody creates it).
  uint32_t Take(const std::function<std::string(uint32_t)>& name,
                const std::function<bool(const std::string&)>& isTaken, bool advance, std::string& result);
  // The last number handed out; 0 before the first.
  uint32_t Last();

 private:
  std::mutex m_mutex;
  const uint32_t m_first;
  uint32_t m_next;
  uint32_t m_limit;
  uint32_t m_last = 0;
};

// Builds a free name `directory` + `prefix` + number + ".tmp" into `result` and returns the
// number, or 0 when none of 1..9999 is free. The process-wide counter starts at 1 and moves
// only past names that exist, so two calls without creating the file give the same name; past
// 9999 it starts again at 1, so names freed behind it are found again.
uint32_t GetTempFileName(const char* directory, const char* prefix, std::string& result);

// Creates `path` as a new file, readable and writable by its owner only, and opens it for
// writing, unbuffered. Null, with errno set (EEXIST among others), when anything is at that name
// already, a symbolic link included: nothing planted at the name is ever written through.
FILE* CreateNewFile(const char* path);
inline FILE* CreateNewFile(const std::string& path) { return CreateNewFile(path.c_str()); }

// Replaces the file at `path` with `bytes` (mode `mode`): they go to a new file beside it, which
// is then renamed over it, so that a reader sees the old file or the whole new one and a failed
// write keeps the old. Nothing is left behind on failure; errno tells why.
enum class FileReplaced { kWhole, kNotCreated, kNotWritten };
FileReplaced ReplaceFileWhole(const std::string& path, std::string_view bytes, mode_t mode);

// Whether the entry itself (a final symbolic link is not followed) is a link / a folder.
bool isLink(const char* path);
bool isDir(const char* path);
inline bool isLink(const std::string& path) { return isLink(path.c_str()); }
inline bool isDir(const std::string& path) { return isDir(path.c_str()); }

// A name that stays one level below its folder: no "/", not "." or "..", no control bytes.
bool IsOneFolderName(const char* name);
// An extension name the hardened build takes: one folder, and one segment of the package's URL
// (no "\", "%", "?" or "#").
bool IsPlainExtensionName(const char* name);

// Whether the entry itself exists (a dangling link counts), with no other effect.
bool EntryExists(const char* path);
inline bool EntryExists(const std::string& path) { return EntryExists(path.c_str()); }

// Whether `path` exists. For a library path (one containing ".dylib" or ending in ".so") the
// answer is IsDylibFileExists(path, true), which also renews the unversioned link.
bool FileExists(const char* path);
inline bool FileExists(const std::string& path) { return FileExists(path.c_str()); }

// The id of the first running process whose name matches `name` without regard to case; 0 if none.
pid_t GetPIDForProcessName(const char* name);

// Unlinks every file of `folder` (links and folders excluded) named name-version.extension
// with the given `name` and `extension` (either may be empty to match any).
void DeleteFiles(const char* folder, const char* name, const char* extension);

// Removes a file or folder (with its contents), trying ever harder: the file manager, then
// rmdir/unlink, then renaming it out of the way under a hidden or ".deltmp" name. True when
// the path is gone; false for an empty or missing path (the latter without logging).
// Never throws, so that destructors may call it.
bool RemoveFile(const char* path) noexcept;
inline bool RemoveFile(const std::string& path) noexcept { return RemoveFile(path.c_str()); }

// A descriptor of our own, closed when it is replaced or goes out of scope; -1 holds none.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : m_fd(fd) {}
  ~Descriptor() { Reset(-1); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return m_fd; }
  int Release() { return std::exchange(m_fd, -1); }
  void Reset(int fd) {
    if (m_fd >= 0) close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd;
};

// True while `path` (a link followed only with `followLink`) names the file open at `fd`. A file held
// open keeps its inode, so no file made at the name since can have the same device and inode.
bool IsFileOpenAt(int fd, const char* path, bool followLink = false);

// ---- Folder listing ----

struct FSDirectoryItem {
  std::string name;   // the item's file name, no folder part
  bool isAlias;       // a symbolic link
  bool isFolder;      // a folder (never true for a link)
};

enum class FSListStatus {
  kListed,          // `items` holds the folder's entries
  kFolderNotFound,  // no folder at that path
  kCannotList,      // a folder that could not be read
};

// Lists the entries of `folder` ("." and ".." excluded) in the order the file system returns them.
FSListStatus FSGetDirectoryItems(const std::string& folder, std::vector<FSDirectoryItem>& items);
