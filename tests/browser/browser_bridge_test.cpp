// The plug-in in today's browsers, through the bridge: headless Chromium with the extension in
// extension/ loaded unpacked, a fresh profile whose NativeMessagingHosts folder names our native
// host, and meeting pages served over https by nginx on 127.0.0.1. tests/browser/chromium_page.py
// drives the browser over its DevTools pipe and reports the status box and the pages it reaches.
// The native host is the built `gpc-host --native-messaging`, loading the built module. Firefox
// ESR runs the same extension (tests/browser/firefox_page.py).
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "browser_pages.h"
#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"
#include "scoped_env.h"

namespace {

using gpchost::JsonEvent;
using gpctest::PageParams;

const std::string kChromium = "/usr/bin/chromium";
const std::string kDriver = std::string(GPC_SOURCE_DIR) + "/tests/browser/chromium_page.py";
const std::string kExtension = std::string(GPC_SOURCE_DIR) + "/extension";
const std::string kGpcHost = std::string(GPC_BIN_DIR) + "/gpc-host";
// Derived from the public key in extension/manifest.json (see extension/README.md).
const char kExtensionOrigin[] = "chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/";
const char kHostName[] = "com.vantrel.talvo.gpc";
const char kFirefoxAddon[] = "gpc-bridge@talvo.example";  // extension/manifest.json
const std::string kFirefox = "/usr/bin/firefox-esr";
const std::string kFirefoxDriver = std::string(GPC_SOURCE_DIR) + "/tests/browser/firefox_page.py";
using browsertest::HtmlEscaped;
using browsertest::kDonePage;
using browsertest::kDonePath;
using browsertest::kErrorPage;
using browsertest::kErrorPath;

// How the page carries the plug-in.
enum class Markup {
  kEmbed,         // <embed NAME="VALUE" ...> in the page's source
  kTwoEmbeds,     // two such embeds, one after the other
  kLateObject,    // <object> with <param> children, added by the page's script after it loaded
  kInFrame,       // the <embed> page inside an <iframe> of the page
};

// Which package the page names.
enum class Package {
  kGood,
  kTampered,  // altered on the server, with the page's digest following it: the signature fails
  kSlow,      // the good one from a server that takes about four seconds for it
};

std::string EmbedElement(const PageParams& params) {
  std::string html = "<embed type=\"application/x-talvo-gpc\" width=\"300\" height=\"200\"";
  for (const auto& [name, value] : params) html += "\n  " + name + "=\"" + HtmlEscaped(value) + "\"";
  return html + ">";
}

// The page for `markup`; kInFrame frames the page "<name>-inner.html" (the kEmbed page).
std::string MeetingPage(const PageParams& params, Markup markup, const std::string& name) {
  std::string html = "<html><head><title>meeting</title></head><body><p>Meeting</p>";
  if (markup == Markup::kInFrame) {
    return html + "<iframe src=\"" + name + "-inner.html\" width=\"400\" height=\"260\"></iframe></body></html>";
  }
  if (markup == Markup::kEmbed) return html + EmbedElement(params) + "</body></html>";
  if (markup == Markup::kTwoEmbeds) return html + EmbedElement(params) + EmbedElement(params) + "</body></html>";
  html += "<template id='later'><object type=\"application/x-talvo-gpc\" width=\"300\" height=\"200\">";
  for (const auto& [name, value] : params) {
    html += "\n  <param name=\"" + HtmlEscaped(name) + "\" value=\"" + HtmlEscaped(value) + "\">";
  }
  return html + "</object></template><script>setTimeout(function () {"
                "document.body.appendChild(document.getElementById('later').content.cloneNode(true));"
                "}, 300);</script></body></html>";
}

bool IsRunning(pid_t pid) {
  const std::string stat = gpctest::ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t end = stat.rfind(')');
  return end != std::string::npos && end + 2 < stat.size() && stat[end + 2] != 'Z';
}

// A fresh Chromium profile whose native-messaging host is ours. The manifest's "path" takes no
// arguments, so it names a wrapper script (Chromium adds the caller's origin as its argument).
class BrowserProfile {
 public:
  BrowserProfile() : folder_("browser") {}

