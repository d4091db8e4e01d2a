// The instance's lifecycle: construction, the heartbeat's order and guards, the window and event
// entry points, and teardown.
#include <gtest/gtest.h>

#include <memory>

#include "platform/system_version.h"
#include "window_fake_browser.h"

using namespace window_test;

namespace {

struct ExtensionCalls {
  int heartbeats = 0;
  int initRanBeforeHeartbeat = -1;  // m_bExtMgrStarted seen by the first extension heartbeat
  std::vector<NPWindow*> windows;
  int heartbeatsSeenByEvent = -1;
};
ExtensionCalls* g_calls = nullptr;

void ExtHeartbeat(void* instance, void*) {
  if (g_calls->heartbeats++ == 0) g_calls->initRanBeforeHeartbeat = static_cast<CGpcWindow*>(instance)->m_bExtMgrStarted;
}
void ExtSetWindow(void*, NPWindow* window, void*) { g_calls->windows.push_back(window); }
int32_t ExtHandleEvent(void*, void*, bool, void*) {
  g_calls->heartbeatsSeenByEvent = g_calls->heartbeats;
  return 1;
}

class WindowLifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override { g_calls = &calls; }
  void TearDown() override {
    platform::SetSystemVersionOverride(0);
    g_calls = nullptr;
  }

  std::unique_ptr<CGpcWindow> MakeWindow() {
    auto window = std::make_unique<CGpcWindow>(&npp);
    window->m_pfnGpcHeartbeat = ExtHeartbeat;
    return window;
  }

  Environment env;
  NPP_t npp{};
  ExtensionCalls calls;
};

TEST_F(WindowLifecycleTest, ConstructionStartsHaltedWithServicesAndOwnAccessPoint) {
  auto window = MakeWindow();
  EXPECT_EQ(window->m_bHalted, 1);
  EXPECT_EQ(window->m_nStreamFileId, -1);
  EXPECT_EQ(window->m_nFetchReady, 1);
  EXPECT_EQ(window->m_bParamsValid, 1);
  EXPECT_NE(window->m_streamSap, nullptr);
  EXPECT_EQ(window->m_provider.SapCount(), 1u);
  EXPECT_NE(window->m_serviceTable.GpcGetVersion, nullptr);
  EXPECT_NE(window->m_serviceTable.GpcOutputDebugString, nullptr);
  EXPECT_EQ(window->m_serviceTable.reserved[0], nullptr);
  EXPECT_EQ(window->GetGpcCookie(), window.get());
  EXPECT_TRUE(window->HasHeartbeatTimer());
}

TEST_F(WindowLifecycleTest, HaltedHeartbeatOnlyServesNavigations) {
  auto window = MakeWindow();
  window->ChangeLocation(nullptr, "https://www.talvo.us/a");
  window->OnTimer();
  EXPECT_EQ(window->m_bExtMgrStarted, 0);
  EXPECT_EQ(calls.heartbeats, 0);
  ASSERT_EQ(Browser().requests.size(), 1u);
  EXPECT_EQ(Browser().requests[0].url, "https://www.talvo.us/a");
}

TEST_F(WindowLifecycleTest, ExtensionManagerStartsOnceBeforeTheExtensionHeartbeat) {
  LogCapture log;
  auto window = MakeWindow();
  window->m_bHalted = 0;
  window->OnTimer();
  window->OnTimer();
  window->OnTimer();
  EXPECT_EQ(log.CountExact("CGpcExtMgr::Init"), 1);
  EXPECT_EQ(window->m_bExtMgrStarted, 1);
  // Without "GpcUrlRoot" the manager halts the instance, yet the same heartbeat runs on.
  EXPECT_EQ(window->m_bHalted, 1);
  EXPECT_EQ(calls.heartbeats, 1);
  EXPECT_EQ(calls.initRanBeforeHeartbeat, 1);
}

TEST_F(WindowLifecycleTest, ExtensionManagerStartsOnFirstHeartbeatAfterHaltIsLifted) {
  LogCapture log;
  auto window = MakeWindow();
  window->OnTimer();
  EXPECT_FALSE(log.Contains("CGpcExtMgr::Init"));
  window->m_bHalted = 0;
  window->SetParameterVector("GpcUrlRoot", "https://www.talvo.us/client/a/");
  window->OnTimer();
  window->OnTimer();
  EXPECT_EQ(log.CountExact("CGpcExtMgr::Init"), 1);
  // No version on the page: whatever extension is there is loaded, here none at all.
  EXPECT_EQ(log.CountExact("CGpcWindow::InitExtension,Begin"), 1);
  EXPECT_EQ(window->m_bHalted, 1);
}

