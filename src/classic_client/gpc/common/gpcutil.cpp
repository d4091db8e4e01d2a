#include "common/gpcutil.h"

#include "common/gpctracecatcher.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/clock.h"
#include "platform/folders.h"
#include "platform/processes.h"
#include "safestring/safe_lib.h"
#include "common/versionfordylib.h"

namespace {

constexpr const char* kTrimCharacters = " \t\r\n";
constexpr size_t kProfileLineSize = 2048;  // at most 2047 characters per read
constexpr size_t kProfileIntBufferSize = 256;
constexpr rsize_t kTextMax = RSIZE_MAX_STR;

bool IsTrimCharacter(char c) { return c != '\0' && std::strchr(kTrimCharacters, c) != nullptr; }

bool SameTextIgnoringCase(const char* a, const char* b) {
  int indicator = 1;
  return strcasecmp_s(a, kTextMax, b, &indicator) == EOK && indicator == 0;
}

// The text between `begin` and `end`, trimmed at both ends.
std::string TrimmedRange(const char* begin, const char* end) {
  while (begin < end && IsTrimCharacter(*begin)) ++begin;
  while (end > begin && IsTrimCharacter(end[-1])) --end;
  return std::string(begin, end);
}

bool IsSectionLine(const char* line) {
  return std::strchr(line, '[') != nullptr && std::strchr(line, ']') != nullptr;
}

std::string SectionName(const char* line) {
  const char* open = std::strchr(line, '[');
  const char* close = std::strchr(line, ']');
  return close > open ? TrimmedRange(open + 1, close) : std::string();
}

// Drops one pair of matching surrounding quotes, then trims again.
std::string Unquoted(const std::string& value) {
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
      value.back() == value.front()) {
    std::string inner = value.substr(1, value.size() - 2);
    return TrimmedRange(inner.data(), inner.data() + inner.size());
  }
  return value;
}

bool IsLibraryPath(const std::string& path) {
  static const std::string kSharedObject = ".so";
  return path.find(".dylib") != std::string::npos ||
         (path.size() >= kSharedObject.size() &&
          path.compare(path.size() - kSharedObject.size(), kSharedObject.size(), kSharedObject) == 0);
}

// The names in the folder open at `fd`, "." and ".." left out, from last to first (the walk takes
// them from the back: in order).
bool ListFolder(int fd, std::vector<std::string>* names) {
  Descriptor listing(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  std::unique_ptr<DIR, int (*)(DIR*)> dir(listing.get() < 0 ? nullptr : fdopendir(listing.get()), closedir);
  if (!dir) return false;
  listing.Release();  // the listing's now
  while (const struct dirent* entry = readdir(dir.get())) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) names->push_back(entry->d_name);
  }
  std::sort(names->rbegin(), names->rend());
  return true;
}

// Opens the folder `name` in `parent` without following a link, first opening it up for its owner
// (a bundle may be packed with read-only folders); -1 when it cannot be, or cannot be searched:
// such a folder could neither be emptied nor left again through "..".
int OpenFolderToEmpty(int parent, const char* name, const struct stat& info, struct stat* opened) {
  if ((info.st_mode & S_IRWXU) != S_IRWXU) {
    fchmodat(parent, name, (info.st_mode & 07777) | S_IRWXU, AT_SYMLINK_NOFOLLOW);  // a link swapped in stays as it is
  }
  Descriptor fd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() < 0 || fstat(fd.get(), opened) != 0 || faccessat(fd.get(), ".", X_OK, AT_EACCESS) != 0) return -1;
  return fd.Release();
}

// One folder being emptied: who it is, its name in its parent, and its names not tried yet.
struct FolderToEmpty {
  dev_t device;
  ino_t inode;
  std::string name;
  std::vector<std::string> left;
};

