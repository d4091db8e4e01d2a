// The instance's lifecycle: the heartbeat's order, guards and timer, the window and event entry
// points, and teardown.
#include <gtest/gtest.h>

#include <glib.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "fake_browser.h"
#include "platform/system_version.h"
#include "plugin/plugin/npgpcimp.h"

namespace {

using gpctest::Browser;

// What the extension's entry points saw.
int g_heartbeats = 0;
int g_managerStartedAtFirstHeartbeat = -1;
int g_heartbeatsSeenByEvent = -1;
void ExtHeartbeat(void* instance, void*) {
  if (g_heartbeats++ == 0) g_managerStartedAtFirstHeartbeat = static_cast<CGpcWindow*>(instance)->m_bExtMgrStarted;
}

class WindowLifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override { g_heartbeats = 0; }
  void TearDown() override { platform::SetSystemVersionOverride(0); }
  std::unique_ptr<CGpcWindow> MakeWindow(bool running = false) {
    auto window = std::make_unique<CGpcWindow>(&npp);
    window->m_pfnGpcHeartbeat = ExtHeartbeat;
    window->SetParameterVector("GpcErrorPageUrl", "https://e.example/err");
    window->m_bHalted = !running;
    window->m_bExtMgrStarted = running;
    return window;
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
};

// A new instance is halted: its heartbeat only serves navigations until the halt is lifted; then
// the extension manager starts once, before the extension's heartbeat, on the same heartbeat.
TEST_F(WindowLifecycleTest, HaltedHeartbeatServesNavigationsThenTheManagerStartsOnce) {
  auto window = MakeWindow();
  window->ChangeLocation(nullptr, "https://www.talvo.us/a");
  window->OnTimer();
  EXPECT_EQ(g_heartbeats, 0);
  ASSERT_EQ(Browser().requests.size(), 1u);
  EXPECT_EQ(Browser().requests[0].url, "https://www.talvo.us/a");
  window->OnGetUrlNotify("https://www.talvo.us/a", NPRES_DONE);
  window->m_bHalted = 0;
  for (int i = 0; i < 3; ++i) window->OnTimer();
  // Without "GpcUrlRoot" the manager halts the instance, yet the same heartbeat runs on.
  EXPECT_EQ(window->m_bHalted, 1);
  EXPECT_EQ(g_heartbeats, 1);
  EXPECT_EQ(g_managerStartedAtFirstHeartbeat, 1);
}

TEST_F(WindowLifecycleTest, ReenteredOrSuspendedHeartbeatSkipsFetchAndNavigation) {
  auto window = MakeWindow(true);
  window->ChangeLocation(nullptr, "https://www.talvo.us/one");
  int inner = 0;
  Browser().answers = {NPERR_GENERIC_ERROR};  // the first request fails, so the head stays unrequested
  Browser().onRequest = [&] {
    if (inner++ == 0) window->OnTimer();
  };
  window->OnTimer();
  EXPECT_EQ(g_heartbeats, 2);  // the inner heartbeat ran the extension's but asked for nothing
  EXPECT_EQ(Browser().requests.size(), 1u);
  window->m_bSuspendFetching = 1;
  window->OnTimer();
  EXPECT_EQ(Browser().requests.size(), 1u);
  window->m_bSuspendFetching = 0;
  window->OnTimer();
  EXPECT_EQ(Browser().requests.size(), 2u);
  EXPECT_EQ(g_heartbeats, 4);
  // Memory running out inside a step ends that heartbeat only.
  window->OnGetUrlNotify("https://www.talvo.us/one", NPRES_DONE);
  window->ChangeLocation(nullptr, "https://www.talvo.us/two");
  Browser().onRequest = [] { throw std::bad_alloc(); };
  EXPECT_THROW(window->OnTimer(), std::bad_alloc);
  Browser().onRequest = nullptr;
  window->OnTimer();
  EXPECT_EQ(Browser().requests.size(), 4u);
}

// The heartbeat's source on the default context fires at once, then every 50 ms, and goes with
// the instance.
TEST_F(WindowLifecycleTest, TimerFiresAtOnceThenEveryFiftyMsUntilTheInstanceGoes) {
  GPCWindowTimerProc(nullptr, nullptr);
  auto window = MakeWindow(true);
  const unsigned id = window->m_hTimer;
  ASSERT_NE(id, 0u);
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_EQ(g_heartbeats, 1);
  const gint64 untilNext = g_source_get_ready_time(g_main_context_find_source_by_id(nullptr, id)) - g_get_monotonic_time();
  EXPECT_TRUE(untilNext > 0 && untilNext <= 50000) << untilNext;
  window.reset();
  EXPECT_EQ(g_main_context_find_source_by_id(nullptr, id), nullptr);
  for (int i = 0; i < 5; ++i) g_main_context_iteration(nullptr, FALSE);
  EXPECT_EQ(g_heartbeats, 1);
}

// Before 10.6 there is no timer: every event runs one heartbeat, after the extension's handler.
TEST_F(WindowLifecycleTest, EventsRunTheHeartbeatOnlyBeforeTenSix) {
  for (const uint32_t system : {0x1058u, 0u}) {
    SCOPED_TRACE(system);
    g_heartbeats = 0;
    platform::SetSystemVersionOverride(system);
    auto window = MakeWindow(true);
    EXPECT_EQ(window->HasHeartbeatTimer(), system == 0);
    window->m_pfnGpcHandleEvent = [](void*, void*, bool, void*) {
      g_heartbeatsSeenByEvent = g_heartbeats;
      return int32_t(1);
    };
    int event = 0;
    EXPECT_TRUE(window->HandleEvent(&event, true));
    EXPECT_EQ(g_heartbeatsSeenByEvent, 0);
    EXPECT_EQ(g_heartbeats, system == 0 ? 0 : 1);
  }
}

// The window keeps the first record the browser gives but hands every one to the extension; its
// teardown ends the extension once (re-entering the teardown reaches no one) and frees the rest.
TEST_F(WindowLifecycleTest, SetWindowAndTeardown) {
  auto window = MakeWindow();
  static std::vector<NPWindow*> handed;
  static int exits = 0;
  NPWindow first{}, second{};
  EXPECT_EQ(window->SetWindow(&first), NPERR_NO_ERROR);
  window->m_pfnGpcSetWindow = [](void*, NPWindow* npWindow, void*) { handed.push_back(npWindow); };
  EXPECT_EQ(window->SetWindow(&second), NPERR_NO_ERROR);
  EXPECT_EQ(window->GetPluginNativeWindow(), &first);
  EXPECT_EQ(handed, std::vector<NPWindow*>{&second});
  window->m_pfnGpcExitInstance = [](void* instance, void*) {
    ++exits;
    static_cast<CGpcWindow*>(instance)->ExitExtension();
  };
  window->ChangeLocation("_top", "https://www.talvo.us/a");
  window->ChangeLocation(nullptr, "https://www.talvo.us/b");
  window->GetFileAtUrl(nullptr, nullptr, "https://www.talvo.us/client/x.7z");
  window->GetFileAtUrl(nullptr, nullptr, "https://www.talvo.us/client/y.7z");
  window.reset();  // the leak checker watches the rest
  EXPECT_EQ(exits, 1);
}

// What the extension saw while the browser destroyed the instance inside one of its calls.
std::vector<std::string> g_seen;
NPP g_page = nullptr;
void DestroyInsideTheExtension(void* instance, const char* call) {
  g_seen.push_back(call);
  NPP_Destroy(g_page, nullptr);
  CGpcWindow* self = static_cast<CGpcWindow*>(instance);
  g_seen.push_back(self->m_serviceTable.GpcGetPluginNativeWindow(instance) ? "destroyed, window" : "destroyed");
  // The extension still asks for a stream before its dialog returns.
  void* stream = nullptr;
  self->m_serviceTable.GpcGetStream(self->m_streamSap, "https://www.talvo.us/x", 0, &stream);
}

// The browser may destroy the instance inside the extension's heartbeat or event handler (a dialog
// runs a nested loop): the extension is ended once its call has returned, a heartbeat during its
// exit starts no second teardown, and nothing more of the instance reaches the browser, nor does the
// browser's window record reach the extension.
TEST_F(WindowLifecycleTest, DestroyedInsideAnExtensionCallTheInstanceGoesWhenTheCallReturns) {
  g_page = &npp;
  for (const bool byEvent : {false, true}) {
    g_seen.clear();
    ASSERT_EQ(NPP_New(const_cast<char*>("application/x-talvo-gpc"), &npp, NP_EMBED, 0, nullptr, nullptr, nullptr),
              NPERR_NO_ERROR);
    CGpcWindow* window = static_cast<InstanceRecord*>(npp.pdata)->gpcWindow;
    NPWindow record{};  // the browser's, freed with the instance
    ASSERT_EQ(NPP_SetWindow(&npp, &record), NPERR_NO_ERROR);
    window->m_bHalted = 0;
    window->m_bExtMgrStarted = 1;
    window->m_pfnGpcHeartbeat = [](void* instance, void*) { DestroyInsideTheExtension(instance, "heartbeat"); };
    window->m_pfnGpcHandleEvent = [](void* instance, void*, bool, void*) -> int32_t {
      DestroyInsideTheExtension(instance, "event");
      return 1;
    };
    window->m_pfnGpcExitInstance = [](void* instance, void*) {
      g_seen.push_back("exit");
      static_cast<CGpcWindow*>(instance)->OnTimer();
    };
    window->ChangeLocation(nullptr, "https://www.talvo.us/a");
    int event = 0;
    if (byEvent) NPP_HandleEvent(&npp, &event);
    else window->OnTimer();
    EXPECT_EQ(g_seen, (std::vector<std::string>{byEvent ? "event" : "heartbeat", "destroyed", "exit"}));
    EXPECT_TRUE(Browser().requests.empty());
  }
}

}  // namespace
