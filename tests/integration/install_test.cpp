// `cmake --install` of this build into a temporary prefix, with HOME in a temporary folder: the
// bundle keeps its layout, the browsers' link leads to the installed module, which finds its
// bundle (its message tables) through the link, and uninstalling leaves both folders exactly as
// they were, a user's own files included.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "gpc_host_run.h"
#include "scoped_env.h"

extern char** environ;

namespace {

const std::string kBinaryDir = GPC_BINARY_DIR;
const char kInstalledBundle[] = "prefix/lib/talvo-gpc/talvo-gpc64.plugin";
const char kModuleInBundle[] = "/Contents/MacOS/libnpgpc.so";

struct Command {
  int exit_code = -1;
  std::string output;
};

// Runs `args` with the current environment; stdout and stderr together in `output`.
Command RunCommand(const std::vector<std::string>& args, const std::string& scratch) {
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const std::string out_path = scratch + "/command.out";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  pid_t pid = -1;
  Command result;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
  }
  posix_spawn_file_actions_destroy(&actions);
  result.output = gpchost::ReadWholeFile(out_path);
  return result;
}

// The cmake that configured this build, as its cache names it.
std::string CMakeOfThisBuild() {
  std::ifstream cache(kBinaryDir + "/CMakeCache.txt");
  const std::string key = "CMAKE_COMMAND:INTERNAL=";
  for (std::string line; std::getline(cache, line);)
    if (line.compare(0, key.size(), key) == 0) return line.substr(key.size());
  return "/usr/bin/cmake";
}

// Every entry below `root`, by relative path: its kind, and what a change would show (a file's
// size, mode and, when small, contents; a link's target).
std::map<std::string, std::string> g_listing;
std::string g_listing_root;

int AddToListing(const char* path, const struct stat* st, int, struct FTW*) {
  std::string relative = std::string(path).substr(g_listing_root.size());
  if (relative.empty()) return 0;
  std::string& entry = g_listing[relative];
  if (S_ISLNK(st->st_mode)) {
    char target[PATH_MAX];
    ssize_t length = readlink(path, target, sizeof target - 1);
    entry = "link " + std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
  } else if (S_ISDIR(st->st_mode)) {
    entry = "folder";
  } else {
    entry = "file " + std::to_string(st->st_size) + ((st->st_mode & 0111) ? " executable" : "");
    if (st->st_size < 256) entry += " " + gpchost::ReadWholeFile(path);
  }
  return 0;
}

std::map<std::string, std::string> Listing(const std::string& root) {
  g_listing.clear();
  g_listing_root = root;
  nftw(root.c_str(), AddToListing, 16, FTW_PHYS);
  return g_listing;
}

bool WriteFile(const std::string& path, const std::string& text) {
  std::string folder = path.substr(0, path.rfind('/'));
  for (size_t slash = folder.find('/', 1); ; slash = folder.find('/', slash + 1)) {
    mkdir(folder.substr(0, slash).c_str(), 0755);
    if (slash == std::string::npos) break;
  }
  std::ofstream out(path, std::ios::binary);
  out << text;
  return static_cast<bool>(out);
}

std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? resolved : "";
}

// What the install writes into the build folder (its manifest and record) is put back as it was,
// so that the developer's own install of this build can still be uninstalled.
class BuildRecordsKept {
 public:
  BuildRecordsKept() {
    for (const char* name : {"install_manifest.txt", "install_manifest_extras.cmake"}) {
      std::string path = kBinaryDir + "/" + name;
      struct stat st;
      saved_[path] = {stat(path.c_str(), &st) == 0, gpchost::ReadWholeFile(path)};
    }
  }
  ~BuildRecordsKept() {
    for (auto& [path, saved] : saved_) {
      if (saved.first) {
        std::ofstream(path, std::ios::binary) << saved.second;
      } else {
        unlink(path.c_str());
      }
    }
  }

 private:
  std::map<std::string, std::pair<bool, std::string>> saved_;
};

