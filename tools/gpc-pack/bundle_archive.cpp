#include "bundle_archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "common/gpcutil.h"
#include "common/hardening.h"
#include "common/versionfordylib.h"
#include "lib7zip/link_target.h"
#include "platform/bundle.h"

namespace {

constexpr char kBundleSuffix[] = ".bundle";
// The plug-in takes a longer "GpcExtName" for absent and installs its default extension instead.
constexpr size_t kLongestExtensionName = 64;
// The plug-in reads at most this much of "CFBundleVersion".
constexpr size_t kLongestBundleVersion = 255;
// An Info.plist larger than this is no Info.plist.
constexpr size_t kLargestInfoPlist = 1 << 20;
constexpr size_t kCopyBufferSize = 65536;

struct ArchiveDeleter {
  void operator()(archive* a) const { archive_free(a); }
};
typedef std::unique_ptr<archive, ArchiveDeleter> ArchivePtr;
struct EntryDeleter {
  void operator()(archive_entry* e) const { archive_entry_free(e); }
};
typedef std::unique_ptr<archive_entry, EntryDeleter> EntryPtr;

std::string ErrnoText(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + strerror(errno);
}

std::string ArchiveErrorText(archive* a) {
  const char* text = archive_error_string(a);
  return text != nullptr ? text : "unknown libarchive error";
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool ReadWholeFile(const std::string& path, std::string* data) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  data->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

// A version the plug-in can match: the page's value is split at blanks, commas, tabs and line
// breaks and joined with commas, so the installed text must already be in that form.
bool CheckMatchableVersion(const std::string& bundleVersion, std::string* error) {
  const std::string pageVersion = PageVersionOf(bundleVersion);
  std::string formal;
  FormalizeVersionString(formal, pageVersion.c_str());
  if (bundleVersion.empty() || bundleVersion.size() > kLongestBundleVersion || formal != pageVersion) {
    *error = "CFBundleVersion \"" + bundleVersion +
             "\" cannot be matched by any page (empty, longer than 255 bytes, or holding blanks, commas, tabs or "
             "line breaks): the plug-in would download the package on every visit";
    return false;
  }
  return true;
}

// The bundle on disk as the link rule walks it: a place is a path below the top folder, and each
// link in the bundle is judged by the rule when it is packed.
struct BundleTree {
  typedef std::string Place;
  const std::string& top;
  Place Top() const { return ""; }
  bool Step() const { return true; }  // the packer's own bundle, with its own file system's limits
  Place Down(const Place& place, const std::string& part) const { return place.empty() ? part : place + "/" + part; }
  gpc7z::LinkAt At(const Place& place) const {
    struct stat info;
    const bool link = lstat((top + "/" + place).c_str(), &info) == 0 && S_ISLNK(info.st_mode);
    return link ? gpc7z::LinkAt::kChecked : gpc7z::LinkAt::kNone;
  }
  std::string Target(const Place& place) const {  // empty, and so refused, when unreadable
    std::vector<char> target(PATH_MAX + 1);
    const ssize_t length = readlink((top + "/" + place).c_str(), target.data(), PATH_MAX);
    return std::string(target.data(), length > 0 ? static_cast<size_t>(length) : 0);
  }
};

// ---- Writing -------------------------------------------------------------------------------

class BundleWriter {
 public:
  BundleWriter(archive* a, std::string* error) : m_archive(a), m_error(error) {}

  // Adds `diskPath` as `archivePath` and, for a folder, everything below it; the first call adds
  // the top folder.
  bool Add(const std::string& diskPath, const std::string& archivePath) {
    struct stat info;
    // The top folder may be reached through a link; everything inside is taken as it is.
    const bool top = m_top.empty();
    if (top) m_top = diskPath;
    if ((top ? stat(diskPath.c_str(), &info) : lstat(diskPath.c_str(), &info)) != 0) {
      *m_error = ErrnoText("cannot read", diskPath);
      return false;
    }
    EntryPtr entry(archive_entry_new());
    archive_entry_copy_pathname(entry.get(), archivePath.c_str());
    archive_entry_set_perm(entry.get(), info.st_mode & 07777);
    archive_entry_set_mtime(entry.get(), info.st_mtim.tv_sec, info.st_mtim.tv_nsec);
    if (S_ISDIR(info.st_mode)) {
      archive_entry_set_filetype(entry.get(), AE_IFDIR);
      return WriteHeader(entry.get()) && AddChildren(diskPath, archivePath);
    }
    if (S_ISLNK(info.st_mode)) return AddLink(diskPath, archivePath, entry.get());
    if (S_ISREG(info.st_mode)) {
      archive_entry_set_filetype(entry.get(), AE_IFREG);
      archive_entry_set_size(entry.get(), info.st_size);
      return WriteHeader(entry.get()) && CopyData(diskPath, info.st_size);
    }
    *m_error = diskPath + " is neither a file, a folder nor a symbolic link";
    return false;
  }

 private:
  bool AddChildren(const std::string& diskPath, const std::string& archivePath) {
    std::vector<std::string> names;
    DIR* folder = opendir(diskPath.c_str());
    if (folder == nullptr) {
      *m_error = ErrnoText("cannot list", diskPath);
      return false;
    }
    while (const dirent* item = readdir(folder)) {
      if (strcmp(item->d_name, ".") != 0 && strcmp(item->d_name, "..") != 0) names.push_back(item->d_name);
    }
    closedir(folder);
    // Sorted, so that the same folder gives the same archive.
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      if (!Add(diskPath + "/" + name, archivePath + "/" + name)) return false;
    }
    return true;
  }

  bool AddLink(const std::string& diskPath, const std::string& archivePath, archive_entry* entry) {
    std::vector<char> target(PATH_MAX + 1);
    const ssize_t length = readlink(diskPath.c_str(), target.data(), PATH_MAX);
    if (length < 0) {
      *m_error = ErrnoText("cannot read the link", diskPath);
      return false;
    }
    const std::string text(target.data(), static_cast<size_t>(length));
    // The unpacker refuses a whole archive with a link it would not follow; here the link may not
    // even leave the bundle. Links in the bundle are judged as the unpacker judges those it brings.
    std::vector<std::string> folder;  // the link's folders, below the top folder, as paths
    const size_t top = archivePath.find('/');
    for (size_t at = top; at != archivePath.rfind('/');) {
      at = archivePath.find('/', at + 1);
      folder.push_back(archivePath.substr(top + 1, at - top - 1));
    }
    BundleTree tree{m_top};
    if (!gpc7z::LinkTargetStaysInside(tree, folder, text)) {
      *m_error = "the symbolic link " + diskPath + " -> " + text + " leads out of the bundle";
      return false;
    }
    archive_entry_set_filetype(entry, AE_IFLNK);
    archive_entry_copy_symlink(entry, text.c_str());
    return WriteHeader(entry);
  }

  bool WriteHeader(archive_entry* entry) {
    if (archive_write_header(m_archive, entry) == ARCHIVE_OK) return true;
    *m_error = "cannot add " + std::string(archive_entry_pathname(entry)) + ": " + ArchiveErrorText(m_archive);
    return false;
  }

  bool CopyData(const std::string& diskPath, off_t expected) {
    const int fd = open(diskPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
      *m_error = ErrnoText("cannot read", diskPath);
      return false;
    }
    std::vector<char> buffer(kCopyBufferSize);
    off_t copied = 0;
    bool ok = true;
    for (;;) {
      const ssize_t got = read(fd, buffer.data(), buffer.size());
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        *m_error = ErrnoText("cannot read", diskPath);
        ok = false;
        break;
      }
      if (got == 0) break;
      if (archive_write_data(m_archive, buffer.data(), static_cast<size_t>(got)) != got) {
        *m_error = "cannot write " + diskPath + " into the archive: " + ArchiveErrorText(m_archive);
        ok = false;
        break;
      }
      copied += got;
    }
    close(fd);
    if (ok && copied != expected) {
      *m_error = diskPath + " changed while it was packed";
      ok = false;
    }
    return ok;
  }

