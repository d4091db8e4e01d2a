// The plug-in in a real browser engine: QtWebKit (driven by tests/browser/qtwebkit_page.py under
// a private Xvfb) finds the built module through QTWEBKIT_PLUGIN_PATH and opens meeting pages
// served by nginx on 127.0.0.1. Each case asserts what the browser ends up showing: the sample
// extension's "done" page, the plug-in's error page, or the meeting page left as it was.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
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

const std::string kDriver = std::string(GPC_SOURCE_DIR) + "/tests/browser/qtwebkit_page.py";
const std::string kProxyScript = std::string(GPC_SOURCE_DIR) + "/tests/support/loopback_connect_proxy.py";
const std::string kPluginDir = std::string(GPC_BUNDLE_DIR) + "/Contents/MacOS";
using browsertest::HtmlEscaped;
using browsertest::kDonePage;
using browsertest::kDonePath;
using browsertest::kErrorPage;
using browsertest::kErrorPath;

// A meeting page that embeds the plug-in with `params`, in their order and spelling.
std::string MeetingPage(const PageParams& params) {
  std::string html = "<html><head><title>meeting</title></head><body><embed type=\"application/x-talvo-gpc\" "
                     "width=\"300\" height=\"200\"";
  for (const auto& [name, value] : params) html += "\n  " + name + "=\"" + HtmlEscaped(value) + "\"";
  return html + "></body></html>";
}

// QtWebKit opens plug-ins with RTLD_DEEPBIND, which the AddressSanitizer runtime refuses (it
// ends the browser at once): an instrumented module cannot be loaded by this engine.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// What the driver reported about one page.
struct BrowserRun {
  int exit_code = -1;
  std::vector<JsonEvent> events;
  std::string output;  // everything the driver printed, for failure messages

  std::string FinalUrl() const {
    for (auto it = events.rbegin(); it != events.rend(); ++it) {
      if (it->Name() == "end") return it->Str("url");
    }
    return std::string();
  }
  // The visible text of the last page that finished loading at a URL containing `part`.
  std::string TextAt(const std::string& part) const {
    for (auto it = events.rbegin(); it != events.rend(); ++it) {
      if (it->Name() == "load_finished" && it->Str("url").find(part) != std::string::npos) return it->Str("text");
    }
    return std::string();
  }
  bool FoundPlugin() const {
    for (const JsonEvent& event : events) {
      if (event.Name() == "plugins" && event.line.find("application/x-talvo-gpc") != std::string::npos) return true;
    }
    return false;
  }
};

// tests/support/loopback_connect_proxy.py: every host name's CONNECT reaches `targetPort`.
class LoopbackProxy {
 public:
  LoopbackProxy() : folder_("proxy") {}
  bool Start(int targetPort) {
    const std::string portFile = folder_.path() + "/port";
    const std::string target = std::to_string(targetPort);
    const std::string log = Log();
    const char* argv[] = {"python3", kProxyScript.c_str(), "--target-port", target.c_str(),
                          "--port-file", portFile.c_str(), "--log", log.c_str(), nullptr};
    if (!process_.Spawn(argv, folder_.path() + "/proxy.log")) return false;
    for (int waited = 0; waited < 10000 && process_.Running(); waited += 20) {
      const std::string text = gpctest::ReadFile(portFile);
      if (!text.empty() && text.back() == '\n') {
        url_ = "http://127.0.0.1:" + std::to_string(atoi(text.c_str()));
        return true;
      }
      usleep(20000);
    }
    return false;
  }
  const std::string& Url() const { return url_; }
  // One JSON line per CONNECT: host, port.
  std::string Log() const { return folder_.path() + "/connects.jsonl"; }

 private:
  gpctest::TempFolder folder_;
  gpctest::ChildProcess process_;
  std::string url_;
};

class BrowserJob : public ::testing::Test {
 protected:
  struct Shared {
    gpctest::TempFolder folder{"browser"};
    gpctest::NginxTestServer server;
    browsertest::SignedSample sample;
    LoopbackProxy proxy;
    bool ok = false;
  };

