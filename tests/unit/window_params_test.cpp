// The parameter store and the parameter file written at the start of every instance.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/folders.h"
#include "window_fake_browser.h"

using namespace window_test;

namespace {

const char kRoot[] = "https://www.talvo.us/client/a/";

class WindowParamsTest : public ::testing::Test {
 protected:
  void SetUp() override { window = std::make_unique<CGpcWindow>(&npp); }
  void TearDown() override {
    window.reset();
    platform::SetWallClockOverride(nullptr);
  }

  std::string ParameterFile(const std::string& version) {
    return platform::UserApplicationSupportDir() + "/Talvo Folder/" + version + "/talvoparameters.txt";
  }
  static std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  }

  Environment env;
  NPP_t npp{};
  std::unique_ptr<CGpcWindow> window;
};

TEST_F(WindowParamsTest, PageParametersAreStoredInOrderAndLiftTheHalt) {
  PageParams page{{"GpcProductVersion", "1,0,0"}, {"gpcurlroot", kRoot}, {"Extra", "x"}};
  EXPECT_TRUE(window->SetParameters(page.argc(), page.argn(), page.argv()));
  EXPECT_EQ(window->m_bHalted, 0);
  ASSERT_EQ(window->GetParameterCount(), 3);
  const char* name = nullptr;
  const char* value = nullptr;
  ASSERT_TRUE(window->GetParameterAt(1, &name, &value));
  EXPECT_STREQ(name, "gpcurlroot");
  EXPECT_STREQ(value, kRoot);
  EXPECT_STREQ(window->GetParameter("GPCURLROOT"), kRoot);
  EXPECT_STREQ(window->GetParameter("extra"), "x");
}

TEST_F(WindowParamsTest, PageUrlRootIsStoredAsGivenNotAsCorrected) {
  PageParams page{{"GpcProductVersion", "1"}, {"GpcUrlRoot", "http://www.talvo.us/client/a/"}};
  EXPECT_TRUE(window->SetParameters(page.argc(), page.argn(), page.argv()));
  EXPECT_STREQ(window->GetParameter("GpcUrlRoot"), "http://www.talvo.us/client/a/");
}

TEST_F(WindowParamsTest, RefusedUrlRootStopsStoringAndKeepsTheHalt) {
  PageParams page{{"GpcProductVersion", "1"}, {"A", "a"}, {"GpcUrlRoot", "https://www.talvo.us/other/"},
                  {"B", "b"}};
  LogCapture log;
  EXPECT_FALSE(window->SetParameters(page.argc(), page.argn(), page.argv()));
  EXPECT_EQ(window->m_bHalted, 1);
  EXPECT_EQ(window->GetParameterCount(), 2);
  EXPECT_EQ(window->GetParameter("B"), nullptr);
  EXPECT_TRUE(log.Contains("CGpcWindow::SetParameters, Mac parameter[GpcUrlRoot,https://www.talvo.us/other/] is not corrent!"));
}

TEST_F(WindowParamsTest, WithoutProductVersionNothingIsStored) {
  PageParams page{{"A", "a"}};
  LogCapture log;
  EXPECT_FALSE(window->SetParameters(page.argc(), page.argn(), page.argv()));
  EXPECT_EQ(window->GetParameterCount(), 0);
  EXPECT_EQ(window->m_bHalted, 1);
  EXPECT_TRUE(log.Contains("SaveParameters,gpcproductversion is nil!"));
  EXPECT_TRUE(log.Contains("CGpcWindow::SetParameters,call SaveParameters is failed!"));
}