  archive* m_archive;
  std::string* m_error;
  std::string m_top;  // the bundle folder on disk
};

// ---- Reading -------------------------------------------------------------------------------

std::string FirstComponent(const std::string& path) { return path.substr(0, path.find('/')); }

bool ReadEntryData(archive* a, std::string* data) {
  char buffer[kCopyBufferSize];
  for (;;) {
    const la_ssize_t got = archive_read_data(a, buffer, sizeof buffer);
    if (got < 0) return false;
    if (got == 0) return true;
    if (data->size() + static_cast<size_t>(got) > kLargestInfoPlist) return false;
    data->append(buffer, static_cast<size_t>(got));
  }
}

}  // namespace

std::string PageVersionOf(const std::string& bundleVersion) {
  std::string version = bundleVersion;
  std::replace(version.begin(), version.end(), '.', ',');
  return version;
}

std::string ExtensionNameRefusal(const std::string& name) {
  const size_t urlCharacter = name.find_first_of("#?%");
  if (urlCharacter != std::string::npos) {
    return "the extension name \"" + name + "\" holds \"" + name[urlCharacter] +
           "\": the plug-in would fetch another URL than the package's";
  }
  if (gpc::GpcHardened() && !IsPlainExtensionName(name.c_str())) {
    return "the extension name \"" + name + "\" is refused by the hardened plug-in (a \"\\\", a control " +
           "character, \".\" or \"..\"), which would fetch the default extension instead";
  }
  if (name.find(".framework") != std::string::npos) {
    return "the extension name \"" + name + "\" holds \".framework\": the plug-in would look for a " +
           "framework's Info.plist in the installed bundle and download it on every visit";
  }
  if (name.find(".dylib") != std::string::npos) {
    return "the extension name \"" + name + "\" holds \".dylib\": the plug-in would take the installed " +
           "bundle for a library, delete it and download it on every visit";
  }
  return std::string();
}

