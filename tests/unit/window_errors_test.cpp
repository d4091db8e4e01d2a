// Error reporting as the browser sees it (error page, logging reports, message tables) and the
// extension manager's names and package URL.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/hardening.h"
#include "fake_browser.h"
#include "http_test_server.h"
#include "platform/bundle.h"
#include "platform/folders.h"
#include "plugin/plugin/npgpcimp.h"

namespace {

typedef std::vector<std::string> Asked;
const std::string kKey = "Setup was unsuccessful. Please restart browser and try again.\n\n\nError [%d]";

class WindowErrorsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    platform::SetPluginBundlePathOverride("");
    gpc::SetHardenedForTesting(-1);
  }
  void Set(CGpcWindow& to, const std::vector<std::pair<const char*, const char*>>& params) {
    for (const auto& [name, value] : params)
      if (value) to.SetParameterVector(name, value);
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  CGpcWindow window{&npp};
};

TEST_F(WindowErrorsTest, ErrorPageQueryFollowsTheUrlsShape) {
  const std::string query =
      "ErrorType=1&ErrorMsg=Setup%20was%20unsuccessful%2E%20Please%20restart%20browser%20and%20try%20again%2E"
      "%0A%0A%0AError%20%5B111%5D";
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
    EXPECT_EQ(gpctest::RunNavigations(window), Asked{expected}) << page;
  }
}

// Each report carries the warnings and errors (not the information lines) traced since the one before;
// a code without a text sends only its report.
TEST_F(WindowErrorsTest, ReportsCarryTheTraceSinceTheLast) {
  Set(window, {{"LoggingURL", "https://log.example/l?"}, {"MeetingID", "m1"}, {"SessionID", "s1"},
               {"GpcErrorPageUrl", "https://e.example/err"}});
  MacErrorTrace("alphamarker");
  window.ShowMessage(103, "extra text");
  MacWarnTrace("betamarker");
  MacInfoTrace("gammamarker");
  window.ShowMessage(104, nullptr);
  const Asked asked = gpctest::RunNavigations(window);
  ASSERT_EQ(asked.size(), 3u);
  EXPECT_EQ(asked[0].rfind(
                "(null) https://log.example/l?ConfID=m1&SessionID=s1&Module=1&ErrorCode=103&OptInfo3=", 0),
            0u);
  EXPECT_NE(asked[0].find("alphamarker"), std::string::npos);
  EXPECT_EQ(asked[0].find("OptInfo1"), std::string::npos) << "the extra text is never passed on";
  EXPECT_NE(asked[1].find("%5B103%5D"), std::string::npos);
  EXPECT_NE(asked[2].find("ErrorCode=104&OptInfo3="), std::string::npos);
  EXPECT_NE(asked[2].find("betamarker"), std::string::npos);
  EXPECT_EQ(asked[2].find("alphamarker"), std::string::npos);
  EXPECT_EQ(asked[2].find("gammamarker"), std::string::npos);
  for (int i = 0; i < 40; ++i) MacErrorTrace("%s", std::string(100, 'z').c_str());
  window.ShowMessage(104, nullptr);
  const std::string report = gpctest::RunNavigations(window).at(0);
  const size_t trace = report.size() - report.find("OptInfo3=") - 9;
  EXPECT_TRUE(trace > 2900 && trace < 3000) << trace << ": the newest entries that fit in 3000";
}

// The report's URL follows the logging URL's shape; no report without all three parameters. The
// hardened build sends a report only to an approved site over https.
TEST_F(WindowErrorsTest, ReportUrlShape) {
  const char* const l = "https://log.example/l?x=1";
  const std::string query = "ConfID=m1&SessionID=s1&Module=1&ErrorCode=1000&";
  const struct {
    const char *logging, *meeting, *session, *optional;
    std::string expected;
    bool hardened = false;
  } cases[] = {
      {"https://log.TALVO.com/l", "m1", "s1", nullptr, "https://log.TALVO.com/l?" + query + "OptInfo3=no%20error", true},
      {l, "m1", "s1", nullptr, "https://log.example/l?x=1&" + query + "OptInfo3=no%20error"},
      {l, "m1", "s1", "opt", "https://log.example/l?x=1&" + query + "OptInfo1=opt&OptInfo3=no%20error"},
      {"https://log.example/l&", "m1", "s1", nullptr, "https://log.example/l&"},
      {nullptr, "m1", "s1", nullptr, ""},
      {l, nullptr, "s1", nullptr, ""},
      {l, "m1", nullptr, nullptr, ""},
      {"http://log.talvo.com/l", "m1", "s1", nullptr, "", true},
      {l, "m1", "s1", nullptr, "", true},
  };
  for (const auto& c : cases) {
    gpc::SetHardenedForTesting(c.hardened);
    CGpcWindow other(&npp);
    Set(other, {{"LoggingURL", c.logging}, {"MeetingID", c.meeting}, {"SessionID", c.session}});
    EXPECT_EQ(other.WriteErrorLog(1000, c.optional), !c.expected.empty()) << c.expected;
    EXPECT_EQ(gpctest::RunNavigations(other), c.expected.empty() ? Asked{} : Asked{"(null) " + c.expected});
  }
}

