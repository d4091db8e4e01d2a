#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "common/hardening.h"
#include "common/sitelock/sitelock.h"
#include "http_test_server.h"

namespace {

using SiteList = IObjectSafetySiteLock::SiteList;

// The instance's site check, with an optional "gpcsitelock" value.
class TestLock : public CSiteCheck<TestLock> {
 public:
  bool FApprovedDomain(const char* url, uint32_t reserved, const SiteList* list, int32_t count) override {
    return CSiteCheck<TestLock>::FApprovedDomain(url, reserved, list, count) || SiteLockSwitchedOff(flag);
  }
  const char* flag = nullptr;
};

TEST(SiteLock, DomainPatterns) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"talvo.us", "talvo.us", true},       {"talvo.us", "a.b.talvo.us", true},   {"talvo.us", "xtalvo.us", false},
      {"talvo.us", "talvo.us.evil.com", false}, {"talvo.us", "us", false},        {"TALVO.us", "WWW.Talvo.US", true},
      {"*.talvo.us", "talvo.us", false},    {"*.talvo.us", "www.talvo.us", true}, {"*.talvo.us", "wwwtalvo.us", false},
      {"*.", "a", false},                   {"*.", "a.*.", true},  // too short for a wildcard
      {"=talvo.us", "TALVO.US", true},      {"=talvo.us", "www.talvo.us", false}, {"=", "=", true},
      {nullptr, "", true},                  {nullptr, "talvo.us", false},         {"talvo.us", "", false},
      {"=Ii.talvo.us", "iI.TALVO.US", true}};
  // A browser may run under its user's locale, where tolower('I') is not 'i': hosts compare alike.
  const gpctest::ScopedLocale turkish(LC_ALL, "tr_TR");
  ASSERT_TRUE(turkish.ok()) << "the locales package makes the tr_TR locale";
  for (const auto& [pattern, host, match] : cases)
    EXPECT_EQ(CSiteCheck<TestLock>::MatchDomains(pattern, host), match) << (pattern ? pattern : "-") << " " << host;
}

TEST(SiteLock, ApprovedPagesAreHttpsOnTheTenDomains) {
  CSiteCheck<TestLock> plain;
  auto approves = [&](const std::string& url, const SiteList* list = rgslTrustedSites, int32_t count = kGpcTrustedSiteCount) {
    return plain.FApprovedDomain(url.c_str(), 0, list, count);
  };
  std::string domains;
  for (const SiteList& site : rgslTrustedSites) {
    domains += std::string(site.domain) + " ";
    EXPECT_TRUE(approves("https://www." + std::string(site.domain) + "/m")) << site.domain;
  }
  EXPECT_EQ(domains, "talvo.us talvo.com talvogov.com talvo.com.cn talvo.eu talvo.jp talvo.de talvo.ca vantrel.com vantrel.net ");
  const std::pair<std::string, bool> urls[] = {
      {"HTTPS://WWW.TALVO.US/Path", true}, {"https://user:pw@www.talvo.us:8443/a/b?q=1#frag", true},
      {"http://www.talvo.us", false},
      {"https://evil.com/www.talvo.us", false}, {"ftp://www.talvo.us/", false}, {"", false},
      {"www.talvo.us", false}, {"https://www.talvo.us/a b", false}, {"https://www.tal vo.us/", false},
      {"https://[::1/", false}, {"mailto:someone@talvo.us", false}, {"https://" + std::string(5000, 'a') + ".talvo.us/", false},
      {"https://" + std::string(4086, 'a') + ".talvo.us/", true},  // a host of 4095 bytes, the most looked at
      {"https://" + std::string(4087, 'a') + ".talvo.us/", false},
      {"https://www.talvo.us/" + std::string(5000, 'p'), true}};  // the path plays no part
  for (const auto& [url, ok] : urls) EXPECT_EQ(approves(url), ok) << url.substr(0, 60);
  const SiteList denyFirst[] = {{1, "https", "bad.talvo.us"}, {0, "HTTPS", "talvo.us"}};  // first match decides
  EXPECT_FALSE(approves("https://bad.talvo.us/", denyFirst, 2));
  EXPECT_TRUE(approves("https://good.talvo.us/", denyFirst, 2) && approves("https://bad.talvo.us/", denyFirst + 1, 1));
  for (int32_t count : {1, 0, -1}) EXPECT_FALSE(approves("https://good.talvo.us/", denyFirst, count));
  for (const char* url : {"HTTPS://a/", "http://x/?https://", " https://x", ""}) EXPECT_FALSE(IsHttps(url)) << url;
  EXPECT_TRUE(IsHttps("https://www.talvo.us/"));
}

