// The plug-in in a real browser engine: QtWebKit (tests/browser/qtwebkit_page.py) loads the built module
// and opens meeting pages from a loopback server; real host names reach that server through a CONNECT
// proxy. Each case asserts where the page ends, what was downloaded and what is left installed.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "browser_pages.h"
#include "scoped_env.h"

namespace {

using browsertest::kDonePath;
using browsertest::kErrorPath;

const std::string kPackage = "/client/zrgpcext64.bundle.7z";

struct Case {
  const char* name;
  const char* site;   // where the page and its files are, with the site lock on; "" the server's own address
  const char* root;   // "GpcUrlRoot" under the site, or a whole URL; "" none
  bool tampered;      // the package signed over another digest
  bool again;         // the user's data folder is the one of the case before
  const char* until;  // where the page is sent ("" none: watched 4 s); to the done page: installed there
  const char* shown;  // what the page's last URL then holds
  int downloads;      // the package's requests
};

TEST(QtWebKit, MeetingPagesEndWhereThePlugInSendsThem) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "QtWebKit opens plug-ins with RTLD_DEEPBIND, which the AddressSanitizer runtime refuses";
#endif
  browsertest::Site site;
  ASSERT_TRUE(site.ok) << site.server.error();
  gpctest::LoopbackServer proxy;
  ASSERT_TRUE(proxy.Start({"--connect-to", std::to_string(site.server.https_port())})) << proxy.error();
  const std::string proxyUrl = "http://127.0.0.1:" + std::to_string(proxy.http_port());
  const Case cases[] = {
      {"FirstPage", "", "client/", false, false, kDonePath, "fetched=1&failed=0", 1},
      // The installed version is not downloaded again.
      {"SecondPage", "", "client/", false, true, kDonePath, "fetched=1&failed=0", 0},
      {"TamperedPackage", "", "client/", true, false, kErrorPath, "%5B103%5D", 1},
      {"NoUrlRoot", "", "", false, false, kErrorPath, "%5B100%5D", 0},
      {"ApprovedDomain", "https://meet.talvo.us/", "client/", false, false, kDonePath, "fetched=1&failed=0",
       1},
      {"OtherDomain", "https://meet.talvo.us/", "https://downloads.example.org/client/", false, false, "",
       "meet.talvo.us/page/OtherDomain.html", 0},
  };
  std::unique_ptr<gpctest::TempFolder> data;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (!c.again) data = std::make_unique<gpctest::TempFolder>("data");
    const bool local = *c.site == '\0';
    const std::string url = local ? site.Url() : c.site;
    const std::string root =
        *c.root == '\0' || std::string(c.root).rfind("https:", 0) == 0 ? c.root : url + c.root;
    const std::string page = std::string("page/") + c.name + ".html";
    ASSERT_TRUE(
        site.server.AddFile(page, browsertest::MeetingPage(site.Meeting(url, root, c.tampered, true, !local),
                                                           browsertest::Markup::kEmbed, c.name)));
    ScopedEnv dataEnv("XDG_DATA_HOME", data->path());
    // The plug-in downloads with libcurl, which takes its proxy from the browser's environment.
    ScopedEnv proxyEnv("https_proxy", local ? nullptr : proxyUrl.c_str());
    ScopedEnv noProxyEnv("no_proxy", nullptr);
    const int downloads = site.server.RequestCount(kPackage);
    const std::string driver = std::string(GPC_SOURCE_DIR) + "/tests/browser/qtwebkit_page.py";
    const std::string plugins = std::string(GPC_BUNDLE_DIR) + "/Contents/MacOS",
                      log = data->path() + "/driver.log";
    const std::string afterLoad = *c.until ? "0" : "4", proxyOption = local ? "" : proxyUrl;
    const browsertest::DriverRun run =
        browsertest::Drive({"timeout", "-k", "5", "60", "/usr/bin/python3", driver, url + page,
                            "--plugin-dir", plugins, "--timeout", "30", "--settle", "0.2", "--after-load",
                            afterLoad, "--until", c.until, "--proxy", proxyOption},
                           log);

    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_NE(run.endUrl.find(c.until), std::string::npos) << run.output;
    EXPECT_NE(run.endUrl.find(c.shown), std::string::npos) << run.output;
    EXPECT_EQ(site.server.RequestCount(kPackage) - downloads, c.downloads);
    const std::string installed =
        gpctest::ReadFile(data->path() + "/Talvo Folder/zrgpcext64.bundle/Contents/Info.plist");
    EXPECT_EQ(installed.find("2.0.0.7") != std::string::npos, c.until == kDonePath) << installed;
    // The plug-in started: the engine handed it the attributes in lower case, after its own "type", "width"
    // and "height", and the parameter file keeps them as they came.
    const std::string parameters =
        gpctest::ReadFile(data->path() + "/Talvo Folder/3.1.0/talvoparameters.txt");
    for (const char* record :
         {"[NAME]-=-type-=-[VALUE]-=-application/x-talvo-gpc-=-\r", "[NAME]-=-width-=-[VALUE]-=-300-=-\r",
          "[NAME]-=-height-=-[VALUE]-=-200-=-\r", "[NAME]-=-gpcproductversion-=-[VALUE]-=-3.1.0-=-\r"}) {
      EXPECT_NE(parameters.find(record), std::string::npos) << record << " in\n" << parameters;
    }
    EXPECT_EQ(parameters.find("GpcProductVersion"), std::string::npos);
  }
}

}  // namespace
