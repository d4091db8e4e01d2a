// `cmake --install` of this build into a temporary prefix, with HOME in a temporary folder: the bundle
// keeps its layout, the browsers' link leads to the installed module, which finds its bundle (its
// message tables) through the link, and uninstalling leaves both folders exactly as they were.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "scoped_env.h"

namespace {

using gpctest::ShellOutput;
using gpctest::ShellQuote;
const std::string kBuild = GPC_BINARY_DIR;

// Every entry below `root`: kind, mode and link target, and for files size and checksum.
std::string Listing(const std::string& root) {
  return ShellOutput("cd " + ShellQuote(root) + " && find . -mindepth 1 \\( -type f -printf '%p %s %m ' -exec md5sum {} \\; "
                     "\\) -o -printf '%p %y %m %l\\n' | LC_ALL=C sort");
}

// A value of this build's CMake cache.
std::string CacheValue(const std::string& name) {
  const std::string value = ShellOutput("sed -n 's/^" + name + ":INTERNAL=//p' " + ShellQuote(kBuild + "/CMakeCache.txt"));
  return value.substr(0, value.find('\n'));
}

// The install's records in the build folder are put back as they were, so that the developer's own
// install of this build can still be uninstalled.
struct BuildRecordsKept {
  const std::string files = "cd " + ShellQuote(kBuild) + " && for f in install_manifest.txt install_manifest_extras.cmake; do ";
  BuildRecordsKept() { ShellOutput(files + "rm -f $f.kept; [ ! -e $f ] || cp -p $f $f.kept; done"); }
  ~BuildRecordsKept() { ShellOutput(files + "if [ -e $f.kept ]; then mv $f.kept $f; else rm -f $f; fi; done"); }
};

TEST(Install, PutsTheBundleTheLinkAndTheBridgeInPlaceAndUninstallLeavesNothingBehind) {
  struct Case {
    const char* name;
    bool systemScope;      // GPC_INSTALL_SCOPE=system, plug-in link and host manifests below <root>/system
    const char* ownFiles;  // shell command laying out a user's files in the root before the install
    const char* link;      // where the link is expected, relative to the root; "": none
  } const cases[] = {
      {"fresh home and prefix", false, "true", "home/.mozilla/plugins/libnpgpc.so"},
      {"user's own files stay", false,
       "mkdir -p home/.mozilla/plugins prefix/bin prefix/lib/talvo-gpc && echo x > home/.mozilla/plugins/libother.so && "
       "echo x > prefix/bin/own-tool && chmod +x prefix/bin/own-tool && echo kept > prefix/lib/talvo-gpc/notes.txt",
       "home/.mozilla/plugins/libnpgpc.so"},
      {"own file at the link's name kept", false, "mkdir -p home/.mozilla/plugins && echo mine > home/.mozilla/plugins/libnpgpc.so", ""},
      {"system scope in its configured folder", true, "true", "system/plugins/libnpgpc.so"},
  };
  const std::string cmake = CacheValue("CMAKE_COMMAND");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    gpctest::TempFolder temp("install"), dataHome("installdata");
    // Names the shell and JSON would take for their own, and as a shell must not expand.
    const std::string root = temp.path() + "/it's \"$HOME\" [x]", prefix = root + "/prefix", home = root + "/home";
    BuildRecordsKept records;
    ASSERT_EQ(ShellOutput("mkdir " + ShellQuote(root) + " && cd " + ShellQuote(root) + " && mkdir home && " + c.ownFiles +
                          " && echo ok"), "ok\n");
    const std::string before = Listing(root);
    ScopedEnv homeEnv("HOME", home);
    ScopedEnv data("XDG_DATA_HOME", dataHome.path());
    std::vector<std::string> args = {cmake, "--install", kBuild, "--prefix", prefix};
    if (c.systemScope)
      args = {args[0], "-DGPC_INSTALL_SCOPE=system", "-DGPC_BROWSER_PLUGIN_DIR=" + root + "/system/plugins",
              "-DGPC_NATIVE_HOST_ROOT=" + root + "/system", "-DCMAKE_INSTALL_PREFIX=" + prefix, "-P", kBuild + "/cmake_install.cmake"};
    const gpctest::ToolRun install = gpctest::RunTool(args);
    ASSERT_EQ(install.exitCode, 0) << install.out << install.err;

    const std::string bundle = prefix + "/lib/talvo-gpc/talvo-gpc64.plugin";
    // Installed again, the bundle trusts the build's anchors alone: one an earlier install left goes.
    const std::string anchors = ShellQuote(bundle + "/Contents/Resources/Anchors");
    ASSERT_EQ(ShellOutput("mkdir " + anchors + " && echo x >" + anchors + "/dropped.der && echo ok"), "ok\n");
    ASSERT_EQ(gpctest::RunTool(args).exitCode, 0);
    EXPECT_EQ(Listing(bundle), Listing(GPC_BUNDLE_DIR));
    EXPECT_EQ(ShellOutput("cd " + ShellQuote(prefix) + "/bin && ls gpc-host gpc-pack tlvtracer && test -x gpc-host -a -x gpc-pack -a -x tlvtracer"),
              "gpc-host\ngpc-pack\ntlvtracer\n");
    std::string module = bundle + "/Contents/MacOS/libnpgpc.so";
    if (*c.link == '\0') {
      EXPECT_EQ(gpctest::ReadFile(home + "/.mozilla/plugins/libnpgpc.so"), "mine\n");
    } else {
      EXPECT_EQ(ShellOutput("cd " + ShellQuote(root) + " && test -L " + c.link + " && realpath " + c.link),
                ShellOutput("realpath " + ShellQuote(module)));
      module = root + "/" + c.link;
    }
    EXPECT_EQ(c.systemScope, ShellOutput("ls -A " + ShellQuote(home)).empty()) << "a system install links nothing per user";

    // Each browser's host manifest names the installed wrapper and lets only the bridge extension in;
    // the extension is there as a folder and as a zip.
    const std::string chromium = "\"allowed_origins\": [\"chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/\"]";
    const std::string wrapper = prefix + "/libexec/talvo-gpc/gpc-native-host";
    const std::vector<std::string> folders =
        c.systemScope ? std::vector<std::string>{"system/etc/chromium/native-messaging-hosts",
                                                 "system/etc/opt/chrome/native-messaging-hosts",
                                                 "system/usr/lib/mozilla/native-messaging-hosts"}
                      : std::vector<std::string>{"home/.config/chromium/NativeMessagingHosts",
                                                 "home/.config/google-chrome/NativeMessagingHosts", "home/.mozilla/native-messaging-hosts"};
    for (const std::string& folder : folders) {
      const std::string manifest = gpctest::ReadFile(root + "/" + folder + "/com.vantrel.talvo.gpc.json");
      EXPECT_NE(manifest.find("\"path\": " + gpchost::JsonQuote(wrapper)), std::string::npos) << folder << ": " << manifest;
      EXPECT_NE(manifest.find(folder.find("mozilla") == std::string::npos
                                  ? chromium : "\"allowed_extensions\": [\"gpc-bridge@talvo.example\"]"),
                std::string::npos) << folder << ": " << manifest;
    }
    EXPECT_EQ(ShellOutput("cd " + ShellQuote(prefix) + "/share/talvo-gpc && cat extension/manifest.json extension/background.js "
                          "extension/content.js >/dev/null && head -c 2 talvo-gpc-bridge.zip"), "PK");
    // The wrapper runs gpc-host with the installed module as a native-messaging host whatever
    // arguments the browser adds: one message of an unknown type, then the end of input, is answered
    // with an error and exit 0.
    bool ok = false;
    const std::string answer = ShellOutput("printf '\\031\\000\\000\\000{\"type\":\"hello\",\"id\":\"x\"}' | " + ShellQuote(wrapper) +
                                           " chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/ 2>&1", &ok);
    EXPECT_TRUE(ok);
    EXPECT_NE(answer.find("unknown message type"), std::string::npos) << answer;
    EXPECT_NE(answer.find("\"plugin\":" + gpchost::JsonQuote(bundle + "/Contents/MacOS/libnpgpc.so") + ",\"ok\":true"), std::string::npos) << answer;

    // Loaded through the link, the module finds its bundle: the page's language (9, German) comes from
    // the bundle's message tables.
    const gpchost::HostRun host = gpchost::RunHost({"--plugin", module, "--param", "GpcProductVersion=3,1,0,7", "--param",
                                                    "gpclocalsetting=9", "--param", "GpcErrorPageUrl=https://meet.talvo.us/error",
                                                    "--exit-on-navigate", "/error", "--run-ms", "8000"});
    EXPECT_EQ(host.exit_code, 0) << host.stderr_text;
    const std::string page = host.Of("navigate").empty() ? "" : host.Of("navigate").back().Str("url");
    EXPECT_NE(page.find("/error?ErrorType=1&ErrorMsg=Die%20Einrichtung"), std::string::npos) << page;

    // A file of the user's in a folder the install made keeps that folder, and a host manifest
    // another install has written since stays that install's.
    ASSERT_TRUE(gpctest::WriteFile(prefix + "/share/mine", "x"));
    const std::string theirs = root + "/" + folders.back() + "/com.vantrel.talvo.gpc.json";
    ASSERT_TRUE(gpctest::WriteFile(theirs, "{\"path\": \"/another/prefix/gpc-native-host\"}"));
    const gpctest::ToolRun uninstall = gpctest::RunTool({args[0], "-P", kBuild + "/cmake_uninstall.cmake"});
    ASSERT_EQ(uninstall.exitCode, 0) << uninstall.out << uninstall.err;
    EXPECT_NE(gpctest::ReadFile(theirs).find("/another/prefix/"), std::string::npos);
    const std::string theirFolders = folders.back().substr(c.systemScope ? 0 : 5);  // "home/" was there before
    ShellOutput("cd " + ShellQuote(root + (c.systemScope ? "" : "/home")) + " && rm " + ShellQuote(theirFolders) +
                "/*.json && rmdir -p " + ShellQuote(theirFolders));
    EXPECT_EQ(ShellOutput("cd " + ShellQuote(prefix) + " && rm share/mine && rmdir share && (rmdir ../prefix 2>/dev/null; echo ok)"), "ok\n");
    EXPECT_EQ(Listing(root), before) << uninstall.out;
    // A ";", a bracket without its pair or a line break would cut or join names: refused at once.
    for (const char* refused : {"/un[paired", "/semi;colon", "/line\nbreak", "/esc\x1b", "/back\\slash"})
      EXPECT_NE(gpctest::RunTool({args[0], "--install", kBuild, "--prefix", root + refused}).exitCode, 0) << refused;
    EXPECT_EQ(Listing(root), before);
  }
}