struct InstallCase {
  const char* name;
  // Installs with GPC_INSTALL_SCOPE=system and GPC_BROWSER_PLUGIN_DIR=<root>/system/plugins.
  bool system_scope;
  // A user's files (relative to the temporary root) that exist before and must survive.
  std::vector<std::pair<std::string, std::string>> own_files;
  // Where the link is expected (relative to the root); empty: no link is made.
  std::string link;
};

class Install : public ::testing::TestWithParam<InstallCase> {};

// Each browser's host manifest names the installed wrapper and lets only the bridge extension in;
// the wrapper runs the installed gpc-host as a native-messaging host whatever arguments the browser
// adds; the extension is there as a folder and as a zip.
void ExpectTheBridge(const std::string& root, bool system_scope, const std::string& scratch) {
  const std::string wrapper = root + "/prefix/libexec/talvo-gpc/gpc-native-host";
  const std::string chromium = "\"allowed_origins\": [\"chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/\"]";
  const std::string firefox = "\"allowed_extensions\": [\"gpc-bridge@talvo.example\"]";
  const std::vector<std::pair<std::string, std::string>> manifests =
      system_scope ? std::vector<std::pair<std::string, std::string>>{
                         {"system/etc/chromium/native-messaging-hosts", chromium},
                         {"system/etc/opt/chrome/native-messaging-hosts", chromium},
                         {"system/usr/lib/mozilla/native-messaging-hosts", firefox}}
                   : std::vector<std::pair<std::string, std::string>>{
                         {"home/.config/chromium/NativeMessagingHosts", chromium},
                         {"home/.config/google-chrome/NativeMessagingHosts", chromium},
                         {"home/.mozilla/native-messaging-hosts", firefox}};
  for (const auto& [folder, allowed] : manifests) {
    const std::string manifest = gpchost::ReadWholeFile(root + "/" + folder + "/com.vantrel.talvo.gpc.json");
    EXPECT_NE(manifest.find("\"path\": \"" + wrapper + "\""), std::string::npos) << folder << ": " << manifest;
    EXPECT_NE(manifest.find(allowed), std::string::npos) << folder << ": " << manifest;
  }
  for (const char* file : {"extension/manifest.json", "extension/background.js", "extension/content.js"}) {
    EXPECT_EQ(access((root + "/prefix/share/talvo-gpc/" + file).c_str(), R_OK), 0) << file;
  }
  EXPECT_EQ(gpchost::ReadWholeFile(root + "/prefix/share/talvo-gpc/talvo-gpc-bridge.zip").substr(0, 2), "PK");
  // One message of an unknown type, then the end of input: an error back, and exit 0.
  Command host = RunCommand({"/bin/sh", "-c",
                             "printf '\\031\\000\\000\\000{\"type\":\"hello\",\"id\":\"x\"}' | '" + wrapper +
                                 "' chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/"},
                            scratch);
  EXPECT_EQ(host.exit_code, 0) << host.output;
  EXPECT_NE(host.output.find("unknown message type"), std::string::npos) << host.output;
}

