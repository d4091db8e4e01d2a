// The plug-in in today's browsers through the bridge: headless Chromium (tests/browser/chromium_page.py)
// and Firefox ESR (firefox_page.py) with the extension in extension/, a fresh profile whose native host
// is the built `gpc-host --native-messaging`, and meeting pages from a loopback server. The drivers see
// the server's access log: the pages the module sends the tab to, and the texts the page's status box
// shows, which the page reports itself.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "browser_pages.h"
#include "extension_package.h"
#include "scoped_env.h"

namespace {

using browsertest::kDonePath;
using browsertest::kErrorPath;
using browsertest::Markup;

// The status box's texts as the page reports them, URL-encoded.
constexpr char kStarting[] = "/status?Starting%E2%80%A6";
constexpr char kDownloading[] = "/status?Downloading%E2%80%A6";

struct Case {
  const char* name;
  bool firefox;
  Markup markup;
  bool slow;          // the package comes from a server taking about four seconds for it
  bool withRoot;      // "GpcUrlRoot" given
  bool tampered;      // the package signed over another digest
  bool withErrorPage; // "GpcErrorPageUrl" given
  const char* until;  // the request the run waits for
  const char* shown;  // what that request holds
  bool closeTab;      // the page closes its tab once it has asked for `until`, the browser staying open
  bool installs;      // the extension is installed in the end
};

// A fresh profile whose native-messaging host is ours, through a wrapper script: the manifest's "path"
// takes no arguments, and the browser's (the caller's origin) are dropped. Each host started leaves
// its process id in HostPids().
struct Profile {
  gpctest::TempFolder folder{"browser"};
  std::string Dir() const { return folder.path() + "/profile"; }
  std::string HostPids() const { return folder.path() + "/native-host.pids"; }
  std::string HostLog() const { return folder.path() + "/native-host.log"; }
  // The user's data folder as the host sees it: each page starts without an installed extension.
  std::string Data() const { return folder.path() + "/data"; }

