// The plug-in in today's browsers through the bridge: headless Chromium and Firefox ESR with extension/
// and the built gpc-host as native host, on meeting pages from a loopback server. The drivers watch the
// server's log: the pages the module sends the tab to, and the status box's texts the page reports.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
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
  bool slow;           // the package comes from a server taking about four seconds for it
  bool withRoot;       // "GpcUrlRoot" given
  bool tampered;       // the package signed over another digest
  bool withErrorPage;  // "GpcErrorPageUrl" given
  const char* until;   // the request the run waits for; the done page's: the extension is installed then
  const char* shown;   // what that request holds
};

TEST(Bridge, PagesEndWhereTheModuleSendsThem) {
  const char* browsers[] = {"/usr/bin/chromium", "/usr/bin/firefox-esr"};
  if (access(browsers[0], X_OK) != 0)
    GTEST_SKIP() << browsers[0] << " is not installed (Debian package chromium)";
  const bool withFirefox = access(browsers[1], X_OK) == 0 && system("command -v certutil >/dev/null") == 0;
  browsertest::Site site;
  ASSERT_TRUE(site.ok) << site.server.error();
  gpctest::LoopbackServer slow;
  slow.SetLimitRate(std::to_string(site.package.size() / 4 + 1));
  ASSERT_TRUE(slow.Start() && slow.AddFile("client/zrgpcext64.bundle.7z", site.package)) << slow.error();
  const std::string ran = std::string(kDonePath) + "fetched=1&failed=0";
  const Case cases[] = {
      {"MeetingPage", false, Markup::kEmbed, false, true, false, true, kDonePath, ran.c_str()},
      {"ObjectAddedLater", false, Markup::kLateObject, false, true, false, true, kDonePath, ran.c_str()},
      // The module sends the whole tab (_top) on from inside the frame.
      {"InFrame", false, Markup::kInFrame, false, true, false, true, kDonePath, ran.c_str()},
      {"TwoEmbeds", false, Markup::kTwoEmbeds, false, true, false, true, kDonePath, ran.c_str()},
      {"NoUrlRoot", false, Markup::kEmbed, false, false, false, true, kErrorPath, "Error%20%5B100%5D"},
      {"TamperedPackage", false, Markup::kEmbed, false, true, true, true, kErrorPath, "Error%20%5B103%5D"},
      // Nowhere to send the page: it keeps the embed's status box.
      {"StatusBox", false, Markup::kEmbed, false, false, false, false, kStarting, kStarting},
      {"TabClosedMidDownload", false, Markup::kEmbed, true, true, false, true, kDownloading, kDownloading},
      {"FirefoxMeetingPage", true, Markup::kEmbed, false, true, false, true, kDonePath, ran.c_str()},
      {"FirefoxTamperedPackage", true, Markup::kEmbed, false, true, true, true, kErrorPath,
       "Error%20%5B103%5D"},
  };
  for (const Case& c : cases) {
    if (c.firefox && !withFirefox) continue;
    SCOPED_TRACE(c.name);
    // Once its box shows "Downloading…", the page closes its tab, the browser staying open.
    const bool installs = c.until == kDonePath, closeTab = c.until == kDownloading;
    const std::string root =
        "https://127.0.0.1:" + std::to_string((c.slow ? slow : site.server).https_port()) + "/client/";
    const gpctest::PageParams params =
        site.Meeting(site.Url(), c.withRoot ? root : "", c.tampered, c.withErrorPage, false);
    const std::string page = std::string("page/") + c.name;
    ASSERT_TRUE(site.server.AddFile(page + ".html", MeetingPage(params, c.markup, c.name)) &&
                site.server.AddFile(page + "-inner.html", MeetingPage(params, Markup::kEmbed, c.name)));
    // Browsers keep their certificate stores and caches under HOME: a fresh one each, with the user's
    // data folder as the native host sees it (no extension installed yet).
    const gpctest::TempFolder home("browser");
    const std::string pids = home.path() + "/hosts.pids", browserLog = home.path() + "/browser.log";
    const std::string installed = home.path() + "/data/Talvo Folder/zrgpcext64.bundle";
    ScopedEnv homeEnv("HOME", home.path());
    ScopedEnv dataEnv("XDG_DATA_HOME", home.path() + "/data");
    const size_t logged = gpctest::ReadFile(site.server.AccessLogPath()).size();
    const std::string driver = std::string(GPC_SOURCE_DIR) + "/tests/browser/" +
                               (c.firefox ? "firefox_page.py" : "chromium_page.py");
    const std::string url = site.Url() + page + ".html" +
                            (closeTab ? std::string("#") + (kDownloading + std::strlen("/status?")) : "");
    const std::string profile = home.path() + "/profile", log = site.server.AccessLogPath();
    const std::string extension = std::string(GPC_SOURCE_DIR) + "/extension";
    const std::string host = std::string(GPC_BIN_DIR) + "/gpc-host", ca = site.server.AuthorityPath();
    std::vector<std::string> argv = {
        "timeout", "-k",          "3",       "90",           "python3", driver,
        url,       "--extension", extension, "--access-log", log,       "--until",
        c.until,   "--host",      host,      "--host-pids",  pids,      "--browser-log",
        browserLog};
    if (c.firefox)
      argv.insert(argv.end(), {"--profile", profile, "--firefox", browsers[1], "--authority", ca});
    if (!c.firefox) argv.insert(argv.end(), {"--user-data-dir", profile, "--chromium", browsers[0]});
    const browsertest::DriverRun run = browsertest::Drive(argv, home.path() + "/driver.log");
    const std::string output = run.output + "\n--- browser and host ---\n" + gpctest::ReadFile(browserLog);

    EXPECT_EQ(run.exitCode, 0) << output;
    EXPECT_NE(run.endUrl.find(c.shown), std::string::npos) << output;
    // The box showed the bridge at work first.
    const std::string requests = gpctest::ReadFile(site.server.AccessLogPath()).substr(logged);
    EXPECT_NE(requests.find(kStarting), std::string::npos) << requests;
    EXPECT_EQ(requests.find("/status?"), requests.find(kStarting)) << requests;
    // A host was started; none outlived its tab (when that closed) or the browser.
    EXPECT_FALSE(gpctest::ReadFile(pids).empty()) << output;
    EXPECT_EQ(run.left.size(), closeTab ? 2u : 1u) << output;
    for (const std::string& left : run.left) EXPECT_NE(left.find("\"pids\":[]"), std::string::npos) << left;
    // The extension is installed whole or not at all, and no piece of the package is left in /tmp.
    struct stat folder;
    EXPECT_EQ(stat(installed.c_str(), &folder) == 0, installs);
    const std::string info = gpctest::ReadFile(installed + "/Contents/Info.plist");
    EXPECT_EQ(info.find("2.0.0.7") != std::string::npos, installs) << info;
    EXPECT_EQ(gpctest::PiecesInTmp(site.package), std::vector<std::string>());
  }
}

}  // namespace
