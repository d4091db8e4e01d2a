// Time stamps as XML property lists, written atomically (a temporary file beside the target,
// then rename), and the text form in the parameter file.
#include "common/gpctimereporter.h"

#include <fcntl.h>
#include <glib.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/gpcutil.h"
#include "common/hardening.h"
#include "platform/bundle.h"
#include "platform/clock.h"
#include "platform/thread_locale.h"
#include "platform/folders.h"
#include "common/trace.h"

namespace {

constexpr char kRootKey[] = "JMTRoot";
constexpr char kMeetingIdKey[] = "meetingid";
constexpr char kPlistFileName[] = "Info.plist";
constexpr char kParameterFileName[] = "talvoparameters.txt";

// Owns one plist node tree.
class PlistHolder {
 public:
  explicit PlistHolder(plist_t node = nullptr) : m_node(node) {}
  ~PlistHolder() {
    if (m_node != nullptr) plist_free(m_node);
  }
  PlistHolder(const PlistHolder&) = delete;
  PlistHolder& operator=(const PlistHolder&) = delete;
  plist_t get() const { return m_node; }
  void reset(plist_t node) {
    if (m_node != nullptr) plist_free(m_node);
    m_node = node;
  }

 private:
  plist_t m_node;
};

// Whether the version steps out of the "Talvo Folder" names with a "..".
bool StepsOut(const char* version) { return (std::string("/") + version + "/").find("/../") != std::string::npos; }

std::string VersionFolderFile(const char* version, const char* fileName) {
  if (version == nullptr) return std::string();
  // The hardened build writes no file that a page's version leads elsewhere in the user's files.
  if (gpc::GpcHardened() && StepsOut(version)) return std::string();
  // The version carries its own separator: "Talvo Folder3,1,0,7Info.plist" is one name.
  std::string path = platform::TalvoFolderPath();
  if (path.empty()) return std::string();
  path += version;
  path += fileName;
  return path;
}

// The meeting id as the file's XML can carry it: invalid UTF-8, control characters other than tab
// and line feed, U+FFFE and U+FFFF become U+FFFD, so that any property-list reader reads the stamps.
std::string StorableMeetingId(const char* meetingId) {
  gchar* valid = g_utf8_make_valid(meetingId, -1);
  std::string text;
  for (const gchar* c = valid; *c != '\0'; c = g_utf8_next_char(c)) {
    const gunichar ch = g_utf8_get_char(c);
    const bool allowed = (ch >= 0x20 || ch == '\t' || ch == '\n') && ch != 0xFFFE && ch != 0xFFFF;
    text += allowed ? std::string(c, static_cast<const gchar*>(g_utf8_next_char(c))) : std::string("\xEF\xBF\xBD");
  }
  g_free(valid);
  return text;
}

bool IsWritableFile(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) return false;
  return access(path.c_str(), W_OK) == 0;
}

bool ReadWholeFile(const std::string& path, std::vector<char>* data) {
  // A regular file only: a FIFO or a device at the name would block the browser or never end.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat info;
  FILE* file = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? fdopen(fd, "rb") : nullptr;
  if (file == nullptr) {
    close(fd);
    return false;
  }
  char chunk[8192];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) data->insert(data->end(), chunk, chunk + got);
  bool ok = ferror(file) == 0;
  fclose(file);
  return ok;
}


// The file's root dictionary, or null when it is missing, unreadable or not a dictionary.
plist_t LoadDictionary(const std::string& path) {
  std::vector<char> data;
  if (!ReadWholeFile(path, &data) || data.empty() || data.size() > UINT32_MAX) return nullptr;
  plist_t root = nullptr;
  {
    // libplist writes reals with a decimal point but reads them in the thread's numeric locale:
    // under a decimal comma "1000.5" would come back as 1000.
    const platform::ThreadLocale c(LC_NUMERIC_MASK, {"C"});
    plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
  }
  if (root != nullptr && plist_get_node_type(root) != PLIST_DICT) {
    plist_free(root);
    return nullptr;
  }
  return root;
}

