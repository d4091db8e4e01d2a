// A fetched package inside one instance: checked against the page's digest and signature, unpacked by
// the shipped library, and the user's or the shipped extension loaded and driven.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "extension_package.h"
#include "fake_browser.h"
#include "common/gpcutil.h"
#include "common/hardening.h"
#include "http_test_server.h"
#include "platform/bundle.h"
#include "platform/folder_lock.h"
#include "platform/folders.h"
#include "platform/system_version.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace_capture.h"

// Renames as a file system without an exchange of names (NFS, SMB) makes them, and one plain rename
// (counted from 1) that fails.
static struct {
  bool noExchange;
  int failingPlain;
} g_renames{};
extern "C" int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned flags) noexcept {
  if (g_renames.noExchange && (flags & RENAME_EXCHANGE) != 0) return errno = EINVAL, -1;
  if (flags == 0 && g_renames.failingPlain > 0 && --g_renames.failingPlain == 0) return errno = EIO, -1;
  return static_cast<int>(syscall(SYS_renameat2, fromDir, from, toDir, to, flags));
}

namespace {

const std::string kShippedBundle = GPC_BUNDLE_DIR;
const std::string kSampleBundle = kShippedBundle + "/Contents/Frameworks/zrgpcext64.bundle";
const std::string kLibrary = kShippedBundle + "/Contents/Frameworks/lib7zip.so";
const char kPackageVersion[] = "2.0.0.7";

bool Shell(const std::string& command) {
  bool ok = false;
  gpctest::ShellOutput(command, &ok);
  return ok;
}
bool Copy(const std::string& from, const std::string& to) {
  const std::string q = gpctest::ShellQuote(to);
  return Shell("rm -rf " + q + " && mkdir -p \"$(dirname " + q + ")\" && cp -a " + gpctest::ShellQuote(from) +
               " " + q);
}

// Made once: the signer, a signed package of the sample extension and an older installed version.
struct Fixtures {
  gpctest::TempFolder folder{"extension"};
  gpctest::PackageSigner signer{folder.path()};
  const std::string package = folder.path() + "/zrgpcext64.bundle.7z", old = folder.path() + "/old";
  const bool ok = signer.ok() &&
                  gpctest::PackExtension(kSampleBundle, kPackageVersion, folder.path(), package) &&
                  platform::MakeDirectories(old, 0755) &&
                  gpctest::PackExtension(kSampleBundle, "1.0.0.0", old, old + "/old.7z");
};
const Fixtures& Made() {
  static const Fixtures fixtures;
  return fixtures;
}

class WindowExtensionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Made().ok) << "the signer or the packages could not be made";
    platform::SetPluginBundlePathOverride(kShippedBundle);
    NewWindow({});
    package = env.dir() + "/package.7z";
    ASSERT_TRUE(Copy(Made().package, package));
  }
  void TearDown() override {
    window.reset();
    platform::SetPluginBundlePathOverride("");
    platform::SetSystemVersionOverride(0);
    gpc::SetHardenedForTesting(-1);
  }
  void NewWindow(const gpctest::PageParams& params) {
    window = std::make_unique<CGpcWindow>(&npp);
    window->m_bHalted = 0;
    window->m_bExtMgrStarted = 1;  // these tests drive the manager's steps themselves
    window->SetParameterVector("GpcErrorPageUrl", "https://127.0.0.1:9/error");
    for (const auto& [name, value] : params) window->SetParameterVector(name, value);
  }
  std::string UserBundle() {
    return platform::UserApplicationSupportDir() + "/Talvo Folder/zrgpcext64.bundle";
  }
  std::string InstalledVersion() { return platform::BundleInfoString(UserBundle(), "CFBundleVersion"); }
  // The codes of the error pages queued for the whole page.
  std::vector<int> ShownMessages() {
    std::vector<int> codes;
    for (const CFrameTarget* target : window->m_vectorFrameTarget) {
      const size_t open = target->m_strUrl.rfind("%5B");
      if (target->m_strTarget == "_top" && open != std::string::npos &&
          target->m_strUrl.find("ErrorMsg=") < open)
        codes.push_back(std::atoi(target->m_strUrl.c_str() + open + 3));
    }
    return codes;
  }
  void Deliver(const char* path) {
    CGpcExtMgr::GpcGetFileNotify(nullptr, &window->m_extMgr, GPC_GETFILE_COMPLETE, const_cast<char*>(path));
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  std::unique_ptr<CGpcWindow> window;
  std::string package;
};

