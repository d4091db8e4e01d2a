#include "platform/bundle.h"

#include <climits>
#include <cstdlib>
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

plist_t ReadPlistFile(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return nullptr;
  std::string data;
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) data.append(chunk, got);
  fclose(file);
  if (data.empty()) return nullptr;
  plist_t root = nullptr;
  plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
  return root;
}
}  // namespace

std::string BundleInfoString(const std::string& bundle_path, const char* key) {
  plist_t root = ReadPlistFile(bundle_path + "/Contents/Info.plist");
  if (root == nullptr) return "";
  std::string value;
  if (plist_get_node_type(root) == PLIST_DICT) {
    plist_t node = plist_dict_get_item(root, key);
    if (node != nullptr && plist_get_node_type(node) == PLIST_STRING) {
      char* text = nullptr;
      plist_get_string_val(node, &text);
      if (text != nullptr) value = text;
      free(text);
    }
  }
  plist_free(root);
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
