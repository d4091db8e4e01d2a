#include <gtest/gtest.h>

#include <tuple>

#include "common/gpcutil.h"
#include "common/versionfordylib.h"
#include "util_test_folder.h"

namespace {

std::string Plist(const std::string& version) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
         "<string>com.example.ext</string><key>CFBundleVersion</key><string>" + version + "</string></dict></plist>\n";
}

TEST(Version, FormalizeSplitsAtFiveSeparatorsOnly) {
  const std::pair<const char*, const char*> cases[] = {{"1, 2", "1,,2"}, {"31.9.5\r\n", "31.9.5"}, {",1\n\n", ",1"},
                                                       {"31\t9 5", "31,9,5"}, {"", "kept"}, {" \r\n", "kept"}};
  for (const auto& [text, want] : cases) {
    std::string out = "kept";
    FormalizeVersionString(out, text);
    EXPECT_EQ(out, want) << text;
  }
}

// Numbers compare as numbers of any size, trailing zeros aside; a piece that is no number (or
// none at all) leaves two versions unordered.
TEST(Version, NewerComparesNumberByNumber) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"2,10", "2,9,9", true},  {"2,9,9", "2,10", false}, {"2,1,0", "2,1", false}, {"2,1,0,1", "2,1", true},
      {"010", "20", false},     {"2.1", "1", false},      {"2,,1", "1", false},   {"2", "1,x", false},
      {"99999999999999999999999", "99999999999999999999998", true}};
  for (const auto& [a, b, newer] : cases) EXPECT_EQ(IsVersionNewer(a, b), newer) << a << " " << b;
}

TEST(Version, FolderLayoutsAndTheirPropertyLists) {
  const std::string exe = "b.bundle/Contents/MacOS/b", info = "b.bundle/Contents/Info.plist";
  const std::string kit = "K.framework/Versions/A/Resources/Info.plist";
  struct Case { std::string exe, plistPath, plist, asked; bool ok; std::string want; };
  const Case cases[] = {
      {exe, info, Plist("31.9.5.100"), "b.bundle", true, "31,9,5,100"},
      {exe, info, Plist("31.9.5.100"), "b.bundle/", true, "31,9,5,100"},
      {exe, info, Plist(std::string(300, '9')), "b.bundle", true, std::string(255, '9')},
      {exe, info, BinaryPlist("CFBundleVersion", "1.0~\u00e9"), "b.bundle", true, "1,0"},  // text ends at a NUL
      {"b.bundle/Contents/MacOS/other", info, Plist("1.0"), "b.bundle", false, ""},  // executable missing
      {"x", kit, Plist("2.5"), "K.framework", false, ""},
      {"K.framework/Versions/A/K", kit, Plist("2.5"), "K.framework", true, "2,5"},
      {"T.app/Contents/MacOS/T", "T.app/Contents/Info.plist", Plist("7.1"), "T.app", true, "7,1"},
      {"F.framework/T.app/Contents/MacOS/T", "F.framework/T.app/Versions/A/Resources/Info.plist", Plist("7.2"),
       "F.framework/T.app", true, "7,2"},  // an application inside a framework keeps its own executable
      {"real/l.bundle/Contents/MacOS/l", "real/l.bundle/Contents/Info.plist", Plist("4.4"), "l.bundle", true, "4,4"},
      {"p/Contents/MacOS/p", "p/Contents/Info.plist", Plist("3"), "p", true, "3"},  // no suffix: a bundle
      {exe, info, "<plist><dict><key>CFBundleVersion</key>", "b.bundle", false, ""},
      {exe, info, "<plist version=\"1.0\"><dict><key>CFBundleName</key><string>a</string></dict></plist>", "b.bundle",
       false, ""},
      {exe, info, "<plist version=\"1.0\"><array><string>1</string></array></plist>", "b.bundle", false, ""},
      {exe, "x", "", "b.bundle", false, ""},
      {exe, info, Plist("1"), "gone.bundle", false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.asked + " " + c.plist.substr(0, 60));
    ScratchFolder dir;
    dir.Write(c.exe);
    dir.Write(c.plistPath, c.plist);
    dir.Lay("l.bundle@real/l.bundle");  // a link to a bundle is followed
    char dest[256] = "stale";
    EXPECT_EQ(GetFileVersionString((dir / c.asked).c_str(), dest, sizeof dest), c.ok);
    EXPECT_EQ(dest, c.want);
  }
  // What the packer compares is read the same way: up to a NUL, at most 255 bytes.
  const std::pair<std::string, std::string> texts[] = {{Plist(std::string(300, '9')), std::string(255, '9')},
                                                        {BinaryPlist("CFBundleVersion", "1.0~\u00e9"), "1.0"}};
  for (const auto& [plist, want] : texts) {
    std::string version;
    EXPECT_TRUE(BundleVersionOfPlist(plist, version) && version == want) << version;
  }
}