TEST_P(Install, PutsTheBundleAndItsLinkInPlaceAndUninstallLeavesNothingBehind) {
  const InstallCase& test = GetParam();
  const std::string root = gpchost::MakeTempFolder("install");
  const std::string scratch = gpchost::MakeTempFolder("installrun");
  ASSERT_FALSE(root.empty());
  ASSERT_FALSE(scratch.empty());
  BuildRecordsKept records;
  mkdir((root + "/home").c_str(), 0755);
  for (const auto& [path, text] : test.own_files) ASSERT_TRUE(WriteFile(root + "/" + path, text));
  const auto before = Listing(root);

  ScopedEnv home("HOME", root + "/home");
  ScopedEnv data("XDG_DATA_HOME", scratch + "/data");
  const std::string cmake = CMakeOfThisBuild();
  // A system install goes through the install script itself, which takes the settings anew.
  const std::vector<std::string> install_args =
      test.system_scope
          ? std::vector<std::string>{cmake, "-DGPC_INSTALL_SCOPE=system",
                                     "-DGPC_BROWSER_PLUGIN_DIR=" + root + "/system/plugins",
                                     "-DGPC_NATIVE_HOST_ROOT=" + root + "/system",
                                     "-DCMAKE_INSTALL_PREFIX=" + root + "/prefix", "-P",
                                     kBinaryDir + "/cmake_install.cmake"}
          : std::vector<std::string>{cmake, "--install", kBinaryDir, "--prefix", root + "/prefix"};
  Command install = RunCommand(install_args, scratch);
  ASSERT_EQ(install.exit_code, 0) << install.output;

  // The whole bundle, as built, and the tools.
  const std::string bundle = root + "/" + kInstalledBundle;
  auto built = Listing(GPC_BUNDLE_DIR);
  auto installed = Listing(bundle);
  EXPECT_EQ(installed, built);
  EXPECT_EQ(access((root + "/prefix/bin/gpc-host").c_str(), X_OK), 0);
  EXPECT_EQ(access((root + "/prefix/bin/tlvtracer").c_str(), X_OK), 0);

  std::string module = bundle + kModuleInBundle;
  if (test.link.empty()) {
    EXPECT_EQ(gpchost::ReadWholeFile(root + "/home/.mozilla/plugins/libnpgpc.so"), "someone else's module")
        << install.output;
  } else {
    struct stat st;
    ASSERT_EQ(lstat((root + "/" + test.link).c_str(), &st), 0) << install.output;
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(RealPath(root + "/" + test.link), RealPath(module));
    module = root + "/" + test.link;
  }
  if (test.system_scope) {
    EXPECT_NE(access((root + "/home/.mozilla").c_str(), F_OK), 0) << "a system install links nothing per user";
  }
  ExpectTheBridge(root, test.system_scope, scratch);

  // Loaded through the link, the module finds its bundle: the page's language (9, German)
  // comes from the bundle's message tables.
  Command host = RunCommand({root + "/prefix/bin/gpc-host", "--plugin", module, "--param",
                             "GpcProductVersion=3,1,0,7", "--param", "gpclocalsetting=9", "--param",
                             "GpcErrorPageUrl=https://meet.talvo.us/error", "--exit-on-navigate", "/error",
                             "--run-ms", "8000"},
                            scratch);
  EXPECT_EQ(host.exit_code, 0) << host.output;
  std::string error_page;
  for (const gpchost::JsonEvent& event : gpchost::ParseJsonLines(host.output))
    if (event.Name() == "navigate") error_page = event.Str("url");
  EXPECT_NE(error_page.find("/error?ErrorType=1&ErrorMsg=Die%20Einrichtung"), std::string::npos) << host.output;
  EXPECT_NE(error_page.find("Fehler%20%5B100%5D"), std::string::npos) << error_page;

  Command uninstall = RunCommand({cmake, "-P", kBinaryDir + "/cmake_uninstall.cmake"}, scratch);
  ASSERT_EQ(uninstall.exit_code, 0) << uninstall.output;
  EXPECT_EQ(Listing(root), before) << uninstall.output;
  gpchost::RemoveTree(root);
  gpchost::RemoveTree(scratch);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Install,
    ::testing::Values(
        InstallCase{"FreshHomeAndPrefix", false, {}, "home/.mozilla/plugins/libnpgpc.so"},
        InstallCase{"UsersOwnFilesStay",
                    false,
                    {{"home/.mozilla/plugins/libother.so", "another plug-in"},
                     {"prefix/bin/own-tool", "#!/bin/sh\n"},
                     {"prefix/lib/talvo-gpc/notes.txt", "kept"}},
                    "home/.mozilla/plugins/libnpgpc.so"},
        InstallCase{"OwnFileAtTheLinkNameIsKept",
                    false,
                    {{"home/.mozilla/plugins/libnpgpc.so", "someone else's module"}},
                    ""},
        InstallCase{"SystemScopeInItsConfiguredFolder", true, {}, "system/plugins/libnpgpc.so"}),
    [](const ::testing::TestParamInfo<InstallCase>& info) { return std::string(info.param.name); });

}  // namespace
