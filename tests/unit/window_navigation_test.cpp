// The queue of navigations of the hosting page.
#include <gtest/gtest.h>

#include <memory>

#include "window_fake_browser.h"

using namespace window_test;

namespace {

class WindowNavigationTest : public ::testing::Test {
 protected:
  void SetUp() override { window = std::make_unique<CGpcWindow>(&npp); }

  Environment env;
  NPP_t npp{};
  std::unique_ptr<CGpcWindow> window;
};

TEST_F(WindowNavigationTest, OneRequestAtATimeInOrder) {
  window->ChangeLocation(nullptr, "https://a.example/1");
  window->ChangeLocation("", "https://a.example/2");
  window->CheckLocationChanging();
  window->CheckLocationChanging();
  ASSERT_EQ(Browser().requests.size(), 1u);
  EXPECT_EQ(Browser().requests[0].url, "https://a.example/1");
  EXPECT_EQ(Browser().requests[0].notifyData, window->GetNextFrameTargetLocation());

  window->OnGetUrlNotify("https://a.example/1", NPRES_DONE);
  window->CheckLocationChanging();
  ASSERT_EQ(Browser().requests.size(), 2u);
  EXPECT_EQ(Browser().requests[1].url, "https://a.example/2");
  // An empty target goes to the browser as none.
  EXPECT_EQ(Browser().requests[1].target, "(null)");
}

TEST_F(WindowNavigationTest, NullUrlIsNeverQueued) {
  LogCapture log;
  EXPECT_TRUE(window->ChangeLocation("_top", nullptr));
  EXPECT_EQ(window->GetNextFrameTargetLocation(), nullptr);
  EXPECT_TRUE(log.Contains("CGpcWindow::AddFrameTargetLocation,url is nil!"));
  window->RemoveNextFrameTargetLocation();  // an empty queue is left alone
}

TEST_F(WindowNavigationTest, RefusedRequestIsAskedAgainWithoutLimit) {
  window->ChangeLocation(nullptr, "https://a.example/1");
  Browser().answers = {NPERR_INCOMPATIBLE_VERSION_ERROR, NPERR_GENERIC_ERROR, NPERR_GENERIC_ERROR};
  for (int i = 0; i < 4; ++i) window->CheckLocationChanging();
  EXPECT_EQ(Browser().requests.size(), 4u);
  EXPECT_TRUE(window->GetNextFrameTargetLocation()->m_bRequested);
  EXPECT_EQ(window->GetNextFrameTargetLocation()->m_nRetries, 0);
}

TEST_F(WindowNavigationTest, ThirdFailureKeepsTheHeadAndTheFourthRemovesIt) {
  window->ChangeLocation(nullptr, "https://a.example/1");
  window->ChangeLocation(nullptr, "https://a.example/2");
  LogCapture log;
  for (int failure = 1; failure <= 3; ++failure) {
    window->CheckLocationChanging();
    window->OnGetUrlNotify("https://a.example/1", NPRES_NETWORK_ERR);
    ASSERT_EQ(window->GetNextFrameTargetLocation()->m_strUrl, "https://a.example/1");
    EXPECT_EQ(window->GetNextFrameTargetLocation()->m_nRetries, failure);
    EXPECT_FALSE(window->GetNextFrameTargetLocation()->m_bRequested);
  }
  window->CheckLocationChanging();
  window->OnGetUrlNotify("https://a.example/1", NPRES_USER_BREAK);
  EXPECT_EQ(window->GetNextFrameTargetLocation()->m_strUrl, "https://a.example/2");
  EXPECT_TRUE(log.Contains("CGpcWindow::OnGetUrlNotify,url[https://a.example/1] failed after 3 times retry,remove this target!"));
  EXPECT_EQ(Browser().requests.size(), 4u);
}

TEST_F(WindowNavigationTest, NotificationComparesUrlsWithoutRegardToCase) {
  window->ChangeLocation(nullptr, "https://a.example/Path");
  window->CheckLocationChanging();
  window->OnGetUrlNotify("HTTPS://A.EXAMPLE/path", NPRES_DONE);
  EXPECT_EQ(window->GetNextFrameTargetLocation(), nullptr);
}

TEST_F(WindowNavigationTest, NotificationForAnotherUrlChangesNothing) {
  window->ChangeLocation(nullptr, "https://a.example/1");
  window->CheckLocationChanging();
  LogCapture log;
  window->OnGetUrlNotify("https://a.example/other", NPRES_DONE);
  window->OnGetUrlNotify(nullptr, NPRES_DONE);
  ASSERT_NE(window->GetNextFrameTargetLocation(), nullptr);
  EXPECT_TRUE(window->GetNextFrameTargetLocation()->m_bRequested);
  EXPECT_TRUE(log.Contains("current need request url vector count is 1."));
}

TEST_F(WindowNavigationTest, DestroyedStreamComparesUrlsWithCaseOrMatchesByDatum) {
  window->ChangeLocation(nullptr, "https://a.example/Path");
  window->CheckLocationChanging();
  CFrameTarget* head = window->GetNextFrameTargetLocation();

  NPStream stream{};
  stream.url = "https://a.example/path";
  EXPECT_EQ(window->OnNppDestroyStream(&stream, NPRES_DONE), NPERR_NO_ERROR);
  EXPECT_EQ(window->GetNextFrameTargetLocation(), head);
  EXPECT_TRUE(head->m_bRequested);

  // The same stream recognised by its datum, but not finished: back to unrequested.
  stream.notifyData = head;
  EXPECT_EQ(window->OnNppDestroyStream(&stream, NPRES_NETWORK_ERR), NPERR_NO_ERROR);
  EXPECT_EQ(window->GetNextFrameTargetLocation(), head);
  EXPECT_FALSE(head->m_bRequested);

  NPStream exact{};
  exact.url = "https://a.example/Path";
  EXPECT_EQ(window->OnNppDestroyStream(&exact, NPRES_DONE), NPERR_NO_ERROR);
  EXPECT_EQ(window->GetNextFrameTargetLocation(), nullptr);

  EXPECT_EQ(window->OnNppDestroyStream(nullptr, NPRES_DONE), NPERR_NO_DATA);
  NPStream noUrl{};
  EXPECT_EQ(window->OnNppDestroyStream(&noUrl, NPRES_DONE), NPERR_NO_DATA);
}

TEST_F(WindowNavigationTest, TargetedHeadIsPassedOnAndBlocksLaterNavigations) {
  window->ChangeLocation("_top", "https://a.example/error");
  window->ChangeLocation(nullptr, "https://a.example/later");
  for (int i = 0; i < 5; ++i) window->CheckLocationChanging();
  ASSERT_EQ(Browser().requests.size(), 1u);
  EXPECT_EQ(Browser().requests[0].target, "_top");
  // The browser answers such a request only with a notification that carries the item, which
  // goes to the stream provider: the head stays requested for good.
  EXPECT_EQ(window->GetNextFrameTargetLocation()->m_strUrl, "https://a.example/error");
}

TEST_F(WindowNavigationTest, HeadRemovedDuringItsOwnRequestIsNotTouched) {
  window->ChangeLocation(nullptr, "https://a.example/1");
  window->ChangeLocation(nullptr, "https://a.example/2");
  Browser().onRequest = [&] {
    if (Browser().requests.size() == 1) window->OnGetUrlNotify("https://a.example/1", NPRES_DONE);
  };
  window->CheckLocationChanging();
  ASSERT_NE(window->GetNextFrameTargetLocation(), nullptr);
  EXPECT_FALSE(window->GetNextFrameTargetLocation()->m_bRequested);
  window->CheckLocationChanging();
  EXPECT_EQ(Browser().requests.back().url, "https://a.example/2");
}

TEST_F(WindowNavigationTest, NoBrowserInstanceRequestsNothing) {
  CGpcWindow orphan(nullptr);
  orphan.ChangeLocation(nullptr, "https://a.example/1");
  orphan.CheckLocationChanging();
  EXPECT_TRUE(Browser().requests.empty());
}

TEST_F(WindowNavigationTest, OldBrowserWithoutNotificationsIsAskedOnEveryHeartbeat) {
  gNetscapeFuncs.version = 8;
  window->ChangeLocation(nullptr, "https://a.example/1");
  window->CheckLocationChanging();
  window->CheckLocationChanging();
  EXPECT_TRUE(Browser().requests.empty());
  EXPECT_FALSE(window->GetNextFrameTargetLocation()->m_bRequested);
}

}  // namespace
