#include <gtest/gtest.h>

#include "scoped_env.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/bundle.h"
#include "platform/clock.h"
#include "platform/debug_string.h"
#include "platform/folders.h"
#include "platform/processes.h"
#include "platform/system_version.h"

namespace {

std::string MakeTempFolder() {
  char templ[] = "/tmp/gpcplatformXXXXXX";
  return mkdtemp(templ);
}


TEST(SystemVersion, OverrideRunsOldPathsAndClears) {
  EXPECT_GE(platform::SystemVersion(), 0x1060u);
  platform::SetSystemVersionOverride(0x1058);
  EXPECT_EQ(platform::SystemVersion(), 0x1058u);
  platform::SetSystemVersionOverride(0);
  EXPECT_GE(platform::SystemVersion(), 0x1060u);
}

TEST(Folders, ApplicationSupportFollowsXdgAndIsCreated) {
  std::string root = MakeTempFolder();
  std::string wanted = root + "/nested/data";
  ScopedEnv xdg("XDG_DATA_HOME", (wanted + "/").c_str());
  EXPECT_EQ(platform::UserApplicationSupportDir(), wanted);
  struct stat info;
  ASSERT_EQ(stat(wanted.c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
}

TEST(Folders, RelativeXdgFallsBackToHome) {
  std::string home = MakeTempFolder();
  ScopedEnv xdg("XDG_DATA_HOME", "relative/data");
  ScopedEnv h("HOME", home.c_str());
  EXPECT_EQ(platform::UserApplicationSupportDir(), home + "/.local/share");
}

TEST(Folders, UncreatableFolderGivesEmpty) {
  ScopedEnv xdg("XDG_DATA_HOME", "/proc/no-such-place/data");
  EXPECT_EQ(platform::UserApplicationSupportDir(), "");
}

TEST(Folders, TempDirEndsInSlash) {
  ScopedEnv tmp("TMPDIR", "/no/such/folder");
  EXPECT_EQ(platform::TempDir(), "/tmp/");
  std::string mine = MakeTempFolder();
  ScopedEnv tmp2("TMPDIR", mine.c_str());
  EXPECT_EQ(platform::TempDir(), mine + "/");
}

TEST(Processes, ListsThisProcessByShortName) {
  std::vector<platform::ProcessInfo> all;
  ASSERT_TRUE(platform::ListProcesses(&all));
  bool found = false;
  for (const auto& p : all) {
    if (p.pid == getpid()) {
      found = true;
      EXPECT_EQ(p.name, std::string("platform_test"));
    }
  }
  EXPECT_TRUE(found);
}

TEST(Clock, AbsoluteTimeCountsFrom2001AndFollowsOverride) {
  platform::SetWallClockOverride([] { return int64_t(978307200) * 1000000 + 1500000; });
  EXPECT_DOUBLE_EQ(platform::AbsoluteTimeGetCurrent(), 1.5);
  EXPECT_EQ(platform::WallClockMicros(), int64_t(978307201500000));
  platform::SetWallClockOverride(nullptr);
  EXPECT_GT(platform::AbsoluteTimeGetCurrent(), 7.0e8);  // after 2023
}

TEST(DebugStr, SinkReceivesTextAndSilenceIsDefault) {
  unsigned char pascal[256];
  platform::MakePascalString("plugin,NP_Initialize start", pascal);
  EXPECT_EQ(pascal[0], 26);
  platform::DebugStr(pascal);  // no sink: nothing happens
  std::string got;
  platform::SetDebugStrSink([&](const std::string& s) { got = s; });
  platform::DebugStr(pascal);
  platform::SetDebugStrSink(nullptr);
  EXPECT_EQ(got, "plugin,NP_Initialize start");
  std::string longtext(300, 'x');
  platform::MakePascalString(longtext.c_str(), pascal);
  EXPECT_EQ(pascal[0], 255);
}

TEST(Bundle, FindsNearestAncestorWithIdentifier) {
  std::string root = MakeTempFolder();
  std::string bundle = root + "/talvo-gpc64.plugin";
  ASSERT_TRUE(platform::MakeDirectories(bundle + "/Contents/MacOS", 0755));
  std::ofstream(bundle + "/Contents/Info.plist")
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
         "<key>CFBundleIdentifier</key><string>com.vantrel.talvo.plugin.gpc64</string>"
         "</dict></plist>\n";
  EXPECT_EQ(platform::BundleInfoString(bundle, "CFBundleIdentifier"), platform::kPluginBundleIdentifier);
  EXPECT_EQ(platform::BundleInfoString(bundle, "CFBundleVersion"), "");
  EXPECT_EQ(platform::BundleInfoString(root, "CFBundleIdentifier"), "");
  // A test program lies in no bundle.
  EXPECT_EQ(platform::PluginBundlePath(), "");
  platform::SetPluginBundlePathOverride(bundle);
  EXPECT_EQ(platform::PluginBundlePath(), bundle);
  platform::SetPluginBundlePathOverride("");
}

}  // namespace
