// URLs through the site lock: the host-page test (FApprovedDomain), the URL-root correction
// (CorrectSchemaofUrlRoot) and the domain matching, in the default and the hardened behaviour.
//
// Input: one URL (it ends at its first NUL, as C text). The root test and the domain match also
// see it cut at its first "\n": the part before as a trusted-domain pattern, the rest as a host.
#include <curl/curl.h>

#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "fuzz_trace.h"
#include "hardening.h"
#include "sitelock/sitelock.h"

namespace {

// The plain site check, as a class without the "gpcsitelock" escape.
class PlainSiteCheck : public CSiteCheck<PlainSiteCheck> {};

fuzz::ScratchTrace* g_trace = nullptr;

bool HostIsTrusted(const std::string& host) {
  for (const IObjectSafetySiteLock::SiteList& site : rgslTrustedSites) {
    if (gpcsitelock::MatchDomains(site.domain, host.c_str())) return true;
  }
  return false;
}

bool EqualIgnoringCase(const std::string& a, const char* b) { return gpcsitelock::CaseInsensitiveCompare(a.c_str(), b) == 0; }

// The downloads go through libcurl: the host it would connect to for an approved URL must be a
// trusted one too, or libcurl must refuse the URL.
void CheckCurlAgrees(const char* url) {
  CURLU* parsed = curl_url();
  if (parsed == nullptr) return;
  char* host = nullptr;
  if (curl_url_set(parsed, CURLUPART_URL, url, 0) == CURLUE_OK &&
      curl_url_get(parsed, CURLUPART_HOST, &host, 0) == CURLUE_OK && host != nullptr) {
    const std::string name(host);
    curl_free(host);
    curl_url_cleanup(parsed);
    if (!HostIsTrusted(name)) fuzz::Fail("libcurl reads host %s in approved URL %s", name.c_str(), url);
    return;
  }
  curl_url_cleanup(parsed);
}

// An approved URL is an https URL of a trusted host, whatever its letter case.
void CheckApproval(const char* url, bool approved) {
  if (!approved) return;
  gpcsitelock::UrlParts parts;
  if (!gpcsitelock::ParseUrl(url, &parts)) fuzz::Fail("approved an unparsable URL: %s", url);
  if (!EqualIgnoringCase(parts.scheme, "https")) fuzz::Fail("approved a scheme other than https: %s", url);
  if (!HostIsTrusted(parts.host)) fuzz::Fail("approved an untrusted host: %s", url);
  CheckCurlAgrees(url);
}

// A corrected root of an http or https URL is the https form of an approved root under /client/.
void CheckCorrectedRoot(const char* root, const std::string& corrected) {
  if (corrected.empty()) return;
  gpcsitelock::UrlParts given;
  if (!gpcsitelock::ParseUrl(root, &given)) fuzz::Fail("corrected an unparsable root: %s", root);
  if (!gpcsitelock::IsAcceptableUrlRootPath(given.path)) fuzz::Fail("corrected a root with a bad path: %s", root);
  const bool http = EqualIgnoringCase(given.scheme, "http");
  if (!http && given.scheme != "https") {
    if (corrected != root) fuzz::Fail("changed a root of another scheme: %s", root);
    return;
  }
  if (corrected.compare(0, 8, "https://") != 0) fuzz::Fail("corrected root is not https: %s", corrected.c_str());
  gpcsitelock::UrlParts parts;
  if (!gpcsitelock::ParseUrl(corrected.c_str(), &parts)) fuzz::Fail("corrected root does not parse: %s", corrected.c_str());
  if (!HostIsTrusted(parts.host)) fuzz::Fail("corrected root has an untrusted host: %s", corrected.c_str());
  if (parts.path != given.path) fuzz::Fail("correction changed the path of %s", root);
  CheckCurlAgrees(corrected.c_str());
  if (gpc::GpcHardened()) {
    for (const char* dot : {"/./", "/../"}) {
      if ((parts.path + "/").find(dot) != std::string::npos) fuzz::Fail("hardened root with a dot segment: %s", root);
    }
  }
}

void RunOnce(const char* url, const std::string& pattern, const std::string& host) {
  PlainSiteCheck check;
  const bool approved = check.FApprovedDomain(url, 0, rgslTrustedSites, kGpcTrustedSiteCount);
  if (approved != gpcsitelock::SiteListApproves(url, rgslTrustedSites, kGpcTrustedSiteCount)) {
    fuzz::Fail("the two site tests disagree on %s", url);
  }
  CheckApproval(url, approved);
  CheckCorrectedRoot(url, check.CorrectSchemaofUrlRoot(url));

  const bool matched = gpcsitelock::MatchDomains(pattern.c_str(), host.c_str());
  // Whatever the pattern, a match means the host ends with the pattern's domain.
  std::string domain = pattern;
  if (domain.compare(0, 2, "*.") == 0 && domain.size() >= 3) domain = domain.substr(2);
  else if (domain.compare(0, 1, "=") == 0 && domain.size() >= 2) domain = domain.substr(1);
  if (matched && (host.size() < domain.size() ||
                  gpcsitelock::CaseInsensitiveCompare(host.c_str() + host.size() - domain.size(), domain.c_str()) != 0)) {
    fuzz::Fail("pattern %s matched host %s", pattern.c_str(), host.c_str());
  }
  (void)gpcsitelock::SiteLockSwitchedOff(host.c_str());
  (void)IsHttps(url);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_trace = new fuzz::ScratchTrace(fuzz::MakeScratchFolder("sitelock"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::AsText(data, size);
  const std::string url(text.c_str());
  const size_t newline = url.find('\n');
  const std::string pattern = newline == std::string::npos ? url : url.substr(0, newline);
  const std::string host = newline == std::string::npos ? std::string() : url.substr(newline + 1);
  for (int hardened : {0, 1}) {
    gpc::SetHardenedForTesting(hardened);
    RunOnce(url.c_str(), pattern, host);
  }
  gpc::SetHardenedForTesting(-1);
  g_trace->Tick();
  return 0;
}
