// The assembled plug-in bundle: its Info.plist, and one message table per language name.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <plist/plist.h>
#include <set>

#include "common/localizedname.h"
#include "platform/bundle.h"

namespace {

const std::string kBundle = GPC_BUNDLE_DIR;
const char kMessageKey[] = "Setup was unsuccessful. Please restart browser and try again.\n\n\nError [%d]";

std::string ReadAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

// The string under `key` in the XML property list at `path`; empty when anything is missing.
std::string LookUp(const std::string& path, const char* key) {
  const std::string xml = ReadAll(path);
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
  plist_t node = root != nullptr && plist_get_node_type(root) == PLIST_DICT ? plist_dict_get_item(root, key) : nullptr;
  uint64_t length = 0;
  const char* text = node != nullptr ? plist_get_string_ptr(node, &length) : nullptr;
  std::string value = text != nullptr ? std::string(text, length) : "";
  plist_free(root);
  return value;
}

TEST(Bundle, InfoPlistIdentifiesTheModuleAndItsType) {
  EXPECT_EQ(platform::BundleInfoString(kBundle, "CFBundleIdentifier"), "com.vantrel.talvo.plugin.gpc64");
  EXPECT_EQ(platform::BundleInfoString(kBundle, "CFBundleExecutable"), "libnpgpc.so");
  EXPECT_TRUE(std::ifstream(kBundle + "/Contents/MacOS/libnpgpc.so").good());
  const std::string version = platform::BundleInfoString(kBundle, "CFBundleVersion");
  EXPECT_TRUE(!version.empty() && version.find('@') == std::string::npos) << "unsubstituted: " << version;
  EXPECT_NE(ReadAll(kBundle + "/Contents/Info.plist").find("<key>application/x-talvo-gpc</key>"), std::string::npos);
}

TEST(Bundle, LanguageIdsNameTablesEachWithItsOwnMessageOfOneCode) {
  const char* names[] = {"English", "English", "zh_CN", "zh_TW", "Japanese", "ko", "French", "French", "German",
                         "Italian", "Spanish", "es_419", "sv", "Dutch", "pt", "ru", "tr", "da", "fi", "pl"};
  for (int id = 1; id <= 20; ++id) EXPECT_EQ(localizedExtNameFromLanguageID(std::to_string(id).c_str()), names[id - 1]);
  for (const char* id : {"0", "21", " 3", "03", "3 ", "", "-1", "zh_CN", "1\n"})
    EXPECT_EQ(localizedExtNameFromLanguageID(id), "English") << id;
  std::set<std::string> texts;
  for (const std::string name : names) {
    const std::string text = LookUp(kBundle + "/Contents/Resources/Localizable_" + name + ".strings", kMessageKey);
    const size_t codeAt = text.find("[%d]");
    EXPECT_TRUE(codeAt != std::string::npos && text.find('%') == codeAt + 1 && text.rfind('%') == codeAt + 1 &&
                std::count(text.begin(), text.end(), '\n') == 3 && text.find("\n\n\n") != std::string::npos)
        << name << ": " << text;
    EXPECT_TRUE(name != "English" || text == kMessageKey) << text;  // English is the key itself
    texts.insert(text);
  }
  EXPECT_EQ(texts.size(), 18u) << "two tables share a text";
}

}  // namespace
