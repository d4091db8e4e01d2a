// The site lock: the plug-in only serves pages from approved https sites and only fetches its
// extension from an approved URL root under "/client/".
//
// CSiteCheck<T> is the base of the plug-in instance. Its first virtual operation,
// FApprovedDomain, is the plain trusted-site test; the instance overrides it (adding the
// "gpcsitelock" escape) and CorrectSchemaofUrlRoot always asks through that virtual slot.
// Nothing here shows a message: every refusal is a false result or an empty string.
#pragma once

#include <cstdint>
#include <string>

#include "common/hardening.h"
#include "common/trace.h"

struct IObjectSafetySiteLock {
  // One entry of a trusted-site table.
  struct SiteList {
    uint32_t allowType;  // 0 = allow, anything else = deny
    const char* scheme;  // compared without regard to case
    const char* domain;  // "*.d": subdomains of d only; "=d": d only; "d": d and its subdomains
  };
};

// The approved sites: https only, each domain together with its subdomains. Always passed with
// the count kGpcTrustedSiteCount. Each unit that includes this header has its own copy.
constexpr int32_t kGpcTrustedSiteCount = 10;
static const IObjectSafetySiteLock::SiteList rgslTrustedSites[kGpcTrustedSiteCount] = {
    {0, "https", "talvo.us"},     {0, "https", "talvo.com"}, {0, "https", "talvogov.com"},
    {0, "https", "talvo.com.cn"}, {0, "https", "talvo.eu"},  {0, "https", "talvo.jp"},
    {0, "https", "talvo.de"},     {0, "https", "talvo.ca"},  {0, "https", "vantrel.com"},
    {0, "https", "vantrel.net"},
};

namespace gpcsitelock {

// The parts of an absolute URL the site lock looks at, as they appear in the URL (percent
// escapes are kept).
struct UrlParts {
  std::string scheme;
  std::string host;
  std::string path;  // from the "/" after the authority up to the query or fragment
};

// Parses `url` as an absolute, hierarchical URL (strict RFC 3986). False for NULL, for text
// that is not such a URL, and when the scheme or host exceeds 4095 bytes.
bool ParseUrl(const char* url, UrlParts* parts);

// The plain trusted-site test of FApprovedDomain (logs as it).
bool SiteListApproves(const char* url, const IObjectSafetySiteLock::SiteList* list, int32_t count);

// Pattern match of one host name against one trusted-domain pattern (see SiteList::domain).
bool MatchDomains(const char* trustedDomain, const char* ourDomain);

// Lower-cases copies of both texts (ASCII letters, as C tolower in the "C" locale, whatever the
// browser's locale) and compares them: <0, 0 or >0. NULL counts as "".
int32_t CaseInsensitiveCompare(const char* a, const char* b);

// True when a URL-root path is acceptable: it starts with "/client/", holds no "/../" and only
// ASCII letters, digits and "-", ".", "/", "_".
bool IsAcceptableUrlRootPath(const std::string& path);

// The "gpcsitelock" escape: `flag` is the parameter's value (NULL or "" when absent, then "1"
// is assumed). Logs the flag; true only for exactly "0".
bool SiteLockSwitchedOff(const char* flag);

}  // namespace gpcsitelock

// True when `url` starts with "https://" (case-sensitive); false for NULL.
bool IsHttps(const char* url);

template <class T>
class CSiteCheck {
 public:
  // The plain site-list test: true when the first entry whose scheme and domain match the
  // URL's scheme and host allows it. `reserved` is ignored. A NULL or unparsable URL, a count
  // below 1 or no matching entry is refused.
  virtual bool FApprovedDomain(const char* url, uint32_t reserved,
                               const IObjectSafetySiteLock::SiteList* list, int32_t count) {
    (void)reserved;
    return gpcsitelock::SiteListApproves(url, list, count);
  }
  virtual ~CSiteCheck() = default;

  static bool MatchDomains(const char* trustedDomain, const char* ourDomain) {
    return gpcsitelock::MatchDomains(trustedDomain, ourDomain);
  }
  static int32_t caseInsensitiveCompare(const char* a, const char* b) {
    return gpcsitelock::CaseInsensitiveCompare(a, b);
  }

  // The URL root to store: an "http" root (any letter case) comes back as "https" when the
  // upgraded root is approved; an "https" root comes back unchanged when approved; a root of
  // any other scheme (even "HTTPS") comes back unchanged without approval. Empty when refused.
  std::string CorrectSchemaofUrlRoot(const char* urlRoot);

 protected:
  // For the derived FApprovedDomain: the "gpcsitelock" escape with the parameter's value.
  static bool SiteLockSwitchedOff(const char* flag) { return gpcsitelock::SiteLockSwitchedOff(flag); }
};

template <class T>
std::string CSiteCheck<T>::CorrectSchemaofUrlRoot(const char* urlRoot) {
  if (urlRoot == nullptr) return std::string();
  MacInfoTrace("CSiteCheck::CorrectSchemaofUrlRoot,orgin GpcUrlRoot = %s!", urlRoot);
  std::string root(urlRoot);

  gpcsitelock::UrlParts parts;
  if (!gpcsitelock::ParseUrl(urlRoot, &parts)) return std::string();
  if (parts.path.empty() || parts.scheme.empty()) return std::string();
  if (!gpcsitelock::IsAcceptableUrlRootPath(parts.path)) return std::string();
  // The hardened build takes http and https alone, in any case, and checks every root it takes.
  const bool https = caseInsensitiveCompare(parts.scheme.c_str(), "https") == 0;
  if (gpc::GpcHardened() && !https && caseInsensitiveCompare(parts.scheme.c_str(), "http") != 0) {
    MacWarnTrace("CSiteCheck::CorrectSchemaofUrlRoot,approve fail 2!");
    return std::string();
  }

  if (caseInsensitiveCompare(parts.scheme.c_str(), "http") == 0) {
    root = "https" + root.substr(4);
    if (!FApprovedDomain(root.c_str(), 0, rgslTrustedSites, kGpcTrustedSiteCount)) {
      MacWarnTrace("CSiteCheck::CorrectSchemaofUrlRoot,approve fail 1!");
      root.clear();
    }
  } else if (parts.scheme == "https" || (https && gpc::GpcHardened())) {
    if (!FApprovedDomain(root.c_str(), 0, rgslTrustedSites, kGpcTrustedSiteCount)) {
      MacWarnTrace("CSiteCheck::CorrectSchemaofUrlRoot,approve fail 2!");
      root.clear();
    }
  }
  MacInfoTrace("CSiteCheck::CorrectSchemaofUrlRoot,%s is approve!", root.c_str());
  return root;
}