  static void SetUpTestSuite() {
    if (kSanitized) return;
    shared_ = new Shared();
    Shared& s = *shared_;
    s.ok = s.sample.Make(s.folder.path()) && s.server.Start() &&
           s.server.AddFile("client/zrgpcext64.bundle.7z", s.sample.package) &&
           s.server.AddFile("files/readme.txt", "hello") && s.server.AddFile("page/done.html", kDonePage) &&
           s.server.AddFile("page/error.html", kErrorPage) && s.proxy.Start(s.server.https_port());
  }
  static void TearDownTestSuite() {
    delete shared_;
    shared_ = nullptr;
  }

  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "QtWebKit loads plug-ins with RTLD_DEEPBIND, which AddressSanitizer refuses";
    ASSERT_TRUE(shared_->ok) << shared_->server.error();
    data_ = std::make_unique<gpctest::TempFolder>("browserdata");
    data_env_ = std::make_unique<ScopedEnv>("XDG_DATA_HOME", data_->path());
  }

  // A meeting page whose files all lie under `site` ("https://host[:port]/"), asking for the
  // published package; `root` is its "GpcUrlRoot" (none when empty).
  static PageParams Meeting(const std::string& site, const std::string& root, bool siteLockOff) {
    PageParams params;
    if (siteLockOff) params.push_back({"gpcsitelock", "0"});
    params.push_back({"GpcProductVersion", "3.1.0"});
    if (!root.empty()) params.push_back({"GpcUrlRoot", root});
    params.push_back({"GpcUnpackVersion", "1,0"});
    params.insert(params.end(), shared_->sample.params.begin(), shared_->sample.params.end());
    params.insert(params.end(), {{"GpcErrorPageUrl", site + "page/error.html"},
                                 {"GpcSampleFiles", site + "files/readme.txt"},
                                 {"GpcSampleDoneUrl", site + "page/done.html"}});
    return params;
  }
  static std::string LocalSite() { return "https://127.0.0.1:" + std::to_string(shared_->server.https_port()) + "/"; }

  // Puts `params` on a page of its own at `site` and opens it in the browser until the page is
  // sent to `until`, or for `afterLoad` seconds after it loaded. `trace` gets the plug-in's trace.
  BrowserRun Open(const std::string& site, const PageParams& params, const std::string& until, double afterLoad,
                  std::string* trace, bool viaProxy = false) {
    const std::string name = "run" + std::to_string(++runs_);
    EXPECT_TRUE(shared_->server.AddFile("page/" + name + ".html", MeetingPage(params)));
    const std::string traceFile = data_->path() + "/" + name + ".tvt";
    const std::string log = data_->path() + "/" + name + ".log";
    ScopedEnv traceEnv("GPC_TRACE_FILE", traceFile);
    // The plug-in downloads with libcurl, which takes its proxy from the browser's environment.
    ScopedEnv proxyEnv("https_proxy", viaProxy ? shared_->proxy.Url().c_str() : nullptr);
    ScopedEnv noProxyEnv("no_proxy", nullptr);
    const std::string url = site + "page/" + name + ".html";
    const std::string linger = std::to_string(afterLoad);
    std::vector<const char*> argv = {"timeout", "-k", "5", "60", "/usr/bin/python3", kDriver.c_str(), url.c_str(),
                                     "--plugin-dir", kPluginDir.c_str(), "--timeout", "30",
                                     "--settle", "0.2", "--after-load", linger.c_str()};
    if (!until.empty()) argv.insert(argv.end(), {"--until", until.c_str()});
    if (viaProxy) argv.insert(argv.end(), {"--proxy", shared_->proxy.Url().c_str()});
    argv.push_back(nullptr);
    BrowserRun run;
    run.exit_code = gpctest::RunCommand(argv.data(), log);
    run.output = gpctest::ReadFile(log);
    for (const JsonEvent& event : gpchost::ParseJsonLines(run.output)) {
      if (event.line.rfind("{\"t\":", 0) == 0) run.events.push_back(event);
    }
    *trace = gpctest::ReadFile(traceFile);
    return run;
  }

  std::string DataFile(const std::string& name) { return gpctest::ReadFile(data_->path() + "/Talvo Folder/" + name); }

  static Shared* shared_;
  std::unique_ptr<gpctest::TempFolder> data_;
  std::unique_ptr<ScopedEnv> data_env_;
  int runs_ = 0;
};
BrowserJob::Shared* BrowserJob::shared_ = nullptr;

const char kPackageLoaded[] = "CGpcExtMgr::GpcGetFileNotify,Load extension : ";

TEST_F(BrowserJob, TheExtensionIsInstalledOnceAndRunsOnEveryMeetingPage) {
  const std::string site = LocalSite();
  std::string trace;
  BrowserRun first = Open(site, Meeting(site, site + "client/", true), kDonePath, 0, &trace);
  ASSERT_EQ(first.exit_code, 0) << first.output;
  EXPECT_TRUE(first.FoundPlugin());
  EXPECT_NE(trace.find(kPackageLoaded), std::string::npos);
  EXPECT_NE(first.TextAt(kDonePath).find("The extension ran: fetched=1&failed=0"), std::string::npos) << first.output;
  // The engine hands over attribute names in lower case, and its own "type", "width" and
  // "height" first; the plug-in still found every parameter it needs (the job ran), and the
  // parameter file keeps the names as the browser gave them.
  const std::string parameters = DataFile("3.1.0/talvoparameters.txt");
  for (const char* record : {"[NAME]-=-type-=-[VALUE]-=-application/x-talvo-gpc-=-\r", "[NAME]-=-width-=-[VALUE]-=-300-=-\r",
                             "[NAME]-=-height-=-[VALUE]-=-200-=-\r", "[NAME]-=-gpcproductversion-=-[VALUE]-=-3.1.0-=-\r"}) {
    EXPECT_NE(parameters.find(record), std::string::npos) << record << " in\n" << parameters;
  }
  EXPECT_EQ(parameters.find("GpcProductVersion"), std::string::npos);

  BrowserRun again = Open(site, Meeting(site, site + "client/", true), kDonePath, 0, &trace);
  ASSERT_EQ(again.exit_code, 0) << again.output;
  EXPECT_NE(again.TextAt(kDonePath).find("The extension ran: fetched=1"), std::string::npos) << again.output;
  EXPECT_NE(trace.find("InitExtension,Initialize GPC extension,return value =0"), std::string::npos);
  EXPECT_EQ(trace.find("zrgpcext64.bundle.7z"), std::string::npos) << "the installed version is not downloaded again";
}

