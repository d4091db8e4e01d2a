// URLs through the site lock, in the default and the hardened behaviour. Input: one URL (up to its
// first NUL); also cut at its first "\n": a trusted-domain pattern, then a host to match against it.
#include <curl/curl.h>

#include <algorithm>
#include <string>

#include "common/hardening.h"
#include "common/sitelock/sitelock.h"
#include "fuzz_support.h"
#include "fuzz_trace.h"

namespace {

class PlainSiteCheck : public CSiteCheck<PlainSiteCheck> {};  // without the "gpcsitelock" escape

fuzz::ScratchTrace* g_trace = nullptr;

bool HostIsTrusted(const std::string& host) {
  for (const IObjectSafetySiteLock::SiteList& site : rgslTrustedSites)
    if (gpcsitelock::MatchDomains(site.domain, host.c_str())) return true;
  return false;
}

// An approved URL (or corrected root) is https on a trusted host, as we and as libcurl read it.
void CheckApproved(const std::string& url, bool hardened) {
  gpcsitelock::UrlParts parts;
  if (!gpcsitelock::ParseUrl(url.c_str(), &parts) || gpcsitelock::CaseInsensitiveCompare(parts.scheme.c_str(), "https") != 0 ||
      !HostIsTrusted(parts.host))
    fuzz::Fail("approved %s", url.c_str());
  const std::string path = parts.path + "/";
  if (hardened && (path.find("/./") != std::string::npos || path.find("/../") != std::string::npos))
    fuzz::Fail("hardened root with a dot segment: %s", url.c_str());
  CURLU* parsed = curl_url();
  char* host = nullptr;
  if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
      curl_url_get(parsed, CURLUPART_HOST, &host, 0) == CURLUE_OK && !HostIsTrusted(host))
    fuzz::Fail("libcurl reads host %s in approved %s", host, url.c_str());
  curl_free(host);
  curl_url_cleanup(parsed);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_trace = new fuzz::ScratchTrace(fuzz::MakeScratchFolder("sitelock"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string url(fuzz::AsText(data, size).c_str()), pattern = url.substr(0, url.find('\n'));
  gpcsitelock::UrlParts given;  // only http and https roots are checked
  const bool checked = gpcsitelock::ParseUrl(url.c_str(), &given) &&
                       (given.scheme == "https" || gpcsitelock::CaseInsensitiveCompare(given.scheme.c_str(), "http") == 0);
  for (bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    PlainSiteCheck check;
    if (check.FApprovedDomain(url.c_str(), 0, rgslTrustedSites, kGpcTrustedSiteCount)) CheckApproved(url, false);
    const std::string root = check.CorrectSchemaofUrlRoot(url.c_str());
    if (!root.empty() && checked) CheckApproved(root, hardened);
  }
  gpc::SetHardenedForTesting(-1);
  (void)gpcsitelock::MatchDomains(pattern.c_str(), url.substr(std::min(pattern.size() + 1, url.size())).c_str());
  (void)IsHttps(url.c_str());
  g_trace->Tick();
  return 0;
}