// A refused package shows its message, halts the instance and leaves the installed extension as it
// was; the hardened build trusts only anchors shipped in the plug-in.
TEST_F(WindowExtensionTest, InstallsOnlyAGenuinePackage) {
  const gpctest::PackageSigner& s = Made().signer;
  const gpctest::PageParams good = s.PackageParameters(package);
  auto with = [&](const gpctest::PageParams& changes) {
    gpctest::PageParams params = changes;  // an empty value leaves the parameter out
    for (const auto& entry : good)
      if (std::none_of(changes.begin(), changes.end(), [&](const auto& c) { return c.first == entry.first; }))
        params.push_back(entry);
    return params;
  };
  std::string otherDigest = good[0].second;
  otherDigest.back() = otherDigest.back() == '0' ? '1' : '0';
  const std::string anchored = env.dir() + "/anchored.plugin",
                    anchors = anchored + "/Contents/Resources/Anchors/";
  ASSERT_TRUE(Copy(kShippedBundle, anchored) && Copy(s.Path("root.pem"), anchors + "root.pem") &&
              Shell("openssl x509 -in " + gpctest::ShellQuote(anchors + "root.pem") + " -outform DER -out " +
                    gpctest::ShellQuote(anchors + "root.der")));
  const struct {
    const char* name;
    gpctest::PageParams params;
    int message;  // 0: accepted and installed
    bool hardened = false, anchored = false;
    uint32_t system = 0;
  } cases[] = {
      {"GoodSha256", good, 0},
      {"GoodSha1", s.PackageParameters(package, "sha1"), 0},
      {"OldSystemLeavesSha256Unchecked", with({{"GpcExtHash", "not the digest"}, {"GpcCertification", "x"}}),
       0, false, false, 0x1058},
      {"DigestDiffersInItsLastCharacter", with({{"GpcExtHash", otherDigest}}), 111},
      {"Sha256CheckedFrom106On", with({{"GpcExtHash", otherDigest}}), 111, false, false, 0x1060},
      {"UpperCaseMethod", with({{"GpcHashMethod", "SHA1"}}), 111},
      {"NoCertificationWithoutSiteLock", with({{"GpcCertification", ""}, {"gpcsitelock", "0"}}), 111},
      {"NoSignature", with({{"GpcExtSignature", ""}}), 111},
      {"SignatureOfAnotherDigest", with({{"GpcExtSignature", s.Sign(otherDigest)}}), 103},
      {"NullCertification", with({{"GpcCertification", "null"}}), 111},
      {"UntrustedChain", with({{"GpcCertification", s.Chain("vendor", false)}}), 103},
      {"HardenedWithTheRootShipped", good, 0, true, true},
      {"HardenedRefusesSha1", s.PackageParameters(package, "sha1"), 111, true, true},
      {"HardenedWithTheRootOnlyOnThePage", good, 103, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    gpc::SetHardenedForTesting(c.hardened);
    platform::SetSystemVersionOverride(c.system);
    platform::SetPluginBundlePathOverride(c.anchored ? anchored : kShippedBundle);
    ASSERT_TRUE(Copy(Made().package, package) && Copy(Made().old + "/zrgpcext64.bundle", UserBundle()));
    NewWindow(c.params);
    Deliver(package.c_str());
    EXPECT_EQ(ShownMessages(), c.message ? std::vector<int>{c.message} : std::vector<int>{});
    EXPECT_EQ(window->m_bHalted != 0, c.message != 0);
    EXPECT_EQ(window->m_bNeedInitExtension != 0, c.message == 0);
    EXPECT_EQ(InstalledVersion(), c.message ? "1.0.0.0" : kPackageVersion);
    EXPECT_EQ(FileExists(package), c.message != 0) << "an installed package is deleted";
  }
}

// Only a completion with a path is looked at; a failed download shows 111; a package that fails to
// unpack still loads what is there.
TEST_F(WindowExtensionTest, CompletionsThatInstallNothing) {
  NewWindow(Made().signer.PackageParameters(package));
  CGpcExtMgr::GpcGetFileNotify(nullptr, &window->m_extMgr, GPC_GETFILE_PROGRESS,
                               reinterpret_cast<void*>(4096));
  CGpcExtMgr::GpcGetFileNotify(nullptr, nullptr, GPC_GETFILE_COMPLETE, const_cast<char*>(package.c_str()));
  EXPECT_TRUE(ShownMessages().empty() && !window->m_bHalted);
  Deliver(nullptr);
  EXPECT_EQ(ShownMessages(), std::vector<int>{111});

  ASSERT_EQ(truncate(package.c_str(), 200), 0);
  NewWindow(Made().signer.PackageParameters(package));
  Deliver(package.c_str());
  EXPECT_TRUE(window->m_bNeedInitExtension && !window->m_bHalted);
}

// The default build deletes the old extension first; the hardened one replaces it only with a whole
// extraction, also where names cannot be exchanged, and leaves no staging folder behind. A failed
// package stays for a later try.
TEST_F(WindowExtensionTest, TheHardenedBuildKeepsTheInstalledExtensionWhenUnpackingFails) {
  for (const bool hardened : {false, true}) {
    SCOPED_TRACE(hardened ? "hardened" : "default");
    gpc::SetHardenedForTesting(hardened);
    ASSERT_TRUE(Copy(Made().old + "/zrgpcext64.bundle", UserBundle()) && Copy(Made().package, package));
    ASSERT_EQ(truncate(package.c_str(), 2000), 0);
    EXPECT_NE(GpcUnpackFile(window.get(), package.c_str(), UserBundle().c_str()), 0u);
    EXPECT_EQ(InstalledVersion(), hardened ? "1.0.0.0" : "");
    EXPECT_TRUE(FileExists(package));
    ASSERT_TRUE(Copy(Made().package, package));
    if (hardened) {  // without an exchange of names the old bundle steps aside, and back if need be
      g_renames = {true, 2};
      EXPECT_NE(window->UnpackFile(package.c_str(), UserBundle().c_str(), 0), 0u);
      EXPECT_EQ(InstalledVersion(), "1.0.0.0");
      g_renames = {true, 0};
    }
    EXPECT_EQ(window->UnpackFile(package.c_str(), UserBundle().c_str(), 0), 0u);
    g_renames = {};
    EXPECT_EQ(InstalledVersion(), kPackageVersion);
    // An older package never replaces a newer extension in the hardened build.
    ASSERT_TRUE(Copy(Made().old + "/old.7z", package));
    EXPECT_EQ(window->UnpackFile(package.c_str(), UserBundle().c_str(), 0) == 0, !hardened);
    EXPECT_EQ(InstalledVersion(), hardened ? kPackageVersion : "1.0.0.0");
    EXPECT_EQ(gpctest::ShellOutput("ls -A " + gpctest::ShellQuote(UserBundle() + "/..")),
              "zrgpcext64.bundle\n");
    // Targets in folders not made yet, a bundle and a plain folder: made, and open to read.
    for (const char* target : {"/new/deep/zrgpcext64.bundle", "/new/files"}) {
      const std::string path = env.dir() + (hardened ? "/hardened" : "/default") + target;
      ASSERT_TRUE(Copy(Made().package, package));
      EXPECT_EQ(GpcUnpackFile(window.get(), package.c_str(), path.c_str()), 0u) << path;
      struct stat info {};
      EXPECT_TRUE(stat(path.c_str(), &info) == 0 && (info.st_mode & 0555) == 0555) << path;
    }
    // A bundle whose name holds ".dylib" is no library: once unpacked it is not deleted as one.
    const std::string dylib = env.dir() + (hardened ? "/hardened" : "/default") + "/my.dylib.bundle";
    ASSERT_TRUE(Shell("cd " + gpctest::ShellQuote(env.dir()) + " && rm -rf my.dylib.bundle d.7z && cp -a " +
                      gpctest::ShellQuote(kSampleBundle) + " my.dylib.bundle && 7z a d.7z my.dylib.bundle"));
    EXPECT_EQ(GpcUnpackFile(window.get(), (env.dir() + "/d.7z").c_str(), dylib.c_str()), 0u);
    EXPECT_TRUE(isDir(dylib + "/Contents/MacOS"));
  }
}

// An install unpacking in place killed half-way (here by the file-size limit's signal) leaves a
// whole Info.plist and executable and later files missing: that bundle is neither trusted nor
// loaded until a whole install in either build replaces it. A folder at the marker's name counts
// for nothing, and the extension's own unpacks leave no marker.
TEST_F(WindowExtensionTest, ABundleLeftByAKilledInstallIsReplacedAndNotLoaded) {
  const std::string big = env.dir() + "/big", resources = big + "/zrgpcext64.bundle/Contents/Resources";
  ASSERT_TRUE(Copy(kSampleBundle, big + "/zrgpcext64.bundle") && platform::MakeDirectories(resources, 0755) &&
              Shell("head -c 300000 /dev/urandom >" + gpctest::ShellQuote(resources + "/big.bin")) &&
              !gpctest::PackWithTheTool(Made().signer, big + "/zrgpcext64.bundle", big).empty());
  const std::string packed = big + "/zrgpcext64.bundle.7z";  // in order of names: the resources last
  const std::string talvo = platform::UserApplicationSupportDir() + "/Talvo Folder";
  for (const bool hardened : {false, true}) {
    SCOPED_TRACE(hardened ? "then hardened" : "then default");
    NewWindow({});
    gpctest::RemoveTree(talvo);
    ASSERT_TRUE(Copy(packed, package));
    EXPECT_FALSE(gpctest::InChild([&] {
      const rlimit limit{200000, 200000};
      setrlimit(RLIMIT_FSIZE, &limit);
      window->m_extMgr.InstallPackage(package.c_str());
      return true;
    }));
    ASSERT_EQ(InstalledVersion(), "1.0.0.1");
    struct stat made {};  // made for the user alone
    EXPECT_TRUE(stat(talvo.c_str(), &made) == 0 && (made.st_mode & 0777) == 0700);
    EXPECT_TRUE(window->m_extMgr.NeedUpdate(UserBundle().c_str(), "1,0,0,1"));
    ClearCapturedTraces();
    window->InitExtension();
    EXPECT_GE(gpctest::LogCount("load GPC extension:" + kSampleBundle), 1);
    gpc::SetHardenedForTesting(hardened);
    window->m_extMgr.InstallPackage(package.c_str());
    gpc::SetHardenedForTesting(false);
    EXPECT_FALSE(window->m_extMgr.NeedUpdate(UserBundle().c_str(), "1,0,0,1"));
    EXPECT_EQ(gpctest::ShellOutput("ls -A " + gpctest::ShellQuote(talvo)), "zrgpcext64.bundle\n");
  }
  ASSERT_EQ(mkdir(UnfinishedMarkerOf(UserBundle()).c_str(), 0700), 0);
  EXPECT_FALSE(window->m_extMgr.NeedUpdate(UserBundle().c_str(), "1,0,0,1"));
  ASSERT_TRUE(Copy(Made().package, package) && truncate(package.c_str(), 2000) == 0);
  EXPECT_NE(GpcUnpackFile(window.get(), package.c_str(), (env.dir() + "/own/x.app").c_str()), 0u);
  EXPECT_EQ(gpctest::ShellOutput("ls -A " + gpctest::ShellQuote(env.dir() + "/own") + " 2>/dev/null"), "");
}

// A bundle packed read-only replaces another one for a user who is not root, in both builds: moving
// a folder to another parent rewrites its "..", which needs the owner's write access to it.
TEST_F(WindowExtensionTest, AReadOnlyBundleReplacesAnotherForAUserWhoIsNotRoot) {
  const std::string q = gpctest::ShellQuote(env.dir());
  ASSERT_TRUE(Copy(kSampleBundle, env.dir() + "/ro/zrgpcext64.bundle") &&
              Shell("cd " + q + "/ro && chmod -R a-w zrgpcext64.bundle && 7z a ro.7z zrgpcext64.bundle"));
  for (const char* build : {"default", "hardened"}) {
    SCOPED_TRACE(build);
    gpc::SetHardenedForTesting(build[0] == 'h');
    const std::string user = env.dir() + "/" + build, target = user + "/zrgpcext64.bundle";
    ASSERT_TRUE(Copy(env.dir() + "/ro/ro.7z", user + "/1.7z") && Copy(env.dir() + "/ro/ro.7z", user + "/2.7z"));
    EXPECT_TRUE(gpctest::InChild([&] {  // the second unpack replaces the first one's bundle
      return window->UnpackFile((user + "/1.7z").c_str(), target.c_str(), 0) == 0 &&
             window->UnpackFile((user + "/2.7z").c_str(), target.c_str(), 0) == 0;
    }, true));
    struct stat info {};
    EXPECT_TRUE(stat(target.c_str(), &info) == 0 && (info.st_mode & 0777) == 0555) << target;
    EXPECT_EQ(gpctest::ShellOutput("ls -A " + gpctest::ShellQuote(user)), "zrgpcext64.bundle\n");
  }
  Shell("chmod -R u+w " + q);  // for the folder's removal by a user who is not root
}

// Nothing is deleted before the source is a 7z archive and the library is ready (a missing library is
// looked for again on each call, one without the entry is not loaded again). Then the old bundle goes,
// nothing stays writable by others, the package is deleted, and the library stays loaded.
TEST_F(WindowExtensionTest, UnpackReplacesTheBundleOnlyWithA7zArchiveAndAReadyLibrary) {
  const std::string src = env.dir() + "/src", target = env.dir() + "/a \"quoted\" folder/zrgpcext64.bundle";
  // The target's folder is a link, as where a user keeps it on another disk.
  ASSERT_TRUE(Shell("cd " + gpctest::ShellQuote(env.dir()) + " && mkdir real && ln -s real 'a \"quoted\" folder'") &&
              Copy(kSampleBundle, target + "/Contents/stale") &&
              Copy(kSampleBundle, src + "/zrgpcext64.bundle") &&
              chmod((src + "/zrgpcext64.bundle/Contents/Info.plist").c_str(), 0666) == 0 &&
              Shell("cd " + gpctest::ShellQuote(src) + " && 7z a open.7z zrgpcext64.bundle && 7z a -tzip " +
                    "package.zip zrgpcext64.bundle"));
  std::ofstream(src + "/short.7z") << "7z\xBC\xAF";
  for (const char* source : {"/package.zip", "/short.7z", "/missing.7z"})
    EXPECT_EQ(window->UnpackFile((src + source).c_str(), target.c_str(), 0), 20009u) << source;
  EXPECT_EQ(window->UnpackFile(nullptr, target.c_str(), 0), 20100u);
  const std::string bundle = env.dir() + "/plugin", otherBundle = env.dir() + "/plugin2";
  ASSERT_TRUE(Copy(kShippedBundle + "/Contents/Info.plist", bundle + "/Contents/Info.plist"));
  platform::SetPluginBundlePathOverride(bundle);
  EXPECT_EQ(window->UnpackFile(package.c_str(), target.c_str(), 0), 20007u);
  EXPECT_TRUE(FileExists(target + "/Contents/stale"));

  ASSERT_TRUE(Copy(kLibrary, bundle + "/Contents/Frameworks/lib7zip.so"));
  ClearCapturedTraces();
  const mode_t mask = umask(0);  // modes arrive as the archive has them
  EXPECT_EQ(window->UnpackFile((src + "/open.7z").c_str(), target.c_str(), 0), 0u);
  umask(mask);
  struct stat info;
  ASSERT_EQ(stat((target + "/Contents/Info.plist").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
  EXPECT_FALSE(FileExists(target + "/Contents/stale") || FileExists(src + "/open.7z"));
  EXPECT_EQ(window->UnpackFile(package.c_str(), target.c_str(), 0), 0u);
  EXPECT_EQ(gpctest::LogCount("Load 7zip.dylib success"), 1);

  // A bundle-like target is replaced from its parent folder (the archive holds the bundle); another
  // target is the folder the archive goes into.
  gpc::SetHardenedForTesting(false);
  for (const std::string to : {"t.app", "t.bundle/", "t.pkg", "t.framework", "t.plugin"}) {
    ASSERT_TRUE(Copy(Made().package, package));
    gpctest::RemoveTree(env.dir() + "/u");
    EXPECT_EQ(window->UnpackFile(package.c_str(), (env.dir() + "/u/" + to).c_str(), 0), 0u) << to;
    EXPECT_TRUE(FileExists(env.dir() + "/u/" + (to == "t.plugin" ? "t.plugin/" : "") + "zrgpcext64.bundle")) << to;
  }

  // In another bundle, as the loader would hand back the library already loaded under the same name.
  CGpcWindow other(&npp);
  platform::SetPluginBundlePathOverride(otherBundle);
  ASSERT_TRUE(
      Copy(kSampleBundle + "/Contents/MacOS/zrgpcext64", otherBundle + "/Contents/Frameworks/lib7zip.so") &&
      Copy(Made().package, package));
  ClearCapturedTraces();
  EXPECT_EQ(other.UnpackFile(package.c_str(), target.c_str(), 0), 20007u);
  EXPECT_EQ(other.UnpackFile(package.c_str(), target.c_str(), 0), 20007u);
  EXPECT_EQ(gpctest::LogCount("dlsym lib7zip.dylib failed"), 1);
  EXPECT_TRUE(FileExists(target));
  platform::SetPluginBundlePathOverride("");
  EXPECT_EQ(CGpcWindow(&npp).UnpackFile(package.c_str(), target.c_str(), 0), 20100u)
      << "no bundle of its own";
}

// The user's extension is loaded when it is there, for this machine, else the local one; one that
// will not load or lacks its entries shows 107. A loaded extension gets the window records, events
// and heartbeats, and is ended once.
TEST_F(WindowExtensionTest, LoadsTheUserOrTheLocalExtension) {
  const struct {
    const char* name;
    std::string change;  // a command changing the user bundle's executable; empty: no user bundle
    bool userLoaded;
    int messages107;
  } cases[] = {
      {"UserBundle", "true ", true, 0},
      {"MissingUserBundle", "", false, 0},
      {"UserBundleForAnotherMachine",
       "printf '\\267\\0' | dd conv=notrunc bs=1 seek=18 status=none of=", false, 0},
      {"UserBundleWithoutEntryPoints", "cp " + gpctest::ShellQuote(kLibrary) + " ", true, 1},
      {"UserBundleThatWillNotLoad", "truncate -s 4096 ", true, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RemoveFile(UserBundle());
    ASSERT_TRUE(c.change.empty() ||
                (Copy(kSampleBundle, UserBundle()) &&
                 Shell(c.change + gpctest::ShellQuote(UserBundle() + "/Contents/MacOS/zrgpcext64"))));
    NewWindow({{"GpcSampleDoneUrl", "https://127.0.0.1:9/done"}});
    ClearCapturedTraces();
    window->InitExtension();
    EXPECT_GE(gpctest::LogCount("load GPC extension:" + (c.userLoaded ? UserBundle() : kSampleBundle)), 1);
    EXPECT_EQ(ShownMessages(), std::vector<int>(c.messages107, 107));
    EXPECT_EQ(window->m_bHalted != 0, c.messages107 > 0);
    if (c.messages107 > 0) continue;
    window->OnTimer();  // the extension's heartbeat runs with the instance's: the sample navigates
    ASSERT_FALSE(window->m_vectorFrameTarget.empty());
    EXPECT_EQ(
        window->m_vectorFrameTarget.back()->m_strUrl.rfind("https://127.0.0.1:9/done?fetched=0&failed=0", 0),
        0u);
    NPWindow first{}, second{};
    window->SetWindow(&first);
    window->SetWindow(&second);
    EXPECT_FALSE(window->HandleEvent(&first, true));
    window->ExitExtension();
    window->ExitExtension();
    window->OnTimer();  // nothing of the extension is called any more
    EXPECT_EQ(gpctest::LogCount("GpcSetWindow: window record"), 2);
    EXPECT_EQ(gpctest::LogCount("GpcExitInstance after 1 heartbeats and 1 events"), 1);
    EXPECT_EQ(gpctest::LogCount("GpcExitInstance"), 1);
  }
}

// The user's processes take turns on the extension's folder: a load waits for another process's
// install to end, an install for another process's load. A bundle another instance of this process
// put in place before this one's load is not run: the version is checked again.
TEST_F(WindowExtensionTest, InstallsAndLoadsTakeTurns) {
  const std::string executable = UserBundle() + "/Contents/MacOS/zrgpcext64";
  ASSERT_TRUE(Copy(Made().old + "/zrgpcext64.bundle", UserBundle()));
  const int folder = open((UserBundle() + "/..").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::string seenWhileWaiting;
  platform::SetFolderLockPauseForTesting([&] {  // the other process ends its part
    seenWhileWaiting = InstalledVersion();
    ASSERT_TRUE(Copy(kSampleBundle, UserBundle()));
    flock(folder, LOCK_UN);
  });
  ASSERT_EQ(flock(folder, LOCK_EX), 0);  // an install half done
  ASSERT_EQ(truncate(executable.c_str(), 4096), 0);
  window->InitExtension();
  EXPECT_TRUE(window->m_hExtBundle != nullptr && ShownMessages().empty());
  window->ExitExtension();
  ASSERT_TRUE(Copy(Made().old + "/zrgpcext64.bundle", UserBundle()));
  seenWhileWaiting.clear();
  ASSERT_EQ(flock(folder, LOCK_SH), 0);  // a load under way
  NewWindow(Made().signer.PackageParameters(package));
  Deliver(package.c_str());
  EXPECT_EQ(seenWhileWaiting, "1.0.0.0");
  int pauses = 0;  // a process that keeps the lock is gone on without after a while
  platform::SetFolderLockPauseForTesting([&] { ++pauses; });
  ASSERT_EQ(flock(folder, LOCK_EX), 0);
  window->InitExtension();
  EXPECT_TRUE(pauses > 0 && window->m_hExtBundle != nullptr);
  platform::SetFolderLockPauseForTesting(nullptr);
  close(folder);
  // A package whose executable is a link into the bundle, as the loader follows it.
  const std::string linked = env.dir() + "/linked.7z", source = env.dir() + "/source/zrgpcext64.bundle";
  ASSERT_TRUE(Copy(kSampleBundle, source) &&
              Shell("cd " + gpctest::ShellQuote(source) + "/Contents && mv MacOS/zrgpcext64 ext.so && " +
                    "ln -s ../ext.so MacOS/zrgpcext64") &&
              gpctest::PackExtension(source, kPackageVersion, env.dir(), linked));
  const struct {
    const char* name;
    std::string package;
    bool replaced;
  } cases[] = {{"AsInstalled", Made().package, false}, {"Replaced", Made().package, true}, {"ALink", linked, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(Copy(c.package, package));
    NewWindow(Made().signer.PackageParameters(package));
    window->SetParameterVector("GpcExtVersion", kPackageVersion);
    Deliver(package.c_str());
    ASSERT_EQ(InstalledVersion(), kPackageVersion);
    ASSERT_TRUE(!c.replaced || Copy(Made().old + "/zrgpcext64.bundle", UserBundle()));
    window->InitExtension();
    EXPECT_EQ(window->m_hExtBundle != nullptr, !c.replaced);
    EXPECT_EQ(window->m_vectorFileItem.size(), c.replaced ? 1u : 0u) << "the package is fetched again";
    EXPECT_TRUE(ShownMessages().empty());
  }
}

}  // namespace
