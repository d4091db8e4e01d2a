// Error reporting (error page, logging reports, message tables) and the extension manager's
// start and naming.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "platform/bundle.h"
#include "platform/folders.h"
#include "window_fake_browser.h"

using namespace window_test;

namespace {

const char kEnglish111[] =
    "Setup%20was%20unsuccessful%2E%20Please%20restart%20browser%20and%20try%20again%2E%0A%0A%0AError%20%5B111%5D";

class WindowErrorsTest : public ::testing::Test {
 protected:
  void SetUp() override { window = std::make_unique<CGpcWindow>(&npp); }
  void TearDown() override {
    window.reset();
    platform::SetPluginBundlePathOverride("");
  }

  std::vector<std::pair<std::string, std::string>> Queue() {
    std::vector<std::pair<std::string, std::string>> queue;
    for (CFrameTarget* target : window->m_vectorFrameTarget) queue.emplace_back(target->m_strTarget, target->m_strUrl);
    return queue;
  }
  void SetLogging(const char* url) {
    window->SetParameterVector("LoggingURL", url);
    window->SetParameterVector("MeetingID", "m1");
    window->SetParameterVector("SessionID", "s1");
  }
  // A bundle holding one message table.
  void MakeBundle(const std::string& language, const std::string& text) {
    const std::string bundle = env.dir() + "/talvo-gpc64.plugin";
    std::filesystem::create_directories(bundle + "/Contents/Resources");
    std::ofstream(bundle + "/Contents/Resources/Localizable_" + language + ".strings")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<plist version=\"1.0\"><dict><key>Setup was unsuccessful. Please restart browser and try "
           "again.\n\n\nError [%d]</key><string>"
        << text << "</string></dict></plist>\n";
    platform::SetPluginBundlePathOverride(bundle);
  }