// Removes `name` in the folder `parent` the way a file manager does: a folder with all its contents,
// depth first. Folders are walked through descriptors, never paths, so a folder swapped for a link
// meanwhile leads nowhere; and one descriptor at a time, so any depth is removed: the walk goes
// back up through "..", and stops if that is not the folder it came from (the folder was moved).
bool RemoveEntryAt(int parent, const char* name) {
  struct stat info, opened;
  if (fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (!S_ISDIR(info.st_mode)) return unlinkat(parent, name, 0) == 0;
  Descriptor folder(OpenFolderToEmpty(parent, name, info, &opened));
  if (folder.get() < 0) return false;
  std::vector<FolderToEmpty> path{{opened.st_dev, opened.st_ino, name, {}}};
  bool all_removed = ListFolder(folder.get(), &path.back().left);
  while (!path.empty()) {
    if (!path.back().left.empty()) {
      const std::string entry = std::move(path.back().left.back());
      path.back().left.pop_back();
      if (fstatat(folder.get(), entry.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        all_removed = false;
      } else if (!S_ISDIR(info.st_mode)) {
        all_removed = unlinkat(folder.get(), entry.c_str(), 0) == 0 && all_removed;
      } else {
        Descriptor child(OpenFolderToEmpty(folder.get(), entry.c_str(), info, &opened));
        if (child.get() < 0) {
          all_removed = false;
          continue;
        }
        path.push_back({opened.st_dev, opened.st_ino, entry, {}});
        all_removed = ListFolder(child.get(), &path.back().left) && all_removed;
        folder.Reset(child.Release());
      }
      continue;
    }
    const std::string emptied = path.back().name;
    path.pop_back();
    if (path.empty()) break;
    folder.Reset(openat(folder.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0 || fstat(folder.get(), &opened) != 0 || opened.st_dev != path.back().device ||
        opened.st_ino != path.back().inode) {
      return false;
    }
    all_removed = unlinkat(folder.get(), emptied.c_str(), AT_REMOVEDIR) == 0 && all_removed;
  }
  folder.Reset(-1);
  return all_removed && unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

bool RemoveRecursively(const std::string& path) { return RemoveEntryAt(AT_FDCWD, path.c_str()); }

// Renames `path` to `moved` and removes what was moved; true when `path` is gone.
bool MoveAsideAndRemove(const std::string& path, const std::string& moved) {
  if (rename(path.c_str(), moved.c_str()) == 0) RemoveRecursively(moved);
  return !EntryExists(path.c_str());
}

// The hidden name "<parent>/.<name>.<number>" beside `path` (given without trailing "/"); empty
// when `path` has no parent or no last component.
std::string HiddenNameBeside(const std::string& path, uint32_t number) {
  std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos || slash + 1 >= path.size()) return std::string();
  std::string parent = slash == 0 ? std::string() : path.substr(0, slash);
  return parent + "/." + path.substr(slash + 1) + "." + std::to_string(number);
}

// The part of a file name before its first "-" and after its last ".".
bool NameAndExtensionMatch(const std::string& file, const std::string& name,
                           const std::string& extension) {
  std::string::size_type dash = file.find('-');
  if (dash == std::string::npos) return false;
  if (!name.empty() && file.compare(0, dash, name) != 0) return false;
  if (extension.empty()) return true;
  std::string::size_type dot = file.rfind('.');
  return dot != std::string::npos && file.compare(dot + 1, std::string::npos, extension) == 0;
}

std::mutex g_tick_mutex;
bool g_tick_started = false;
int64_t g_tick_start_micros = 0;

TempNameSeries g_temp_file_names(1, 9999);

}  // namespace

// ---- Profile files ----

bool ZRReadIni(FILE* file, const char* section, const char* key, char* dest, size_t size) {
  if (file == nullptr || section == nullptr || key == nullptr) return false;
  char line[kProfileLineSize];
  bool in_section = false;
  while (std::fgets(line, sizeof line, file) != nullptr) {
    if (IsSectionLine(line)) {
      if (in_section) return false;
      in_section = SameTextIgnoringCase(SectionName(line).c_str(), section);
      continue;
    }
    const char* equals = std::strchr(line, '=');
    if (!in_section || equals == nullptr) continue;
    if (!SameTextIgnoringCase(TrimmedRange(line, equals).c_str(), key)) continue;
    std::string value = TrimmedRange(equals + 1, line + std::strlen(line));
    CopyBounded(dest, size, Unquoted(value).c_str());
    return true;
  }
  return false;
}

size_t ZRGetPrivateProfileString(const char* section, const char* key, const char* def, char* dest,
                                 size_t size, const char* path) {
  if (dest == nullptr || size == 0) return 0;
  FILE* file = path != nullptr ? std::fopen(path, "re") : nullptr;
  bool found = false;
  if (file != nullptr) {
    found = ZRReadIni(file, section, key, dest, size);
    std::fclose(file);
  }
  if (!found) CopyBounded(dest, size, def != nullptr ? def : "");
  return strnlen_s(dest, size);
}

int ZRGetPrivateProfileInt(const char* section, const char* key, int def, const char* path) {
  char value[kProfileIntBufferSize];
  FILE* file = path != nullptr ? std::fopen(path, "re") : nullptr;
  if (file == nullptr) return def;
  bool found = ZRReadIni(file, section, key, value, sizeof value);
  std::fclose(file);
  if (!found) return def;
  char* end = nullptr;
  long number = std::strtol(value, &end, 10);
  if (end == value) return def;
  if (number > INT_MAX) return INT_MAX;
  if (number < INT_MIN) return INT_MIN;
  return static_cast<int>(number);
}

// ---- Text helpers ----

char* ZRTrimStringA(char* text) {
  if (!GPCUTIL_ASSERT_TEXT(text != nullptr, "lpszString")) return nullptr;
  size_t len = std::strlen(text);
  while (len > 0 && IsTrimCharacter(text[len - 1])) text[--len] = '\0';
  char* first = text;
  while (IsTrimCharacter(*first)) ++first;
  return first;
}

char* ZRTrimString(char* text) { return ZRTrimStringA(text); }

std::vector<std::string> divideStr(const std::string& text, const std::string& separators) {
  std::vector<std::string> pieces;
  if (text.empty() || separators.empty()) return pieces;
  std::string::size_type start = 0;
  std::string::size_type cut;
  while ((cut = text.find_first_of(separators, start)) != std::string::npos) {
    pieces.push_back(text.substr(start, cut - start));
    start = cut + 1;
  }
  if (start < text.size()) pieces.push_back(text.substr(start));
  return pieces;
}

std::string& replaceall(std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) return text;
  std::string::size_type at = 0;
  while ((at = text.find(from, at)) != std::string::npos) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
  return text;
}

// ---- Clock ----

uint32_t GetTickCount() {
  int64_t now = platform::WallClockMicros();
  std::lock_guard<std::mutex> lock(g_tick_mutex);
  if (!g_tick_started || now < g_tick_start_micros) {
    g_tick_started = true;
    g_tick_start_micros = now;
  }
  return static_cast<uint32_t>(static_cast<uint64_t>((now - g_tick_start_micros) / 1000));
}

uint32_t CalcSequenceDistance(uint32_t a, uint32_t b) { return b - a; }

// ---- Folders and files ----

std::string GetApplicationSupportDirectory() {
  std::string path = platform::UserApplicationSupportDir();
  if (!GPCUTIL_ASSERT_TEXT(!path.empty(), "path")) return std::string();
  if (!GPCUTIL_ASSERT_TEXT(gpc::IsValidUtf8(path), "[path UTF8String]")) return std::string();
  return path;
}

std::string TalvoFolderFor(const char* caller) {
  constexpr int kFolderNotFound = -43;  // the lookup's "folder not found"
  bool tooLong = false;
  std::string path = platform::TalvoFolderPath(&tooLong);
  if (path.empty()) {
    MacErrorTrace("%s,call FSFindFolder result code =%d", caller, kFolderNotFound);
  } else if (tooLong) {
    MacErrorTrace("%s,call FSRefMakePath result code =%d", caller, kPathTooLongResult);
    path.clear();
  }
  return path;
}

bool MakeDirectory(const char* path) {
  if (!GPCUTIL_ASSERT_TEXT(path != nullptr, "path")) return false;
  return mkdir(path, 0775) == 0;  // fails on an existing entry, as a single mkdir does
}

std::string GetTempPath() {
  std::string path = platform::TempDir();
  // A TMPDIR whose name is not UTF-8 cannot be handed on as a path: the shared folder serves.
  if (!gpc::IsValidUtf8(path)) path = std::string(platform::kSharedTempFolder) + "/";
  if (!GPCUTIL_ASSERT_TEXT(!path.empty(), "path")) return std::string();
  return path;
}

uint32_t GetTempFileName(const char* directory, const char* prefix, std::string& result) {
  if (!GPCUTIL_ASSERT_TEXT(directory != nullptr, "lpszPath")) return 0;
  if (!GPCUTIL_ASSERT_TEXT(prefix != nullptr, "lpszPrefix")) return 0;
  const std::string folder = directory;
  const std::string start = prefix;
  return g_temp_file_names.Take([&](uint32_t n) { return folder + start + std::to_string(n) + ".tmp"; },
                                [](const std::string& name) { return FileExists(name.c_str()); }, false, result);
}

uint32_t TempNameSeries::Take(const std::function<std::string(uint32_t)>& name,
                              const std::function<bool(const std::string&)>& isTaken, bool advance,
                              std::string& result) {
  std::lock_guard<std::mutex> lock(m_mutex);
  // Names below the counter may have been freed since it passed them: past the limit the count
  // starts once more at the first number, so that a full pass is made before giving up.
  for (bool again = m_next != m_first;; ++m_next) {
    if (again && (m_next > m_limit || m_next == 0)) {
      m_next = m_first;
      again = false;
    }
    if (m_next > m_limit || m_next == 0) return 0;
    result = name(m_next);
    if (!isTaken(result)) break;
  }
  m_last = m_next;
  if (advance) ++m_next;
  return m_last;
}

uint32_t TempNameSeries::Last() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_last;
}