struct ErrorCase {
  const char* name;
  bool tamperSignature;  // the package signed over another digest
  bool withRoot;
  const char* code;      // as it ends the error message, URL-encoded
  const char* shown;     // as the error page shows it
};

void PrintTo(const ErrorCase& c, std::ostream* out) { *out << c.name; }

class BrowserErrorPage : public BrowserJob, public ::testing::WithParamInterface<ErrorCase> {};

TEST_P(BrowserErrorPage, ShowsTheMessage) {
  const ErrorCase& c = GetParam();
  const std::string site = LocalSite();
  PageParams params = Meeting(site, c.withRoot ? site + "client/" : "", true);
  if (c.tamperSignature) {
    // A signature the certificates vouch for, over the digest of another file.
    const std::string other = gpctest::FileDigest(shared_->server.FilePath("files/readme.txt"), "sha256");
    for (auto& [name, value] : params) {
      if (name == "GpcExtSignature") value = shared_->sample.signer->Sign(other);
    }
  }
  std::string trace;
  BrowserRun run = Open(site, params, kErrorPath, 0, &trace);
  ASSERT_EQ(run.exit_code, 0) << run.output;
  EXPECT_NE(run.FinalUrl().find(c.code), std::string::npos) << run.FinalUrl();
  EXPECT_NE(run.TextAt(kErrorPath).find(c.shown), std::string::npos) << run.output;
  EXPECT_EQ(DataFile("zrgpcext64.bundle/Contents/Info.plist"), "") << "nothing is installed";
  EXPECT_EQ(trace.find("InitExtension,Initialize GPC extension"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Browser, BrowserErrorPage,
                         ::testing::Values(ErrorCase{"TamperedPackage", true, true, "%5B103%5D", "Error [103]"},
                                           ErrorCase{"NoUrlRoot", false, false, "%5B100%5D", "Error [100]"}),
                         [](const ::testing::TestParamInfo<ErrorCase>& info) { return info.param.name; });

struct SiteLockCase {
  const char* name;
  const char* root;  // "GpcUrlRoot", reached through the proxy
  bool runs;
};

void PrintTo(const SiteLockCase& c, std::ostream* out) { *out << c.name; }

class BrowserSiteLock : public BrowserJob, public ::testing::WithParamInterface<SiteLockCase> {};

// The page, its root and its files carry real host names; the proxy takes every name to nginx.
TEST_P(BrowserSiteLock, OnlyAnApprovedRootStartsTheJob) {
  const SiteLockCase& c = GetParam();
  const std::string site = "https://meet.talvo.us/";
  std::string trace;
  BrowserRun run = Open(site, Meeting(site, c.root, false), kDonePath, c.runs ? 0 : 4, &trace, true);
  const std::string connects = gpctest::ReadFile(shared_->proxy.Log());
  ASSERT_TRUE(run.FoundPlugin()) << run.output;
  ASSERT_NE(trace.find("NPP_New"), std::string::npos);
  if (c.runs) {
    ASSERT_EQ(run.exit_code, 0) << run.output;
    EXPECT_NE(run.TextAt(kDonePath).find("The extension ran: fetched=1&failed=0"), std::string::npos) << run.output;
    EXPECT_NE(trace.find(kPackageLoaded), std::string::npos);
  } else {
    EXPECT_EQ(run.exit_code, 3) << run.output;
    EXPECT_EQ(run.FinalUrl(), site + "page/run1.html");
    EXPECT_NE(trace.find("CorrectSchemaofUrlRoot,approve fail"), std::string::npos);
    EXPECT_EQ(trace.find("zrgpcext64.bundle.7z"), std::string::npos) << "no download";
    EXPECT_EQ(connects.find("downloads.example.org"), std::string::npos) << connects;
  }
}

INSTANTIATE_TEST_SUITE_P(Browser, BrowserSiteLock,
                         ::testing::Values(SiteLockCase{"ApprovedDomain", "https://meet.talvo.us/client/", true},
                                           SiteLockCase{"OtherDomain", "https://downloads.example.org/client/", false}),
                         [](const ::testing::TestParamInfo<SiteLockCase>& info) { return info.param.name; });

}  // namespace