TEST(Version, LibraryVersionComesFromAVersionedFileOfTheSameNameAndExtension) {
  ScratchFolder dir;  // other extensions and names, no version, folders and links do not count
  dir.Lay("libfoo-9.9.so libbar-8.8.dylib libfoo.dylib libfoo-7.7.dylib/ libfoo-6.6.dylib@libbar-8.8.dylib");
  std::string version;
  EXPECT_FALSE(GetVersionFromDylib((dir / "libfoo-1.dylib").c_str(), version));
  char dest[256];
  ASSERT_TRUE(GetFileVersionString(dir.Write("libfoo-10.4.2.dylib").c_str(), dest, sizeof dest));
  EXPECT_STREQ(dest, "10,4,2");
  const std::tuple<const char*, const char*, bool, const char*> named[] = {
      {"libz-1.2.so", "libz-0.so", true, "1,2"},  // the asked file need not exist
      {"libq-.so", "libq-1.so", false, ""},       // an empty version is no version
      {"libz-1.2.so", "libz.so", false, ""},      // no "-": the whole name is wanted
      {"libz-1.2.so", "nowhere/libz-1.so", false, ""}};
  for (const auto& [present, asked, ok, want] : named) {
    ScratchFolder libs;
    libs.Write(present);
    version = "";
    EXPECT_EQ(GetVersionFromDylib((libs / asked).c_str(), version), ok) << asked;
    EXPECT_EQ(version, want) << asked;
  }
}

TEST(Version, UnversionedLibraryNames) {
  // `asked` is checked with IsDylibFileExists (or FileExists when `viaFileExists`); `after` is what the
  // folder then holds.
  struct Case { const char *before, *asked; bool makeLink, viaFileExists, result; const char* after; };
  const Case cases[] = {
      {"libfoo-2.1.so", "libfoo-2.1.so", true, false, false, "libfoo-2.1.so"},  // no link where none was
      {"libfoo-2.1.so libfoo.so", "libfoo-2.1.so", false, false, false, "libfoo-2.1.so libfoo.so"},
      {"libfoo-2.1.so libfoo.so", "libfoo-2.1.so", true, false, true, "libfoo-2.1.so libfoo.so@libfoo-2.1.so"},
      {"libfoo-2.1.so libfoo.so@libfoo-2.1.so", "libfoo-2.1.so", true, false, true,
       "libfoo-2.1.so libfoo.so@libfoo-2.1.so"},
      {"libfoo-2.1.dylib libfoo.dylib", "libfoo-2.1.dylib", true, false, true,
       "libfoo-2.1.dylib libfoo.dylib@libfoo-2.1.dylib"},
      {"libfoo-1.0.so libfoo-2.0.so@libfoo-1.0.so libfoo.so", "libfoo-2.0.so", false, false, false,
       "libfoo-1.0.so libfoo.so"},  // a link at the versioned path goes, not its target
      {"libfoo-3.0.so/inner libfoo.so", "libfoo-3.0.so", true, false, false, ""},
      {"", "libnone-1.so", true, false, false, ""},
      {"t-gpc64.plugin/Lib/lib7zip.so t.so", "t-gpc64.plugin/Lib/lib7zip.so", true, false, false,
       "t-gpc64.plugin/ t-gpc64.plugin/Lib/ t-gpc64.plugin/Lib/lib7zip.so t.so"},  // a "-" in a folder is no version
      {"libext-4.2.so libext.so@libext-4.1.so", "libext-4.2.so", true, true, true,
       "libext-4.2.so libext.so@libext-4.2.so"},
      {"libold-1.dylib", "libold-1.dylib", true, true, false, "libold-1.dylib"},
      {"x-2.dylib.bundle/ x.bundle/", "x-2.dylib.bundle", true, false, false, "x.bundle/"},  // no library's name
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.before) + " / " + c.asked);
    ScratchFolder dir;
    dir.Lay(c.before);
    std::string asked = dir / c.asked;
    EXPECT_EQ(c.viaFileExists ? FileExists(asked) : IsDylibFileExists(asked.c_str(), c.makeLink), c.result);
    EXPECT_EQ(dir.Describe(), c.after);
  }
  EXPECT_FALSE(IsDylibFileExists(("/tmp/" + std::string(1100, 'a') + "-1.so").c_str(), true));
}

}  // namespace
