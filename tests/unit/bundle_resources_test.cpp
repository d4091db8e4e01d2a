// The assembled plug-in bundle: its Info.plist and one message table per language name.
#include <gtest/gtest.h>

#include <fstream>
#include <plist/plist.h>
#include <set>

#include "common/localizedname.h"
#include "platform/bundle.h"

namespace {

const std::string kBundle = GPC_BUNDLE_DIR;
const char kMessageKey[] = "Setup was unsuccessful. Please restart browser and try again.\n\n\nError [%d]";

// The string under `key` in the XML property list at `path`; empty when the file, the dictionary or the key is missing.
std::string LookUp(const std::string& path, const char* key) {
  std::string xml((std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf())), {});
  plist_t root = nullptr, node = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
  if (root != nullptr && plist_get_node_type(root) == PLIST_DICT) node = plist_dict_get_item(root, key);
  char* text = nullptr;
  if (node != nullptr && plist_get_node_type(node) == PLIST_STRING) plist_get_string_val(node, &text);
  std::string value = text != nullptr ? text : "";
  free(text);
  plist_free(root);
  return value;
}

size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST(Bundle, InfoPlistIdentifiesTheModuleAndItsType) {
  const std::string info = kBundle + "/Contents/Info.plist";
  EXPECT_EQ(LookUp(info, "CFBundleIdentifier"), "com.vantrel.talvo.plugin.gpc64");
  EXPECT_EQ(platform::BundleInfoString(kBundle, "CFBundleIdentifier"), platform::kPluginBundleIdentifier);
  EXPECT_EQ(LookUp(info, "CFBundleExecutable"), "libnpgpc.so");
  EXPECT_TRUE(std::ifstream(kBundle + "/Contents/MacOS/libnpgpc.so").good());
  std::string version = LookUp(info, "CFBundleVersion");
  EXPECT_TRUE(!version.empty() && version.find('@') == std::string::npos) << "unsubstituted: " << version;
  std::string xml((std::istreambuf_iterator<char>(std::ifstream(info).rdbuf())), {});
  EXPECT_NE(xml.find("<key>application/x-talvo-gpc</key>"), std::string::npos);
}

TEST(Bundle, EveryLanguageHasItsOwnMessageWithOneCode) {
  std::set<std::string> texts;
  for (int id = 0; id <= 21; ++id) {
    const std::string name = localizedExtNameFromLanguageID(std::to_string(id).c_str());
    const std::string text = LookUp(kBundle + "/Contents/Resources/Localizable_" + name + ".strings", kMessageKey);
    EXPECT_TRUE(Count(text, "%") == 1 && Count(text, "[%d]") == 1 && Count(text, "\n") == 3 && Count(text, "\n\n\n") == 1)
        << name << ": " << text;
    EXPECT_TRUE(name != "English" || text == kMessageKey) << text;  // English is the key itself
    texts.insert(text);
  }
  EXPECT_EQ(texts.size(), 18u) << "two tables share a text";
}

}  // namespace