  // Chromium reads host manifests from the profile, Firefox from ~/.mozilla (HOME is ours).
  bool Make(bool firefox = false) {
    const std::string hosts = firefox ? Home() + "/.mozilla/native-messaging-hosts" : Dir() + "/NativeMessagingHosts";
    const std::string allowed = firefox ? std::string("\"allowed_extensions\": [\"") + kFirefoxAddon + "\"]"
                                        : std::string("\"allowed_origins\": [\"") + kExtensionOrigin + "\"]";
    const std::string wrapper = folder_.path() + "/gpc-native-host";
    // gpc-host takes no origin argument: the browser's are dropped here. Each host started
    // leaves its process id behind.
    const std::string command = "echo $$ >>" + gpctest::ShellQuote(HostPids()) + "\nexec " +
                                gpctest::ShellQuote(kGpcHost) + " --native-messaging 2>>" +
                                gpctest::ShellQuote(HostLog()) + "\n";
    const std::string manifest = std::string("{\"name\": \"") + kHostName +
                                 "\", \"description\": \"GPC plug-in host\", \"path\": \"" + wrapper +
                                 "\", \"type\": \"stdio\", " + allowed + "}\n";
    if (firefox) mkdir((Home() + "/.mozilla").c_str(), 0700);
    return mkdir(Dir().c_str(), 0700) == 0 && mkdir(hosts.c_str(), 0700) == 0 && mkdir(Data().c_str(), 0700) == 0 &&
           gpctest::WriteFile(wrapper, "#!/bin/sh\n" + command) && chmod(wrapper.c_str(), 0755) == 0 &&
           gpctest::WriteFile(hosts + "/" + kHostName + ".json", manifest);
  }
  std::string Dir() const { return folder_.path() + "/profile"; }
  std::string Home() const { return folder_.path(); }
  std::string HostLog() const { return folder_.path() + "/native-host.log"; }
  std::string HostPids() const { return folder_.path() + "/native-host.pids"; }
  // The user's data folder as the host sees it: each page starts without an installed extension.
  std::string Data() const { return folder_.path() + "/data"; }
  std::string Installed() const { return Data() + "/Talvo Folder/zrgpcext64.bundle"; }

  // The hosts that were started and have not ended within `seconds`.
  std::vector<pid_t> HostsRunning(int seconds) const {
    std::vector<pid_t> running;
    for (int tenth = 0; tenth <= seconds * 10; ++tenth) {
      running.clear();
      std::istringstream pids(gpctest::ReadFile(HostPids()));
      for (pid_t pid; pids >> pid;)
        if (IsRunning(pid)) running.push_back(pid);
      if (running.empty()) break;
      usleep(100 * 1000);
    }
    return running;
  }

 private:
  gpctest::TempFolder folder_;
};


// What the driver reported about one page.
struct BrowserRun {
  int exit_code = -1;
  std::vector<JsonEvent> events;
  std::string output;  // the driver's report and the host's log, for failure messages

  const JsonEvent* Last(const std::string& kind) const {
    for (auto it = events.rbegin(); it != events.rend(); ++it) {
      if (it->Str("t") == kind) return &*it;
    }
    return nullptr;
  }
  std::string FinalUrl() const { return Last("end") ? Last("end")->Str("url") : std::string(); }
  std::string FinalText() const { return Last("end") ? Last("end")->Str("text") : std::string(); }
  std::vector<std::string> Statuses() const {
    std::vector<std::string> texts;
    for (const JsonEvent& event : events) {
      if (event.Str("t") == "status") texts.push_back(event.Str("text"));
    }
    return texts;
  }
};

struct BridgeCase {
  const char* name;
  Markup markup;
  Package package;
  bool withRoot;      // "GpcUrlRoot" given
  bool withErrorPage; // "GpcErrorPageUrl" given
  const char* until;  // where the page is expected to end; empty: it stays until its status box shows `shown`
  const char* shown;  // what that page then shows
  bool closeTab;      // the tab is closed then, the browser staying open
  bool installs;      // the extension is installed in the end
};

void PrintTo(const BridgeCase& c, std::ostream* out) { *out << c.name; }

class ChromiumBridge : public ::testing::TestWithParam<BridgeCase> {
 protected:
  struct Shared {
    gpctest::TempFolder folder{"bridge"};
    gpctest::NginxTestServer server, slow;
    browsertest::SignedSample sample;
    std::string tamperedDigest;
    bool ok = false;
  };

