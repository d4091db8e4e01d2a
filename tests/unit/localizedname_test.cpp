#include <gtest/gtest.h>

#include "common/localizedname.h"

TEST(LocalizedName, LanguageIdsOneToTwentyAndEnglishForTheRest) {
  const char* names[] = {"English", "English", "zh_CN", "zh_TW", "Japanese", "ko", "French", "French", "German",
                         "Italian", "Spanish", "es_419", "sv", "Dutch", "pt", "ru", "tr", "da", "fi", "pl"};
  for (int id = 1; id <= 20; ++id) EXPECT_EQ(localizedExtNameFromLanguageID(std::to_string(id).c_str()), names[id - 1]);
  for (const char* id : {"0", "21", " 3", "03", "3 ", "", "-1", "zh_CN", "1\n", static_cast<const char*>(nullptr)})
    EXPECT_EQ(localizedExtNameFromLanguageID(id), "English") << (id ? id : "(null)");
}
