#include <gtest/gtest.h>

#include "hardening.h"

#include <string>
#include <vector>

#include "sitelock/sitelock.h"

namespace {

using SiteList = IObjectSafetySiteLock::SiteList;

// A site check with the instance's escape: an optional "gpcsitelock" value, and a record of
// every URL that reached the virtual slot.
class TestLock : public CSiteCheck<TestLock> {
 public:
  bool FApprovedDomain(const char* url, uint32_t reserved, const SiteList* list, int32_t count) override {
    asked.push_back(url ? url : "(null)");
    if (CSiteCheck<TestLock>::FApprovedDomain(url, reserved, list, count)) return true;
    return SiteLockSwitchedOff(siteLockFlag);
  }
  const char* siteLockFlag = nullptr;
  std::vector<std::string> asked;
};

bool ListApproves(const char* url) {
  CSiteCheck<TestLock> plain;
  return plain.FApprovedDomain(url, 0, rgslTrustedSites, kGpcTrustedSiteCount);
}

TEST(MatchDomains, PlainPatternTakesDomainAndSubdomainsOnly) {
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains("talvo.us", "talvo.us"));
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains("talvo.us", "www.talvo.us"));
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains("talvo.us", "a.b.talvo.us"));
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains("talvo.us", "xtalvo.us"));
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains("talvo.us", "talvo.us.evil.com"));
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains("talvo.us", "us"));
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains("TALVO.us", "WWW.Talvo.US"));
}

TEST(MatchDomains, WildcardNeverMatchesTheDomainItself) {
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains("*.talvo.us", "talvo.us"));
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains("*.talvo.us", "www.talvo.us"));
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains("*.talvo.us", "wwwtalvo.us"));
  // Too short to be a wildcard: "*." is a plain pattern.
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains("*.", "a"));
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains("*.", "a.*."));
}

TEST(MatchDomains, ExactPatternMatchesOnlyTheDomain) {
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains("=talvo.us", "talvo.us"));
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains("=talvo.us", "TALVO.US"));
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains("=talvo.us", "www.talvo.us"));
  // A lone "=" is a plain pattern.
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains("=", "="));
}

TEST(MatchDomains, NullAndEmptyInputs) {
  EXPECT_TRUE(CSiteCheck<TestLock>::MatchDomains(nullptr, ""));
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains(nullptr, "talvo.us"));
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains("talvo.us", nullptr));
  EXPECT_FALSE(CSiteCheck<TestLock>::MatchDomains("talvo.us", ""));
}

TEST(CaseInsensitiveCompare, ThreeWay) {
  EXPECT_EQ(0, CSiteCheck<TestLock>::caseInsensitiveCompare("HtTpS", "https"));
  EXPECT_LT(CSiteCheck<TestLock>::caseInsensitiveCompare("a", "B"), 0);
  EXPECT_GT(CSiteCheck<TestLock>::caseInsensitiveCompare("b", "A"), 0);
  EXPECT_LT(CSiteCheck<TestLock>::caseInsensitiveCompare("abc", "ABCD"), 0);
}

TEST(TrustedSites, TenHttpsDomainsWithSubdomains) {
  const char* domains[] = {"talvo.us", "talvo.com", "talvogov.com", "talvo.com.cn", "talvo.eu",
                           "talvo.jp", "talvo.de",  "talvo.ca",     "vantrel.com",  "vantrel.net"};
  for (int i = 0; i < kGpcTrustedSiteCount; ++i) {
    EXPECT_EQ(0u, rgslTrustedSites[i].allowType);
    EXPECT_STREQ("https", rgslTrustedSites[i].scheme);
    EXPECT_STREQ(domains[i], rgslTrustedSites[i].domain);
    std::string d = domains[i];
    SCOPED_TRACE(d);
    EXPECT_TRUE(ListApproves(("https://" + d + "/").c_str()));
    EXPECT_TRUE(ListApproves(("https://www." + d + "/meeting").c_str()));
    EXPECT_FALSE(ListApproves(("https://x" + d + "/").c_str()));
    EXPECT_FALSE(ListApproves(("http://www." + d + "/").c_str()));
  }
}

TEST(FApprovedDomain, OnlySchemeAndHostCount) {
  EXPECT_TRUE(ListApproves("HTTPS://WWW.TALVO.US/Path"));
  EXPECT_TRUE(ListApproves("https://user:pw@www.talvo.us:8443/a/b?q=1#frag"));
  EXPECT_FALSE(ListApproves("https://www.talvo.us.evil.com/"));
  EXPECT_FALSE(ListApproves("https://evil.com/www.talvo.us"));
  EXPECT_FALSE(ListApproves("ftp://www.talvo.us/"));
}

TEST(FApprovedDomain, UnparsableUrlsAreRefused) {
  EXPECT_FALSE(ListApproves(nullptr));
  EXPECT_FALSE(ListApproves(""));
  EXPECT_FALSE(ListApproves("www.talvo.us"));            // relative
  EXPECT_FALSE(ListApproves("https://www.talvo.us/a b"));  // blank
  EXPECT_FALSE(ListApproves("https://www.tal vo.us/"));
  EXPECT_FALSE(ListApproves("https://[::1/"));
  EXPECT_FALSE(ListApproves("mailto:someone@talvo.us"));   // cannot be split into host and path
  EXPECT_FALSE(ListApproves(("https://" + std::string(5000, 'a') + ".talvo.us/").c_str()));
}

