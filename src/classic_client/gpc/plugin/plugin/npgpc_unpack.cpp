// Unpacking of a verified 7z package with the unpacking library shipped in the plug-in's bundle.
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/gpcutil.h"
#include "common/hardening.h"
#include "common/versionfordylib.h"
#include "platform/bundle.h"
#include "platform/dynamic_library.h"
#include "platform/folders.h"
#include "plugin/plugin/npgpcimp.h"
#include "common/trace.h"

namespace {

const unsigned char k7zSignature[6] = {0x37, 0x7A, 0xBC, 0xAF, 0x27, 0x1C};
const size_t kLongestPath = 1023;
const uint32_t kUnpackNoSource = 20100;
const uint32_t kUnpackNot7z = 20009;
const uint32_t kUnpackNoUnpacker = 20007;

bool Has7zSignature(const char* path) {
  FILE* file = fopen(path, "rbe");
  if (file == nullptr) return false;
  unsigned char head[sizeof k7zSignature] = {};
  const size_t read = fread(head, 1, sizeof head, file);
  fclose(file);
  return read == sizeof head && memcmp(head, k7zSignature, sizeof head) == 0;
}

bool EndsWith(const std::string& text, const char* suffix) {
  const size_t length = strlen(suffix);
  return text.size() >= length && text.compare(text.size() - length, length, suffix) == 0;
}

// The folder to extract into. A bundle-like target is a folder the archive itself holds, so
// extraction goes into the folder that contains it.
std::string DestinationFolderOf(const char* target, bool* targetIsFolder) {
  std::string folder = target ? target : "";
  if (!folder.empty() && folder.back() == '/') folder.pop_back();
  *targetIsFolder = false;
  for (const char* suffix : {".app", ".bundle", ".pkg", ".framework"}) {
    if (!EndsWith(folder, suffix)) continue;
    const size_t slash = folder.rfind('/');
    if (slash != std::string::npos) {
      *targetIsFolder = true;
      folder.erase(slash);
    }
    break;
  }
  return folder;
}

int DropGroupAndOtherWrite(const char* path, const struct stat* info, int type, struct FTW*) {
  // Links are skipped: chmod would follow them, possibly out of the folder.
  if (type == FTW_SL || type == FTW_SLN) return 0;
  const mode_t mode = info->st_mode & 07777;
  if ((mode & (S_IWGRP | S_IWOTH)) != 0 && chmod(path, mode & ~(S_IWGRP | S_IWOTH)) != 0) {
    MacWarnTrace("CGpcWindow::UnpackFile,cannot remove group and other write permission of %s: %s", path,
                 strerror(errno));
  }
  return 0;
}

// What "chmod -R go-w" does, without a shell: nothing the extension brought stays writable by
// other users. Like chmod, it follows a folder given as a link ("/." makes the walk start at
// what the link leads to), and no link below it.
void RemoveGroupAndOtherWrite(const std::string& folder) {
  if (nftw((folder + "/.").c_str(), DropGroupAndOtherWrite, 16, FTW_PHYS) != 0) {
    MacWarnTrace("CGpcWindow::UnpackFile,cannot walk %s: %s", folder.c_str(), strerror(errno));
  }
}

std::string ParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos || slash == 0 ? std::string(slash == 0 ? "/" : ".") : path.substr(0, slash);
}

// Whether the bundle unpacked at `produced` is older than the one installed at `target`: the
// hardened build never swaps it in, so a page cannot bring back an old, vulnerable extension by
// naming a newer version than its package holds.
bool WouldDowngrade(const std::string& produced, const std::string& target) {
  char installed[256] = {}, arriving[256] = {};
  if (!GetFileVersionString(target.c_str(), installed, sizeof installed) ||
      !GetFileVersionString(produced.c_str(), arriving, sizeof arriving) || !IsVersionNewer(installed, arriving)) {
    return false;
  }
  MacErrorTrace("CGpcWindow::UnpackFile,%s [%s] is newer than the package's [%s], no downgrade!", target.c_str(),
                installed, arriving);
  return true;
}

bool SyncEntry(const char* path) {
  const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  const bool synced = fd >= 0 && fsync(fd) == 0;
  if (fd >= 0) close(fd);
  return synced;
}

thread_local bool t_unsynced = false;

int SyncWalkedEntry(const char* path, const struct stat*, int type, struct FTW*) {
  if (type == FTW_F || type == FTW_D || type == FTW_DP) {
    if (!SyncEntry(path)) t_unsynced = true;
  } else if (type != FTW_SL && type != FTW_SLN) {
    t_unsynced = true;  // a folder it cannot read, an entry it cannot see
  }
  return 0;
}

