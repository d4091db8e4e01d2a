// What both browser suites serve: the pages the plug-in is sent to, which show what they were sent,
// so a test reads it as a person would.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "extension_package.h"
#include "http_test_server.h"

namespace browsertest {

// The sample extension as version 2.0.0.7, packed and signed by gpc-pack as a vendor would, with
// certificates made in `folder`.
struct SignedSample {
  std::unique_ptr<gpctest::PackageSigner> signer;
  gpctest::PageParams params;  // what gpc-pack printed for the page
  std::string package;         // the package's bytes

  bool Make(const std::string& folder) {
    mkdir((folder + "/pki").c_str(), 0700);
    signer = std::make_unique<gpctest::PackageSigner>(folder + "/pki");
    const std::string out = folder + "/out";
    mkdir(out.c_str(), 0700);
    // PackExtension leaves its copy of the bundle, made version 2.0.0.7, beside its archive.
    const std::string sample = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle";
    if (!signer->ok() || !gpctest::PackExtension(sample, "2.0.0.7", folder, folder + "/unused.7z")) return false;
    params = gpctest::PackWithTheTool(*signer, folder + "/zrgpcext64.bundle", out);
    package = gpctest::ReadFile(out + "/zrgpcext64.bundle.7z");
    return !params.empty() && !package.empty();
  }
};

constexpr char kDonePath[] = "/page/done.html?";
constexpr char kErrorPath[] = "/page/error.html?ErrorType=1&ErrorMsg=";

constexpr char kDonePage[] =
    "<html><head><title>done</title></head><body><p id='t'></p><script>"
    "document.getElementById('t').textContent = 'The extension ran: ' + location.search.substring(1);"
    "</script></body></html>";
constexpr char kErrorPage[] =
    "<html><head><title>error</title></head><body><p id='t'></p><script>"
    "var m = /ErrorMsg=([^&]*)/.exec(location.search);"
    "document.getElementById('t').textContent = 'Stopped: ' + decodeURIComponent(m ? m[1] : '');"
    "</script></body></html>";

// `text` as an HTML attribute value.
inline std::string HtmlEscaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '&') out += "&amp;";
    else if (c == '"') out += "&quot;";
    else if (c == '<') out += "&lt;";
    else out += c;
  }
  return out;
}

}  // namespace browsertest