FILE* CreateNewFile(const char* path) {
  if (!GPCUTIL_ASSERT_TEXT(path != nullptr, "path")) return nullptr;
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  FILE* file = fdopen(fd, "wb");
  if (file == nullptr) {
    const int error = errno;
    close(fd);
    unlink(path);
    errno = error;
    return nullptr;
  }
  // Unbuffered: a write that fails (a full disk) fails at its fwrite, where it is reported,
  // instead of at an fclose whose result nobody reads.
  setvbuf(file, nullptr, _IONBF, 0);
  return file;
}

bool IsOneFolderName(const char* name) {
  if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) return false;
  for (const char* c = name; *c != '\0'; ++c) {
    if (*c == '/' || static_cast<unsigned char>(*c) < 0x20 || *c == 0x7f) return false;
  }
  return true;
}

bool IsPlainExtensionName(const char* name) { return IsOneFolderName(name) && strpbrk(name, "\\%?#") == nullptr; }

FileReplaced ReplaceFileWhole(const std::string& path, std::string_view bytes, mode_t mode) {
  std::string temporary = path + ".XXXXXX";
  const int fd = mkostemp(&temporary[0], O_CLOEXEC);
  if (fd < 0) return FileReplaced::kNotCreated;
  bool ok = fchmod(fd, mode) == 0;
  for (size_t written = 0; ok && written < bytes.size();) {
    const ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) written += static_cast<size_t>(n);
  }
  ok = close(fd) == 0 && ok;
  ok = ok && rename(temporary.c_str(), path.c_str()) == 0;
  if (ok) return FileReplaced::kWhole;
  const int error = errno;
  unlink(temporary.c_str());
  errno = error;
  return FileReplaced::kNotWritten;
}