// Writes `root` as an XML property list, replacing the file whole.
bool WriteAtomically(plist_t root, const std::string& path) {
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(root, &xml, &length);
  if (xml == nullptr) return false;
  const bool ok = ReplaceFileWhole(path, std::string_view(xml, length), 0644) == FileReplaced::kWhole;
  // Quietly: a warning would carry the user's home path in the next error report.
  if (!ok) MacInfoTrace("gpctimereporter,write %s failed: %s", path.c_str(), strerror(errno));
  plist_to_xml_free(xml);
  return ok;
}


// "%f" without the host's locale: a browser may have switched LC_NUMERIC to a decimal comma.
std::string FixedSixDecimals(double value) {
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 6);
  if (result.ec != std::errc()) return "0.000000";
  return std::string(buffer, result.ptr);
}

}  // namespace

std::string gpctimereporter::getPathOfPlistFileWithProductVersion(const char* version) {
  return VersionFolderFile(version, kPlistFileName);
}

void gpctimereporter::clearTimeStampsIfMeetingIdNotMatch(const char* meetingId, const std::string& path) {
  if (meetingId == nullptr || path.empty() || !IsWritableFile(path)) return;
  PlistHolder root(LoadDictionary(path));
  if (root.get() == nullptr) return;
  plist_t stamps = plist_dict_get_item(root.get(), kRootKey);
  if (stamps == nullptr || plist_get_node_type(stamps) != PLIST_DICT) return;
  plist_t recorded = plist_dict_get_item(stamps, kMeetingIdKey);
  if (recorded == nullptr || plist_get_node_type(recorded) != PLIST_STRING) return;
  const std::string storable = StorableMeetingId(meetingId);
  if (platform::PlistNodeText(recorded) == storable) return;

  plist_t fresh = plist_new_dict();
  plist_dict_set_item(fresh, kMeetingIdKey, plist_new_string(storable.c_str()));
  plist_dict_set_item(root.get(), kRootKey, fresh);  // frees the old stamps
  WriteAtomically(root.get(), path);
}

void gpctimereporter::appendTimeStamp(const char* version, const char* meetingId, const char* key,
                                      const char* value) {
  (void)value;  // the current time is always what is stored
  if (meetingId == nullptr || key == nullptr) return;
  std::string path = getPathOfPlistFileWithProductVersion(version);
  if (path.empty()) return;
  clearTimeStampsIfMeetingIdNotMatch(meetingId, path);

  PlistHolder root(LoadDictionary(path));
  if (root.get() == nullptr) root.reset(plist_new_dict());
  plist_t stamps = plist_dict_get_item(root.get(), kRootKey);
  if (stamps == nullptr || plist_get_node_type(stamps) != PLIST_DICT) {
    stamps = plist_new_dict();
    plist_dict_set_item(root.get(), kRootKey, stamps);
  }
  plist_dict_set_item(stamps, key, plist_new_real(platform::AbsoluteTimeGetCurrent()));
  plist_dict_set_item(stamps, kMeetingIdKey, plist_new_string(StorableMeetingId(meetingId).c_str()));
  WriteAtomically(root.get(), path);
}

void gpctimereporter::appendTimeStamp(const char* version, const char* meetingId, const char* key) {
  appendTimeStamp(version, meetingId, key, nullptr);
}

void gpctimereporter::appendTimeStamp(const char* version, const char* key) {
  if (key == nullptr) return;
  std::string path = VersionFolderFile(version, kParameterFileName);
  if (path.empty() || !IsWritableFile(path)) return;
  FILE* file = fopen(path.c_str(), "ae");
  if (file == nullptr) return;
  fprintf(file, "[NAME]-=-%s-=-[VALUE]-=-%s-=-\r", key, FixedSixDecimals(platform::AbsoluteTimeGetCurrent()).c_str());
  fclose(file);
}

void appendTimeStamp(const char* version, const char* name) {
  gpctimereporter::appendTimeStamp(version, name);
}