  static void SetUpTestSuite() {
    shared_ = new Shared();
    Shared& s = *shared_;
    s.ok = s.sample.Make(s.folder.path()) && s.server.Start();
    std::string tampered = s.sample.package;
    if (!tampered.empty()) tampered[tampered.size() / 2] ^= 0x20;
    const std::string tamperedPath = s.folder.path() + "/tampered.7z";
    s.ok = s.ok && gpctest::WriteFile(tamperedPath, tampered);
    s.tamperedDigest = s.ok ? gpctest::FileDigest(tamperedPath, "sha256") : "";
    s.slow.SetLimitRate(std::to_string(s.sample.package.size() / 4 + 1));
    s.ok = s.ok && !s.tamperedDigest.empty() && s.slow.Start() &&
           s.slow.AddFile("client/zrgpcext64.bundle.7z", s.sample.package) &&
           s.server.AddFile("client/zrgpcext64.bundle.7z", s.sample.package) &&
           s.server.AddFile("client/tampered/zrgpcext64.bundle.7z", tampered) &&
           s.server.AddFile("files/readme.txt", "hello") && s.server.AddFile("page/done.html", kDonePage) &&
           s.server.AddFile("page/error.html", kErrorPage);
  }
  static void TearDownTestSuite() {
    delete shared_;
    shared_ = nullptr;
  }

  void SetUp() override {
    if (access(kChromium.c_str(), X_OK) != 0) GTEST_SKIP() << kChromium << " is not installed (Debian package chromium)";
    ASSERT_TRUE(shared_->ok) << shared_->server.error();
  }

  // After the browser has gone: no native host left running, the extension installed whole (when
  // `installs`) or not at all, and no piece of the package left under /tmp.
  static void ExpectNothingLeft(const BrowserProfile& profile, bool installs, const std::string& output) {
    std::vector<pid_t> left = profile.HostsRunning(10);
    for (pid_t pid : left) kill(pid, SIGKILL);
    EXPECT_TRUE(left.empty()) << "a native host outlived the browser\n" << output;
    EXPECT_FALSE(gpctest::ReadFile(profile.HostPids()).empty()) << "no native host was started\n" << output;
    struct stat installed;
    const std::string info = gpctest::ReadFile(profile.Installed() + "/Contents/Info.plist");
    if (installs) EXPECT_NE(info.find("2.0.0.7"), std::string::npos) << output;
    else EXPECT_NE(stat(profile.Installed().c_str(), &installed), 0) << profile.Installed();
    EXPECT_EQ(gpctest::PiecesInTmp(shared_->sample.package), std::vector<std::string>());
  }

  static std::string Site() { return "https://127.0.0.1:" + std::to_string(shared_->server.https_port()) + "/"; }

  static PageParams Meeting(const BridgeCase& c) {
    const std::string site = Site();
    PageParams params = {{"gpcsitelock", "0"}, {"GpcProductVersion", "3.1.0"}};
    const std::string roots[] = {site + "client/", site + "client/tampered/",
                                 "https://127.0.0.1:" + std::to_string(shared_->slow.https_port()) + "/client/"};
    if (c.withRoot) params.push_back({"GpcUrlRoot", roots[static_cast<int>(c.package)]});
    params.push_back({"GpcUnpackVersion", "1,0"});
    for (auto [name, value] : shared_->sample.params) {
      if (name == "GpcExtHash" && c.package == Package::kTampered) value = shared_->tamperedDigest;
      params.push_back({name, value});
    }
    const bool withErrorPage = c.withErrorPage;
    if (withErrorPage) params.push_back({"GpcErrorPageUrl", site + "page/error.html"});
    params.insert(params.end(), {{"GpcSampleFiles", site + "files/readme.txt"},
                                 {"GpcSampleDoneUrl", site + "page/done.html"}});
    return params;
  }