TEST_F(WindowParamsTest, LengthLimitsApplyToSetParameterOnly) {
  const std::string forty(40, 'v');
  PageParams page{{"GpcProductVersion", forty.c_str()}};
  EXPECT_TRUE(window->SetParameters(page.argc(), page.argn(), page.argv()));
  EXPECT_EQ(window->GetParameter("GpcProductVersion"), forty);

  EXPECT_FALSE(window->SetParameter("gpcproductversion", forty.c_str()));
  EXPECT_TRUE(window->SetParameter("GpcProductVersion", std::string(32, 'a').c_str()));
  EXPECT_FALSE(window->SetParameter("GpcProductRoot", std::string(33, 'a').c_str()));
  EXPECT_TRUE(window->SetParameter("GpcProductRoot", std::string(32, 'a').c_str()));
  EXPECT_TRUE(window->SetParameter("GpcComponentName", std::string(64, 'a').c_str()));
  EXPECT_FALSE(window->SetParameter("GPCCOMPONENTNAME", std::string(65, 'a').c_str()));
  EXPECT_TRUE(window->SetParameter("Other", std::string(5000, 'a').c_str()));
  EXPECT_EQ(window->m_bParamsValid, 0);
  EXPECT_EQ(window->m_strBadParamName, "GPCCOMPONENTNAME");
  EXPECT_EQ(window->GetParameter("GpcComponentName"), std::string(64, 'a'));
}

TEST_F(WindowParamsTest, SetParameterReplacesTheFirstItemInPlace) {
  PageParams page{{"GpcProductVersion", "1"}, {"Name", "first"}, {"name", "second"}, {"Z", "z"}};
  ASSERT_TRUE(window->SetParameters(page.argc(), page.argn(), page.argv()));
  EXPECT_TRUE(window->SetParameter("NAME", "changed"));
  EXPECT_EQ(window->GetParameterCount(), 4);
  const char* name = nullptr;
  const char* value = nullptr;
  ASSERT_TRUE(window->GetParameterAt(1, &name, &value));
  EXPECT_STREQ(name, "Name");
  EXPECT_STREQ(value, "changed");
  ASSERT_TRUE(window->GetParameterAt(2, &name, &value));
  EXPECT_STREQ(value, "second");
  EXPECT_TRUE(window->SetParameter("New", "n"));
  EXPECT_EQ(window->GetParameterCount(), 5);
}

TEST_F(WindowParamsTest, EmptyValueIsAcceptedButChangesNothing) {
  EXPECT_TRUE(window->SetParameter("A", "a"));
  EXPECT_TRUE(window->SetParameter("A", ""));
  EXPECT_TRUE(window->SetParameter("B", ""));
  EXPECT_EQ(window->GetParameterCount(), 1);
  EXPECT_STREQ(window->GetParameter("A"), "a");
  EXPECT_FALSE(window->SetParameter(nullptr, "a"));
  EXPECT_FALSE(window->SetParameter("A", nullptr));
}

TEST_F(WindowParamsTest, SetParameterStoresTheCorrectedUrlRootOrRefusesIt) {
  EXPECT_TRUE(window->SetParameter("GpcUrlRoot", "http://www.talvo.us/client/a/"));
  EXPECT_STREQ(window->GetParameter("gpcurlroot"), "https://www.talvo.us/client/a/");
  EXPECT_FALSE(window->SetParameter("GpcUrlRoot", "https://www.talvo.us/client/../x/"));
  EXPECT_STREQ(window->GetParameter("gpcurlroot"), "https://www.talvo.us/client/a/");
  EXPECT_EQ(window->m_strBadParamName, "GpcUrlRoot");
}

TEST_F(WindowParamsTest, FirstOfDuplicatesDecidesEvenWhenEmpty) {
  PageParams page{{"GpcProductVersion", "1"}, {"Dup", ""}, {"DUP", "later"}};
  ASSERT_TRUE(window->SetParameters(page.argc(), page.argn(), page.argv()));
  EXPECT_EQ(window->GetParameter("dup"), nullptr);
  EXPECT_EQ(window->GetParameter("missing"), nullptr);
  const char* name = nullptr;
  const char* value = "unchanged";
  ASSERT_TRUE(window->GetParameterAt(1, &name, &value));
  EXPECT_STREQ(name, "Dup");
  EXPECT_EQ(value, nullptr);
}

