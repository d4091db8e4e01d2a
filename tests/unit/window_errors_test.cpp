// Error reporting as the browser sees it (error page, logging reports, message tables) and the
// extension manager's names and package URL.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fake_browser.h"
#include "platform/bundle.h"
#include "platform/folders.h"
#include "plugin/plugin/npgpcimp.h"

namespace {

const char kEnglish111[] =
    "Setup%20was%20unsuccessful%2E%20Please%20restart%20browser%20and%20try%20again%2E%0A%0A%0AError%20%5B111%5D";
const std::string kKey = "Setup was unsuccessful. Please restart browser and try again.\n\n\nError [%d]";

class WindowErrorsTest : public ::testing::Test {
 protected:
  void TearDown() override { platform::SetPluginBundlePathOverride(""); }
  void SetLogging(const char* url) {
    window.SetParameterVector("LoggingURL", url);
    window.SetParameterVector("MeetingID", "m1");
    window.SetParameterVector("SessionID", "s1");
  }
  std::vector<std::string> Asked() { return gpctest::RunNavigations(window); }
  // A bundle holding one message table.
  void MakeBundle(const std::string& language, const std::string& text) {
    const std::string bundle = env.dir() + "/talvo-gpc64.plugin";
    std::filesystem::create_directories(bundle + "/Contents/Resources");
    std::ofstream(bundle + "/Contents/Resources/Localizable_" + language + ".strings")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>" << kKey
        << "</key><string>" << text << "</string></dict></plist>\n";
    platform::SetPluginBundlePathOverride(bundle);
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  CGpcWindow window{&npp};
};

TEST_F(WindowErrorsTest, ErrorPageQueryFollowsTheUrlsShape) {
  const std::string query = std::string("ErrorType=1&ErrorMsg=") + kEnglish111;
  const std::pair<const char*, std::string> cases[] = {
      {"https://e.example/err", "_top https://e.example/err?" + query},
      {"https://e.example/err?a=1", "_top https://e.example/err?a=1&" + query},
      {"https://e.example/err?", "_top https://e.example/err?" + query},
      {"https://e.example/err?a=1&", "_top https://e.example/err?a=1&" + query},
      {"https://e.example/err&", "_top https://e.example/err&"},
  };
  for (const auto& [page, expected] : cases) {
    window.SetParameterVector("GpcErrorPageUrl", page);
    window.ShowMessage(111, "ignored");
    EXPECT_EQ(Asked(), std::vector<std::string>{expected}) << page;
  }
}

// A report goes to the logging URL before the error page; codes without a text send only it.
TEST_F(WindowErrorsTest, ReportsPrecedeTheErrorPage) {
  SetLogging("https://log.example/l");
  window.SetParameterVector("GpcErrorPageUrl", "https://e.example/err");
  window.ShowMessage(103, "extra text");
  window.ShowMessage(104, nullptr);
  const std::vector<std::string> asked = Asked();
  ASSERT_EQ(asked.size(), 3u);
  EXPECT_EQ(asked[0].rfind("(null) https://log.example/l?ConfID=m1&SessionID=s1&Module=1&ErrorCode=103&OptInfo3=", 0), 0u);
  EXPECT_EQ(asked[0].find("OptInfo1"), std::string::npos);
  EXPECT_NE(asked[1].find("_top https://e.example/err?ErrorType=1&ErrorMsg="), std::string::npos);
  EXPECT_NE(asked[1].find("%5B103%5D"), std::string::npos);
  EXPECT_NE(asked[2].find("ErrorCode=104"), std::string::npos);
  for (int code : {100, 103, 107, 109, 111}) EXPECT_NE(window.LoadResourceString(code), "") << code;
  EXPECT_EQ(window.LoadResourceString(1000), "");
}

TEST_F(WindowErrorsTest, ReportUrlShapeAndItsTrace) {
  const std::pair<const char*, std::string> cases[] = {
      {"https://log.example/l?x=1", "https://log.example/l?x=1&ConfID=m1&SessionID=s1&Module=1&ErrorCode=1000&OptInfo3=no%20error"},
      {"https://log.example/l&", "https://log.example/l&"},
  };
  for (const auto& [logging, expected] : cases) {
    SetLogging(logging);
    EXPECT_TRUE(window.WriteErrorLog(1000, nullptr));
    EXPECT_EQ(Asked(), std::vector<std::string>{"(null) " + expected});
  }
  // Two reports in a row: each carries only the trace since the one before.
  SetLogging("https://log.example/l?");
  MacErrorTrace("alphamarker");
  ASSERT_TRUE(window.WriteErrorLog(5, "opt"));
  MacWarnTrace("betamarker");
  ASSERT_TRUE(window.WriteErrorLog(6, nullptr));
  const std::vector<std::string> asked = Asked();
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked[0].rfind("(null) https://log.example/l?ConfID=m1&SessionID=s1&Module=1&ErrorCode=5&OptInfo1=opt&OptInfo3=", 0), 0u);
  EXPECT_NE(asked[0].find("alphamarker"), std::string::npos);
  EXPECT_NE(asked[1].find("betamarker"), std::string::npos);
  EXPECT_EQ(asked[1].find("alphamarker"), std::string::npos);
}

TEST_F(WindowErrorsTest, MissingLoggingParametersSendNothing) {
  const char* names[] = {"LoggingURL", "MeetingID", "SessionID"};
  for (const char* missing : names) {
    CGpcWindow other(&npp);
    for (const char* name : names)
      if (name != missing) other.SetParameterVector(name, "https://v.example/");
    EXPECT_FALSE(other.WriteErrorLog(1000, nullptr)) << missing;
    EXPECT_TRUE(gpctest::RunNavigations(other).empty()) << missing;
  }
}

// The text comes from the table of the page's language, with the code in place of "%d"; the
// key is the text when there is no table; the table's text is never a format of its own.
TEST_F(WindowErrorsTest, MessageTextComesFromTheLanguagesTable) {
  const struct {
    const char* table;
    const char* text;
    const char* localSetting;
    int code;
    std::string expected;
  } cases[] = {
      {"French", "Echec [%d] 100%%", "7", 109, "Echec [109] 100%"},
      {"French", "Echec [%d]", "1", 109, "Setup was unsuccessful. Please restart browser and try again.\n\n\nError [109]"},
      {"English", "%s %n [%d]", nullptr, 107, "%s %n [107]"},
      {"English", "", nullptr, 107, ""},
  };
  for (const auto& c : cases) {
    MakeBundle(c.table, c.text);
    if (c.localSetting) window.SetParameterVector("gpclocalsetting", c.localSetting);
    EXPECT_EQ(window.LoadResourceString(c.code), c.expected) << c.text;
  }
}

TEST_F(WindowErrorsTest, ExtensionNamesFoldersAndPackageUrl) {
  CGpcExtMgr& mgr = window.m_extMgr;
  EXPECT_EQ(mgr.GetExtensionPath(false), platform::UserApplicationSupportDir() + "/Talvo Folder/zrgpcext64.bundle");
  EXPECT_EQ(mgr.GetExtensionPath(true), "zrgpcext64.bundle");  // no bundle around the test program
  EXPECT_EQ(mgr.GetExtensionUrl(), "");
  platform::SetPluginBundlePathOverride("/opt/x.plugin/");
  EXPECT_EQ(mgr.GetExtensionPath(true), "/opt/x.plugin/Contents/Frameworks/zrgpcext64.bundle");

  const std::string root = "https://www.talvo.us/client/a";
  const std::string longRoot = "https://www.talvo.us/client/" + std::string(949 - 28, 'r');
  const std::string name64(64, 'n');
  const struct {
    size_t nameLength;  // of "GpcExtName"; 0: none
    const char* method;
    std::string root, bundle, url;
  } cases[] = {
      {0, nullptr, root + "/", "zrgpcext64.bundle", root + "/zrgpcext64.bundle.zip"},
      {0, "7Zip", root, "zrgpcext64.bundle", root + "/zrgpcext64.bundle.7z"},
      {0, "7z", root, "zrgpcext64.bundle", root + "/zrgpcext64.bundle.zip"},
      {65, "zip", root, "zrgpcext64.bundle", root + "/" + std::string(65, 'n') + ".bundle.zip"},
      {64, "zip", root, name64 + ".bundle", root + "/" + name64 + ".bundle.zip"},
      {0, "zip", longRoot, "zrgpcext64.bundle", longRoot + "/zrgpcext64.bundle.zip"},
      {0, "zip", longRoot + "r", "zrgpcext64.bundle", longRoot + "r"},
  };
  for (const auto& c : cases) {
    CGpcWindow other(&npp);
    if (c.nameLength) other.SetParameterVector("GpcExtName", std::string(c.nameLength, 'n'));
    if (c.method) other.SetParameterVector("GpcCompressMethod", c.method);
    other.SetParameterVector("GpcUrlRoot", c.root);
    EXPECT_EQ(other.m_extMgr.GetExtensionName(), c.bundle);
    EXPECT_EQ(other.m_extMgr.GetExtensionUrl(), c.url);
  }
}

}  // namespace
