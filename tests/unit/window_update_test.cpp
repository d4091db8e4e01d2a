// The update decision: the installed user extension against the version the page asks for, with
// the package queued for fetching when they differ and the extension marked ready when they agree.
// No heartbeat runs here, so nothing queued is ever fetched.
#include <gtest/gtest.h>

#include <plist/plist.h>

#include <memory>
#include <string>

#include "gpctimereporter.h"
#include "hardening.h"
#include "platform/folders.h"
#include "window_fake_browser.h"

using namespace window_test;

namespace {

const char kRoot[] = "https://127.0.0.1:9/client/a/";
const char kProductVersion[] = "/5.0/";

class WindowUpdateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    window = std::make_unique<CGpcWindow>(&npp);
    window->SetParameterVector("GpcUrlRoot", kRoot);
    window->SetParameterVector("GpcUnpackVersion", "1,0");
    window->SetParameterVector("GpcCompressMethod", "7zip");
    window->SetParameterVector("GpcProductVersion", kProductVersion);
    window->SetParameterVector("MeetingID", "meeting-1");
    // The product version's folder, as the parameter file of a real page leaves it.
    ASSERT_TRUE(platform::MakeDirectories(UserExtensionDir() + kProductVersion, 0755));
  }

  std::string UserExtensionDir() { return platform::UserApplicationSupportDir() + "/Talvo Folder"; }

  // A user extension bundle "<name>.bundle" carrying `version` in its property list.
  void InstallBundle(const std::string& name, const std::string& version) {
    const std::string bundle = UserExtensionDir() + "/" + name + ".bundle";
    ASSERT_TRUE(platform::MakeDirectories(bundle + "/Contents/MacOS", 0755));
    ASSERT_TRUE(g_file_set_contents((bundle + "/Contents/MacOS/" + name).c_str(), "\x7f" "ELF", 4, nullptr));
    const std::string plist =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
        "<key>CFBundleVersion</key><string>" + version + "</string></dict></plist>\n";
    ASSERT_TRUE(g_file_set_contents((bundle + "/Contents/Info.plist").c_str(), plist.c_str(), -1, nullptr));
  }

  // The milestone names recorded in the product version's time-stamp file.
  std::vector<std::string> Stamps() {
    std::vector<std::string> keys;
    const std::string path = UserExtensionDir() + kProductVersion + "Info.plist";
    gchar* text = nullptr;
    gsize length = 0;
    if (!g_file_get_contents(path.c_str(), &text, &length, nullptr)) return keys;
    plist_t root = nullptr;
    plist_from_xml(text, static_cast<uint32_t>(length), &root);
    g_free(text);
    plist_t jmt = root ? plist_dict_get_item(root, "JMTRoot") : nullptr;
    for (const char* key : {tmr_gpc_check_extension, tmr_gpc_start_update_extension}) {
      if (jmt && plist_dict_get_item(jmt, key)) keys.push_back(key);
    }
    if (root) plist_free(root);
    return keys;
  }

  bool PackageQueued(const std::string& url) {
    if (window->m_vectorFileItem.size() != 1) return false;
    const CGetFileItem* item = window->m_vectorFileItem[0];
    return item->m_strUrl == url && item->m_pfnCallback == CGpcExtMgr::GpcGetFileNotify &&
           item->m_pContext == &window->m_extMgr;
  }

  Environment env;
  NPP_t npp{};
  std::unique_ptr<CGpcWindow> window;
};

TEST_F(WindowUpdateTest, MissingExtensionQueuesThePackageDownload) {
  window->SetParameterVector("GpcExtVersion", "31.9.5");
  LogCapture log;
  window->m_extMgr.Init();
  EXPECT_TRUE(PackageQueued(std::string(kRoot) + "zrgpcext64.bundle.7z"));
  EXPECT_FALSE(window->m_bNeedInitExtension);
  const std::string path = UserExtensionDir() + "/zrgpcext64.bundle";
  EXPECT_EQ(log.CountExact("CGpcExtMgr::CheckExtension"), 1);
  EXPECT_EQ(log.CountExact("CGpcExtMgr::NeedUpdate,lpszFile=" + path + ",lpszRequireVersion=31.9.5"), 1);
  EXPECT_EQ(log.CountExact("CGpcExtMgr::NeedUpdate," + path + " is not exist,need update!"), 1);
  EXPECT_EQ(Stamps(), (std::vector<std::string>{tmr_gpc_check_extension, tmr_gpc_start_update_extension}));
}