TEST_F(WindowParamsTest, GetParameterAtRefusesOutOfRangeAndNullOutputs) {
  EXPECT_TRUE(window->SetParameter("A", "a"));
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_FALSE(window->GetParameterAt(1, &name, &value));
  EXPECT_FALSE(window->GetParameterAt(-1, &name, &value));
  EXPECT_FALSE(window->GetParameterAt(0, nullptr, &value));
  EXPECT_FALSE(window->GetParameterAt(0, &name, nullptr));
  EXPECT_TRUE(window->GetParameterAt(0, &name, &value));
  EXPECT_FALSE(window->ValidateParameterLength(nullptr, "a"));
  EXPECT_FALSE(window->ValidateParameterLength("a", nullptr));
}

TEST_F(WindowParamsTest, ParameterFileHoldsEveryRecordWithCarriageReturnsAndTheTimeLast) {
  // 1000.25 seconds after 2001-01-01 00:00:00 GMT.
  platform::SetWallClockOverride([] { return static_cast<int64_t>((978307200.0 + 1000.25) * 1e6); });
  PageParams page{{"A", "1"}, {"gpcPRODUCTversion", "7,1"}, {"Empty", ""}, {"GpcProductVersion", "other"}};
  page.Add("NullValue", nullptr);
  ASSERT_TRUE(SaveParameters(page.argc(), page.argn(), page.argv()));
  const std::string expected =
      "[NAME]-=-A-=-[VALUE]-=-1-=-\r"
      "[NAME]-=-gpcPRODUCTversion-=-[VALUE]-=-7,1-=-\r"
      "[NAME]-=-Empty-=-[VALUE]-=--=-\r"
      "[NAME]-=-GpcProductVersion-=-[VALUE]-=-other-=-\r"
      "[NAME]-=-NullValue-=-[VALUE]-=--=-\r"
      "[NAME]-=-gpcstartworktime-=-[VALUE]-=-1000.250000-=-\r";
  EXPECT_EQ(ReadAll(ParameterFile("7,1")), expected);
  EXPECT_EQ(expected.find('\n'), std::string::npos);
  struct stat info;
  EXPECT_NE(stat(ParameterFile("other").c_str(), &info), 0);
}

TEST_F(WindowParamsTest, ParameterFileFoldersAreCreatedThenReusedAndTheFileReplaced) {
  const std::string talvo = platform::UserApplicationSupportDir() + "/Talvo Folder";
  struct stat info;
  ASSERT_NE(stat(talvo.c_str(), &info), 0);
  const std::string longVersion(40, '9');
  PageParams first{{"GpcProductVersion", longVersion.c_str()}, {"Long", "aaaaaaaaaaaaaaaa"}};
  ASSERT_TRUE(SaveParameters(first.argc(), first.argn(), first.argv()));
  EXPECT_EQ(stat(talvo.c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  PageParams second{{"GpcProductVersion", longVersion.c_str()}};
  ASSERT_TRUE(SaveParameters(second.argc(), second.argn(), second.argv()));
  const std::string content = ReadAll(ParameterFile(longVersion));
  EXPECT_EQ(content.find("Long"), std::string::npos);
  EXPECT_EQ(content.rfind("[NAME]-=-"), content.find("[NAME]-=-gpcstartworktime-=-[VALUE]-=-"));
  EXPECT_EQ(content.back(), '\r');
}

TEST_F(WindowParamsTest, ParameterFileFailsWhenTheVersionFolderCannotBeMade) {
  const std::string talvo = platform::UserApplicationSupportDir() + "/Talvo Folder";
  ASSERT_TRUE(platform::MakeDirectories(talvo, 0755));
  // A plain file where the version folder should be.
  std::ofstream(talvo + "/blocked") << "x";
  PageParams page{{"GpcProductVersion", "blocked"}};
  LogCapture log;
  EXPECT_FALSE(SaveParameters(page.argc(), page.argn(), page.argv()));
  EXPECT_TRUE(log.Contains("SaveParameters,blocked,call FSPathMakeRef result code ="));
}

}  // namespace
