// The site lock's matching and URL parsing.
#include "common/sitelock/sitelock.h"

#include "common/hardening.h"

#include <uriparser/Uri.h>

#include <cctype>
#include <cstring>

#include "safestring/safe_lib.h"
#include "common/trace.h"

namespace gpcsitelock {
namespace {

// Longest scheme, host or path text the lock looks at.
constexpr size_t kMaxComponentBytes = 4095;

std::string RangeText(const UriTextRangeA& range) {
  if (range.first == nullptr || range.afterLast == nullptr) return std::string();
  return std::string(range.first, range.afterLast);
}

// The path as it appears in the URL: "/" + segments joined by "/" for a URL with an authority
// or an absolute path.
std::string PathText(const UriUriA& uri, bool hasAuthority) {
  std::string path;
  bool leadingSlash = hasAuthority || uri.absolutePath;
  for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next) {
    if (segment != uri.pathHead || leadingSlash) path += '/';
    path += RangeText(segment->text);
  }
  if (path.empty() && uri.absolutePath) path = "/";
  return path;
}

bool IsUrlRootPathCharacter(unsigned char c) {
  return (c < 0x80 && std::isalnum(c)) || c == '-' || c == '.' || c == '/' || c == '_';
}

}  // namespace

bool ParseUrl(const char* url, UrlParts* parts) {
  if (url == nullptr || parts == nullptr) return false;
  UriUriA uri;
  const char* errorPos = nullptr;
  if (uriParseSingleUriA(&uri, url, &errorPos) != URI_SUCCESS) return false;

  // Only absolute, hierarchical URLs can be split into scheme, host and path.
  bool hasAuthority = uri.hostText.first != nullptr;
  bool decomposable = uri.scheme.first != nullptr && (hasAuthority || uri.absolutePath);
  if (decomposable) {
    parts->scheme = RangeText(uri.scheme);
    parts->host = RangeText(uri.hostText);
    parts->path = PathText(uri, hasAuthority);
  }
  uriFreeUriMembersA(&uri);
  if (!decomposable) return false;
  // A page's path plays no part in its approval; a root's path is bounded where it is checked.
  return parts->scheme.size() <= kMaxComponentBytes && parts->host.size() <= kMaxComponentBytes;
}

int32_t CaseInsensitiveCompare(const char* a, const char* b) {
  std::string left(a ? a : "");
  std::string right(b ? b : "");
  for (char& c : left) c = static_cast<char>(AsciiLower(static_cast<unsigned char>(c)));
  for (char& c : right) c = static_cast<char>(AsciiLower(static_cast<unsigned char>(c)));
  int result = left.compare(right);
  return result < 0 ? -1 : (result > 0 ? 1 : 0);
}

bool MatchDomains(const char* trustedDomain, const char* ourDomain) {
  if (trustedDomain == nullptr) return ourDomain == nullptr || ourDomain[0] == '\0';
  MacInfoTrace("CSiteCheck::MatchDomains,wzTrustedDomain=%s,wzOurDomain=%s", trustedDomain,
               ourDomain ? ourDomain : "");

  const char* pattern = trustedDomain;
  const char* host = ourDomain ? ourDomain : "";
  int32_t patternLen = static_cast<int32_t>(strlen(pattern));
  int32_t hostLen = static_cast<int32_t>(strlen(host));

  enum { kPlain, kWildcard, kExact } kind = kPlain;
  if (patternLen >= 3 && pattern[0] == '*' && pattern[1] == '.') {
    kind = kWildcard;
    pattern += 2;
    patternLen -= 2;
  } else if (patternLen >= 2 && pattern[0] == '=') {
    kind = kExact;
    pattern += 1;
    patternLen -= 1;
  }

  if (hostLen < patternLen) return false;
  const char* tail = host + (hostLen - patternLen);
  if (CaseInsensitiveCompare(tail, pattern) != 0) return false;
  if (hostLen == patternLen) return kind != kWildcard;
  if (kind == kExact) return false;
  return tail[-1] == '.';
}

bool SiteListApproves(const char* url, const IObjectSafetySiteLock::SiteList* list, int32_t count) {
  if (url == nullptr) return false;
  MacInfoTrace("CSiteCheck::FApprovedDomain,url=%s", url);

  UrlParts parts;
  if (!ParseUrl(url, &parts)) return false;
  if (parts.host.empty() && parts.scheme.empty()) return false;
  if (count < 1 || list == nullptr) return false;

  for (int32_t i = 0; i < count; ++i) {
    const IObjectSafetySiteLock::SiteList& entry = list[i];
    if (CaseInsensitiveCompare(parts.scheme.c_str(), entry.scheme) == 0 &&
        MatchDomains(entry.domain, parts.host.c_str())) {
      return entry.allowType == 0;  // the first matching entry decides
    }
  }
  return false;
}

// A "." or ".." segment, plain or percent-encoded, lets "/client/.." name another folder.
bool HasDotSegment(const std::string& path) {
  std::string lower;
  for (char c : path) lower += static_cast<char>(AsciiLower(static_cast<unsigned char>(c)));
  size_t start = 0;
  while (start <= lower.size()) {
    size_t end = lower.find('/', start);
    if (end == std::string::npos) end = lower.size();
    std::string segment = lower.substr(start, end - start);
    for (size_t at; (at = segment.find("%2e")) != std::string::npos;) segment.replace(at, 3, ".");
    if (segment == "." || segment == "..") return true;
    start = end + 1;
  }
  return false;
}

bool IsAcceptableUrlRootPath(const std::string& path) {
  if (path.size() > kMaxComponentBytes || path.compare(0, 8, "/client/") != 0) return false;
  if (path.find("/../") != std::string::npos) return false;
  if (gpc::GpcHardened() && HasDotSegment(path)) return false;
  for (unsigned char c : path) {
    if (!IsUrlRootPathCharacter(c)) return false;
  }
  return true;
}

bool SiteLockSwitchedOff(const char* flag) {
  const char* value = (flag == nullptr || flag[0] == '\0') ? "1" : flag;
  MacInfoTrace("siteLockFlag = %s", value);
  // The hardened build has no escape from the trusted-site list.
  return strcmp(value, "0") == 0 && !gpc::GpcHardened();
}

}  // namespace gpcsitelock

bool IsHttps(const char* url) {
  if (url == nullptr) return false;
  char* found = nullptr;
  if (strstr_s(const_cast<char*>(url), RSIZE_MAX_STR, "https://", RSIZE_MAX_STR, &found) != EOK) {
    return false;
  }
  return found == url;
}
