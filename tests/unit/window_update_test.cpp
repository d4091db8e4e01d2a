// The update decision: the installed user extension against the version the page asks for, with
// the package queued for fetching when they differ and the extension marked ready when they agree.
// No heartbeat runs here, so nothing queued is ever fetched.
#include <gtest/gtest.h>

#include <glib.h>
#include <plist/plist.h>

#include <string>
#include <vector>

#include "fake_browser.h"
#include "gpctimereporter.h"
#include "hardening.h"
#include "platform/folders.h"
#include "plugin/plugin/npgpcimp.h"

namespace {

const char kRoot[] = "https://127.0.0.1:9/client/a/";
const char kProductVersion[] = "/5.0/";

class WindowUpdateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const auto& [name, value] : {std::pair<const char*, const char*>{"GpcUrlRoot", kRoot},
                                      {"GpcUnpackVersion", "1,0"}, {"GpcCompressMethod", "7zip"},
                                      {"GpcProductVersion", kProductVersion}, {"MeetingID", "meeting-1"}})
      window.SetParameterVector(name, value);
    // The product version's folder, as the parameter file of a real page leaves it.
    ASSERT_TRUE(platform::MakeDirectories(Folder() + kProductVersion, 0755));
  }
  void TearDown() override { gpc::SetHardenedForTesting(-1); }
  static std::string Folder() { return platform::UserApplicationSupportDir() + "/Talvo Folder"; }

  // A user extension bundle "<name>.bundle" carrying `version` in its property list.
  void InstallBundle(const std::string& name, const std::string& version) {
    const std::string bundle = Folder() + "/" + name + ".bundle";
    ASSERT_TRUE(platform::MakeDirectories(bundle + "/Contents/MacOS", 0755));
    ASSERT_TRUE(g_file_set_contents((bundle + "/Contents/MacOS/" + name).c_str(), "\x7f" "ELF", 4, nullptr));
    const std::string plist = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                              "<key>CFBundleVersion</key><string>" + version + "</string></dict></plist>\n";
    ASSERT_TRUE(g_file_set_contents((bundle + "/Contents/Info.plist").c_str(), plist.c_str(), -1, nullptr));
  }

  // The milestone names recorded in the product version's time-stamp file.
  std::vector<std::string> Stamps() {
    std::vector<std::string> keys;
    gchar* text = nullptr;
    gsize length = 0;
    if (!g_file_get_contents((Folder() + kProductVersion + "Info.plist").c_str(), &text, &length, nullptr)) return keys;
    plist_t root = nullptr;
    plist_from_xml(text, static_cast<uint32_t>(length), &root);
    g_free(text);
    plist_t jmt = root ? plist_dict_get_item(root, "JMTRoot") : nullptr;
    for (const char* key : {tmr_gpc_check_extension, tmr_gpc_start_update_extension})
      if (jmt && plist_dict_get_item(jmt, key)) keys.push_back(key);
    if (root) plist_free(root);
    return keys;
  }

  // The package queued for the manager, or "" when none.
  std::string QueuedPackage() {
    if (window.m_vectorFileItem.size() != 1) return window.m_vectorFileItem.empty() ? "" : "(several)";
    const CGetFileItem* item = window.m_vectorFileItem[0];
    const bool forManager = item->m_pfnCallback == CGpcExtMgr::GpcGetFileNotify && item->m_pContext == &window.m_extMgr;
    return forManager ? item->m_strUrl : "(not for the manager)";
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  CGpcWindow window{&npp};
};

TEST_F(WindowUpdateTest, MissingExtensionQueuesThePackageDownload) {
  window.SetParameterVector("GpcExtVersion", "31.9.5");
  window.m_extMgr.Init();
  EXPECT_EQ(QueuedPackage(), std::string(kRoot) + "zrgpcext64.bundle.7z");
  EXPECT_FALSE(window.m_bNeedInitExtension);
  EXPECT_EQ(Stamps(), (std::vector<std::string>{tmr_gpc_check_extension, tmr_gpc_start_update_extension}));
}

TEST_F(WindowUpdateTest, EqualVersionMarksTheExtensionReadyWithoutDownload) {
  window.SetParameterVector("GpcExtName", "zrext");
  window.SetParameterVector("GpcExtVersion", "31 9 5 100\r\n");
  InstallBundle("zrext", "31.9.5.100");
  window.m_extMgr.CheckExtension();
  EXPECT_EQ(QueuedPackage(), "");
  EXPECT_TRUE(window.m_bNeedInitExtension);
  EXPECT_EQ(Stamps(), std::vector<std::string>{tmr_gpc_check_extension});
}

// Older and newer alike are replaced (the hardened build keeps a newer one); dots in the page's
// version are not separators; an unreadable installed version needs the update.
TEST_F(WindowUpdateTest, AnyDifferenceInTheNormalFormDownloads) {
  InstallBundle("zrgpcext64", "2.1");
  const std::string path = Folder() + "/zrgpcext64.bundle";
  const struct {
    const char* required;
    bool update, hardenedUpdate;
  } cases[] = {{"2,0", true, false}, {"2,1,0", true, true}, {"2.1", true, false}, {"2,1", false, false},
               {"2,1,1", true, true}, {"10", true, true}};
  for (const bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    for (const auto& c : cases)
      EXPECT_EQ(window.m_extMgr.NeedUpdate(path.c_str(), c.required), hardened ? c.hardenedUpdate : c.update)
          << c.required << (hardened ? " hardened" : "");
  }
  gpc::SetHardenedForTesting(-1);
  window.SetParameterVector("GpcExtVersion", "2.0");
  window.m_extMgr.CheckExtension();
  EXPECT_EQ(QueuedPackage(), std::string(kRoot) + "zrgpcext64.bundle.7z");
  ASSERT_EQ(remove((path + "/Contents/MacOS/zrgpcext64").c_str()), 0);
  EXPECT_TRUE(window.m_extMgr.NeedUpdate(path.c_str(), "2,1"));
}

TEST_F(WindowUpdateTest, MissingVersionParameterLoadsWhatIsOnDisk) {
  window.m_extMgr.Init();  // no "GpcExtVersion"
  EXPECT_TRUE(window.m_bNeedInitExtension);
  EXPECT_EQ(QueuedPackage(), "");
}

TEST_F(WindowUpdateTest, WithoutMeetingNoTimeStampAndTheSameDecision) {
  for (CGpcWindow::CItem* item : window.m_vectorParam)
    if (item->m_strName == "MeetingID") item->m_strValue.clear();  // present but empty: absent
  window.SetParameterVector("GpcExtVersion", "1");
  window.m_extMgr.CheckExtension();
  EXPECT_EQ(QueuedPackage(), std::string(kRoot) + "zrgpcext64.bundle.7z");
  EXPECT_TRUE(Stamps().empty());
}

}  // namespace
