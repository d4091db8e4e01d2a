// The plug-in in real browsers, on meeting pages from a loopback server serving the sample extension packed
// and signed by gpc-pack: QtWebKit loads the module, Chromium and Firefox ESR reach it by the bridge.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "extension_package.h"
#include "http_test_server.h"
#include "scoped_env.h"

namespace {

constexpr char kRan[] = "/page/done.html?fetched=1&failed=0";
constexpr char kErrorPage[] = "/page/error.html?ErrorType=1&ErrorMsg=";
constexpr char kStarting[] = "/status?Starting%E2%80%A6", kDownloading[] = "/status?Downloading%E2%80%A6";

enum class Markup { kEmbed, kTwoEmbeds, kLateObject, kInFrame };

// A meeting page carrying the plug-in with `params` (none holding '"', '&' or '<') as `markup` says; kInFrame
// frames "<name>-inner.html". The page tells the server each text its status box shows ("/status?TEXT&n=N",
// URL-encoded, N counting from 1: beacons may arrive out of order) and closes its tab once the box shows a text beginning with the page's fragment.
std::string MeetingPage(const gpctest::PageParams& params, Markup markup, const std::string& name) {
  std::string embed = "<embed type=\"application/x-talvo-gpc\" width=\"300\" height=\"200\"";
  std::string object = "<template id='later'><object type=\"application/x-talvo-gpc\" width=300 height=200>";
  for (const auto& [key, value] : params) {
    embed += "\n  " + key + "=\"" + value + "\"";
    object += "\n  <param name=\"" + key + "\" value=\"" + value + "\">";
  }
  embed += ">";
  const std::string body[] = {
      embed, embed + embed,
      object + "</object></template><script>setTimeout(function () { document.body."
               "appendChild(document.getElementById('later').content.cloneNode(true)); }, 300);</script>",
      "<iframe src=\"" + name + "-inner.html\" width=\"400\" height=\"260\"></iframe>"};
  return "<html><head><title>meeting</title></head><body><p>Meeting</p>" + body[static_cast<int>(markup)] +
         "<script>var shown, told = 0; new MutationObserver(function () {"
         "  var box = document.querySelector('[data-talvo-gpc-status]');"
         "  var text = box && encodeURIComponent(box.textContent);"
         "  if (!box || text === shown) return; shown = text; navigator.sendBeacon('/status?' + text + '&n=' + ++told);"
         "  if (location.hash.length > 1 && text.indexOf(location.hash.substring(1)) === 0) window.close();"
         "}).observe(document, {childList: true, subtree: true, characterData: true});</script>";
}

// QtWebKit loads the module itself; Chromium and Firefox reach it by extension/ and gpc-host as native host.
// The server's log tells where each page went and (by the bridge) what its status box showed.
TEST(Browsers, MeetingPagesEndWhereThePlugInSendsThem) {
  enum Browser { kQtWebKit, kChromium, kFirefox };
  // QtWebKit opens plug-ins with RTLD_DEEPBIND, which the AddressSanitizer runtime refuses.
  const bool installed[] = {dlsym(RTLD_DEFAULT, "__asan_init") == nullptr,
                            access("/usr/bin/chromium", X_OK) == 0,
                            access("/usr/bin/firefox-esr", X_OK) == 0};
  // The sample extension made version 2.0.0.7 (PackExtension leaves that copy of the bundle beside its
  // archive) and packed by gpc-pack; a server for the pages and the package, one taking about four seconds
  // for the package, and a proxy taking every host name to the first.
  const gpctest::TempFolder folder("site");
  const std::string dir = folder.path(), sample = GPC_BUNDLE_DIR "/Contents/Frameworks/zrgpcext64.bundle";
  const gpctest::PackageSigner signer(dir);
  ASSERT_TRUE(signer.ok() && gpctest::PackExtension(sample, "2.0.0.7", dir, dir + "/unused.7z"));
  const gpctest::PageParams packed = gpctest::PackWithTheTool(signer, dir + "/zrgpcext64.bundle", dir);
  const std::string package = gpctest::ReadFile(dir + "/zrgpcext64.bundle.7z");
  gpctest::LoopbackServer site, slow, proxy;
  slow.SetLimitRate(std::to_string(package.size() / 4 + 1));
  for (gpctest::LoopbackServer* server : {&site, &slow})
    ASSERT_TRUE(server->Start() && server->AddFile("client/zrgpcext64.bundle.7z", package));
  ASSERT_TRUE(!packed.empty() && site.AddFile("files/readme.txt", "hello") &&
              proxy.Start({"--connect-to", std::to_string(site.https_port())})) << proxy.error();
  const std::string proxyUrl = "http://127.0.0.1:" + std::to_string(proxy.http_port());
  const std::string tampered = signer.Sign(gpctest::FileDigest(site.FilePath("files/readme.txt"), "sha256"));
  // `until`: the request the run waits for; the done page's: the extension is installed then.
  struct Case { const char* name; Browser browser; Markup markup; const char* until; };
  const Case cases[] = {
      // On an approved site (its host name reaches the server through the proxy) with the site lock on.
      {"QtWebKit", kQtWebKit, Markup::kEmbed, kRan},
      {"QtWebKitTamperedPackage", kQtWebKit, Markup::kEmbed, kErrorPage},
      {"MeetingPage", kChromium, Markup::kEmbed, kRan},
      {"ObjectAddedLater", kChromium, Markup::kLateObject, kRan},
      // The module sends the whole tab (_top) on from inside the frame.
      {"InFrame", kChromium, Markup::kInFrame, kRan},
      {"TwoEmbeds", kChromium, Markup::kTwoEmbeds, kRan},
      {"TamperedPackage", kChromium, Markup::kEmbed, kErrorPage},
      // Once its box shows "Downloading…", the page closes its tab, the browser staying open.
      {"TabClosedMidDownload", kChromium, Markup::kEmbed, kDownloading},
      {"FirefoxMeetingPage", kFirefox, Markup::kEmbed, kRan},
      {"FirefoxTamperedPackage", kFirefox, Markup::kEmbed, kErrorPage},
  };
  for (const Case& c : cases) {
    if (!installed[c.browser]) continue;
    SCOPED_TRACE(c.name);
    const bool qt = c.browser == kQtWebKit, installs = c.until == kRan, closeTab = c.until == kDownloading;
    const std::string url = qt ? "https://meet.talvo.us/" : site.HttpsUrl("");
    // The page's parameters: its files and pages on `url`, the site lock off on the server's own address.
    gpctest::PageParams params = {{"GpcProductVersion", "3.1.0"}, {"GpcUnpackVersion", "1,0"},
                                  {"GpcUrlRoot", (closeTab ? slow.HttpsUrl("") : url) + "client/"}};
    if (!qt) params.insert(params.begin(), {"gpcsitelock", "0"});
    for (const auto& [name, value] : packed)
      params.push_back({name, c.until == kErrorPage && name == "GpcExtSignature" ? tampered : value});
    // The error page relative to the page, as the browser reads it.
    params.insert(params.end(), {{"GpcErrorPageUrl", c.until == kErrorPage ? "error.html" : url + "page/error.html"},
                                 {"GpcSampleFiles", url + "files/readme.txt"},
                                 {"GpcSampleDoneUrl", url + "page/done.html"}});
    const std::string page = std::string("page/") + c.name;
    ASSERT_TRUE(site.AddFile(page + ".html", MeetingPage(params, c.markup, c.name)) &&
                site.AddFile(page + "-inner.html", MeetingPage(params, Markup::kEmbed, c.name)));
    // Browsers keep their certificate stores and caches under HOME: a fresh one each, holding the user's data
    // folder. QtWebKit and the plug-in (libcurl) take their proxy from the environment.
    const gpctest::TempFolder home("browser");
    const std::string pids = home.path() + "/hosts.pids", browserLog = home.path() + "/browser.log";
    ScopedEnv homeEnv("HOME", home.path()), dataEnv("XDG_DATA_HOME", home.path() + "/data");
    ScopedEnv proxyEnv("https_proxy", qt ? proxyUrl.c_str() : nullptr), noProxyEnv("no_proxy", nullptr);
    const size_t logged = gpctest::ReadFile(site.AccessLogPath()).size();
    const int fetched = site.RequestCount("/client/zrgpcext64.bundle.7z");
    std::vector<std::string> argv = {
        "timeout", "-k", "5", "90", "/usr/bin/python3",
        std::string(GPC_SOURCE_DIR "/tests/browser/") + (qt ? "qtwebkit_page.py" : "chromium_page.py"),
        url + page + ".html" + (closeTab ? std::string("#") + (kDownloading + std::strlen("/status?")) : ""),
        "--until", c.until};
    if (qt) argv.insert(argv.end(), {"--plugin-dir", GPC_BUNDLE_DIR "/Contents/MacOS"});
    if (!qt)
      argv.insert(argv.end(), {"--extension", GPC_SOURCE_DIR "/extension", "--access-log",
                               site.AccessLogPath(), "--host", GPC_BIN_DIR "/gpc-host", "--host-pids", pids,
                               "--browser-log", browserLog, "--user-data-dir", home.path() + "/profile"});
    if (c.browser == kFirefox)
      argv.insert(argv.end(), {"--firefox", "/usr/bin/firefox-esr", "--authority", site.AuthorityPath()});
    const gpctest::ToolRun run = gpctest::RunTool(argv);
    const std::string output = run.out + run.err + "\n--- browser ---\n" + gpctest::ReadFile(browserLog);
    const std::string requests = gpctest::ReadFile(site.AccessLogPath()).substr(logged);

    EXPECT_EQ(run.exitCode, 0) << output;
    EXPECT_NE(requests.find(c.until), requests.npos) << requests;
    EXPECT_TRUE(c.until != kErrorPage || run.out.find("%5B103%5D") != run.out.npos) << output;  // its message
    // The extension is installed whole or not at all, and no piece of the package is left in /tmp.
    const std::string bundle = home.path() + "/data/Talvo Folder/zrgpcext64.bundle";
    EXPECT_EQ(access(bundle.c_str(), F_OK) == 0, installs);
    EXPECT_EQ(gpctest::ReadFile(bundle + "/Contents/Info.plist").find(">2.0.0.7<") != bundle.npos, installs);
    EXPECT_EQ(gpctest::PiecesInTmp(package), std::vector<std::string>());
    // QtWebKit hands the plug-in the attributes in lower case; it finds its parameters and keeps them so.
    const std::string kept = gpctest::ReadFile(home.path() + "/data/Talvo Folder/3.1.0/talvoparameters.txt");
    EXPECT_TRUE(!qt || site.RequestCount("/client/zrgpcext64.bundle.7z") == fetched + 1);  // fetched once
    EXPECT_TRUE(!qt || kept.find("[NAME]-=-gpcproductversion-=-[VALUE]-=-3.1.0-=-\r") != kept.npos) << kept;
    if (qt) continue;
    // The box showed the bridge at work first; a host was started, and none outlived its tab (when that
    // closed) or the browser.
    EXPECT_NE(requests.find(std::string(kStarting) + "&n=1\""), requests.npos) << requests;
    EXPECT_FALSE(gpctest::ReadFile(pids).empty()) << output;
    EXPECT_NE(run.out.find("\"left\":[]}"), run.out.npos) << output;
  }
}

}  // namespace
