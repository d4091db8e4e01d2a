#include <gtest/gtest.h>

#include "localizedname.h"

namespace {

TEST(LocalizedName, TableIsReproducedExactly) {
  const char* expected[] = {"English", "English", "zh_CN", "zh_TW", "Japanese", "ko",   "French",
                            "French",  "German",  "Italian", "Spanish", "es_419", "sv", "Dutch",
                            "pt",      "ru",      "tr",      "da",      "fi",     "pl"};
  for (int id = 1; id <= 20; ++id) {
    EXPECT_EQ(localizedExtNameFromLanguageID(std::to_string(id).c_str()), expected[id - 1]) << id;
  }
}

TEST(LocalizedName, AnythingElseIsEnglish) {
  for (const char* id : {"0", "21", " 3", "03", "3 ", "", "-1", "zh_CN", "1\n"}) {
    EXPECT_EQ(localizedExtNameFromLanguageID(id), "English") << '"' << id << '"';
  }
  EXPECT_EQ(localizedExtNameFromLanguageID(nullptr), "English");
}

}  // namespace
