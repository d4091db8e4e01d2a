#include "platform/folders.h"

#include <cerrno>
#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

namespace {
bool IsFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string HomeDir() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && home[0] == '/') return home;
  struct passwd* entry = getpwuid(getuid());
  return (entry != nullptr && entry->pw_dir != nullptr) ? entry->pw_dir : "";
}
}  // namespace

int MakeFolder(const std::string& path, unsigned mode) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0) return S_ISDIR(info.st_mode) ? 0 : -ENOTDIR;
  if (errno != ENOENT) return -errno;
  if (mkdir(path.c_str(), mode) == 0) return 0;
  const int failure = errno;
  return failure == EEXIST && IsFolder(path) ? 0 : -failure;
}

int MakeFolders(const std::string& path, unsigned mode) {
  if (path.empty()) return -ENOENT;
  if (IsFolder(path)) return 0;
  std::string::size_type slash = path.find_last_of('/', path.size() > 1 ? path.size() - 2 : 0);
  if (slash != std::string::npos && slash > 0) {
    if (int parent = MakeFolders(path.substr(0, slash), mode); parent != 0) return parent;
  }
  return MakeFolder(path, mode);
}

bool MakeDirectories(const std::string& path, unsigned mode) { return MakeFolders(path, mode) == 0; }

std::string TalvoFolderPath(bool* tooLong) {
  std::string path = UserApplicationSupportDir();
  if (tooLong != nullptr) *tooLong = path.size() > kLongestSupportPath;
  if (path.empty()) return path;
  if (path.back() != '/') path += '/';
  return path + kTalvoFolderName;
}

std::string UserApplicationSupportDir() {
  std::string dir;
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg != nullptr && xdg[0] == '/') {
    dir = xdg;
  } else {
    std::string home = HomeDir();
    if (home.empty()) return "";
    dir = home + "/.local/share";
  }
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return MakeDirectories(dir, 0700) ? dir : "";  // as the XDG base directories ask
}

std::string TempDir() {
  const char* tmp = std::getenv("TMPDIR");
  std::string dir = (tmp != nullptr && tmp[0] == '/' && IsFolder(tmp)) ? tmp : kSharedTempFolder;
  if (!IsFolder(dir)) return "";
  if (dir.back() != '/') dir += '/';
  return dir;
}

}  // namespace platform
