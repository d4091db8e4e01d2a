#include "common/versionfordylib.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "common/gpcutil.h"
#include "platform/bundle.h"
#include "safestring/safe_lib.h"

namespace {

constexpr const char* kVersionSeparators = " ,\t\r\n";
constexpr size_t kLibraryPathBufferSize = 1024;  // both library paths must fit, with their NUL
constexpr size_t kBundleVersionMaxBytes = 255;
constexpr const char* kDefaultLibraryExtension = ".dylib";

// Follows a final link: a bundle reached through a link is still a bundle.
bool PathIsFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string DotsToCommas(std::string text) {
  for (char& c : text) {
    if (c == '.') c = ',';
  }
  return text;
}

std::string LastComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::string::size_type slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The executable inside a bundle, application or framework folder.
std::string BundleExecutablePath(const std::string& path) {
  std::string component = LastComponent(path);
  std::string::size_type dot = component.rfind('.');
  std::string base = dot == std::string::npos ? component : component.substr(0, dot);
  // ".app" and ".bundle" win over ".framework"; a folder with none of them is laid out like a bundle.
  bool app_or_bundle = path.rfind(".app") != std::string::npos || path.rfind(".bundle") != std::string::npos;
  if (!app_or_bundle && path.rfind(".framework") != std::string::npos) return path + "/Versions/A/" + base;
  return path + "/Contents/MacOS/" + base;
}

// Logs and returns false when the file is no dictionary or the key is missing.
bool ReadBundleVersion(const std::string& plist_path, std::string& version) {
  std::ifstream in(plist_path, std::ios::binary);
  const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return BundleVersionOfPlist(data, version);
}

bool GetFolderVersionString(const std::string& path, char* dest, size_t size) {
  MacInfoTrace("GetFileVersionString, path = %s is a Folder", path.c_str());
  std::string exec = BundleExecutablePath(path);
  MacInfoTrace("GetFileVersionString for path, exec file = %s", exec.c_str());
  if (!EntryExists(exec)) {
    MacInfoTrace("GetFileVersionString for path = %s, execfile not exist", path.c_str());
    return false;
  }
  bool is_framework = path.find(".framework") != std::string::npos;
  std::string plist_path = path + (is_framework ? "/Versions/A/Resources/Info.plist" : "/Contents/Info.plist");
  MacInfoTrace("GetFileVersionString(...) info.plist's strPath = %s", plist_path.c_str());
  std::string version;
  if (!ReadBundleVersion(plist_path, version)) return false;
  // The version is at most 255 bytes and callers pass 256; `size` only guards smaller buffers.
  CopyBounded(dest, size, DotsToCommas(version));
  MacInfoTrace("GetFileVersionString(...) version = %s", dest);
  return true;
}

// The version part of a library file name, "name-version.extension" -> "version".
// Empty when the name holds no "-" followed later by a ".".
std::string VersionInFileName(const std::string& file) {
  std::string::size_type dash = file.find('-');
  std::string::size_type dot = file.rfind('.');
  if (dash == std::string::npos || dot == std::string::npos || dot <= dash) return std::string();
  return file.substr(dash + 1, dot - dash - 1);
}

bool FileNameMatches(const std::string& file, const std::string& name, bool has_extension,
                     const std::string& extension) {
  std::string::size_type dash = file.find('-');
  std::string::size_type dot = file.rfind('.');
  if (dash == std::string::npos || dot == std::string::npos) return false;
  if (!name.empty() && file.compare(0, dash, name) != 0) return false;
  return !has_extension || file.compare(dot + 1, std::string::npos, extension) == 0;
}

// The unversioned path of a versioned library: its file name cut at the last "-", plus the
// file's extension. Empty when the file name holds no "-". The cut never leaves the folder.
std::string UnversionedLibraryPath(const std::string& versioned) {
  std::string::size_type slash = versioned.rfind('/');
  std::string::size_type name_start = slash == std::string::npos ? 0 : slash + 1;
  std::string::size_type dash = versioned.rfind('-');
  if (dash == std::string::npos || dash < name_start) return std::string();
  std::string::size_type dot = versioned.rfind('.');
  // Only a library's own suffix is kept: "x-2.dylib.bundle" is no version 2 of "x.bundle".
  std::string extension = dot != std::string::npos && dot > dash ? versioned.substr(dot) : "";
  if (extension != ".so") extension = kDefaultLibraryExtension;
  return versioned.substr(0, dash) + extension;
}

// One number of a version, of any length: its digits without leading zeros, which order as
// numbers do when the shorter comes first.
struct VersionNumber {
  std::string digits;
  bool operator<(const VersionNumber& other) const {
    return digits.size() != other.digits.size() ? digits.size() < other.digits.size() : digits < other.digits;
  }
  bool operator>(const VersionNumber& other) const { return other < *this; }
};

// The numbers of a comma-separated version, trailing zeros dropped; false for a piece that is
// not all digits.
bool VersionNumbers(const std::string& version, std::vector<VersionNumber>* numbers) {
  size_t start = 0;
  while (start <= version.size()) {
    size_t comma = version.find(',', start);
    if (comma == std::string::npos) comma = version.size();
    const std::string piece = version.substr(start, comma - start);
    if (piece.empty() || piece.find_first_not_of("0123456789") != std::string::npos) return false;
    const size_t first = piece.find_first_not_of('0');
    numbers->push_back({first == std::string::npos ? std::string() : piece.substr(first)});
    start = comma + 1;
  }
  while (numbers->size() > 1 && numbers->back().digits.empty()) numbers->pop_back();
  return true;
}

}  // namespace

