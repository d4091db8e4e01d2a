#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <plist/plist.h>

#include "gpcutil.h"
#include "safe_lib.h"
#include "util_test_folder.h"
#include "trace_capture.h"
#include "versionfordylib.h"

namespace {

class VersionTest : public ::testing::Test {
 protected:
  void SetUp() override { ClearCapturedTraces(); }

  std::string InfoPlist(const std::string& version) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>com.example.ext</string>"
           "<key>CFBundleVersion</key><string>" + version + "</string></dict></plist>\n";
  }
  // A bundle folder laid out as the extension ships: executable and property list.
  std::string Bundle(const std::string& name, const std::string& base, const std::string& version) {
    dir_.Write(name + "/Contents/MacOS/" + base, "\x7f" "ELF");
    dir_.Write(name + "/Contents/Info.plist", InfoPlist(version));
    return dir_ / name;
  }
  std::string Version(const std::string& path, bool* ok = nullptr) {
    char dest[256] = "stale";
    bool got = GetFileVersionString(path.c_str(), dest, sizeof dest);
    if (ok != nullptr) *ok = got;
    return dest;
  }

  ScratchFolder dir_;
};

bool SameVersion(const std::string& installed, const std::string& required) {
  int indicator = 1;
  return strcmp_s(installed.c_str(), RSIZE_MAX_STR, required.c_str(), &indicator) == EOK && indicator == 0;
}

// ---- FormalizeVersionString ----

TEST_F(VersionTest, FormalizeSplitsAtFiveSeparatorsOnly) {
  std::string out;
  FormalizeVersionString(out, "1, 2");
  EXPECT_EQ(out, "1,,2");
  FormalizeVersionString(out, "31.9.5\r\n");
  EXPECT_EQ(out, "31.9.5");
  FormalizeVersionString(out, ",1\n\n");
  EXPECT_EQ(out, ",1");
  FormalizeVersionString(out, "31\t9 5");
  EXPECT_EQ(out, "31,9,5");
  EXPECT_TRUE(TraceContains(1, "FormalizeVersionString, version = 31,9,5"));
}

TEST_F(VersionTest, FormalizeLeavesOutputForNullOrEmptyText) {
  std::string out = "kept";
  FormalizeVersionString(out, "");
  EXPECT_EQ(out, "kept");
  FormalizeVersionString(out, " \r\n");  // only empty pieces
  EXPECT_EQ(out, "kept");
  FormalizeVersionString(out, nullptr);
  EXPECT_EQ(out, "kept");
  EXPECT_TRUE(TraceContains(3, "ASSERT lpszSrc failed at file src/classic_client/gpc/common/gpcutil, line "));
}

// ---- GetFileVersionString on folders ----