// Every file and folder below `path` reaches the disk before anything counts on it: the kernel
// may otherwise commit a rename or an unlink before the data of the files it concerns. What
// cannot be opened (a file packed without read permission) is synced with its whole file system.
void SyncTree(const std::string& path) {
  t_unsynced = false;
  if (nftw(path.c_str(), SyncWalkedEntry, 16, FTW_PHYS) == 0 && !t_unsynced) return;
  const int fd = open(ParentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 || syncfs(fd) != 0) MacWarnTrace("CGpcWindow::UnpackFile,cannot sync %s: %s", path.c_str(), strerror(errno));
  if (fd >= 0) close(fd);
}

// The marker is on disk before the old bundle goes. The install has made the folder.
bool MarkUnfinished(const std::string& marker, const std::string& folder) {
  const int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  close(fd);
  SyncEntry(folder.c_str());
  return true;
}

bool Rename(const std::string& from, const std::string& to, unsigned flags = 0) {
  return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) == 0;
}

// Moving a folder to another parent rewrites its "..", which needs its owner's write access: a
// bundle packed read-only gets that bit for the move and has its own mode back after it. Returns the
// mode to give back with its file type (never 0), 0 when nothing changed.
mode_t OpenForMove(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || (info.st_mode & S_IWUSR) != 0) return 0;
  return fchmodat(AT_FDCWD, path.c_str(), (info.st_mode & 07777) | S_IWUSR, AT_SYMLINK_NOFOLLOW) == 0 ? info.st_mode : 0;
}

void GiveModeBack(const std::string& path, mode_t mode) {
  if (mode != 0) fchmodat(AT_FDCWD, path.c_str(), mode & 07777, AT_SYMLINK_NOFOLLOW);
}

// The new entry takes the target's place in one exchange of names. Where the file system has none
// (NFS, SMB, some FUSE file systems), the old entry steps aside into a private folder first and comes
// back when the new one cannot take its place; only a crash between the two leaves no extension.
bool MoveIntoPlace(const std::string& produced, const std::string& target, const std::string& parent) {
  if (!EntryExists(target)) return Rename(produced, target);
  if (Rename(produced, target, RENAME_EXCHANGE)) return true;
  if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return false;
  std::string aside = parent + "/.gpc-staging-XXXXXX";
  if (mkdtemp(&aside[0]) == nullptr) return false;
  const std::string old = aside + "/previous";
  bool moved = Rename(target, old), stranded = false;
  if (moved && !Rename(produced, target)) {
    const int error = errno;
    stranded = !Rename(old, target);
    if (stranded) MacErrorTrace("CGpcWindow::UnpackFile,cannot move %s back: %s", old.c_str(), strerror(errno));
    errno = error;
    moved = false;
  }
  const int error = errno;
  if (!stranded) RemoveFile(aside);  // else it holds the only copy of the old extension
  errno = error;
  return moved;
}

// The hardened build's unpacking: the archive goes into a private folder beside the target, and
// only a complete extraction takes the target's place, in one exchange of names. A failure, a
// full disk or a crash at any step leaves the installed extension as it was.
uint32_t UnpackThroughStaging(GpcDecompressFile7zProc decompress, const char* archive, const char* destination,
                              const std::string& folder, bool targetIsFolder, bool ownExtension) {
  std::string target = destination;
  if (target.size() > 1 && target.back() == '/') target.pop_back();
  const std::string parent = targetIsFolder ? folder : ParentOf(target);
  platform::MakeFolders(parent, 0755);
  std::string staging = parent + "/.gpc-staging-XXXXXX";
  if (mkdtemp(&staging[0]) == nullptr) {
    MacErrorTrace("CGpcWindow::UnpackFile,cannot make a staging folder in %s: %s", parent.c_str(), strerror(errno));
    return kUnpackNoSource;
  }
  // A target that is no bundle is the staging folder itself once in place: it gets a folder's mode.
  if (!targetIsFolder) chmod(staging.c_str(), 0755);
  const int32_t result = decompress(archive, staging.c_str());
  const std::string produced = targetIsFolder ? staging + target.substr(target.rfind('/')) : staging;
  if (result != 0 || !EntryExists(produced)) {
    MacErrorTrace("CGpcWindow::UnpackFile,call GpcDecompressFile7z failed[%d],destfile=%s!", result, destination);
    RemoveFile(staging);
    return result != 0 ? static_cast<uint32_t>(result) : kUnpackNot7z;
  }
  if (targetIsFolder && WouldDowngrade(produced, target)) {
    RemoveFile(staging);
    return kUnpackNoSource;
  }
  RemoveGroupAndOtherWrite(produced);
  if (ownExtension) SyncTree(produced);
  const mode_t arriving = OpenForMove(produced), leaving = OpenForMove(target);
  const bool replaced = MoveIntoPlace(produced, target, parent);
  if (replaced) {
    GiveModeBack(target, arriving);  // the old bundle goes with the staging folder
  } else {
    MacErrorTrace("CGpcWindow::UnpackFile,cannot move %s into place: %s", produced.c_str(), strerror(errno));
    GiveModeBack(produced, arriving);
    GiveModeBack(target, leaving);
  }
  RemoveFile(staging);  // what is left there: the old extension, or the new one that did not fit
  if (!replaced) return kUnpackNoSource;
  if (ownExtension) unlink(UnfinishedMarkerOf(target).c_str());  // one a default build left
  RemoveFile(archive);
  MacInfoTrace("CGpcWindow::UnpackFile,unpack file success!");
  return 0;
}

}  // namespace

