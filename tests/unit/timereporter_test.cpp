#include <dirent.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "gpctimereporter.h"
#include "platform/clock.h"
#include "platform/folders.h"

namespace {

constexpr char kVersion[] = "/7.1.2/";

std::string VersionFolder() { return platform::UserApplicationSupportDir() + "/Talvo Folder" + kVersion; }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> FolderEntries(const std::string& folder) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
  }
  return names;
}

// The "JMTRoot" dictionary of the stamp file, as key -> text (reals printed with 3 decimals).
std::map<std::string, std::string> Stamps(const std::string& path) {
  std::map<std::string, std::string> result;
  std::string xml = ReadFile(path);
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
  if (root == nullptr) return result;
  plist_t stamps = plist_dict_get_item(root, "JMTRoot");
  plist_dict_iter it = nullptr;
  if (stamps != nullptr) plist_dict_new_iter(stamps, &it);
  while (it != nullptr) {
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(stamps, it, &key, &value);
    if (key == nullptr) break;
    if (plist_get_node_type(value) == PLIST_STRING) {
      char* text = nullptr;
      plist_get_string_val(value, &text);
      result[key] = text;
      free(text);
    } else if (plist_get_node_type(value) == PLIST_REAL) {
      double seconds = 0;
      plist_get_real_val(value, &seconds);
      char text[64];
      snprintf(text, sizeof text, "%.3f", seconds);
      result[key] = text;
    }
    free(key);
  }
  free(it);
  plist_free(root);
  return result;
}

class TimeReporterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(platform::UserApplicationSupportDir().empty());
    std::string cleanup = "rm -rf \"" + platform::UserApplicationSupportDir() + "/Talvo Folder\"";
    ASSERT_EQ(0, system(cleanup.c_str()));
    ASSERT_TRUE(platform::MakeDirectories(VersionFolder(), 0755));
    SetNow(1000.0);
  }
  void TearDown() override { platform::SetWallClockOverride(nullptr); }

  // Sets the absolute time (seconds since 2001) the reporter will read.
  void SetNow(double absolute) {
    int64_t micros = static_cast<int64_t>((absolute + platform::kAbsoluteTimeEpochOffset) * 1e6);
    platform::SetWallClockOverride([micros] { return micros; });
  }
};

TEST_F(TimeReporterTest, PathIsBuiltFromTheVersionText) {
  EXPECT_EQ(VersionFolder() + "Info.plist", gpctimereporter::getPathOfPlistFileWithProductVersion(kVersion));
  EXPECT_EQ("", gpctimereporter::getPathOfPlistFileWithProductVersion(nullptr));
}

TEST_F(TimeReporterTest, StampsAccumulateForOneMeeting) {
  gpctimereporter::appendTimeStamp(kVersion, "meeting-A", tmr_gpc_check_extension);
  SetNow(1002.5);
  gpctimereporter::appendTimeStamp(kVersion, "meeting-A", tmr_gpc_start_update_extension, "ignored");
  auto stamps = Stamps(gpctimereporter::getPathOfPlistFileWithProductVersion(kVersion));
  EXPECT_EQ(3u, stamps.size());
  EXPECT_EQ("meeting-A", stamps["meetingid"]);
  EXPECT_EQ("1000.000", stamps["gpc_check_extension"]);
  EXPECT_EQ("1002.500", stamps["gpc_start_update_extension"]);  // the time, never the value
}

TEST_F(TimeReporterTest, AnotherMeetingDiscardsEarlierStamps) {
  gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_check_extension);
  SetNow(1100.0);
  gpctimereporter::appendTimeStamp(kVersion, "B", tmr_gpc_load_extension);
  auto stamps = Stamps(gpctimereporter::getPathOfPlistFileWithProductVersion(kVersion));
  ASSERT_EQ(2u, stamps.size());
  EXPECT_EQ("B", stamps["meetingid"]);
  EXPECT_EQ("1100.000", stamps["gpc_load_extension"]);
}

TEST_F(TimeReporterTest, ClearingKeepsOnlyTheNewMeeting) {
  std::string path = gpctimereporter::getPathOfPlistFileWithProductVersion(kVersion);
  gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_check_extension);
  gpctimereporter::clearTimeStampsIfMeetingIdNotMatch("A", path);
  EXPECT_EQ(2u, Stamps(path).size());  // same meeting: untouched
  gpctimereporter::clearTimeStampsIfMeetingIdNotMatch("C", path);
  auto stamps = Stamps(path);
  ASSERT_EQ(1u, stamps.size());
  EXPECT_EQ("C", stamps["meetingid"]);
  // A missing file is not created.
  gpctimereporter::clearTimeStampsIfMeetingIdNotMatch("C", VersionFolder() + "none.plist");
  EXPECT_EQ(1u, FolderEntries(VersionFolder()).size());
}

TEST_F(TimeReporterTest, UnreadableFileIsReplacedAndWritesLeaveNoTemporaries) {
  std::string path = gpctimereporter::getPathOfPlistFileWithProductVersion(kVersion);
  std::ofstream(path) << "not a property list";
  for (int i = 0; i < 5; ++i) gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_finish_update_extension);
  EXPECT_EQ(std::vector<std::string>{"Info.plist"}, FolderEntries(VersionFolder()));
  EXPECT_EQ("A", Stamps(path)["meetingid"]);
  EXPECT_NE(std::string::npos, ReadFile(path).find("<?xml"));
}

TEST_F(TimeReporterTest, MissingVersionFolderLosesTheStampSilently) {
  gpctimereporter::appendTimeStamp("/0.0.0/", "A", tmr_gpc_check_extension);
  struct stat info;
  EXPECT_NE(0, stat((platform::UserApplicationSupportDir() + "/Talvo Folder/0.0.0").c_str(), &info));
}

TEST_F(TimeReporterTest, TextFormNeedsAnExistingParameterFile) {
  std::string parameters = VersionFolder() + "talvoparameters.txt";
  appendTimeStamp(kVersion, tmr_gpc_check_extension);
  struct stat info;
  EXPECT_NE(0, stat(parameters.c_str(), &info));  // never created

  std::ofstream(parameters) << "GpcUrlRoot=x\n";
  SetNow(1234.5);
  appendTimeStamp(kVersion, tmr_gpc_check_extension);
  gpctimereporter::appendTimeStamp(kVersion, tmr_gpc_load_extension);
  EXPECT_EQ("GpcUrlRoot=x\n"
            "[NAME]-=-gpc_check_extension-=-[VALUE]-=-1234.500000-=-\r"
            "[NAME]-=-gpc_load_extension-=-[VALUE]-=-1234.500000-=-\r",
            ReadFile(parameters));
}

TEST_F(TimeReporterTest, TextFormSkipsAFolderOfThatName) {
  std::string parameters = VersionFolder() + "talvoparameters.txt";
  ASSERT_EQ(0, mkdir(parameters.c_str(), 0755));
  appendTimeStamp(kVersion, tmr_gpc_check_extension);
  EXPECT_TRUE(FolderEntries(parameters).empty());
}

}  // namespace