TEST_F(VersionTest, BundleVersionGetsCommasSoOnlyTheCommaFormMatches) {
  std::string bundle = Bundle("zrgpcext64.bundle", "zrgpcext64", "31.9.5.100");
  bool ok = false;
  std::string installed = Version(bundle, &ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(installed, "31,9,5,100");
  std::string dotted, commas;
  FormalizeVersionString(dotted, "31.9.5.100");
  FormalizeVersionString(commas, "31,9,5,100");
  EXPECT_FALSE(SameVersion(installed, dotted));
  EXPECT_TRUE(SameVersion(installed, commas));
  EXPECT_TRUE(TraceContains(1, "GetFileVersionString, path = " + bundle + " is a Folder"));
  EXPECT_TRUE(TraceContains(1, "GetFileVersionString(...) version = 31,9,5,100"));
  // A trailing slash names the same bundle.
  EXPECT_EQ(Version(bundle + "/", &ok), "31,9,5,100");
}

TEST_F(VersionTest, MissingExecutableGivesNoVersion) {
  std::string bundle = Bundle("ext.bundle", "other-name", "1.0");
  bool ok = true;
  EXPECT_EQ(Version(bundle, &ok), "");  // emptied first
  EXPECT_FALSE(ok);
  EXPECT_TRUE(TraceContains(1, "GetFileVersionString for path = " + bundle + ", execfile not exist"));
}

TEST_F(VersionTest, FrameworkAndAppLayouts) {
  dir_.Write("Kit.framework/Versions/A/Resources/Info.plist", InfoPlist("2.5"));
  bool ok = true;
  Version(dir_ / "Kit.framework", &ok);
  EXPECT_FALSE(ok);  // executable Versions/A/Kit is missing, the property list is there
  dir_.Write("Kit.framework/Versions/A/Kit");
  EXPECT_EQ(Version(dir_ / "Kit.framework", &ok), "2,5");
  EXPECT_TRUE(ok);

  dir_.Write("Tool.app/Contents/MacOS/Tool");
  dir_.Write("Tool.app/Contents/Info.plist", InfoPlist("7.1"));
  EXPECT_EQ(Version(dir_ / "Tool.app", &ok), "7,1");
  // A folder with no known suffix is laid out like a bundle.
  dir_.Write("plain/Contents/MacOS/plain");
  dir_.Write("plain/Contents/Info.plist", InfoPlist("3"));
  EXPECT_EQ(Version(dir_ / "plain", &ok), "3");
}

TEST_F(VersionTest, BrokenOrKeylessPropertyListsAreRefused) {
  std::string bundle = Bundle("a.bundle", "a", "1");
  dir_.Write("a.bundle/Contents/Info.plist", "<plist><dict><key>CFBundleVersion</key>");
  bool ok = true;
  Version(bundle, &ok);
  EXPECT_FALSE(ok);
  EXPECT_TRUE(TraceContains(1, "GetFileVersionString(...) createDictionary failed"));
  dir_.Write("a.bundle/Contents/Info.plist", "<plist version=\"1.0\"><dict><key>CFBundleName</key><string>a</string></dict></plist>");
  Version(bundle, &ok);
  EXPECT_FALSE(ok);
  EXPECT_TRUE(TraceContains(1, "GetFileVersionString(...) get CFBundleVersion failed"));
  dir_.Write("a.bundle/Contents/Info.plist", "<plist version=\"1.0\"><array><string>1</string></array></plist>");
  Version(bundle, &ok);
  EXPECT_FALSE(ok);
  std::remove((bundle + "/Contents/Info.plist").c_str());
  Version(bundle, &ok);
  EXPECT_FALSE(ok);
}

TEST_F(VersionTest, BinaryPropertyListAndLongVersion) {
  std::string bundle = Bundle("b.bundle", "b", "x");
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "CFBundleVersion", plist_new_string(std::string(300, '9').c_str()));
  char* bin = nullptr;
  uint32_t len = 0;
  plist_to_bin(dict, &bin, &len);
  plist_free(dict);
  dir_.Write("b.bundle/Contents/Info.plist", std::string(bin, len));
  free(bin);
  bool ok = false;
  EXPECT_EQ(Version(bundle, &ok), std::string(255, '9'));
  EXPECT_TRUE(ok);
}

TEST_F(VersionTest, BadArgumentsAndMissingPath) {
  char dest[256] = "stale";
  EXPECT_FALSE(GetFileVersionString(nullptr, dest, sizeof dest));
  EXPECT_STREQ(dest, "");
  EXPECT_FALSE(GetFileVersionString((dir_ / "x").c_str(), nullptr, 0));
  EXPECT_TRUE(TraceContains(3, "ASSERT path failed"));
  EXPECT_TRUE(TraceContains(3, "ASSERT dest failed"));
  EXPECT_FALSE(GetFileVersionString((dir_ / "gone.bundle").c_str(), dest, sizeof dest));
  EXPECT_TRUE(TraceContains(1, "GetFileVersionString, file(" + dir_ / "gone.bundle" + ") not exist"));
}