void FormalizeVersionString(std::string& out, const char* text) {
  if (!GPCUTIL_ASSERT_TEXT(text != nullptr, "lpszSrc")) return;
  std::vector<std::string> pieces = divideStr(text, kVersionSeparators);
  // Empty pieces at the end (a version followed by CR LF) are no components.
  while (!pieces.empty() && pieces.back().empty()) pieces.pop_back();
  if (pieces.empty()) return;
  std::string joined = pieces[0];
  for (size_t i = 1; i < pieces.size(); ++i) joined += "," + pieces[i];
  out = joined;
  MacInfoTrace("FormalizeVersionString, version = %s", out.c_str());
}

bool GetFileVersionString(const char* path, char* dest, size_t size) {
  if (dest != nullptr && size != 0) dest[0] = '\0';
  if (!GPCUTIL_ASSERT_TEXT(path != nullptr, "path")) return false;
  if (!GPCUTIL_ASSERT_TEXT(dest != nullptr, "dest")) return false;
  if (!EntryExists(path)) {
    MacInfoTrace("GetFileVersionString, file(%s) not exist", path);
    return false;
  }
  if (PathIsFolder(path)) return GetFolderVersionString(path, dest, size);

  std::string version;
  if (!GetVersionFromDylib(path, version)) return false;
  MacInfoTrace("GetFileVersionString,%s version is %s", path, version.c_str());
  CopyBounded(dest, size, version);
  return true;
}

bool GetVersionFromDylib(const char* path, std::string& version) {
  if (!GPCUTIL_ASSERT_TEXT(path != nullptr, "path")) return false;
  std::string full = path;
  std::string::size_type slash = full.rfind('/');
  std::string folder = slash == std::string::npos ? "." : (slash == 0 ? "/" : full.substr(0, slash));
  std::string file = slash == std::string::npos ? full : full.substr(slash + 1);

  std::string wanted_name = file;
  std::string wanted_extension;
  bool has_extension = false;
  std::string::size_type dash = file.find('-');
  if (dash != std::string::npos) {
    wanted_name = file.substr(0, dash);
    std::string::size_type dot = file.rfind('.');
    has_extension = dot != std::string::npos;
    if (has_extension) wanted_extension = file.substr(dot + 1);
  }

  std::vector<FSDirectoryItem> items;
  switch (FSGetDirectoryItems(folder, items)) {
    case FSListStatus::kFolderNotFound:
      MacErrorTrace("GetVersionFromDylib, Cannot find folder(%s)", folder.c_str());
      return false;
    case FSListStatus::kCannotList:
      MacErrorTrace("GetVersionFromDylib, Cannot find folder(%s)'s file list", folder.c_str());
      return false;
    case FSListStatus::kListed:
      break;
  }
  for (const FSDirectoryItem& item : items) {
    if (item.isAlias || item.isFolder) continue;
    if (!FileNameMatches(item.name, wanted_name, has_extension, wanted_extension)) continue;
    std::string found = VersionInFileName(item.name);
    if (found.empty()) continue;
    version = DotsToCommas(found);
    return true;
  }
  return false;
}

bool IsDylibFileExists(const char* versionedPath, bool makeLink) {
  if (!GPCUTIL_ASSERT_TEXT(versionedPath != nullptr, "inOriginalFile")) return false;
  if (!GPCUTIL_ASSERT_TEXT(strnlen_s(versionedPath, RSIZE_MAX_STR) != 0,
                           "strnlen_s(inOriginalFile, 0x7fffffff)")) {
    return false;
  }
  const std::string versioned = versionedPath;
  const std::string unversioned = UnversionedLibraryPath(versioned);
  if (versioned.size() >= kLibraryPathBufferSize || unversioned.size() >= kLibraryPathBufferSize) {
    return false;
  }
  if (!EntryExists(versioned)) return false;

  if (isLink(versioned) || isDir(versioned)) {
    RemoveFile(versioned);
    if (makeLink && !unversioned.empty()) RemoveFile(unversioned);
    return false;
  }
  if (!makeLink) return false;

  // Only an entry that existed is replaced by the link; none is made where there was none.
  if (unversioned.empty() || unlink(unversioned.c_str()) != 0) {
    MacErrorTrace("try to unlink file(%s) failed", unversioned.c_str());
    return false;
  }
  // A relative target keeps the link valid when the folder moves.
  return symlink(LastComponent(versioned).c_str(), unversioned.c_str()) == 0;
}

bool IsVersionNewer(const std::string& a, const std::string& b) {
  std::vector<VersionNumber> first, second;
  return VersionNumbers(a, &first) && VersionNumbers(b, &second) && second < first;
}

bool BundleVersionOfPlist(const std::string& data, std::string& version) {
  plist_t root = nullptr;
  if (!data.empty()) plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
  if (root == nullptr || plist_get_node_type(root) != PLIST_DICT) {
    if (root != nullptr) plist_free(root);
    MacInfoTrace("GetFileVersionString(...) createDictionary failed");
    return false;
  }
  plist_t node = plist_dict_get_item(root, "CFBundleVersion");
  const bool found = node != nullptr && plist_get_node_type(node) == PLIST_STRING;
  if (found) version = platform::PlistNodeText(node, kBundleVersionMaxBytes);
  else MacInfoTrace("GetFileVersionString(...) get CFBundleVersion failed");
  plist_free(root);
  return found;
}