bool EntryExists(const char* path) {
  struct stat info;
  return path != nullptr && path[0] != '\0' && lstat(path, &info) == 0;
}

bool isLink(const char* path) {
  if (!GPCUTIL_ASSERT_TEXT(path != nullptr, "path")) return false;
  struct stat info;
  return lstat(path, &info) == 0 && S_ISLNK(info.st_mode);
}

bool isDir(const char* path) {
  if (!GPCUTIL_ASSERT_TEXT(path != nullptr, "path")) return false;
  struct stat info;
  return lstat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool FileExists(const char* path) {
  if (!EntryExists(path)) return false;
  if (!IsLibraryPath(path)) return true;
  return IsDylibFileExists(path, true);
}

pid_t GetPIDForProcessName(const char* name) {
  if (!GPCUTIL_ASSERT_TEXT(name != nullptr, "name")) return 0;
  std::vector<platform::ProcessInfo> processes;
  if (!platform::ListProcesses(&processes)) return 0;
  for (const platform::ProcessInfo& process : processes) {
    if (SameTextIgnoringCase(process.name.c_str(), name)) return process.pid;
  }
  return 0;
}

void DeleteFiles(const char* folder, const char* name, const char* extension) {
  if (!GPCUTIL_ASSERT_TEXT(folder != nullptr, "lpszFolder")) return;
  if (!GPCUTIL_ASSERT_TEXT(name != nullptr, "lpszName")) return;
  if (!GPCUTIL_ASSERT_TEXT(extension != nullptr, "lpszExt")) return;
  std::vector<FSDirectoryItem> items;
  if (FSGetDirectoryItems(folder, items) != FSListStatus::kListed) return;
  for (const FSDirectoryItem& item : items) {
    if (item.isAlias || item.isFolder) continue;
    if (!NameAndExtensionMatch(item.name, name, extension)) continue;
    unlink((std::string(folder) + "/" + item.name).c_str());
  }
}

namespace {

// Moves `path` to a hidden name beside it that no earlier entry left there holds. The number
// differs between processes and calls: entries stuck under such names stay for good.
bool MoveAsideUnderHiddenName(const std::string& path) {
  const uint32_t first = static_cast<uint32_t>(platform::WallClockMicros()) ^ (static_cast<uint32_t>(getpid()) << 20);
  for (uint32_t n = 0; n < 8; ++n) {
    const std::string hidden = HiddenNameBeside(path, first + n);
    if (hidden.empty()) {
      MacErrorTrace("RemoveFile: combine new name failed!");
      return false;
    }
    if (!EntryExists(hidden.c_str())) return MoveAsideAndRemove(path, hidden);
  }
  return false;
}

bool RemoveTryingHarder(const char* path) {
  const std::string target = path;

  if (RemoveRecursively(target) && !EntryExists(path)) {
    MacInfoTrace("RemoveFile: remove file[%s] success!", path);
    return true;
  }
  MacInfoTrace("RemoveFile: remove file[%s] failed!", path);

  if (isDir(path)) rmdir(path); else unlink(path);
  if (!EntryExists(path)) {
    MacInfoTrace("RemoveFile: remove file[%s] success after using c func", path);
    return true;
  }

  if (MoveAsideUnderHiddenName(target)) return true;
  if (MoveAsideAndRemove(target, target + ".deltmp")) return true;

  MacErrorTrace("RemoveFile: remove file[%s] again, still failed!", path);
  return false;
}

}  // namespace

bool RemoveFile(const char* path) noexcept {
  if (path == nullptr || path[0] == '\0') return false;
  try {
    // "x/" names what a link x points to; the entry itself, a link included, is what goes.
    std::string entry = path;
    while (entry.size() > 1 && entry.back() == '/') entry.pop_back();
    if (!EntryExists(entry.c_str())) return false;
    return RemoveTryingHarder(entry.c_str());
  } catch (...) {
    // Without memory for the harder ways, the plain system call is what is left.
    if (isDir(path)) rmdir(path); else unlink(path);
    return !EntryExists(path);
  }
}

bool IsFileOpenAt(int fd, const char* path, bool followLink) {
  struct stat held, named;
  return fd >= 0 && path != nullptr && fstat(fd, &held) == 0 &&
         (followLink ? stat(path, &named) : lstat(path, &named)) == 0 &&
         held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

// ---- Folder listing ----

FSListStatus FSGetDirectoryItems(const std::string& folder, std::vector<FSDirectoryItem>& items) {
  items.clear();
  struct stat info;
  if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return FSListStatus::kFolderNotFound;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return FSListStatus::kCannotList;
  while (struct dirent* entry = readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    FSDirectoryItem item{entry->d_name, entry->d_type == DT_LNK, entry->d_type == DT_DIR};
    if (entry->d_type == DT_UNKNOWN) {
      struct stat entry_info;
      std::string full = folder + "/" + entry->d_name;
      if (lstat(full.c_str(), &entry_info) == 0) {
        item.isAlias = S_ISLNK(entry_info.st_mode);
        item.isFolder = S_ISDIR(entry_info.st_mode);
      }
    }
    items.push_back(std::move(item));
  }
  closedir(dir);
  return FSListStatus::kListed;
}

size_t CopyBounded(char* dest, size_t size, std::string_view text) {
  if (dest == nullptr || size == 0) return 0;
  const size_t len = std::min(text.size(), size - 1);
  if (len != 0) std::memcpy(dest, text.data(), len);
  dest[len] = '\0';
  return len;
}

size_t CopyBounded(char* dest, size_t size, const char* text) {
  if (size == 0) return 0;
  return CopyBounded(dest, size, std::string_view(text, text != nullptr ? strnlen_s(text, size - 1) : 0));
}