  // Serves `page` as /page/<c.name>.html and runs the browser driver `args` (the page's URL is
  // added after the program) with HOME and the data folder in `profile`; collects what the
  // driver reported, and the host's and the browser's logs for failure messages.
  static BrowserRun Drive(const BridgeCase& c, const std::string& page, const BrowserProfile& profile,
                          std::vector<std::string> args) {
    EXPECT_TRUE(shared_->server.AddFile(std::string("page/") + c.name + ".html", page));
    // Browsers keep their certificate stores and caches under HOME: the profile's folder, not ours.
    ScopedEnv home("HOME", profile.Home());
    ScopedEnv data("XDG_DATA_HOME", profile.Data());
    const std::string log = profile.Home() + "/driver.log", browserLog = profile.Home() + "/browser.log";
    args.insert(args.begin() + 6, Site() + "page/" + c.name + ".html");
    args.insert(args.end(), {"--extension", kExtension, "--browser-log", browserLog});
    std::vector<const char*> argv;
    for (const std::string& arg : args) argv.push_back(arg.c_str());
    argv.push_back(nullptr);
    BrowserRun run;
    run.exit_code = gpctest::RunCommand(argv.data(), log);
    const std::string report = gpctest::ReadFile(log);
    for (const JsonEvent& event : gpchost::ParseJsonLines(report)) {
      if (event.line.rfind("{\"t\":", 0) == 0) run.events.push_back(event);
    }
    const std::string browser = gpctest::ReadFile(browserLog);
    run.output = report + "\n--- gpc-host ---\n" + gpctest::ReadFile(profile.HostLog()) + "\n--- browser ---\n" +
                 browser.substr(browser.size() > 3000 ? browser.size() - 3000 : 0);
    return run;
  }

  // Opens the page in Chromium until the top frame reaches a URL containing c.until (or, when
  // that is empty, until its status box shows c.shown); saves the page as it ends to `screenshot`.
  static BrowserRun Open(const BridgeCase& c, const std::string& page, const BrowserProfile& profile,
                         const std::string& screenshot) {
    std::vector<std::string> args = {"timeout", "-k", "3", "30", "python3", kDriver, "--chromium", kChromium,
                                     "--user-data-dir", profile.Dir(), "--timeout", "20", "--screenshot", screenshot};
    if (std::string(c.until).empty()) args.insert(args.end(), {"--until-status", c.shown});
    else args.insert(args.end(), {"--until", c.until});
    if (c.closeTab) args.insert(args.end(), {"--close-tab", profile.HostPids()});
    return Drive(c, page, profile, args);
  }

