// The update decision: the installed user extension against the version the page asks for. No
// heartbeat runs here, so nothing queued is ever fetched.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fake_browser.h"
#include "common/gpctimereporter.h"
#include "common/hardening.h"
#include "http_test_server.h"
#include "platform/folders.h"
#include "plugin/plugin/npgpcimp.h"

namespace {

const std::string kRoot = "https://127.0.0.1:9/client/a/";
const std::string kPackage = kRoot + "zrgpcext64.bundle.7z";

std::string Folder() { return platform::UserApplicationSupportDir() + "/Talvo Folder"; }

// A user extension bundle "<name>.bundle" carrying `version` in its property list.
void InstallBundle(const std::string& name, const std::string& version) {
  const std::string bundle = Folder() + "/" + name + ".bundle/Contents/";
  const std::string executable = gpctest::ReadFile(GPC_BUNDLE_DIR "/Contents/Frameworks/zrgpcext64.bundle/Contents/MacOS/zrgpcext64");
  ASSERT_TRUE(platform::MakeDirectories(bundle + "MacOS", 0755) && gpctest::WriteFile(bundle + "MacOS/" + name, executable));
  const std::string plist = "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>" + version +
                            "</string></dict></plist>";
  ASSERT_TRUE(gpctest::WriteFile(bundle + "Info.plist", plist));
}

class WindowUpdateTest : public ::testing::Test {
 protected:
  void TearDown() override { gpc::SetHardenedForTesting(-1); }
  gpctest::BrowserEnvironment env;
  NPP_t npp{};
};

// The manager's start on a page: what it queues, whether the extension is ready, the error page it shows
// and the milestones recorded in the product version's time-stamp file.
TEST_F(WindowUpdateTest, DownloadsOnlyWhenTheInstalledVersionDiffers) {
  const struct {
    const char *name, *extName, *installed, *required, *meeting, *root;
    std::string queued;
    bool ready;
    const char* stamps;  // milestones recorded; "-" when no file
    int message;
    const char* unpack = "1,0";
  } cases[] = {
      {"Missing", nullptr, nullptr, "31.9.5", "m1", kRoot.c_str(), kPackage, false, "check update", 0},
      {"Equal", "zrext", "31.9.5.100", "31 9 5 100\r\n", "m1", kRoot.c_str(), "", true, "check", 0},
      {"Older", nullptr, "2.1", "2.0", "m1", kRoot.c_str(), kPackage, false, "check update", 0},
      {"NoVersionLoadsWhatIsOnDisk", nullptr, "2.1", nullptr, "m1", kRoot.c_str(), "", true, "check", 0},
      {"NoUnpackVersionLoadsWhatIsOnDisk", nullptr, "2.1", "2.0", "m1", kRoot.c_str(), "", true, "check", 0, nullptr},
      {"EmptyMeetingIsNoMeeting", nullptr, nullptr, "1", "", kRoot.c_str(), kPackage, false, "-", 0},
      {"NoRoot", nullptr, nullptr, "1", "m1", nullptr, "", false, "-", 100},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    gpctest::RemoveTree(Folder());
    ASSERT_TRUE(platform::MakeDirectories(Folder() + "/5.0", 0755));  // as the parameter file leaves it
    if (c.installed) InstallBundle(c.extName ? c.extName : "zrgpcext64", c.installed);
    CGpcWindow window(&npp);
    window.m_bHalted = 0;  // as a page's parameters leave it
    for (const auto& [name, value] : {std::pair<const char*, const char*>{"GpcUrlRoot", c.root},
                                      {"GpcUnpackVersion", c.unpack}, {"GpcCompressMethod", "7zip"},
                                      {"GpcProductVersion", "/5.0/"}, {"MeetingID", c.meeting},
                                      {"GpcExtName", c.extName}, {"GpcExtVersion", c.required},
                                      {"GpcErrorPageUrl", "https://e.example/err"}})
      if (value) window.SetParameterVector(name, value);
    window.m_extMgr.Init();
    std::string queued;
    for (const CGetFileItem* item : window.m_vectorFileItem)
      queued += item->m_pfnCallback == CGpcExtMgr::GpcGetFileNotify && item->m_pContext == &window.m_extMgr
                    ? item->m_strUrl : "(another)";
    EXPECT_EQ(queued, c.queued);
    EXPECT_EQ(window.m_bNeedInitExtension != 0, c.ready);
    const std::string file = gpctest::ReadFile(Folder() + "/5.0/Info.plist");
    auto has = [&](const char* key) {
      return file.find(std::string("<key>") + key + "</key>") != std::string::npos;
    };
    const std::string stamps = file.empty() ? "-"
                                            : std::string(has(tmr_gpc_check_extension) ? "check" : "") +
                                                  (has(tmr_gpc_start_update_extension) ? " update" : "");
    EXPECT_EQ(stamps, c.stamps);
    const std::vector<std::string> shown = gpctest::RunNavigations(window);
    EXPECT_EQ(shown.size(), c.message ? 1u : 0u);
    EXPECT_EQ(!shown.empty() && shown[0].find("%5B" + std::to_string(c.message) + "%5D") != std::string::npos,
              c.message != 0);
    EXPECT_EQ(window.m_bHalted != 0, c.message != 0);
  }
}

// Older and newer alike are replaced (the hardened build keeps a newer one); dots in the page's
// version are not separators; an unreadable installed version needs the update.
TEST_F(WindowUpdateTest, AnyDifferenceInTheNormalFormDownloads) {
  InstallBundle("zrgpcext64", "2.1");
  const std::string path = Folder() + "/zrgpcext64.bundle";
  CGpcWindow window(&npp);
  const struct {
    const char* required;
    bool update, hardenedUpdate;
  } cases[] = {{"2,0", true, false},  {"2,1,0", true, true}, {"2.1", true, true},
               {"2,1", false, false}, {"2,1,1", true, true}, {"10", true, true}, {"2,,1", true, true}};
  for (const bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    for (const auto& c : cases)
      EXPECT_EQ(window.m_extMgr.NeedUpdate(path.c_str(), c.required), hardened ? c.hardenedUpdate : c.update)
          << c.required << (hardened ? " hardened" : "");
  }
  // An executable cut short (an extraction stopped half-way) or missing is replaced.
  ASSERT_EQ(truncate((path + "/Contents/MacOS/zrgpcext64").c_str(), 2000), 0);
  EXPECT_TRUE(window.m_extMgr.NeedUpdate(path.c_str(), "2,1"));
  ASSERT_EQ(remove((path + "/Contents/MacOS/zrgpcext64").c_str()), 0);
  EXPECT_TRUE(window.m_extMgr.NeedUpdate(path.c_str(), "2,1"));
  gpc::SetHardenedForTesting(true);
  InstallBundle("zrgpcext64", "2.1.0");  // trailing zeros make no version newer, so none is kept
  EXPECT_TRUE(window.m_extMgr.NeedUpdate(path.c_str(), "2,1"));
}

}  // namespace