bool ReadBundleFacts(const std::string& path, BundleFacts* facts, std::string* error) {
  std::string folder = path;
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  const size_t slash = folder.rfind('/');
  const std::string base = slash == std::string::npos ? folder : folder.substr(slash + 1);
  struct stat info;
  if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    *error = "the bundle " + folder + " is no folder";
    return false;
  }
  if (!EndsWith(base, kBundleSuffix) || base.size() == strlen(kBundleSuffix)) {
    *error = "the bundle folder's name must be <name>.bundle, not \"" + base + "\"";
    return false;
  }
  const std::string name = base.substr(0, base.size() - strlen(kBundleSuffix));
  if (name.size() > kLongestExtensionName) {
    *error = "the extension name \"" + name + "\" is longer than 64 bytes; the plug-in would ignore it";
    return false;
  }
  *error = ExtensionNameRefusal(name);
  if (!error->empty()) return false;
  const std::string plistPath = folder + "/Contents/Info.plist";
  std::string plist, bundleVersion;
  if (!ReadWholeFile(plistPath, &plist)) {
    *error = "cannot read " + plistPath + ": " + strerror(errno);
    return false;
  }
  // Read whole, so that a version longer than the plug-in reads is refused rather than cut.
  if (!platform::PlistDictString(plist, "CFBundleVersion", &bundleVersion)) {
    *error = plistPath + " is no property list with a \"CFBundleVersion\" string";
    return false;
  }
  if (!CheckMatchableVersion(bundleVersion, error)) return false;
  // The plug-in knows an installed bundle's version only when this executable exists.
  std::string declared;
  platform::PlistDictString(plist, "CFBundleExecutable", &declared);
  const std::string executable = folder + "/Contents/MacOS/" + platform::BundleExecutableName(declared, base);
  if (stat(executable.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {  // as the plug-in checks it
    *error = "the bundle has no executable " + executable +
             ": the plug-in would not recognise it as installed and download it on every visit";
    return false;
  }
  facts->folder = folder;
  facts->name = name;
  facts->version = PageVersionOf(bundleVersion);
  return true;
}

bool WriteBundleArchive(const BundleFacts& bundle, int fd, std::string* error) {
  ArchivePtr a(archive_write_new());
  if (!a || archive_write_set_format_7zip(a.get()) != ARCHIVE_OK) {
    *error = "libarchive cannot write 7z archives";
    return false;
  }
  // Without LZMA2 the writer keeps its own default method, which the unpacker reads as well.
  if (archive_write_set_format_option(a.get(), "7zip", "compression", "lzma2") != ARCHIVE_OK) {
    fprintf(stderr, "gpc-pack: warning: %s; using libarchive's default 7z compression\n",
            ArchiveErrorText(a.get()).c_str());
  }
  if (archive_write_open_fd(a.get(), fd) != ARCHIVE_OK) {
    *error = "cannot start the archive: " + ArchiveErrorText(a.get());
    return false;
  }
  BundleWriter writer(a.get(), error);
  if (!writer.Add(bundle.folder, bundle.name + kBundleSuffix)) return false;
  // The 7z header is written on close: only then is the archive whole.
  if (archive_write_close(a.get()) != ARCHIVE_OK) {
    *error = "cannot finish the archive: " + ArchiveErrorText(a.get());
    return false;
  }
  return true;
}

bool InspectArchive(const std::string& path, ArchiveFacts* facts, std::string* error) {
  ArchivePtr a(archive_read_new());
  if (!a || archive_read_support_format_7zip(a.get()) != ARCHIVE_OK ||
      archive_read_open_filename(a.get(), path.c_str(), kCopyBufferSize) != ARCHIVE_OK) {
    *error = path + " is no 7z archive: " + (a ? ArchiveErrorText(a.get()) : std::string("out of memory"));
    return false;
  }
  std::set<std::string> tops, paths;
  std::map<std::string, std::string> plists;  // top folder -> its Contents/Info.plist
  archive_entry* entry = nullptr;
  int status;
  while ((status = archive_read_next_header(a.get(), &entry)) == ARCHIVE_OK || status == ARCHIVE_WARN) {
    const std::string name = archive_entry_pathname(entry) ? archive_entry_pathname(entry) : "";
    const std::string top = FirstComponent(name);
    // A file at the top level is no folder that could hold the rest.
    tops.insert(top == name && archive_entry_filetype(entry) != AE_IFDIR ? "/" + name : top);
    paths.insert(name);
    if (name == top + "/Contents/Info.plist" && !ReadEntryData(a.get(), &plists[top])) {
      *error = "cannot read " + name + " from " + path + ": " + ArchiveErrorText(a.get());
      return false;
    }
  }
  if (status != ARCHIVE_EOF) {
    *error = "cannot read " + path + " as a 7z archive: " + ArchiveErrorText(a.get());
    return false;
  }
  *facts = ArchiveFacts();
  if (tops.size() != 1 || tops.begin()->front() == '/') return true;
  facts->topFolder = *tops.begin();
  const auto plist = plists.find(facts->topFolder);
  std::string bundleVersion;
  facts->hasInfoPlist = plist != plists.end();
  if (facts->hasInfoPlist && BundleVersionOfPlist(plist->second, bundleVersion)) {
    facts->version = PageVersionOf(bundleVersion);
  }
  if (EndsWith(facts->topFolder, kBundleSuffix)) {
    std::string declared;
    if (facts->hasInfoPlist) platform::PlistDictString(plist->second, "CFBundleExecutable", &declared);
    facts->executable = platform::BundleExecutableName(declared, facts->topFolder);
    facts->hasExecutable = paths.count(facts->topFolder + "/Contents/MacOS/" + facts->executable) != 0;
  }
  return true;
}