TEST_F(WindowLifecycleTest, ReenteredHeartbeatSkipsFetchAndNavigation) {
  auto window = MakeWindow();
  window->m_bHalted = 0;
  window->m_bExtMgrStarted = 1;
  window->ChangeLocation(nullptr, "https://www.talvo.us/one");
  window->ChangeLocation(nullptr, "https://www.talvo.us/two");
  int inner = 0;
  Browser().answers = {NPERR_GENERIC_ERROR};  // the first request fails, so the head stays unrequested
  Browser().onRequest = [&] {
    if (inner++ == 0) window->OnTimer();
  };
  window->OnTimer();
  // The inner heartbeat ran the extension's heartbeat but asked the browser for nothing.
  EXPECT_EQ(calls.heartbeats, 2);
  EXPECT_EQ(Browser().requests.size(), 1u);
  EXPECT_EQ(window->m_nTimerDepth, 0);
  window->OnTimer();
  EXPECT_EQ(Browser().requests.size(), 2u);
}

TEST_F(WindowLifecycleTest, SuspendedFetchingSkipsNavigation) {
  auto window = MakeWindow();
  window->m_bHalted = 0;
  window->m_bExtMgrStarted = 1;
  window->m_bSuspendFetching = 1;
  window->ChangeLocation(nullptr, "https://www.talvo.us/one");
  window->OnTimer();
  EXPECT_TRUE(Browser().requests.empty());
  EXPECT_EQ(calls.heartbeats, 1);
}

TEST_F(WindowLifecycleTest, TimerFiresAtOnceOnTheDefaultContextAndIsRemovedWithTheInstance) {
  auto window = MakeWindow();
  window->m_bHalted = 0;
  window->m_bExtMgrStarted = 1;
  const unsigned id = window->m_hTimer;
  ASSERT_NE(id, 0u);
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_EQ(calls.heartbeats, 1);
  window.reset();
  EXPECT_EQ(g_main_context_find_source_by_id(nullptr, id), nullptr);
  RunMainLoop(5);
  EXPECT_EQ(calls.heartbeats, 1);
}

TEST_F(WindowLifecycleTest, BeforeTenSixEveryEventRunsOneHeartbeatAfterTheExtension) {
  platform::SetSystemVersionOverride(0x1058);
  auto window = MakeWindow();
  EXPECT_FALSE(window->HasHeartbeatTimer());
  window->m_bHalted = 0;
  window->m_bExtMgrStarted = 1;
  window->m_pfnGpcHandleEvent = ExtHandleEvent;
  RunMainLoop(3);
  EXPECT_EQ(calls.heartbeats, 0);
  int event = 0;
  EXPECT_TRUE(window->HandleEvent(&event, true));
  EXPECT_EQ(calls.heartbeatsSeenByEvent, 0);
  EXPECT_EQ(calls.heartbeats, 1);
}

TEST_F(WindowLifecycleTest, FromTenSixEventsDoNotRunHeartbeats) {
  auto window = MakeWindow();
  window->m_bHalted = 0;
  window->m_bExtMgrStarted = 1;
  int event = 0;
  EXPECT_FALSE(window->HandleEvent(&event, true));
  EXPECT_EQ(calls.heartbeats, 0);
}

TEST_F(WindowLifecycleTest, SetWindowKeepsTheFirstRecordButForwardsEveryOne) {
  auto window = MakeWindow();
  NPWindow first{}, second{};
  EXPECT_EQ(window->SetWindow(&first), NPERR_NO_ERROR);
  window->m_pfnGpcSetWindow = ExtSetWindow;
  EXPECT_EQ(window->SetWindow(&second), NPERR_NO_ERROR);
  EXPECT_EQ(window->GetPluginNativeWindow(), &first);
  ASSERT_EQ(calls.windows.size(), 1u);
  EXPECT_EQ(calls.windows[0], &second);
}

int g_exitCalls = 0;
void ExtExit(void* instance, void*) {
  ++g_exitCalls;
  // An exit that re-enters the teardown must not reach the extension again.
  static_cast<CGpcWindow*>(instance)->ExitExtension();
}

TEST_F(WindowLifecycleTest, TeardownEndsTheExtensionOnceAndFreesEverything) {
  LogCapture log;
  g_exitCalls = 0;
  {
    auto window = MakeWindow();
    window->m_pfnGpcExitInstance = ExtExit;
    window->SetParameterVector("GpcExtName", "ext");
    window->ChangeLocation("_top", "https://www.talvo.us/a");
    window->ChangeLocation(nullptr, "https://www.talvo.us/b");
    window->GetFileAtUrl(nullptr, nullptr, "https://www.talvo.us/client/x.7z");
    window->GetFileAtUrl(nullptr, nullptr, "https://www.talvo.us/client/y.7z");
  }
  EXPECT_EQ(g_exitCalls, 1);
  EXPECT_TRUE(log.Contains("CGpcWindow::~CGpcWindow,Begin"));
  EXPECT_TRUE(log.Contains("CGpcExtMgr::~CGpcExtMgr"));
  EXPECT_TRUE(log.Contains("CGpcProvider::~CGpcProvider"));
}

TEST_F(WindowLifecycleTest, TimerProcIgnoresNullDatum) {
  GPCWindowTimerProc(nullptr, nullptr);
  auto window = MakeWindow();
  window->m_bHalted = 0;
  window->m_bExtMgrStarted = 1;
  GPCWindowTimerProc(nullptr, window.get());
  EXPECT_EQ(calls.heartbeats, 1);
}

}  // namespace
