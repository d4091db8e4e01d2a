// What both browser suites share: a loopback server with the sample extension packed and signed as a
// vendor packs it, the meeting pages that embed it, and one run of a browser driver.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"

namespace browsertest {

using gpctest::PageParams;

constexpr char kDonePath[] = "/page/done.html?";
constexpr char kErrorPath[] = "/page/error.html?ErrorType=1&ErrorMsg=";

enum class Markup { kEmbed, kTwoEmbeds, kLateObject, kInFrame };

// A meeting page carrying the plug-in with `params` (none holding '"', '&' or '<') as `markup` says; kInFrame
// frames "<name>-inner.html" (the kEmbed page). The page tells the server each text its status box shows
// ("/status?TEXT", URL-encoded) and closes its tab once the box shows a text beginning with the page's
// fragment.
inline std::string MeetingPage(const PageParams& params, Markup markup, const std::string& name) {
  std::string embed = "<embed type=\"application/x-talvo-gpc\" width=\"300\" height=\"200\"";
  std::string object =
      "<template id='later'><object type=\"application/x-talvo-gpc\" width=\"300\" height=\"200\">";
  for (const auto& [key, value] : params) {
    embed += "\n  " + key + "=\"" + value + "\"";
    object += "\n  <param name=\"" + key + "\" value=\"" + value + "\">";
  }
  embed += ">";
  const std::string body[] = {
      embed, embed + embed,
      object +
          "</object></template><script>setTimeout(function () { document.body."
          "appendChild(document.getElementById('later').content.cloneNode(true)); }, 300);"
          "</script>",
      "<iframe src=\"" + name + "-inner.html\" width=\"400\" height=\"260\"></iframe>"};
  return "<html><head><title>meeting</title></head><body><p>Meeting</p>" + body[static_cast<int>(markup)] +
         "<script>var shown; new MutationObserver(function () {"
         "  var box = document.querySelector('[data-talvo-gpc-status]');"
         "  var text = box && encodeURIComponent(box.textContent);"
         "  if (!box || text === shown) return; shown = text; navigator.sendBeacon('/status?' + text);"
         "  if (location.hash.length > 1 && text.indexOf(location.hash.substring(1)) === 0) window.close();"
         "}).observe(document, {childList: true, subtree: true, characterData: true});</script>"
         "</body></html>";
}

// The sample extension made version 2.0.0.7, packed and signed by gpc-pack, served over https.
struct Site {
  gpctest::TempFolder folder{"site"};
  gpctest::LoopbackServer server;
  std::unique_ptr<gpctest::PackageSigner> signer;
  PageParams params;  // what gpc-pack printed for the page
  std::string package;
  bool ok = false;

  Site() {
    const std::string dir = folder.path();
    mkdir((dir + "/pki").c_str(), 0700);
    signer = std::make_unique<gpctest::PackageSigner>(dir + "/pki");
    // PackExtension leaves its copy of the bundle, made version 2.0.0.7, beside its archive.
    const std::string sample = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle";
    if (!signer->ok() || !gpctest::PackExtension(sample, "2.0.0.7", dir, dir + "/unused.7z")) return;
    params = gpctest::PackWithTheTool(*signer, dir + "/zrgpcext64.bundle", dir);
    package = gpctest::ReadFile(dir + "/zrgpcext64.bundle.7z");
    ok = !params.empty() && !package.empty() && server.Start() &&
         server.AddFile("client/zrgpcext64.bundle.7z", package) &&
         server.AddFile("files/readme.txt", "hello");
  }
  std::string Url() const { return "https://127.0.0.1:" + std::to_string(server.https_port()) + "/"; }

  // A meeting page's parameters with its files and pages under `site`, "GpcUrlRoot" `root` (none when
  // empty), a signature over another file's digest when `tampered`, and "gpcsitelock" 0 unless `locked`.
  PageParams Meeting(const std::string& site, const std::string& root, bool tampered, bool errorPage,
                     bool locked) const {
    PageParams page;
    if (!locked) page.push_back({"gpcsitelock", "0"});
    page.push_back({"GpcProductVersion", "3.1.0"});
    if (!root.empty()) page.push_back({"GpcUrlRoot", root});
    page.push_back({"GpcUnpackVersion", "1,0"});
    for (auto [name, value] : params) {
      if (tampered && name == "GpcExtSignature")
        value = signer->Sign(gpctest::FileDigest(server.FilePath("files/readme.txt"), "sha256"));
      page.push_back({name, value});
    }
    if (errorPage) page.push_back({"GpcErrorPageUrl", site + "page/error.html"});
    page.insert(page.end(), {{"GpcSampleFiles", site + "files/readme.txt"},
                             {"GpcSampleDoneUrl", site + "page/done.html"}});
    return page;
  }
};

// What a browser driver reported, a JSON line each, and all it printed (for failure messages).
struct DriverRun {
  int exitCode = -1;
  std::string output, endUrl;     // endUrl: the "end" report's
  std::vector<std::string> left;  // the "left" reports
};

// Runs `argv` with its output going to the file `log`.
inline DriverRun Drive(const std::vector<std::string>& argv, const std::string& log) {
  std::vector<const char*> args;
  for (const std::string& arg : argv) args.push_back(arg.c_str());
  args.push_back(nullptr);
  DriverRun run;
  run.exitCode = gpctest::RunCommand(args.data(), log);
  run.output = gpctest::ReadFile(log);
  for (const gpchost::JsonEvent& event : gpchost::ParseJsonLines(run.output)) {
    if (event.Name() == "end") run.endUrl = event.Str("url");
    if (event.Name() == "left") run.left.push_back(event.line);
  }
  return run;
}

}  // namespace browsertest