// ---- Loose libraries ----

// The listing order of `folder` as the file system returns it.
std::vector<std::string> Listing(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  while (struct dirent* e = readdir(dir)) names.push_back(e->d_name);
  closedir(dir);
  return names;
}

TEST_F(VersionTest, LibraryVersionIsTheFirstMatchInListingOrder) {
  const std::vector<std::string> versions = {"2.0", "2.1", "1.9", "3.0", "10.4.2"};
  for (const auto& v : versions) dir_.Write("libfoo-" + v + ".dylib");
  dir_.Write("libfoo-9.9.so");        // other extension
  dir_.Write("libbar-8.8.dylib");     // other name
  dir_.Write("libfoo.dylib");         // no version
  dir_.Folder("libfoo-7.7.dylib");    // folders are skipped
  dir_.Link("libfoo-6.6.dylib", "libfoo-2.0.dylib");  // so are links

  std::string expected;
  for (const std::string& name : Listing(dir_.path())) {
    for (const auto& v : versions) {
      if (expected.empty() && name == "libfoo-" + v + ".dylib") expected = v;
    }
  }
  for (char& c : expected) c = c == '.' ? ',' : c;

  std::string version;
  ASSERT_TRUE(GetVersionFromDylib((dir_ / "libfoo-2.1.dylib").c_str(), version));
  EXPECT_EQ(version, expected);
  char dest[256];
  ASSERT_TRUE(GetFileVersionString((dir_ / "libfoo-2.1.dylib").c_str(), dest, sizeof dest));
  EXPECT_EQ(std::string(dest), expected);
  EXPECT_TRUE(TraceContains(1, "GetFileVersionString," + dir_ / "libfoo-2.1.dylib" + " version is " + expected));
}

TEST_F(VersionTest, LibraryVersionNeedsNameVersionExtension) {
  dir_.Write("libz-1.2.so");
  std::string version = "unchanged";
  EXPECT_TRUE(GetVersionFromDylib((dir_ / "libz-0.so").c_str(), version));  // the asked file need not exist
  EXPECT_EQ(version, "1,2");
  dir_.Write("libq-.so");  // an empty version is no version
  EXPECT_FALSE(GetVersionFromDylib((dir_ / "libq-1.so").c_str(), version));
  EXPECT_FALSE(GetVersionFromDylib((dir_ / "libz.so").c_str(), version));  // no "-": whole name wanted
  EXPECT_FALSE(GetVersionFromDylib((dir_ / "nowhere/libz-1.so").c_str(), version));
  EXPECT_TRUE(TraceContains(3, "GetVersionFromDylib, Cannot find folder(" + dir_ / "nowhere" + ")"));
  EXPECT_EQ(version, "1,2");
}

// ---- Unversioned links ----

TEST_F(VersionTest, LinkIsRenewedOnlyWhereAnUnversionedEntryExisted) {
  std::string lib = dir_.Write("libfoo-2.1.so");
  EXPECT_FALSE(IsDylibFileExists(lib.c_str(), true));
  EXPECT_FALSE(Exists(dir_ / "libfoo.so"));  // no link made where there was none
  EXPECT_TRUE(TraceContains(3, "try to unlink file(" + dir_ / "libfoo.so" + ") failed"));

  dir_.Write("libfoo.so", "old copy");
  EXPECT_FALSE(IsDylibFileExists(lib.c_str(), false));  // without makeLink nothing changes
  EXPECT_FALSE(IsSymlink(dir_ / "libfoo.so"));
  EXPECT_TRUE(IsDylibFileExists(lib.c_str(), true));
  ASSERT_TRUE(IsSymlink(dir_ / "libfoo.so"));
  char real_link[PATH_MAX], real_lib[PATH_MAX];
  ASSERT_NE(realpath((dir_ / "libfoo.so").c_str(), real_link), nullptr);
  ASSERT_NE(realpath(lib.c_str(), real_lib), nullptr);
  EXPECT_STREQ(real_link, real_lib);
  EXPECT_TRUE(IsDylibFileExists(lib.c_str(), true));  // an existing link is renewed
  EXPECT_TRUE(IsSymlink(dir_ / "libfoo.so"));
}

