// The plug-in instance: construction, the heartbeat that drives all of its work, the window and
// event entry points, and teardown.
#include "plugin/plugin/npgpcimp.h"

#include <glib.h>

#include "common/boundary.h"
#include "platform/dynamic_library.h"
#include "platform/system_version.h"
#include "common/trace.h"

namespace {

// Below this system version no timer is installed: every browser event runs one heartbeat.
const uint32_t kTimerSystemVersion = 0x1060;
const guint kHeartbeatIntervalMs = 50;

bool HeartbeatRunsOnTimer() { return platform::SystemVersion() >= kTimerSystemVersion; }

gboolean OnHeartbeatSource(gpointer datum) try {
  GPCWindowTimerProc(nullptr, datum);
  return G_SOURCE_CONTINUE;
}
GPC_BOUNDARY_CATCH(G_SOURCE_CONTINUE)

}  // namespace

void GPCWindowTimerProc(void* timer, void* datum) {
  (void)timer;
  if (datum == nullptr) return;
  static_cast<CGpcWindow*>(datum)->OnTimer();
}

int GpcStreamCallback(GPCMessage* message) {
  if (message != nullptr && message->context != nullptr) {
    static_cast<CGpcWindow*>(message->context)->OnGpcStreamMessage(message);
  }
  return 0;
}

CGpcWindow::CGpcWindow(NPP instance)
    : m_nppInstance(instance), m_provider(this, instance), m_extMgr(this) {
  MacInfoTrace("CGpcWindow::CGpcWindow");
  FillServiceTable();
  if (HeartbeatRunsOnTimer()) InstallHeartbeatTimer();
  InitGpcWindow();
}

CGpcWindow::~CGpcWindow() {
  MacInfoTrace("CGpcWindow::~CGpcWindow,Begin");
  ExitGpcWindow();
  RemoveHeartbeatTimer();
  if (m_hExtBundle != nullptr) {
    FreeLibrary(m_hExtBundle);
    m_hExtBundle = nullptr;
  }
  CleanupDownloadingStreamFiles();
  CleanupFrameTargets();
  for (GPCDownloadTask* task : m_vectorDownloadTask) delete task;
  m_vectorDownloadTask.clear();
  for (GpcDownloadSlot& slot : m_downloadSlots) {
    delete slot.task;
    slot.task = nullptr;
  }
  for (CItem* item : m_vectorParam) delete item;
  m_vectorParam.clear();
  if (m_h7zLib != nullptr) {
    platform::CloseLibrary(m_h7zLib);
    m_h7zLib = nullptr;
  }
  // What is left of the queue was never handed to a fetch.
  for (CGetFileItem* item : m_vectorFileItem) delete item;
  m_vectorFileItem.clear();
}

// Uses that begin during the teardown itself (a heartbeat in the extension's exit dialog) find
// the instance in use, so they never start a second teardown.
void CGpcWindow::Destroy() {
  m_bHalted = 1;
  if (m_nInUse == 0) {
    ++m_nInUse;
    delete this;
    return;
  }
  MacInfoTrace("CGpcWindow::Destroy,the instance goes when its use ends");
  m_bDestroyPending = true;
  m_nppInstance = nullptr;
  m_pNativeWindow = nullptr;  // the browser frees its window record with the instance
  m_provider.ForgetBrowserInstance();
}

CGpcWindow::InUse::~InUse() {
  if (--m_window->m_nInUse != 0 || !m_window->m_bDestroyPending) return;
  m_window->m_bDestroyPending = false;
  ++m_window->m_nInUse;
  delete m_window;
}

void CGpcWindow::FillServiceTable() { FillGpcServiceTable(&m_serviceTable); }

void CGpcWindow::InstallHeartbeatTimer() {
  GSource* source = g_timeout_source_new(kHeartbeatIntervalMs);
  // The first heartbeat comes at once; the later ones every interval.
  g_source_set_ready_time(source, g_get_monotonic_time());
  g_source_set_callback(source, OnHeartbeatSource, this, nullptr);
  m_hTimer = g_source_attach(source, nullptr);
  g_source_unref(source);
}

void CGpcWindow::RemoveHeartbeatTimer() {
  if (m_hTimer == 0) return;
  g_source_remove(m_hTimer);
  m_hTimer = 0;
}

void CGpcWindow::InitGpcWindow() {
  MacInfoTrace("CGpcWindow::InitGpcWindow Begin");
  void* sap = nullptr;
  GpcRegisterStreamSap(GpcStreamCallback, this, this, &sap);
  m_streamSap = sap;
  MacInfoTrace("CGpcWindow::InitGpcWindow End");
}

void CGpcWindow::ExitGpcWindow() {
  MacInfoTrace("CGpcWindow::ExitGpcWindow,Begin");
  ExitExtension();
  if (m_streamSap != nullptr) {
    GpcUnregisterStreamSap(m_streamSap);
    m_streamSap = nullptr;
    m_streamSapId = nullptr;
  }
  CloseDownloadingStreamFile();
  MacInfoTrace("CGpcWindow::ExitGpcWindow,End");
}

void CGpcWindow::OnTimer() {
  const InUse inUse(this);
  if (m_bHalted != 0) {
    // While halted only navigations go out, so that an error page still shows.
    CheckLocationChanging();
    return;
  }
  if (m_bExtMgrStarted == 0) {
    m_bExtMgrStarted = 1;
    m_extMgr.Init();
  }
  if (m_bNeedInitExtension) {
    m_bNeedInitExtension = false;
    InitExtension();
  }
  if (!m_bDestroyPending && m_pfnGpcHeartbeat != nullptr) m_pfnGpcHeartbeat(this, m_pExtData);
  if (m_bDestroyPending) return;
  // A heartbeat entered again from inside these steps (an event during a dialog, say) must
  // not run them a second time.
  if (m_bSuspendFetching == 0 && m_nTimerDepth < 1) {
    // Lowered however the steps end: one that throws must not stop them on every later heartbeat.
    struct DepthGuard {
      int32_t& depth;
      ~DepthGuard() { --depth; }
    } const guard{++m_nTimerDepth};
    CheckFileDownloading();
    CheckLocationChanging();
  }
}

NPError CGpcWindow::SetWindow(NPWindow* window) {
  // Only the first record is kept; later ones still reach the extension.
  if (m_pNativeWindow == nullptr) m_pNativeWindow = window;
  if (m_pfnGpcSetWindow != nullptr) m_pfnGpcSetWindow(this, window, m_pExtData);
  return NPERR_NO_ERROR;
}

bool CGpcWindow::HandleEvent(void* event, bool flag) {
  bool handled = false;
  if (m_pfnGpcHandleEvent != nullptr) handled = m_pfnGpcHandleEvent(this, event, flag, m_pExtData) != 0;
  if (!HeartbeatRunsOnTimer()) OnTimer();
  return handled;
}

bool CGpcWindow::FApprovedDomain(const char* url, uint32_t reserved,
                                 const IObjectSafetySiteLock::SiteList* list, int32_t count) {
  MacInfoTrace("CGpcWindow::FApprovedDomain,url=%s", url ? url : "");
  if (CSiteCheck<CGpcWindow>::FApprovedDomain(url, reserved, list, count)) return true;
  return SiteLockSwitchedOff(GetParameter("gpcsitelock"));
}
