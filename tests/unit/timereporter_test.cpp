// Milestone stamps: the version's property list tied to one meeting, and the text form in the parameter file.
#include <gtest/gtest.h>
#include <unistd.h>
#include <sys/stat.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "common/gpctimereporter.h"
#include "common/hardening.h"
#include "extension_package.h"
#include "gpc/gpc_trace.h"
#include "http_test_server.h"
#include "platform/clock.h"
#include "platform/folders.h"
#include "trace_capture.h"

namespace {

constexpr char kVersion[] = "/7.1.2/";
namespace fs = std::filesystem;
const std::string kTalvo = platform::UserApplicationSupportDir() + "/Talvo Folder";
const std::string kFolder = kTalvo + kVersion;

// "key=value " of each key of the stamp file (the text after it), in key order.
std::string Stamps() {
  const std::string xml = gpctest::ReadFile(kFolder + "Info.plist");
  std::set<std::string> entries;
  for (size_t at = xml.find("<key>"); at != std::string::npos; at = xml.find("<key>", at + 1)) {
    const size_t end = xml.find("</key>", at), value = xml.find('>', end + 6) + 1;
    entries.insert(xml.substr(at + 5, end - at - 5) + "=" + xml.substr(value, xml.find_first_of("<\n", value) - value));
  }
  std::string out;
  for (const std::string& text : entries) out += text + " ";
  return out;
}

// Sets the absolute time (seconds since 2001) the reporter reads.
void SetNow(double absolute) {
  const auto micros = static_cast<int64_t>((absolute + platform::kAbsoluteTimeEpochOffset) * 1e6);
  platform::SetWallClockOverride([micros] { return micros; });
}

class TimeReporterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(kTalvo);
    ASSERT_TRUE(platform::MakeDirectories(kFolder, 0755));
    SetNow(1000.0);
  }
  void TearDown() override { platform::SetWallClockOverride(nullptr); }
};

TEST_F(TimeReporterTest, StampsBelongToOneMeetingAndWritesReplaceTheFileWhole) {
  const std::string path = gpctimereporter::getPathOfPlistFileWithProductVersion(kVersion);
  EXPECT_EQ(path + "|" + gpctimereporter::getPathOfPlistFileWithProductVersion(nullptr), kFolder + "Info.plist|");
  gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_check_extension);
  SetNow(1002.5);
  gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_start_update_extension, "ignored");
  gpctimereporter::clearTimeStampsIfMeetingIdNotMatch("A", path);
  EXPECT_EQ(Stamps(), "JMTRoot= gpc_check_extension=1000 gpc_start_update_extension=1002.5 meetingid=A ");
  gpctimereporter::appendTimeStamp(kVersion, "B", tmr_gpc_load_extension);
  EXPECT_EQ(Stamps(), "JMTRoot= gpc_load_extension=1002.5 meetingid=B ") << "another meeting's stamps go";
  gpctimereporter::clearTimeStampsIfMeetingIdNotMatch("C", path);
  EXPECT_EQ(Stamps(), "JMTRoot= meetingid=C ");
  gpctimereporter::clearTimeStampsIfMeetingIdNotMatch("C", kFolder + "none.plist");  // not created
  gpctest::WriteFile(path, "not a property list");
  for (int i = 0; i < 5; ++i) gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_finish_update_extension);
  EXPECT_EQ(Stamps(), "JMTRoot= gpc_finish_update_extension=1002.5 meetingid=A ");
  // A meeting id no XML carries (a control byte, bytes that are not UTF-8) is stored so that any
  // reader reads the file, and the same id keeps its meeting's stamps.
  for (const char* key : {tmr_gpc_check_extension, tmr_gpc_load_extension})
    gpctimereporter::appendTimeStamp(kVersion, "m\x01<&>\xff\xef\xbf\xbf", key);
  const std::string read = "import plistlib,sys; d = plistlib.load(open(sys.argv[1], 'rb'))['JMTRoot']; print(len(d), d['meetingid'])";
  EXPECT_EQ(gpctest::ShellOutput("python3 -c \"" + read + "\" '" + path + "'"), "3 m\uFFFD<&>\uFFFD\uFFFD\n");
  gpctimereporter::appendTimeStamp("/0.0.0/", "A", tmr_gpc_check_extension);  // a missing version folder loses it
  fs::remove(path);
  fs::create_directory(path);  // a stamp file that cannot be put in place
  ClearCapturedTraces();
  gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_check_extension);
  for (const CapturedTrace& line : CapturedTracesSnapshot())  // an error report carries no failure
    EXPECT_TRUE(line.level <= GPC_TRACE_INFO || line.text.find("Info.plist") == std::string::npos) << line.text;
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(kTalvo), {}), 2) << "7.1.2/Info.plist/, no temporaries";
  // A FIFO planted at the name is not read: it would block for ever.
  fs::remove_all(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_TRUE(gpctest::InChild([&] {
    alarm(10);
    gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_check_extension);
    return true;
  }));
  // A version leading out with ".." is followed by the default build only.
  const std::string out = kTalvo + "/../out";
  for (const bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    fs::remove_all(out);
    fs::create_directory(out);
    gpctimereporter::appendTimeStamp("/../out/", "A", tmr_gpc_check_extension);
    EXPECT_EQ(fs::exists(out + "/Info.plist"), !hardened);
  }
  gpc::SetHardenedForTesting(-1);
  fs::remove_all(out);
}

// Under a locale that writes decimal commas, earlier stamps keep their fractions when the file is read again.
TEST_F(TimeReporterTest, StampsKeepTheirFractionsUnderADecimalCommaLocale) {
  {
    const gpctest::ScopedLocale german(LC_NUMERIC, "de_DE");
    ASSERT_TRUE(german.ok()) << "the locales package makes the de_DE locale";
    SetNow(1000.125);
    gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_check_extension);
    SetNow(1002.5);
    gpctimereporter::appendTimeStamp(kVersion, "A", tmr_gpc_start_update_extension);
  }
  EXPECT_EQ(Stamps(), "JMTRoot= gpc_check_extension=1000.125 gpc_start_update_extension=1002.5 meetingid=A ");
}

TEST_F(TimeReporterTest, TextFormIsAppendedToAnExistingParameterFileOnly) {
  const std::string parameters = kFolder + "talvoparameters.txt";
  appendTimeStamp(kVersion, tmr_gpc_check_extension);
  EXPECT_FALSE(fs::exists(parameters)) << "never created";
  ASSERT_TRUE(fs::create_directory(parameters));
  appendTimeStamp(kVersion, tmr_gpc_check_extension);
  EXPECT_TRUE(fs::is_empty(parameters)) << "a folder of that name is left alone";
  fs::remove(parameters);
  gpctest::WriteFile(parameters, "GpcUrlRoot=x\n");
  SetNow(1234.5);
  appendTimeStamp(kVersion, tmr_gpc_check_extension);
  gpctimereporter::appendTimeStamp(kVersion, tmr_gpc_load_extension);
  EXPECT_EQ(gpctest::ReadFile(parameters), "GpcUrlRoot=x\n[NAME]-=-gpc_check_extension-=-[VALUE]-=-1234.500000-=-\r"
                                           "[NAME]-=-gpc_load_extension-=-[VALUE]-=-1234.500000-=-\r");
}

}  // namespace
