#include "platform/bundle.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <mutex>
#include <plist/plist.h>

namespace platform {

namespace {
std::mutex g_override_mutex;
std::string& Override() {
  static std::string path;
  return path;
}

std::string ReadPlistFile(const std::string& path) {
  std::string data;
  FILE* file = fopen(path.c_str(), "rbe");
  if (file == nullptr) return data;
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) data.append(chunk, got);
  fclose(file);
  return data;
}
}  // namespace

std::string PlistNodeText(void* node, size_t longest) {
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return "";
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  if (text == nullptr) return "";
  return std::string(text, strnlen(text, length < longest ? static_cast<size_t>(length) : longest));
}

bool PlistDictString(const std::string& data, const char* key, std::string* value, size_t longest) {
  plist_t root = nullptr;
  if (!data.empty()) plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
  if (root == nullptr) return false;
  plist_t node = plist_get_node_type(root) == PLIST_DICT ? plist_dict_get_item(root, key) : nullptr;
  const bool found = node != nullptr && plist_get_node_type(node) == PLIST_STRING;
  if (found) *value = PlistNodeText(node, longest);
  plist_free(root);
  return found;
}

std::string BundleExecutableName(const std::string& declared, const std::string& folderName) {
  if (!declared.empty() && declared.find('/') == std::string::npos) return declared;
  const size_t dot = folderName.rfind('.');
  return dot != std::string::npos && dot > 0 ? folderName.substr(0, dot) : folderName;
}

std::string BundleInfoString(const std::string& bundle_path, const char* key) {
  std::string value;
  PlistDictString(ReadPlistFile(bundle_path + "/Contents/Info.plist"), key, &value);
  return value;
}

std::string ModulePathOf(const void* address) {
  Dl_info info;
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return "";
  char resolved[PATH_MAX];
  if (realpath(info.dli_fname, resolved) == nullptr) return "";
  return resolved;
}

std::string PluginBundlePath() {
  {
    std::lock_guard<std::mutex> lock(g_override_mutex);
    if (!Override().empty()) return Override();
  }
  std::string path = ModulePathOf(reinterpret_cast<const void*>(&PluginBundlePath));
  while (!path.empty()) {
    std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos || slash == 0) break;
    path.erase(slash);
    if (BundleInfoString(path, "CFBundleIdentifier") == kPluginBundleIdentifier) return path;
  }
  return "";
}

void SetPluginBundlePathOverride(const std::string& path) {
  std::lock_guard<std::mutex> lock(g_override_mutex);
  Override() = path;
}

}  // namespace platform
