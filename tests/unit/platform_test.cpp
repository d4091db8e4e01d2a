#include <gtest/gtest.h>
#include <sys/stat.h>

#include <dlfcn.h>
#include <elf.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <vector>

#include "platform/bundle.h"
#include "platform/clock.h"
#include "platform/debug_string.h"
#include "platform/dynamic_library.h"
#include "platform/folders.h"
#include "platform/system_version.h"
#include "scoped_env.h"
#include "util_test_folder.h"

namespace {

const char kExtension[] = GPC_BUNDLE_DIR "/Contents/Frameworks/zrgpcext64.bundle/Contents/MacOS/zrgpcext64";
const char kUnpacker[] = GPC_BUNDLE_DIR "/Contents/Frameworks/lib7zip.so";

TEST(Platform, SystemVersionClockAndPascalStrings) {
  EXPECT_GE(platform::SystemVersion(), 0x1060u);
  platform::SetWallClockOverride([] { return int64_t(978307200) * 1000000 + 1500000; });
  EXPECT_DOUBLE_EQ(platform::AbsoluteTimeGetCurrent(), 1.5);  // seconds since 2001-01-01 GMT
  platform::SetWallClockOverride(nullptr);
  using namespace std::chrono;
  auto micros = [](auto at) { return int64_t(duration_cast<microseconds>(at.time_since_epoch()).count()); };
  const int64_t wallBefore = micros(system_clock::now()), wall = platform::WallClockMicros();
  EXPECT_TRUE(wallBefore <= wall && wall <= micros(system_clock::now())) << wall;  // to the microsecond
  const int64_t steadyBefore = micros(steady_clock::now()), steady = platform::MonotonicMicros();
  EXPECT_TRUE(steadyBefore <= steady && steady <= micros(steady_clock::now())) << steady;
  unsigned char pascal[256];
  platform::MakePascalString(std::string(300, 'x').c_str(), pascal);
  EXPECT_EQ(pascal[0], 255);
}

// GPC_SYSTEM_VERSION is read once, as hexadecimal: in a fresh process.
TEST(Platform, SystemVersionFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("GPC_SYSTEM_VERSION", "1058", 1);
        _exit(platform::SystemVersion() == 0x1058 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(Platform, Folders) {
  ScratchFolder dir;
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {dir / "nested/data/", "/none", dir / "nested/data"},  // made when missing
      {"relative/data", dir.path(), dir / ".local/share"},  // only an absolute XDG_DATA_HOME counts
      {"/proc/no-such-place/data", "/none", ""}};
  for (const auto& [xdg, home, want] : cases) {
    ScopedEnv x("XDG_DATA_HOME", xdg), h("HOME", home);
    EXPECT_EQ(platform::UserApplicationSupportDir(), want);
    EXPECT_TRUE(want.empty() || Exists(want));
  }
  struct stat made {};  // private to the user, as the XDG base directories ask
  EXPECT_TRUE(stat((dir / "nested").c_str(), &made) == 0 && (made.st_mode & 0777) == 0700);
  EXPECT_TRUE(stat((dir / ".local/share").c_str(), &made) == 0 && (made.st_mode & 0777) == 0700);
  ScopedEnv tmp("TMPDIR", "/no/such/folder");
  EXPECT_EQ(platform::TempDir(), "/tmp/");
  ScopedEnv mine("TMPDIR", dir.path());
  EXPECT_EQ(platform::TempDir(), dir.path() + "/");
}

TEST(Platform, BundlesAndExecutables) {
  ScratchFolder dir;
  const std::string bundle = dir / "p.plugin";
  dir.Write("p.plugin/Contents/Info.plist", "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
                                            "<string>com.vantrel.talvo.plugin.gpc64</string></dict></plist>\n");
  EXPECT_EQ(platform::BundleInfoString(bundle, "CFBundleIdentifier"), platform::kPluginBundleIdentifier);
  EXPECT_EQ(platform::BundleInfoString(bundle, "CFBundleVersion") + platform::BundleInfoString(dir.path(), "x"), "");
  EXPECT_EQ(platform::PluginBundlePath(), "");  // a test program lies in no bundle
  dir.Write("e.bundle/Contents/Info.plist", "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
                                            "<string>../../evil</string></dict></plist>\n");
  dir.Lay("e.bundle/evil e.bundle/Contents/MacOS/e");
  EXPECT_EQ(platform::BundleExecutablePath(dir / "e.bundle"), dir / "e.bundle/Contents/MacOS/e");  // a name, not a path
  dir.Write("e.bundle/Contents/Info.plist", BinaryPlist("CFBundleExecutable", "e~\u00e9../../evil"));
  EXPECT_EQ(platform::BundleExecutablePath(dir / "e.bundle"), dir / "e.bundle/Contents/MacOS/e");  // text ends at a NUL

  std::string elf = gpctest::ReadFile("/proc/self/exe");
  EXPECT_TRUE(platform::ExecutableMatchesOwnArchitecture(dir.Write("same", elf)));
  std::string x32 = elf;
  x32[EI_CLASS] = ELFCLASS32;  // this machine, the 32-bit class
  EXPECT_FALSE(platform::ExecutableMatchesOwnArchitecture(dir.Write("x32", x32)));
  elf[18] ^= 0x01;  // e_machine: another machine
  EXPECT_FALSE(platform::ExecutableMatchesOwnArchitecture(dir.Write("other", elf)));

  // A library whose last loadable segment ends exactly at the end of the file is complete.
  std::string lib = gpctest::ReadFile(kExtension), error;
  Elf64_Ehdr header{};
  memcpy(&header, lib.data(), std::min(lib.size(), sizeof header));
  uint64_t end = 0;
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    memcpy(&segment, lib.data() + header.e_phoff + i * sizeof segment, sizeof segment);
    if (segment.p_type == PT_LOAD) end = std::max(end, segment.p_offset + segment.p_filesz);
  }
  void* library = platform::OpenLibrary(dir.Write("cut", lib.substr(0, end)), &error);
  EXPECT_NE(library, nullptr) << error;
  platform::CloseLibrary(library);
}

// An update replaces a library that another instance still runs: each load gets the file that
// lies at the path now, and no name made for it is left beside it.
TEST(Platform, ALibraryReplacedWhileLoadedLoadsTheNewFile) {
  ScratchFolder dir;
  const std::string path = dir / "x.so";
  auto loadedAs = [](void* library, const char* symbol) {
    Dl_info info{};
    return dladdr(platform::LibrarySymbol(library, symbol), &info) != 0 ? std::string(info.dli_fname) : "";
  };
  std::vector<void*> handles;
  const std::pair<const char*, const char*> loads[] = {
      {kExtension, "GpcInitInstance"}, {kUnpacker, "GpcDecompressFile7z"}, {nullptr, "GpcDecompressFile7z"},
      {kExtension, "GpcInitInstance"}, {kUnpacker, "GpcDecompressFile7z"}};
  for (const auto& [file, symbol] : loads) {
    if (file != nullptr) unlink(path.c_str()), dir.Write("x.so", gpctest::ReadFile(file));
    std::string error;
    void* library = platform::OpenLibrary(path, &error);
    ASSERT_NE(library, nullptr) << error;
    // Each is found in the library's own folder ($ORIGIN) and under its own path's spelling.
    const std::string name = loadedAs(library, symbol);
    EXPECT_EQ(std::filesystem::path(name).lexically_normal().parent_path(), dir.path()) << name;
    // A new file is a new object; the same file again is the object already loaded, and letting go
    // of it once leaves it loaded under its first name.
    EXPECT_EQ(std::find(handles.begin(), handles.end(), library) == handles.end(), file != nullptr) << symbol;
    if (file == nullptr) platform::CloseLibrary(library);
    else handles.push_back(library);
  }
  EXPECT_EQ(dir.Describe(), "x.so");
  for (void* library : handles) platform::CloseLibrary(library);
  void* again = platform::OpenLibrary(path, nullptr);  // its spelling is free once its object is gone
  EXPECT_EQ(loadedAs(again, "GpcDecompressFile7z"), path);
  platform::CloseLibrary(platform::OpenLibrary(path, nullptr));  // the same file needs no new spelling

  // An object still held elsewhere keeps its spelling after its last close here.
  void* held = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  platform::CloseLibrary(again);
  unlink(path.c_str()), dir.Write("x.so", gpctest::ReadFile(kExtension));
  EXPECT_EQ(dlopen((dir / "./x.so").c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
  void* fresh = platform::OpenLibrary(path, nullptr);
  EXPECT_NE(platform::LibrarySymbol(fresh, "GpcInitInstance"), nullptr);
  platform::CloseLibrary(fresh);
  dlclose(held);
}

}  // namespace