  static Shared* shared_;
};
ChromiumBridge::Shared* ChromiumBridge::shared_ = nullptr;

TEST_P(ChromiumBridge, PageEndsWhereTheModuleSendsIt) {
  const BridgeCase& c = GetParam();
  const char* home = std::getenv("GPC_TEST_HOME");
  const std::string screenshot = std::string(home != nullptr ? home : "/tmp") + "/chromium-" + c.name + ".png";
  std::remove(screenshot.c_str());

  const PageParams params = Meeting(c);
  if (c.markup == Markup::kInFrame) {
    ASSERT_TRUE(shared_->server.AddFile(std::string("page/") + c.name + "-inner.html",
                                        MeetingPage(params, Markup::kEmbed, c.name)));
  }
  BrowserProfile profile;
  ASSERT_TRUE(profile.Make());
  BrowserRun run = Open(c, MeetingPage(params, c.markup, c.name), profile, screenshot);

  ASSERT_EQ(run.exit_code, 0) << run.output;
  EXPECT_NE(run.FinalText().find(c.shown), std::string::npos) << run.output;
  // The embed's box showed the bridge at work before the module sent the page on (a box inside a
  // frame is not always seen by the driver).
  const std::vector<std::string> statuses = run.Statuses();
  if (c.markup != Markup::kInFrame) {
    ASSERT_FALSE(statuses.empty()) << run.output;
    EXPECT_EQ(statuses.front(), "Starting…");
  }
  EXPECT_EQ(gpctest::ReadFile(screenshot).substr(0, 4), "\x89PNG") << screenshot;
  if (std::string(c.until).empty()) {
    EXPECT_NE(run.FinalUrl().find(std::string(c.name) + ".html"), std::string::npos) << run.output;
  }
  // A closed tab ends its host while the browser goes on; a closed browser ends every host.
  if (c.closeTab) {
    ASSERT_NE(run.Last("host"), nullptr) << run.output;
    EXPECT_NE(run.Last("host")->line.find("\"running\":false"), std::string::npos) << run.output;
  }
  ExpectNothingLeft(profile, c.installs, run.output);
}

INSTANTIATE_TEST_SUITE_P(
    Chromium, ChromiumBridge,
    ::testing::Values(
        BridgeCase{"MeetingPage", Markup::kEmbed, Package::kGood, true, true, kDonePath,
                   "The extension ran: fetched=1&failed=0", false, true},
        BridgeCase{"ObjectAddedLater", Markup::kLateObject, Package::kGood, true, true, kDonePath,
                   "The extension ran: fetched=1&failed=0", false, true},
        // The module sends the whole tab (_top) on from inside the frame.
        BridgeCase{"InFrame", Markup::kInFrame, Package::kGood, true, true, kDonePath,
                   "The extension ran: fetched=1&failed=0", false, true},
        BridgeCase{"TwoEmbeds", Markup::kTwoEmbeds, Package::kGood, true, true, kDonePath,
                   "The extension ran: fetched=1&failed=0", false, true},
        BridgeCase{"NoUrlRoot", Markup::kEmbed, Package::kGood, false, true, kErrorPath, "Error [100]", false, false},
        BridgeCase{"TamperedPackage", Markup::kEmbed, Package::kTampered, true, true, kErrorPath, "Error [103]",
                   false, false},
        // Nowhere to send the page: it keeps the embed's status box (the screenshot shows it).
        BridgeCase{"StatusBox", Markup::kEmbed, Package::kGood, false, false, "", "Starting…", false, false},
        BridgeCase{"TabClosedMidDownload", Markup::kEmbed, Package::kSlow, true, true, "", "Downloading…", true,
                   false}),
    [](const ::testing::TestParamInfo<BridgeCase>& info) { return info.param.name; });

// The same bridge in Firefox ESR, headless, with the extension installed into a fresh profile.
// The driver sees no page: a case ends when the server is asked for the page the module sends
// the tab to, and `shown` is then looked for in that request.
class FirefoxBridge : public ChromiumBridge {
 protected:
  void SetUp() override {
    if (access(kFirefox.c_str(), X_OK) != 0 || system("command -v certutil >/dev/null") != 0)
      GTEST_SKIP() << kFirefox << " or certutil is not installed (Debian packages firefox-esr, libnss3-tools)";
    ASSERT_TRUE(shared_->ok) << shared_->server.error();
  }

  static BrowserRun OpenInFirefox(const BridgeCase& c, const std::string& page, const BrowserProfile& profile) {
    return Drive(c, page, profile,
                 {"timeout", "-k", "3", "60", "python3", kFirefoxDriver, "--firefox", kFirefox, "--profile",
                  profile.Dir(), "--authority", shared_->server.AuthorityPath(), "--access-log",
                  shared_->server.AccessLogPath(), "--until", c.until, "--timeout", "40"});
  }
};

TEST_P(FirefoxBridge, PageEndsWhereTheModuleSendsIt) {
  const BridgeCase& c = GetParam();
  BrowserProfile profile;
  ASSERT_TRUE(profile.Make(true));
  BrowserRun run = OpenInFirefox(c, MeetingPage(Meeting(c), c.markup, c.name), profile);
  ASSERT_EQ(run.exit_code, 0) << run.output;
  EXPECT_NE(run.FinalUrl().find(c.shown), std::string::npos) << run.output;
  EXPECT_EQ(run.Last("leftover"), nullptr) << run.output;
  ExpectNothingLeft(profile, c.installs, run.output);
}

INSTANTIATE_TEST_SUITE_P(
    Firefox, FirefoxBridge,
    ::testing::Values(BridgeCase{"FirefoxMeetingPage", Markup::kEmbed, Package::kGood, true, true, kDonePath,
                                 "fetched=1&failed=0", false, true},
                      BridgeCase{"FirefoxTamperedPackage", Markup::kEmbed, Package::kTampered, true, true,
                                 kErrorPath, "Error%20%5B103%5D", false, false}),
    [](const ::testing::TestParamInfo<BridgeCase>& info) { return info.param.name; });

}  // namespace
