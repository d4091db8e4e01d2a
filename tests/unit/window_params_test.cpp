// The parameter store and the parameter file written at the start of every instance.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "extension_package.h"
#include "fake_browser.h"
#include "common/gpcutil.h"
#include "common/hardening.h"
#include "http_test_server.h"
#include "platform/clock.h"
#include "platform/folders.h"
#include "plugin/plugin/npgpcimp.h"
#include "scoped_env.h"

namespace {

class WindowParamsTest : public ::testing::Test {
 protected:
  void TearDown() override { platform::SetWallClockOverride(nullptr); }
  bool Set(gpctest::EmbedArgs page) { return window.SetParameters(page.argc(), page.argn(), page.argv()); }
  std::string At(int index) {
    const char* name = nullptr;
    const char* value = nullptr;
    if (!window.GetParameterAt(index, &name, &value)) return "(none)";
    return std::string(name) + "=" + (value ? value : "(null)");
  }
  std::string Get(const char* name) {
    return window.GetParameter(name) ? window.GetParameter(name) : "(null)";
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  CGpcWindow window{&npp};
};

// Kept in order as given, looked up without regard to case; the first of duplicates decides, even
// when empty; the page's own root is kept as given.
TEST_F(WindowParamsTest, PageParametersAreStoredInOrderAndLiftTheHalt) {
  EXPECT_TRUE(Set({{"GpcProductVersion", "1,0,0"},
                   {"gpcurlroot", "http://www.talvo.us/client/a/"},
                   {"Dup", ""},
                   {"DUP", "later"}}));
  EXPECT_EQ(window.m_bHalted, 0);
  EXPECT_EQ(At(1) + At(2) + At(4) + At(-1), "gpcurlroot=http://www.talvo.us/client/a/Dup=(null)(none)(none)");
  EXPECT_EQ(Get("GPCURLROOT") + Get("dup"), "http://www.talvo.us/client/a/(null)");
}

// No version, or a root outside "/client/": the page stays halted and nothing after the root is kept.
TEST_F(WindowParamsTest, RefusedRootOrMissingVersionKeepsTheHalt) {
  EXPECT_FALSE(Set({{"A", "a"}}));
  EXPECT_EQ(window.GetParameterCount(), 0);
  EXPECT_FALSE(Set({{"GpcProductVersion", "1"},
                    {"A", "a"},
                    {"GpcUrlRoot", "https://www.talvo.us/clientele/"},
                    {"B", "b"}}));
  EXPECT_EQ(window.m_bHalted, 1);
  EXPECT_EQ(window.GetParameterCount(), 2);
}

// What an extension sets: lengths checked, the root corrected, the first item of a name replaced in
// place, an empty value accepted but changing nothing.
TEST_F(WindowParamsTest, SetParameterChecksLengthsAndCorrectsTheRoot) {
  const std::string forty(40, 'v');
  EXPECT_TRUE(Set({{"GpcProductVersion", forty.c_str()}, {"Name", "first"}, {"name", "second"}}));
  EXPECT_EQ(Get("GpcProductVersion"), forty);  // no limit on the page's own
  const struct {
    const char* name;
    size_t length;
    bool accepted;
  } cases[] = {{"gpcproductversion", 33, false},
               {"GpcProductVersion", 32, true},
               {"GpcProductRoot", 33, false},
               {"GpcProductRoot", 32, true},
               {"GpcComponentName", 64, true},
               {"GPCCOMPONENTNAME", 65, false},
               {"Other", 5000, true}};
  for (const auto& c : cases)
    EXPECT_EQ(window.SetParameter(c.name, std::string(c.length, 'a').c_str()), c.accepted)
        << c.name << c.length;
  EXPECT_EQ(window.m_strBadParamName, "GPCCOMPONENTNAME");
  EXPECT_EQ(Get("GpcComponentName"), std::string(64, 'a'));

  EXPECT_TRUE(window.SetParameter("NAME", "changed") && window.SetParameter("NAME", "") &&
              window.SetParameter("Empty", ""));
  EXPECT_EQ(At(1) + At(2), "Name=changedname=second");
  EXPECT_EQ(window.GetParameterCount(), 6);
  EXPECT_FALSE(window.SetParameter(nullptr, "a") || window.SetParameter("A", nullptr));

  EXPECT_TRUE(window.SetParameter("GpcUrlRoot", "http://www.talvo.us/client/a/"));
  EXPECT_FALSE(window.SetParameter("GpcUrlRoot", "https://www.talvo.us/client/../x/"));
  EXPECT_EQ(Get("gpcurlroot"), "https://www.talvo.us/client/a/");
  EXPECT_EQ(window.m_strBadParamName, "GpcUrlRoot");
}

// The file goes to the folder of the first product version given; a null value is written empty; the
// start time is the clock's; a second page of the same version replaces the file; a plain file where
// the folder should be fails.
TEST_F(WindowParamsTest, ParameterFileHoldsEveryRecordAndTheTimeLast) {
  platform::SetWallClockOverride([] { return static_cast<int64_t>((978307200.0 + 1000.25) * 1e6); });
  const std::string folder = platform::UserApplicationSupportDir() + "/Talvo Folder/";
  gpctest::EmbedArgs page{{"gpcPRODUCTversion", "7,1"}, {"GpcProductVersion", "other"}}, second{page},
      blocked;
  page.Add("NullValue", nullptr);
  ASSERT_TRUE(SaveParameters(page.argc(), page.argn(), page.argv()));
  EXPECT_EQ(gpctest::ReadFile(folder + "7,1/talvoparameters.txt"),
            "[NAME]-=-gpcPRODUCTversion-=-[VALUE]-=-7,1-=-\r[NAME]-=-GpcProductVersion-=-[VALUE]-=-other-=-\r"
            "[NAME]-=-NullValue-=-[VALUE]-=--=-\r[NAME]-=-gpcstartworktime-=-[VALUE]-=-1000.250000-=-\r");
  EXPECT_FALSE(FileExists(folder + "other"));
  for (const std::string& made : {folder, folder + "7,1"}) {  // the session id is the user's alone
    struct stat info {};
    EXPECT_TRUE(stat(made.c_str(), &info) == 0 && (info.st_mode & 0777) == 0700) << made;
  }
  // The file is replaced whole, never written through: a link there is replaced, not followed.
  const std::string file = folder + "7,1/talvoparameters.txt", linked = folder + "linked";
  ASSERT_TRUE(gpctest::WriteFile(linked, "linked") && unlink(file.c_str()) == 0 && symlink(linked.c_str(), file.c_str()) == 0);
  ASSERT_TRUE(SaveParameters(second.argc(), second.argn(), second.argv()));
  EXPECT_EQ(gpctest::ReadFile(linked), "linked");
  EXPECT_NE(gpctest::ReadFile(file).find("[NAME]-=-gpcPRODUCTversion-=-"), std::string::npos);
  EXPECT_EQ(gpctest::ReadFile(file).find("NullValue"), std::string::npos);
  // A full disk leaves no file (never the last page's), and the instance goes on: the file is advisory.
  const std::string large(4000, 'v');
  gpctest::EmbedArgs big{{"GpcProductVersion", "7,1"}, {"Large", large.c_str()}};
  EXPECT_TRUE([&] {
    const ScopedFileSizeLimit disk(1000);
    return SaveParameters(big.argc(), big.argn(), big.argv());
  }());
  EXPECT_EQ(gpctest::ShellOutput("ls -A " + gpctest::ShellQuote(folder + "7,1")), "");
  blocked.Add("GpcProductVersion", "blocked");
  std::ofstream(folder + "blocked") << "x";
  EXPECT_FALSE(SaveParameters(blocked.argc(), blocked.argn(), blocked.argv()));
  // The default build takes a version that leads out of the folder; the hardened build does not.
  for (const bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    const std::string outside = hardened ? "../outside-hardened" : "../outside";
    gpctest::EmbedArgs escaping{{"GpcProductVersion", outside.c_str()}};
    EXPECT_EQ(SaveParameters(escaping.argc(), escaping.argn(), escaping.argv()), !hardened);
    EXPECT_EQ(FileExists(folder + outside + "/talvoparameters.txt"), !hardened);
  }
  gpc::SetHardenedForTesting(-1);
}

}  // namespace
