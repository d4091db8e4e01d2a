// The assembled plug-in bundle: its Info.plist and one message table per language name.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <plist/plist.h>
#include <set>
#include <sstream>
#include <string>

#include "platform/bundle.h"

namespace {

const char kMessageKey[] = "Setup was unsuccessful. Please restart browser and try again.\n\n\nError [%d]";

const char* const kLanguageNames[] = {"English", "zh_CN", "zh_TW", "Japanese", "ko", "French",
                                      "German",  "Italian", "Spanish", "es_419", "sv", "Dutch",
                                      "pt",      "ru",    "tr",    "da",       "fi", "pl"};

std::string Bundle() { return GPC_BUNDLE_DIR; }

bool ReadFile(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

// The string stored under `key` in the XML property list at `path`; false when the file is
// missing, not a dictionary, or has no such string.
bool LookUp(const std::string& path, const char* key, std::string* value) {
  std::string xml;
  if (!ReadFile(path, &xml)) return false;
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
  if (root == nullptr) return false;
  bool found = false;
  if (plist_get_node_type(root) == PLIST_DICT) {
    plist_t node = plist_dict_get_item(root, key);
    if (node != nullptr && plist_get_node_type(node) == PLIST_STRING) {
      char* text = nullptr;
      plist_get_string_val(node, &text);
      if (text != nullptr) {
        *value = text;
        found = true;
        free(text);
      }
    }
  }
  plist_free(root);
  return found;
}

size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
    ++count;
  return count;
}

TEST(BundleInfo, IdentifiesTheModuleAndItsType) {
  std::string info = Bundle() + "/Contents/Info.plist";
  std::string value;
  ASSERT_TRUE(LookUp(info, "CFBundleIdentifier", &value));
  EXPECT_EQ(value, "com.vantrel.talvo.plugin.gpc64");
  ASSERT_TRUE(LookUp(info, "CFBundleExecutable", &value));
  EXPECT_EQ(value, "libnpgpc.so");
  ASSERT_TRUE(LookUp(info, "CFBundleVersion", &value));
  EXPECT_FALSE(value.empty());
  EXPECT_EQ(value.find('@'), std::string::npos) << "unsubstituted template: " << value;
  std::string xml;
  ASSERT_TRUE(ReadFile(info, &xml));
  EXPECT_NE(xml.find("<key>application/x-talvo-gpc</key>"), std::string::npos);
  // The module finds its own bundle through the same file.
  EXPECT_EQ(platform::BundleInfoString(Bundle(), "CFBundleIdentifier"), platform::kPluginBundleIdentifier);
  std::ifstream module(Bundle() + "/Contents/MacOS/libnpgpc.so");
  EXPECT_TRUE(module.good());
}

TEST(MessageTables, EveryLanguageHasATranslatedMessageWithOneCode) {
  std::set<std::string> texts;
  for (const char* name : kLanguageNames) {
    SCOPED_TRACE(name);
    std::string path = Bundle() + "/Contents/Resources/Localizable_" + name + ".strings";
    std::string text;
    ASSERT_TRUE(LookUp(path, kMessageKey, &text)) << path;
    EXPECT_EQ(Count(text, "%d"), 1u);
    EXPECT_EQ(Count(text, "%"), 1u) << "a second conversion would break formatting";
    EXPECT_EQ(Count(text, "\n\n\n"), 1u);
    EXPECT_EQ(Count(text, "\n"), 3u);
    EXPECT_EQ(Count(text, "[%d]"), 1u);
    texts.insert(text);
  }
  // English is the key itself; every other table really translates it.
  std::string english;
  ASSERT_TRUE(LookUp(Bundle() + "/Contents/Resources/Localizable_English.strings", kMessageKey, &english));
  EXPECT_EQ(english, kMessageKey);
  EXPECT_EQ(texts.size(), std::size(kLanguageNames)) << "two tables share a text";
}

TEST(MessageTables, KeyMatchesExactlyWithItsLineBreaks) {
  std::string path = Bundle() + "/Contents/Resources/Localizable_German.strings";
  std::string text;
  EXPECT_FALSE(LookUp(path, "Setup was unsuccessful. Please restart browser and try again. Error [%d]", &text));
  EXPECT_FALSE(LookUp(path, "Setup was unsuccessful. Please restart browser and try again.\\n\\n\\nError [%d]", &text));
  EXPECT_TRUE(LookUp(path, kMessageKey, &text));
}

}  // namespace