  bool Make(bool firefox) {
    // Chromium reads host manifests from the profile, Firefox from ~/.mozilla (HOME is ours).
    const std::string hosts = firefox ? folder.path() + "/.mozilla/native-messaging-hosts" : Dir() + "/NativeMessagingHosts";
    const std::string allowed = firefox ? "\"allowed_extensions\": [\"gpc-bridge@talvo.example\"]"
                                        : "\"allowed_origins\": [\"chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/\"]";
    const std::string wrapper = folder.path() + "/gpc-native-host";
    mkdir((folder.path() + "/.mozilla").c_str(), 0700);
    return mkdir(Dir().c_str(), 0700) == 0 && mkdir(hosts.c_str(), 0700) == 0 && mkdir(Data().c_str(), 0700) == 0 &&
           gpctest::WriteFile(wrapper, "#!/bin/sh\necho $$ >>" + gpctest::ShellQuote(HostPids()) + "\nexec " +
                                           gpctest::ShellQuote(std::string(GPC_BIN_DIR) + "/gpc-host") +
                                           " --native-messaging 2>>" + gpctest::ShellQuote(HostLog()) + "\n") &&
           chmod(wrapper.c_str(), 0755) == 0 &&
           gpctest::WriteFile(hosts + "/com.vantrel.talvo.gpc.json",
                              "{\"name\": \"com.vantrel.talvo.gpc\", \"description\": \"GPC plug-in host\", \"path\": \"" +
                                  wrapper + "\", \"type\": \"stdio\", " + allowed + "}\n");
  }
};

TEST(Bridge, PagesEndWhereTheModuleSendsThem) {
  const char* browsers[] = {"/usr/bin/chromium", "/usr/bin/firefox-esr"};
  if (access(browsers[0], X_OK) != 0) GTEST_SKIP() << browsers[0] << " is not installed (Debian package chromium)";
  const bool withFirefox = access(browsers[1], X_OK) == 0 && system("command -v certutil >/dev/null") == 0;
  browsertest::Site site;
  ASSERT_TRUE(site.ok) << site.server.error();
  gpctest::LoopbackServer slow;
  slow.SetLimitRate(std::to_string(site.package.size() / 4 + 1));
  ASSERT_TRUE(slow.Start() && slow.AddFile("client/zrgpcext64.bundle.7z", site.package)) << slow.error();
  const std::string ran = std::string(kDonePath) + "fetched=1&failed=0";
  const Case cases[] = {
      {"MeetingPage", false, Markup::kEmbed, false, true, false, true, kDonePath, ran.c_str(), false, true},
      {"ObjectAddedLater", false, Markup::kLateObject, false, true, false, true, kDonePath, ran.c_str(), false, true},
      // The module sends the whole tab (_top) on from inside the frame.
      {"InFrame", false, Markup::kInFrame, false, true, false, true, kDonePath, ran.c_str(), false, true},
      {"TwoEmbeds", false, Markup::kTwoEmbeds, false, true, false, true, kDonePath, ran.c_str(), false, true},
      {"NoUrlRoot", false, Markup::kEmbed, false, false, false, true, kErrorPath, "Error%20%5B100%5D", false, false},
      {"TamperedPackage", false, Markup::kEmbed, false, true, true, true, kErrorPath, "Error%20%5B103%5D", false, false},
      // Nowhere to send the page: it keeps the embed's status box.
      {"StatusBox", false, Markup::kEmbed, false, false, false, false, kStarting, kStarting, false, false},
      {"TabClosedMidDownload", false, Markup::kEmbed, true, true, false, true, kDownloading, kDownloading, true, false},
      {"FirefoxMeetingPage", true, Markup::kEmbed, false, true, false, true, kDonePath, ran.c_str(), false, true},
      {"FirefoxTamperedPackage", true, Markup::kEmbed, false, true, true, true, kErrorPath, "Error%20%5B103%5D", false,
       false},
  };
  for (const Case& c : cases) {
    if (c.firefox && !withFirefox) continue;
    SCOPED_TRACE(c.name);
    const std::string root = "https://127.0.0.1:" + std::to_string((c.slow ? slow : site.server).https_port()) + "/client/";
    const gpctest::PageParams params = site.Meeting(site.Url(), c.withRoot ? root : "", c.tampered, c.withErrorPage, false);
    const std::string page = std::string("page/") + c.name;
    ASSERT_TRUE(site.server.AddFile(page + ".html", MeetingPage(params, c.markup, c.name)) &&
                site.server.AddFile(page + "-inner.html", MeetingPage(params, Markup::kEmbed, c.name)));
    Profile profile;
    ASSERT_TRUE(profile.Make(c.firefox));
    // Browsers keep their certificate stores and caches under HOME: the profile's folder, not ours.
    ScopedEnv home("HOME", profile.folder.path());
    ScopedEnv data("XDG_DATA_HOME", profile.Data());
    const size_t logged = gpctest::ReadFile(site.server.AccessLogPath()).size();
    std::vector<std::string> argv = {"timeout", "-k", "3", "90", "python3",
                                     std::string(GPC_SOURCE_DIR) + "/tests/browser/" + (c.firefox ? "firefox" : "chromium") + "_page.py",
                                     site.Url() + page + ".html" + (c.closeTab ? std::string("#") + (c.until + 8) : ""),
                                     c.firefox ? "--firefox" : "--chromium", browsers[c.firefox],
                                     c.firefox ? "--profile" : "--user-data-dir", profile.Dir(),
                                     "--extension", std::string(GPC_SOURCE_DIR) + "/extension", "--access-log",
                                     site.server.AccessLogPath(), "--until", c.until, "--host-pids", profile.HostPids(), "--browser-log",
                                     profile.folder.path() + "/browser.log"};
    if (c.firefox) argv.insert(argv.end(), {"--authority", site.server.AuthorityPath()});
    const browsertest::DriverRun run = browsertest::Drive(argv, profile.folder.path() + "/driver.log");
    const std::string output = run.output + "\n--- gpc-host ---\n" + gpctest::ReadFile(profile.HostLog());

    EXPECT_EQ(run.exitCode, 0) << output;
    EXPECT_NE(run.EndUrl().find(c.shown), std::string::npos) << output;
    // The box showed the bridge at work first.
    const std::string requests = gpctest::ReadFile(site.server.AccessLogPath()).substr(logged);
    EXPECT_NE(requests.find(kStarting), std::string::npos) << requests;
    EXPECT_EQ(requests.find("/status?"), requests.find(kStarting)) << requests;
    // A host was started; none outlived its tab (when that closed) or the browser.
    EXPECT_FALSE(gpctest::ReadFile(profile.HostPids()).empty()) << output;
    EXPECT_EQ(run.Of("left").size(), c.closeTab ? 2u : 1u) << output;
    for (const gpchost::JsonEvent& left : run.Of("left")) EXPECT_NE(left.line.find("\"pids\":[]"), std::string::npos) << left.line;
    // The extension is installed whole or not at all, and no piece of the package is left in /tmp.
    const std::string installed = gpctest::ReadFile(profile.Data() + "/Talvo Folder/zrgpcext64.bundle/Contents/Info.plist");
    EXPECT_EQ(installed.find("2.0.0.7") != std::string::npos, c.installs) << installed;
    struct stat folder;
    const bool folderLeft = stat((profile.Data() + "/Talvo Folder/zrgpcext64.bundle").c_str(), &folder) == 0;
    EXPECT_EQ(folderLeft, c.installs);
    EXPECT_EQ(gpctest::PiecesInTmp(site.package), std::vector<std::string>());
  }
}

}  // namespace