// The text comes from the table of the page's language, with the code in place of "%d"; the key is
// the text when there is no table; the table's text is never a format of its own; other codes: none.
TEST_F(WindowErrorsTest, MessageTextComesFromTheLanguagesTable) {
  const struct {
    const char *table, *text, *localSetting;
    int code;
    std::string expected;
  } cases[] = {
      {"French", "Echec [%d] 100%%", "7", 109, "Echec [109] 100%"},
      {"French", "Echec [%d]", "1", 109,
       "Setup was unsuccessful. Please restart browser and try again.\n\n\nError [109]"},
      {"English", "%s %n [%d]", nullptr, 107, "%s %n [107]"},
      {"English", "", nullptr, 107, ""},
      {"English", "[%d]", nullptr, 1000, ""},
  };
  const std::string bundle = env.dir() + "/talvo-gpc64.plugin";
  platform::SetPluginBundlePathOverride(bundle);
  for (const auto& c : cases) {
    ASSERT_TRUE(platform::MakeDirectories(bundle + "/Contents/Resources", 0755));
    ASSERT_TRUE(
        gpctest::WriteFile(bundle + "/Contents/Resources/Localizable_" + c.table + ".strings",
                           "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>" +
                               kKey + "</key><string>" + c.text + "</string></dict></plist>\n"));
    if (c.localSetting) window.SetParameterVector("gpclocalsetting", c.localSetting);
    EXPECT_EQ(window.LoadResourceString(c.code), c.expected) << c.text;
  }
}

TEST_F(WindowErrorsTest, ExtensionNamesFoldersAndPackageUrl) {
  EXPECT_EQ(window.m_extMgr.GetExtensionPath(true),
            "zrgpcext64.bundle");  // no bundle around the test program
  platform::SetPluginBundlePathOverride("/opt/x.plugin/");
  EXPECT_EQ(window.m_extMgr.GetExtensionPath(true), "/opt/x.plugin/Contents/Frameworks/zrgpcext64.bundle");
  const std::string root = "https://www.talvo.us/client/a", name64(64, 'n'), name65(65, 'n');
  const std::string longRoot = "https://www.talvo.us/client/" + std::string(949 - 28, 'r');
  const struct {
    std::string name, root;
    const char* method;
    std::string bundle, url;
    bool hardened = false;
  } cases[] = {
      {"", root + "/", nullptr, "zrgpcext64.bundle", root + "/zrgpcext64.bundle.zip"},
      {"", root, "7Zip", "zrgpcext64.bundle", root + "/zrgpcext64.bundle.7z"},
      {"", root, "7z", "zrgpcext64.bundle", root + "/zrgpcext64.bundle.zip"},
      {name65, root, "zip", "zrgpcext64.bundle", root + "/" + name65 + ".bundle.zip"},
      {name64, root, "zip", name64 + ".bundle", root + "/" + name64 + ".bundle.zip"},
      {"", longRoot, "zip", "zrgpcext64.bundle", longRoot + "/zrgpcext64.bundle.zip"},
      {"", longRoot + "r", "zip", "zrgpcext64.bundle", longRoot + "r"},
      {"../../x", root, "zip", "../../x.bundle", root + "/../../x.bundle.zip"},
      // The hardened build keeps the bundle in its folder and the package under its root.
      {"../../x", root, "zip", "zrgpcext64.bundle", root + "/zrgpcext64.bundle.zip", true},
      {"a%2fb", root, "zip", "zrgpcext64.bundle", root + "/zrgpcext64.bundle.zip", true},
      {"..", root, "zip", "zrgpcext64.bundle", root + "/zrgpcext64.bundle.zip", true},
      // It fetches an http root over https, as it was approved.
      {"", "HTTP" + longRoot.substr(5) + "r", "zip", "zrgpcext64.bundle", "https" + longRoot.substr(5) + "r/zrgpcext64.bundle.zip", true},
      {"", "http" + longRoot.substr(5) + "rr", "zip", "zrgpcext64.bundle", "https" + longRoot.substr(5) + "rr", true},
  };
  for (const auto& c : cases) {
    gpc::SetHardenedForTesting(c.hardened);
    CGpcWindow other(&npp);
    Set(other, {{"GpcExtName", c.name.empty() ? nullptr : c.name.c_str()},
                {"GpcCompressMethod", c.method},
                {"GpcUrlRoot", c.root.c_str()}});
    EXPECT_EQ(other.m_extMgr.GetExtensionName(), c.bundle);
    EXPECT_EQ(other.m_extMgr.GetExtensionUrl(), c.url);
  }
  gpc::SetHardenedForTesting(-1);
}

}  // namespace