// A build given GPC_ANCHORS ships them in its bundle, for its hardened build to trust; anything but
// the absolute path of a DER file is refused when the build is configured.
TEST(Install, TheAnchorsGivenToTheBuildAreShippedInItsBundle) {
  gpctest::TempFolder temp("anchors");
  const std::string der = temp.path() + "/root.der", build = temp.path() + "/build", cmake = CacheValue("CMAKE_COMMAND");
  ASSERT_EQ(ShellOutput("cd " + ShellQuote(temp.path()) + " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                        "-keyout key.pem -subj /CN=root -days 1 -outform DER -out root.der 2>/dev/null && mkdir again && "
                        "cp root.der again/ && echo ok"), "ok\n");
  auto configure = [&](const std::string& anchors) {
    return gpctest::RunTool({cmake, "-S", GPC_SOURCE_DIR, "-B", build, "-G", CacheValue("CMAKE_GENERATOR"),
                             "-DGPC_BUILD_TESTS=OFF", "-DGPC_BUILD_BENCH=OFF", "-DGPC_ANCHORS=" + anchors}).exitCode;
  };
  auto bundleResources = [&] { return gpctest::RunTool({cmake, "--build", build, "--target", "gpcbundleresources"}).exitCode; };
  for (const std::string& refused : {std::string("root.der"), temp.path() + "/key.pem", der + ";" + temp.path() + "/again/root.der"})
    EXPECT_NE(configure(refused), 0) << refused;  // relative, not DER, two of one name
  ASSERT_TRUE(configure(der) == 0 && bundleResources() == 0);
  EXPECT_EQ(gpctest::ReadFile(build + "/talvo-gpc64.plugin/Contents/Resources/Anchors/root.der"), gpctest::ReadFile(der));
  ASSERT_EQ(configure(""), 0);  // dropped from the list: no install before a build, then gone
  ASSERT_EQ(ShellOutput("mkdir -p " + ShellQuote(build + "/talvo-gpc64.plugin/Contents/MacOS") + " && echo ok"), "ok\n");
  const gpctest::ToolRun early = gpctest::RunTool({cmake, "--install", build, "--prefix", temp.path() + "/prefix"});
  EXPECT_NE(early.err.find("The anchors changed since the last build"), std::string::npos) << early.err;
  ASSERT_EQ(bundleResources(), 0);
  EXPECT_EQ(ShellOutput("ls -A " + ShellQuote(build + "/talvo-gpc64.plugin/Contents/Resources")).find("Anchors"), std::string::npos);
}

}  // namespace