TEST_F(WindowUpdateTest, EqualVersionMarksTheExtensionReadyWithoutDownload) {
  window->SetParameterVector("GpcExtName", "zrext");
  window->SetParameterVector("GpcExtVersion", "31 9 5 100\r\n");
  InstallBundle("zrext", "31.9.5.100");
  LogCapture log;
  window->m_extMgr.CheckExtension();
  EXPECT_TRUE(window->m_vectorFileItem.empty());
  EXPECT_TRUE(window->m_bNeedInitExtension);
  EXPECT_EQ(log.CountExact("CGpcExtMgr::NeedUpdate," + UserExtensionDir() + "/zrext.bundle is not need update!"), 1);
  EXPECT_EQ(Stamps(), std::vector<std::string>{tmr_gpc_check_extension});
}

TEST_F(WindowUpdateTest, AnyDifferenceInTheNormalFormDownloads) {
  window->SetParameterVector("GpcExtName", "zrext");
  InstallBundle("zrext", "2.1");
  const std::string path = UserExtensionDir() + "/zrext.bundle";
  // Older and newer alike are replaced; dots in the page's version are not separators.
  for (const char* required : {"2,0", "2,1,0", "2.1"}) {
    SCOPED_TRACE(required);
    EXPECT_TRUE(window->m_extMgr.NeedUpdate(path.c_str(), required));
  }
  EXPECT_FALSE(window->m_extMgr.NeedUpdate(path.c_str(), "2,1"));

  window->SetParameterVector("GpcExtVersion", "2.0");
  LogCapture log;
  window->m_extMgr.CheckExtension();
  EXPECT_TRUE(PackageQueued(std::string(kRoot) + "zrext.bundle.7z"));
  EXPECT_EQ(log.CountExact("CGpcExtMgr::NeedUpdate," + path + " need update from [2,1] to [2.0]!"), 1);
}

TEST_F(WindowUpdateTest, TheHardenedBuildKeepsANewerExtension) {
  InstallBundle("zrgpcext64", "3.0");
  const std::string path = UserExtensionDir() + "/zrgpcext64.bundle";
  for (const bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    EXPECT_EQ(window->m_extMgr.NeedUpdate(path.c_str(), "2,9,9"), !hardened);
    EXPECT_TRUE(window->m_extMgr.NeedUpdate(path.c_str(), "3,0,1"));
    EXPECT_TRUE(window->m_extMgr.NeedUpdate(path.c_str(), "10"));
  }
  gpc::SetHardenedForTesting(-1);
}

TEST_F(WindowUpdateTest, UnreadableVersionCountsAsNeedingUpdate) {
  InstallBundle("zrgpcext64", "1.0");
  const std::string path = UserExtensionDir() + "/zrgpcext64.bundle";
  ASSERT_EQ(remove((path + "/Contents/MacOS/zrgpcext64").c_str()), 0);
  LogCapture log;
  EXPECT_TRUE(window->m_extMgr.NeedUpdate(path.c_str(), "1,0"));
  EXPECT_EQ(log.CountExact("CGpcExtMgr::NeedUpdate,get " + path + " version info failed,need update!"), 1);
}

TEST_F(WindowUpdateTest, MissingVersionParameterLoadsWhatIsOnDisk) {
  LogCapture log;
  window->m_extMgr.Init();  // no "GpcExtVersion"
  EXPECT_EQ(window->m_nExtCheckState, 1);
  EXPECT_TRUE(window->m_bNeedInitExtension);
  EXPECT_TRUE(window->m_vectorFileItem.empty());
  EXPECT_FALSE(log.Contains("CGpcExtMgr::NeedUpdate"));
}

TEST_F(WindowUpdateTest, WithoutMeetingNoTimeStampAndTheSameDecision) {
  for (CGpcWindow::CItem* item : window->m_vectorParam) {
    if (item->m_strName == "MeetingID") item->m_strValue.clear();  // present but empty: absent
  }
  window->SetParameterVector("GpcExtVersion", "1");
  window->m_extMgr.CheckExtension();
  EXPECT_TRUE(PackageQueued(std::string(kRoot) + "zrgpcext64.bundle.7z"));
  EXPECT_TRUE(Stamps().empty());
}

}  // namespace