std::string UnfinishedMarkerOf(const std::string& bundlePath) {
  std::string path = bundlePath;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const size_t slash = path.rfind('/');
  return path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".unfinished";
}

bool IsBundleUnfinished(const std::string& bundlePath) {
  struct stat info;  // only the plug-in's own file counts, not a folder a page named so
  return lstat(UnfinishedMarkerOf(bundlePath).c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

uint32_t CGpcWindow::UnpackFile(const char* archive, const char* destination, int flags) {
  if (archive == nullptr) {
    MacErrorTrace("CGpcWindow::UnpackFile,src file is nil!");
    return kUnpackNoSource;
  }
  MacInfoTrace("CGpcWindow::UnpackFile, srcFile = %s, destFile = %s", archive, destination ? destination : "");
  if (!Has7zSignature(archive)) {
    MacErrorTrace("CGpcWindow::UnpackFile,file is not 7zip file!");
    return kUnpackNot7z;
  }
  bool targetIsFolder = false;
  const std::string folder = DestinationFolderOf(destination, &targetIsFolder);

  if (m_h7zLib == nullptr) {
    std::string library = platform::PluginBundlePath();
    if (library.empty() || library.size() > kLongestPath) return kUnpackNoSource;
    if (library.back() != '/') library.push_back('/');
    library += "Contents/Frameworks/lib7zip.so";
    std::string error;
    m_h7zLib = platform::OpenLibrary(library, &error);
    if (m_h7zLib == nullptr) {
      MacErrorTrace("dlopen lib7zip.dylib failed, path = %s, err = %s", library.c_str(), error.c_str());
      return kUnpackNoUnpacker;
    }
    // The handle is kept even when the entry is missing: later calls fail without loading again.
    void* entry = platform::LibrarySymbol(m_h7zLib, "GpcDecompressFile7z");
    if (entry == nullptr) {
      MacErrorTrace("dlsym lib7zip.dylib failed, path = %s, err = %s", library.c_str(),
                    "undefined symbol: GpcDecompressFile7z");
      return kUnpackNoUnpacker;
    }
    m_pfnDecompressFile7z = reinterpret_cast<GpcDecompressFile7zProc>(entry);
    MacInfoTrace("Load 7zip.dylib success");
  }
  if (m_pfnDecompressFile7z == nullptr) {
    MacErrorTrace("interface in 7zip.dylib failed!");
    return kUnpackNoUnpacker;
  }

  const bool ownExtension = targetIsFolder && (flags & kUnpackOwnExtension) != 0;
  if (gpc::GpcHardened() && destination != nullptr && *destination != '\0') {
    return UnpackThroughStaging(m_pfnDecompressFile7z, archive, destination, folder, targetIsFolder, ownExtension);
  }
  // The old target goes first; there is no backup. The plug-in's own extension is marked
  // unfinished until the new one is whole and on disk.
  const std::string marker = ownExtension ? UnfinishedMarkerOf(destination) : "";
  if (!marker.empty() && !MarkUnfinished(marker, folder)) {
    MacWarnTrace("CGpcWindow::UnpackFile,cannot mark %s unfinished: %s", destination, strerror(errno));
  }
  if (destination != nullptr) RemoveFile(destination);
  const int32_t result = m_pfnDecompressFile7z(archive, folder.c_str());
  if (result == 0) {
    RemoveFile(archive);
    RemoveGroupAndOtherWrite(folder);
    if (!marker.empty()) {
      SyncTree(destination);
      SyncEntry(folder.c_str());
      unlink(marker.c_str());
    }
    MacInfoTrace("CGpcWindow::UnpackFile,unpack file success!");
    return 0;
  }
  MacErrorTrace("CGpcWindow::UnpackFile,call GpcDecompressFile7z failed[%d],destfile=%s!", result,
                destination ? destination : "");
  if (targetIsFolder) {
    MacErrorTrace("CGpcWindow::UnpackFile, delete the folder of target = %s", destination);
    rmdir(destination);
  } else if (destination != nullptr) {
    MacErrorTrace("CGpcWindow::UnpackFile, delete the file of target = %s", destination);
    unlink(destination);
  }
  return static_cast<uint32_t>(result);
}