TEST_F(VersionTest, DylibNamesKeepTheirExtension) {
  std::string lib = dir_.Write("libfoo-2.1.dylib");
  dir_.Write("libfoo.dylib");
  EXPECT_TRUE(IsDylibFileExists(lib.c_str(), true));
  EXPECT_TRUE(IsSymlink(dir_ / "libfoo.dylib"));
  EXPECT_FALSE(Exists(dir_ / "libfoo.so"));
}

TEST_F(VersionTest, LinkOrFolderAtTheVersionedPathIsRemoved) {
  dir_.Write("libfoo-1.0.so");
  std::string link = dir_.Link("libfoo-2.0.so", "libfoo-1.0.so");
  std::string unversioned = dir_.Write("libfoo.so");
  EXPECT_FALSE(IsDylibFileExists(link.c_str(), false));
  EXPECT_FALSE(Exists(link));
  EXPECT_TRUE(Exists(unversioned));
  EXPECT_TRUE(Exists(dir_ / "libfoo-1.0.so"));  // the link's target stays

  std::string folder = dir_.Folder("libfoo-3.0.so");
  dir_.Write("libfoo-3.0.so/inner");
  EXPECT_FALSE(IsDylibFileExists(folder.c_str(), true));
  EXPECT_FALSE(Exists(folder));
  EXPECT_FALSE(Exists(unversioned));  // with makeLink the unversioned entry goes too
}

TEST_F(VersionTest, DylibArgumentChecks) {
  EXPECT_FALSE(IsDylibFileExists(nullptr, true));
  EXPECT_TRUE(TraceContains(3, "ASSERT inOriginalFile failed"));
  EXPECT_FALSE(IsDylibFileExists("", true));
  EXPECT_TRUE(TraceContains(3, "ASSERT strnlen_s(inOriginalFile, 0x7fffffff) failed"));
  EXPECT_FALSE(IsDylibFileExists((dir_ / "libnone-1.so").c_str(), true));
  std::string long_name = dir_.path() + "/" + std::string(1100 - dir_.path().size(), 'a') + "-1.so";
  EXPECT_FALSE(IsDylibFileExists(long_name.c_str(), true));
}

TEST_F(VersionTest, FileExistsRenewsTheLibraryLink) {
  std::string lib = dir_.Write("libext-4.2.so");
  std::string stale = dir_.Link("libext.so", "libext-4.1.so");  // dangling link to an old version
  EXPECT_TRUE(FileExists(lib));
  ASSERT_TRUE(IsSymlink(stale));
  char real_link[PATH_MAX];
  ASSERT_NE(realpath(stale.c_str(), real_link), nullptr);
  EXPECT_EQ(std::string(real_link).substr(std::string(real_link).rfind('/') + 1), "libext-4.2.so");

  std::string dylib = dir_.Write("libold-1.dylib");
  EXPECT_FALSE(FileExists(dylib));  // no unversioned entry to renew
  EXPECT_FALSE(Exists(dir_ / "libold.dylib"));
}

// A "-" in a folder name is never taken for the version separator.
TEST_F(VersionTest, UnversionedNameStaysInTheLibrarysFolder) {
  std::string lib = dir_.Write("talvo-gpc64.plugin/Contents/Frameworks/lib7zip.so");
  std::string outside = dir_.Write("talvo.so");
  EXPECT_FALSE(IsDylibFileExists(lib.c_str(), true));
  EXPECT_TRUE(Exists(outside));
  EXPECT_FALSE(IsSymlink(outside));
  EXPECT_TRUE(Exists(lib));
}

}  // namespace