TEST(FApprovedDomain, FirstMatchingEntryDecides) {
  CSiteCheck<TestLock> plain;
  const SiteList denyFirst[] = {{1, "https", "bad.talvo.us"}, {0, "https", "talvo.us"}};
  EXPECT_FALSE(plain.FApprovedDomain("https://bad.talvo.us/", 0, denyFirst, 2));
  EXPECT_TRUE(plain.FApprovedDomain("https://good.talvo.us/", 0, denyFirst, 2));
  const SiteList allowFirst[] = {{0, "https", "talvo.us"}, {1, "https", "bad.talvo.us"}};
  EXPECT_TRUE(plain.FApprovedDomain("https://bad.talvo.us/", 0, allowFirst, 2));
  // The count limits the walk.
  EXPECT_FALSE(plain.FApprovedDomain("https://good.talvo.us/", 0, denyFirst, 1));
  EXPECT_FALSE(plain.FApprovedDomain("https://good.talvo.us/", 0, denyFirst, 0));
  EXPECT_FALSE(plain.FApprovedDomain("https://good.talvo.us/", 0, denyFirst, -1));
  // Entry schemes compare without regard to case.
  const SiteList upper[] = {{0, "HTTPS", "talvo.us"}};
  EXPECT_TRUE(plain.FApprovedDomain("https://talvo.us/", 0, upper, 1));
}

TEST(SiteLockEscape, OnlyZeroSwitchesTheLockOff) {
  TestLock lock;
  const char* refused = "http://www.example.org/";
  for (const char* flag : {static_cast<const char*>(nullptr), "", "1", "00", "no", " 0"}) {
    lock.siteLockFlag = flag;
    EXPECT_FALSE(lock.FApprovedDomain(refused, 0, rgslTrustedSites, kGpcTrustedSiteCount))
        << (flag ? flag : "(absent)");
  }
  lock.siteLockFlag = "0";
  EXPECT_TRUE(lock.FApprovedDomain(refused, 0, rgslTrustedSites, kGpcTrustedSiteCount));
  EXPECT_TRUE(lock.FApprovedDomain("not a url at all", 0, rgslTrustedSites, kGpcTrustedSiteCount));
}

TEST(CorrectSchemaofUrlRoot, UpgradesHttpAndKeepsHttps) {
  TestLock lock;
  EXPECT_EQ("https://www.talvo.us/client/a/", lock.CorrectSchemaofUrlRoot("http://www.talvo.us/client/a/"));
  EXPECT_EQ("https://www.talvo.us/client/a/", lock.CorrectSchemaofUrlRoot("HTTP://www.talvo.us/client/a/"));
  ASSERT_EQ(2u, lock.asked.size());
  EXPECT_EQ("https://www.talvo.us/client/a/", lock.asked[0]);  // asked with the upgraded root
  EXPECT_EQ("https://www.talvo.us/client/a/", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client/a/"));
  EXPECT_EQ("https://www.talvo.us:8443/client/v1.2_x-y/",
            lock.CorrectSchemaofUrlRoot("https://www.talvo.us:8443/client/v1.2_x-y/"));
}

TEST(CorrectSchemaofUrlRoot, RefusesUnapprovedHosts) {
  TestLock lock;
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("http://www.example.org/client/a/"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.example.org/client/a/"));
  lock.siteLockFlag = "0";  // the escape goes through the virtual slot too
  EXPECT_EQ("https://www.example.org/client/a/",
            lock.CorrectSchemaofUrlRoot("http://www.example.org/client/a/"));
}

TEST(CorrectSchemaofUrlRoot, OtherSchemesPassUnchecked) {
  TestLock lock;
  EXPECT_EQ("ftp://www.example.org/client/a/", lock.CorrectSchemaofUrlRoot("ftp://www.example.org/client/a/"));
  EXPECT_EQ("HTTPS://www.example.org/client/a/",
            lock.CorrectSchemaofUrlRoot("HTTPS://www.example.org/client/a/"));
  EXPECT_TRUE(lock.asked.empty());
}

TEST(CorrectSchemaofUrlRoot, PathRules) {
  TestLock lock;
  lock.siteLockFlag = "0";  // only the path decides below
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot(nullptr));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot(""));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/other/client/a/"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/Client/a/"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client/../a/"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client/a%20b/"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client/~a/"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client/a b/"));
  EXPECT_EQ("", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client/a+b/"));
  EXPECT_EQ("https://www.talvo.us/client/", lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client/"));
  // Query and fragment are not part of the path.
  EXPECT_EQ("https://www.talvo.us/client/a?x=%7E",
            lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client/a?x=%7E"));
}

TEST(HardenedBuild, HasNoEscapeAndNoDotSegments) {
  for (const bool hardened : {false, true}) {
    SCOPED_TRACE(hardened ? "hardened" : "default");
    gpc::SetHardenedForTesting(hardened);
    TestLock escape;
    escape.siteLockFlag = "0";
    EXPECT_EQ(escape.CorrectSchemaofUrlRoot("https://downloads.example.org/client/a/").empty(), hardened);
    TestLock lock;
    for (const char* root : {"https://www.talvo.us/client/..", "https://www.talvo.us/client/a/./b/"}) {
      EXPECT_EQ(lock.CorrectSchemaofUrlRoot(root).empty(), hardened) << root;
    }
    EXPECT_FALSE(lock.CorrectSchemaofUrlRoot("https://www.talvo.us/client/a..b/").empty());
  }
  gpc::SetHardenedForTesting(-1);
}

TEST(IsHttps, PrefixOnly) {
  EXPECT_TRUE(IsHttps("https://www.talvo.us/"));
  EXPECT_FALSE(IsHttps("HTTPS://www.talvo.us/"));
  EXPECT_FALSE(IsHttps("http://x/?https://"));
  EXPECT_FALSE(IsHttps(" https://x"));
  EXPECT_FALSE(IsHttps(""));
  EXPECT_FALSE(IsHttps(nullptr));
}

}  // namespace
