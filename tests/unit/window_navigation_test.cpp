// The queue of navigations of the hosting page, as the browser is asked for them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_browser.h"
#include "plugin/plugin/npgpcimp.h"

namespace {

using gpctest::Browser;
using Urls = std::vector<std::string>;

class WindowNavigationTest : public ::testing::Test {
 protected:
  // The URLs the browser was asked for, in order.
  Urls Asked() {
    Urls urls;
    for (const gpctest::UrlRequest& request : Browser().requests) urls.push_back(request.url);
    return urls;
  }
  void Queue(std::initializer_list<const char*> urls, const char* target = nullptr) {
    for (const char* url : urls) window.ChangeLocation(target, url);
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  CGpcWindow window{&npp};
};

TEST_F(WindowNavigationTest, OneRequestAtATimeInOrder) {
  EXPECT_TRUE(window.ChangeLocation("_top", nullptr));  // never queued
  Queue({"https://a.example/1"});
  Queue({"https://a.example/2"}, "");
  for (int i = 0; i < 2; ++i) window.CheckLocationChanging();
  ASSERT_EQ(Asked(), Urls{"https://a.example/1"});
  EXPECT_EQ(Browser().requests[0].notifyData, window.GetNextFrameTargetLocation());
  window.OnGetUrlNotify("https://A.EXAMPLE/1", NPRES_DONE);  // letter case does not matter
  window.CheckLocationChanging();
  EXPECT_EQ(Asked(), (Urls{"https://a.example/1", "https://a.example/2"}));
  EXPECT_EQ(Browser().requests[1].target, "(null)");  // an empty target goes as none
  window.OnGetUrlNotify("https://a.example/2", NPRES_DONE);
  EXPECT_EQ(window.GetNextFrameTargetLocation(), nullptr);
  window.RemoveNextFrameTargetLocation();  // an empty queue is left alone
}

// A request the browser refuses is asked again on every heartbeat; a failed load is tried four
// times in all before the next navigation goes.
TEST_F(WindowNavigationTest, RefusalsAreRetriedForeverFailedLoadsFourTimes) {
  Queue({"https://a.example/1", "https://a.example/2"});
  Browser().answers = {NPERR_INCOMPATIBLE_VERSION_ERROR, NPERR_GENERIC_ERROR, NPERR_GENERIC_ERROR};
  for (int i = 0; i < 4; ++i) window.CheckLocationChanging();
  EXPECT_EQ(Asked().size(), 4u);
  for (int i = 0; i < 3; ++i) {
    window.OnGetUrlNotify("https://a.example/1", NPRES_NETWORK_ERR);
    window.CheckLocationChanging();
  }
  EXPECT_EQ(Asked(), Urls(7, "https://a.example/1"));
  window.OnGetUrlNotify("https://a.example/other", NPRES_DONE);  // another URL changes nothing
  window.OnGetUrlNotify(nullptr, NPRES_DONE);
  window.OnGetUrlNotify("https://a.example/1", NPRES_USER_BREAK);
  window.CheckLocationChanging();
  EXPECT_EQ(Asked().size(), 8u);
  EXPECT_EQ(Asked().back(), "https://a.example/2");
}

// A finished stream ends the head when its URL is the head's exactly, or when it carries the head.
TEST_F(WindowNavigationTest, DestroyedStreamMatchesByExactUrlOrByDatum) {
  Queue({"https://a.example/Path"});
  window.CheckLocationChanging();
  NPStream stream{}, exact{}, noUrl{};
  stream.url = "https://a.example/path";
  EXPECT_EQ(window.OnNppDestroyStream(&stream, NPRES_DONE), NPERR_NO_ERROR);
  window.CheckLocationChanging();
  EXPECT_EQ(Asked().size(), 1u) << "still requested";
  stream.notifyData = window.GetNextFrameTargetLocation();  // recognised, but not finished: asked again
  EXPECT_EQ(window.OnNppDestroyStream(&stream, NPRES_NETWORK_ERR), NPERR_NO_ERROR);
  window.CheckLocationChanging();
  EXPECT_EQ(Asked().size(), 2u);
  exact.url = "https://a.example/Path";
  EXPECT_EQ(window.OnNppDestroyStream(&exact, NPRES_DONE), NPERR_NO_ERROR);
  EXPECT_EQ(window.GetNextFrameTargetLocation(), nullptr);
  EXPECT_EQ(window.OnNppDestroyStream(nullptr, NPRES_DONE), NPERR_NO_DATA);
  EXPECT_EQ(window.OnNppDestroyStream(&noUrl, NPRES_DONE), NPERR_NO_DATA);
}

// A head with a target is passed on to the browser, which never reports it done, and holds the
// navigations after it; a head ended during its own request is not touched again.
TEST_F(WindowNavigationTest, TargetedHeadBlocksLaterNavigationsAndAHeadEndedInItsRequestIsLeft) {
  Queue({"https://a.example/error"}, "_top");
  Queue({"https://a.example/later"});
  for (int i = 0; i < 5; ++i) window.CheckLocationChanging();
  ASSERT_EQ(Asked(), Urls{"https://a.example/error"});
  EXPECT_EQ(Browser().requests[0].target, "_top");
  window.CleanupFrameTargets();
  Browser().requests.clear();
  Queue({"https://a.example/1", "https://a.example/2"});
  Browser().onRequest = [&] {
    if (Browser().requests.size() == 1) window.OnGetUrlNotify("https://a.example/1", NPRES_DONE);
  };
  for (int i = 0; i < 2; ++i) window.CheckLocationChanging();
  EXPECT_EQ(Asked(), (Urls{"https://a.example/1", "https://a.example/2"}));
}

// Without an instance, or while the browser offers no notifications, nothing is asked.
TEST_F(WindowNavigationTest, NoInstanceOrNoNotificationsAsksNothing) {
  CGpcWindow orphan(nullptr);
  orphan.ChangeLocation(nullptr, "https://a.example/1");
  orphan.CheckLocationChanging();
  gNetscapeFuncs.version = 8;
  Queue({"https://a.example/1"});
  window.CheckLocationChanging();
  EXPECT_TRUE(Asked().empty());
  gNetscapeFuncs.version = 27;
  window.CheckLocationChanging();
  EXPECT_EQ(Asked().size(), 1u);
}

}  // namespace