  Environment env;
  NPP_t npp{};
  std::unique_ptr<CGpcWindow> window;
};

TEST_F(WindowErrorsTest, ErrorPageQueryFollowsTheUrlsShape) {
  const struct {
    const char* page;
    std::string expected;
  } cases[] = {
      {"https://e.example/err", std::string("https://e.example/err?ErrorType=1&ErrorMsg=") + kEnglish111},
      {"https://e.example/err?a=1", std::string("https://e.example/err?a=1&ErrorType=1&ErrorMsg=") + kEnglish111},
      {"https://e.example/err?", std::string("https://e.example/err?ErrorType=1&ErrorMsg=") + kEnglish111},
      {"https://e.example/err?a=1&", std::string("https://e.example/err?a=1&ErrorType=1&ErrorMsg=") + kEnglish111},
      {"https://e.example/err&", "https://e.example/err&"},
  };
  for (const auto& c : cases) {
    window->CleanupFrameTargets();
    window->SetParameterVector("GpcErrorPageUrl", c.page);
    window->ShowMessage(111, "ignored");
    auto queue = Queue();
    ASSERT_EQ(queue.size(), 1u) << c.page;
    EXPECT_EQ(queue[0].first, "_top");
    EXPECT_EQ(queue[0].second, c.expected);
  }
}

TEST_F(WindowErrorsTest, ReportIsQueuedBeforeTheErrorPage) {
  SetLogging("https://log.example/l");
  window->SetParameterVector("GpcErrorPageUrl", "https://e.example/err");
  window->ShowMessage(103, "extra text");
  auto queue = Queue();
  ASSERT_EQ(queue.size(), 2u);
  EXPECT_EQ(queue[0].first, "");
  EXPECT_EQ(queue[0].second.rfind("https://log.example/l?ConfID=m1&SessionID=s1&Module=1&ErrorCode=103&OptInfo3=", 0), 0u);
  EXPECT_EQ(queue[0].second.find("OptInfo1"), std::string::npos);
  EXPECT_EQ(queue[1].first, "_top");
}

TEST_F(WindowErrorsTest, CodesWithoutTextSendOnlyTheReport) {
  SetLogging("https://log.example/l");
  window->SetParameterVector("GpcErrorPageUrl", "https://e.example/err");
  LogCapture log;
  window->ShowMessage(104, nullptr);
  EXPECT_EQ(Queue().size(), 1u);
  EXPECT_TRUE(log.Contains("CGpcWindow::ShowMessage,get [104] resource string failed!"));
  EXPECT_EQ(window->LoadResourceString(1000), "");
  EXPECT_NE(window->LoadResourceString(100), "");
}

TEST_F(WindowErrorsTest, StartReportCarriesTraceButNoOptInfo1) {
  SetLogging("https://log.example/l?x=1");
  ASSERT_TRUE(window->WriteErrorLog(1000, nullptr));
  auto queue = Queue();
  ASSERT_EQ(queue.size(), 1u);
  EXPECT_EQ(queue[0].second,
            "https://log.example/l?x=1&ConfID=m1&SessionID=s1&Module=1&ErrorCode=1000&OptInfo3=no%20error");
}

TEST_F(WindowErrorsTest, TwoReportsInARowCarryOnlyNewTrace) {
  SetLogging("https://log.example/l?");
  MacErrorTrace("alphamarker");
  ASSERT_TRUE(window->WriteErrorLog(5, "opt"));
  MacWarnTrace("betamarker");
  ASSERT_TRUE(window->WriteErrorLog(6, nullptr));
  auto queue = Queue();
  ASSERT_EQ(queue.size(), 2u);
  EXPECT_EQ(queue[0].second.rfind("https://log.example/l?ConfID=m1&SessionID=s1&Module=1&ErrorCode=5&OptInfo1=opt&OptInfo3=", 0), 0u);
  EXPECT_NE(queue[0].second.find("alphamarker"), std::string::npos);
  EXPECT_NE(queue[1].second.find("betamarker"), std::string::npos);
  EXPECT_EQ(queue[1].second.find("alphamarker"), std::string::npos);
}

TEST_F(WindowErrorsTest, MissingLoggingParametersSendNothing) {
  const char* names[] = {"LoggingURL", "MeetingID", "SessionID"};
  for (const char* missing : names) {
    CGpcWindow other(&npp);
    for (const char* name : names)
      if (name != missing) other.SetParameterVector(name, "https://v.example/");
    LogCapture log;
    EXPECT_FALSE(other.WriteErrorLog(1000, nullptr));
    EXPECT_TRUE(other.m_vectorFrameTarget.empty());
    EXPECT_TRUE(log.Contains(std::string("CGpcWindow::WriteErrorLog,") + missing + " is nil!"));
  }
}

TEST_F(WindowErrorsTest, LoggingUrlEndingInAmpersandIsQueuedWithoutQuery) {
  SetLogging("https://log.example/l&");
  LogCapture log;
  EXPECT_TRUE(window->WriteErrorLog(1000, nullptr));
  ASSERT_EQ(Queue().size(), 1u);
  EXPECT_EQ(Queue()[0].second, "https://log.example/l&");
  EXPECT_TRUE(log.Contains("CGpcWindow::WriteErrorLog,LoggingURL is not right!"));
}

TEST_F(WindowErrorsTest, MessageTextComesFromTheLanguagesTable) {
  MakeBundle("French", "Echec [%d] 100%%");
  window->SetParameterVector("gpclocalsetting", "7");
  EXPECT_EQ(window->LoadResourceString(109), "Echec [109] 100%");
  // No table for the language: the key is the text.
  window->SetParameterVector("gpclocalsetting", "1");
  EXPECT_EQ(window->LoadResourceString(109),
            "Setup was unsuccessful. Please restart browser and try again.\n\n\nError [109]");
}

TEST_F(WindowErrorsTest, TableTextIsNeverUsedAsAFormatOfItsOwn) {
  MakeBundle("English", "%s %n [%d]");
  EXPECT_EQ(window->LoadResourceString(107), "%s %n [107]");
}

TEST_F(WindowErrorsTest, EmptyTableTextGivesNoMessage) {
  MakeBundle("English", "");
  LogCapture log;
  EXPECT_EQ(window->LoadResourceString(107), "");
  EXPECT_TRUE(log.Contains("CGpcWindow::LoadResourceString,invalid format string,nResourceId[107]"));
}

TEST_F(WindowErrorsTest, ExtensionManagerWithoutUrlRootShowsMessage100AndHalts) {
  window->m_bHalted = 0;
  window->SetParameterVector("GpcErrorPageUrl", "https://e.example/err");
  window->m_extMgr.Init();
  EXPECT_EQ(window->m_bHalted, 1);
  auto queue = Queue();
  ASSERT_EQ(queue.size(), 1u);
  EXPECT_NE(queue[0].second.find("Error%20%5B100%5D"), std::string::npos);
}

TEST_F(WindowErrorsTest, ExtensionManagerWithoutVersionsSkipsTheComparison) {
  window->m_bHalted = 0;
  window->SetParameterVector("GpcUrlRoot", "https://www.talvo.us/client/a/");
  window->SetParameterVector("GpcExtVersion", "1,0");
  window->m_extMgr.Init();
  EXPECT_EQ(window->m_nExtCheckState, 1);
  EXPECT_EQ(window->m_bHalted, 0);

  CGpcWindow both(&npp);
  both.SetParameterVector("GpcUrlRoot", "https://www.talvo.us/client/a/");
  both.SetParameterVector("GpcExtVersion", "1,0");
  both.SetParameterVector("GpcUnpackVersion", "1,0");
  both.m_extMgr.Init();
  EXPECT_EQ(both.m_nExtCheckState, 0);
}

TEST_F(WindowErrorsTest, ExtensionNamesAndFolders) {
  CGpcExtMgr& mgr = window->m_extMgr;
  const std::string support = platform::UserApplicationSupportDir();
  EXPECT_EQ(mgr.GetExtensionName(), "zrgpcext64.bundle");
  EXPECT_EQ(mgr.GetExtensionPath(false), support + "/Talvo Folder/zrgpcext64.bundle");
  // No bundle around the test program: the local path is the bare name.
  EXPECT_EQ(mgr.GetExtensionPath(true), "zrgpcext64.bundle");
  platform::SetPluginBundlePathOverride("/opt/x.plugin/");
  EXPECT_EQ(mgr.GetExtensionDir(true), "/opt/x.plugin/Contents/Frameworks");

  const std::string name65(65, 'n');
  window->SetParameterVector("GpcExtName", name65);
  window->SetParameterVector("GpcUrlRoot", "https://www.talvo.us/client/a");
  EXPECT_EQ(mgr.GetExtensionName(), "zrgpcext64.bundle");
  EXPECT_EQ(mgr.GetExtensionPath(true), "/opt/x.plugin/Contents/Frameworks/zrgpcext64.bundle");
  EXPECT_EQ(mgr.GetExtensionUrl(), "https://www.talvo.us/client/a/" + name65 + ".bundle.zip");
  window->SetParameterVector("GpcExtName", std::string(64, 'n'));
  EXPECT_EQ(mgr.GetExtensionName(), std::string(64, 'n') + ".bundle");
}

TEST_F(WindowErrorsTest, PackageUrlFormAndRootLength) {
  CGpcExtMgr& mgr = window->m_extMgr;
  EXPECT_EQ(mgr.GetExtensionUrl(), "");
  window->SetParameterVector("GpcUrlRoot", "https://www.talvo.us/client/a/");
  EXPECT_EQ(mgr.GetExtensionUrl(), "https://www.talvo.us/client/a/zrgpcext64.bundle.zip");
  window->SetParameterVector("GpcCompressMethod", "7Zip");
  EXPECT_EQ(mgr.GetExtensionUrl(), "https://www.talvo.us/client/a/zrgpcext64.bundle.7z");
  window->SetParameterVector("GpcCompressMethod", "7z");
  EXPECT_EQ(mgr.GetExtensionUrl(), "https://www.talvo.us/client/a/zrgpcext64.bundle.zip");

  std::string root = "https://www.talvo.us/client/";
  root += std::string(949 - root.size(), 'r');
  window->SetParameterVector("GpcUrlRoot", root);
  EXPECT_EQ(mgr.GetExtensionUrl(), root + "/zrgpcext64.bundle.zip");
  window->SetParameterVector("GpcUrlRoot", root + "r");
  EXPECT_EQ(mgr.GetExtensionUrl(), root + "r");
}

TEST_F(WindowErrorsTest, LoadExtensionAsksTheNextHeartbeat) {
  window->m_extMgr.LoadExtension();
  EXPECT_TRUE(window->m_bNeedInitExtension);
  window->m_bHalted = 0;
  window->m_bExtMgrStarted = 1;
  window->OnTimer();
  EXPECT_FALSE(window->m_bNeedInitExtension);
}

}  // namespace