TEST(SiteLock, UrlRootsAreApprovedHttpsUnderClient) {
  // `flag` is the "gpcsitelock" value: "0" switches the lock off, through the instance's own check.
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {nullptr, "http://www.talvo.us/client/a/", "https://www.talvo.us/client/a/"},  // checked in its https form
      {nullptr, "HTTP://www.talvo.us/client/a/", "https://www.talvo.us/client/a/"},
      {nullptr, "https://www.talvo.us:8443/client/v1.2_x-y/", "https://www.talvo.us:8443/client/v1.2_x-y/"},
      {nullptr, "http://www.example.org/client/a/", ""},
      {nullptr, "https://www.example.org/client/a/", ""},
      {"0", "http://www.example.org/client/a/", "https://www.example.org/client/a/"},
      {nullptr, "ftp://www.example.org/client/a/", "ftp://www.example.org/client/a/"},  // unchecked
      {nullptr, "HTTPS://www.example.org/client/a/", "HTTPS://www.example.org/client/a/"},
      {"0", "https://www.talvo.us/client/", "https://www.talvo.us/client/"},
      {"0", "https://www.talvo.us/client/a..b/", "https://www.talvo.us/client/a..b/"},
  };
  for (const auto& [flag, root, want] : cases) {
    TestLock lock;
    lock.flag = flag;
    EXPECT_EQ(lock.CorrectSchemaofUrlRoot(root), want) << root;
  }
  TestLock open;
  open.flag = "0";
  for (const char* root : {"", "https://www.talvo.us/", "https://www.talvo.us/client", "https://www.talvo.us/clientx/a/",
                           "https://www.talvo.us/other/client/a/", "https://www.talvo.us/Client/a/",
                           "https://www.talvo.us/client/../a/", "https://www.talvo.us/client/a%20b/",
                           "https://www.talvo.us/client/~a/", "https://www.talvo.us/client/a+b/"})
    EXPECT_EQ(open.CorrectSchemaofUrlRoot(root), "") << root;
  for (size_t name : {4086, 4087}) {  // a root's path of 4095 bytes, the most taken, and one byte more
    const std::string root = "https://www.talvo.us/client/" + std::string(name, 'a') + "/";
    EXPECT_EQ(open.CorrectSchemaofUrlRoot(root.c_str()), name == 4086 ? root : "") << name;
  }
  for (const char* flag : {"", "1", "00", " 0"}) {
    TestLock lock;
    lock.flag = flag;
    EXPECT_EQ(lock.CorrectSchemaofUrlRoot("http://www.example.org/client/a/"), "") << flag;
  }
}

TEST(SiteLock, HardenedBuildHasNoEscapeNoDotSegmentsAndNoOtherScheme) {
  for (const bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    TestLock lock;
    for (const char* root : {"https://www.talvo.us/client/..", "https://www.talvo.us/client/a/./b/",
                             "HTTPS://evil.example/client/a/", "gopher://evil.example/client/a/",
                             "file:///client/a/"})
      EXPECT_EQ(lock.CorrectSchemaofUrlRoot(root).empty(), hardened) << root;
    lock.flag = "0";
    EXPECT_EQ(lock.CorrectSchemaofUrlRoot("https://downloads.example.org/client/a/").empty(), hardened);
    EXPECT_EQ(lock.FApprovedDomain("not a url", 0, rgslTrustedSites, kGpcTrustedSiteCount), !hardened);
  }
  gpc::SetHardenedForTesting(-1);
}

}  // namespace
