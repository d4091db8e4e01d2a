// The per-instance handlers: every browser call for one plug-in instance arrives here and goes
// on to the instance (CGpcWindow) or to its stream provider.
#include <cstdint>
#include <cstring>
#include <new>

#include "common/boundary.h"
#include "common/hardening.h"
#include "plugin/plugin/npgpcimp.h"
#include "plugin/plugin/npplugin.h"
#include "common/trace.h"

namespace {

// Accept everything the browser has.
const int32_t kAcceptAll = 0x0FFFFFFF;
// The answer to a write that failed (or of a block that is not there): an error, for which the
// browser ends the stream.
const int32_t kWriteFailed = -1;

InstanceRecord* RecordOf(NPP instance) {
  return instance ? static_cast<InstanceRecord*>(instance->pdata) : nullptr;
}

CGpcWindow* WindowOf(NPP instance) {
  InstanceRecord* record = RecordOf(instance);
  return record ? record->gpcWindow : nullptr;
}

bool IsHostSiteStream(const NPStream* stream) {
  return stream != nullptr &&
         reinterpret_cast<uintptr_t>(stream->notifyData) == static_cast<uintptr_t>(NOTIFICATION_GET_HOSTSITE);
}

unsigned Low32(const void* pointer) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer) & 0xFFFFFFFFu);
}

// The hosting page's URL, delivered as the body of the host-site stream, is judged by the site
// lock: approval lets the heartbeat proceed, refusal shows error 111. The hardened build also
// halts a refused page, which would otherwise go on to load and drive the extension.
void CheckHostSite(CGpcWindow* window, int32_t len, const void* buffer) {
  char* url = new (std::nothrow) char[static_cast<size_t>(len) + 1]();
  if (url == nullptr) return;
  if (buffer != nullptr && len > 0) std::memcpy(url, buffer, static_cast<size_t>(len));
  if (window->FApprovedDomain(url, 0, rgslTrustedSites, kGpcTrustedSiteCount)) {
    window->m_bHalted = 0;
  } else {
    if (gpc::GpcHardened()) window->m_bHalted = 1;
    window->ShowMessage(111, nullptr);
  }
  MacInfoTrace("NPWRAP : NPP_Write,The URL of the host page: %s", url);
  delete[] url;
}

// Frees the instance record and the instance it holds; the NPP no longer has instance data.
void DiscardInstance(NPP instance) {
  InstanceRecord* record = RecordOf(instance);
  if (record == nullptr) return;
  // A call the browser makes while the instance is torn down finds none.
  CGpcWindow* window = record->gpcWindow;
  record->gpcWindow = nullptr;
  if (window != nullptr) window->Destroy();
  if (record->nativeWindowSubclass != nullptr) MacInfoTrace("NPWRAP : Unsubclass native plugin window");
  instance->pdata = nullptr;
  NPN_MemFree(record);
}

}  // namespace

// Each handler ends in GPC_BOUNDARY_CATCH: no exception reaches the browser.

NPError NPP_Initialize(void) try {
  MacInfoTrace("NPWRAP : NPP_Initialize");
  return NPERR_NO_ERROR;
}
GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)

void NPP_Shutdown(void) try { MacInfoTrace("NPWRAP : NPP_Shutdown"); }
GPC_BOUNDARY_CATCH_VOID

void* NPP_GetJavaClass(void) { return nullptr; }

NPError NPP_New(NPMIMEType pluginType, NPP instance, uint16_t mode, int16_t argc, char* argn[], char* argv[],
                NPSavedData* saved) try {
  (void)pluginType;
  (void)saved;
  MacInfoTrace("NPWRAP : NPP_New");
  if (instance == nullptr) return NPERR_INVALID_INSTANCE_ERROR;
  InstanceRecord* record = static_cast<InstanceRecord*>(NPN_MemAlloc(sizeof(InstanceRecord)));
  if (record == nullptr) return NPERR_OUT_OF_MEMORY_ERROR;
  record->nativeWindowSubclass = nullptr;
  record->mode = mode;
  record->gpcWindow = nullptr;
  instance->pdata = record;

  record->gpcWindow = new (std::nothrow) CGpcWindow(instance);
  if (record->gpcWindow == nullptr) {
    DiscardInstance(instance);
    return NPERR_OUT_OF_MEMORY_ERROR;
  }
  // Parameters the browser did not really hand over count as none.
  if (argc < 0 || (argc > 0 && (argn == nullptr || argv == nullptr))) argc = 0;
  // A failure only leaves the instance halted.
  record->gpcWindow->SetParameters(argc, argn, argv);
  record->gpcWindow->WriteErrorLog(kGpcStartReportCode, nullptr);
  return NPERR_NO_ERROR;
} catch (...) {
  // The browser never destroys an instance it was refused: nothing half-made stays behind.
  gpc::LogStoppedException(__func__);
  DiscardInstance(instance);
  return NPERR_OUT_OF_MEMORY_ERROR;
}

NPError NPP_Destroy(NPP instance, NPSavedData** save) try {
  (void)save;
  MacInfoTrace("NPWRAP : NPP_Destroy");
  if (instance == nullptr) return NPERR_INVALID_INSTANCE_ERROR;
  DiscardInstance(instance);
  return NPERR_NO_ERROR;
}
GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)

NPError NPP_SetWindow(NPP instance, NPWindow* window) try {
  MacInfoTrace("NPWRAP : SetWindow");
  CGpcWindow* gpcWindow = WindowOf(instance);
  if (gpcWindow == nullptr) return NPERR_INVALID_INSTANCE_ERROR;
  const CGpcWindow::InUse inUse(gpcWindow);
  return gpcWindow->SetWindow(window);
}
GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)

NPError NPP_NewStream(NPP instance, NPMIMEType type, NPStream* stream, NPBool seekable, uint16_t* stype) try {
  MacInfoTrace("NPWRAP : NPP_NewStream,Mimetype = %s,inst = %08X, stream = %08X", type ? type : "",
               Low32(instance), Low32(stream));
  if (stream != nullptr && stream->url != nullptr) {
    MacInfoTrace("NPWRAP : NPP_NewStream,request url is %s.", stream->url);
  }
  if (instance == nullptr) return NPERR_INVALID_INSTANCE_ERROR;
  // The host-site stream, and any stream without an instance behind it, keeps the browser's
  // default stream type.
  if (IsHostSiteStream(stream)) return NPERR_NO_ERROR;
  CGpcWindow* window = WindowOf(instance);
  if (window == nullptr) return NPERR_NO_ERROR;
  const CGpcWindow::InUse inUse(window);
  return window->m_provider.OnNppNewStream(type, stream, seekable, stype);
}
GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)

int32_t NPP_WriteReady(NPP instance, NPStream* stream) try {
  if (instance == nullptr || IsHostSiteStream(stream)) return kAcceptAll;
  CGpcWindow* window = WindowOf(instance);
  if (window == nullptr) return kAcceptAll;
  const CGpcWindow::InUse inUse(window);
  return window->m_provider.OnNppWriteReady(stream);
}
GPC_BOUNDARY_CATCH(kAcceptAll)

int32_t NPP_Write(NPP instance, NPStream* stream, int32_t offset, int32_t len, void* buffer) try {
  MacInfoTrace("NPWRAP : NPP_Write");
  CGpcWindow* window = WindowOf(instance);
  if (window == nullptr) return len;
  // A block that is not there is refused unread; the browser then ends the stream.
  if (len < 0 || (len > 0 && buffer == nullptr)) return kWriteFailed;
  const CGpcWindow::InUse inUse(window);
  if (!IsHostSiteStream(stream)) return window->m_provider.OnNppWrite(stream, offset, len, buffer);
  // The hardened build judges a URL that comes in pieces by its first piece, which holds its
  // host: a later piece of the page's own text must not pass for an approved URL.
  if (gpc::GpcHardened() && offset > 0) return len;
  CheckHostSite(window, len, buffer);
  return len;
}
GPC_BOUNDARY_CATCH(kWriteFailed)

NPError NPP_DestroyStream(NPP instance, NPStream* stream, NPReason reason) try {
  MacInfoTrace("NPWRAP : NPP_DestroyStream: inst = %08X, stream = %08X, reason = %08X", Low32(instance),
               Low32(stream), static_cast<unsigned>(reason));
  if (stream != nullptr && stream->url != nullptr) {
    MacInfoTrace("NPWRAP : NPP_DestroyStream,request url is %s.", stream->url);
  }
  if (instance == nullptr) return NPERR_INVALID_INSTANCE_ERROR;
  if (IsHostSiteStream(stream)) {
    MacInfoTrace("NPWRAP : NPP_DestroyStream: notifydata == NOTIFICATION_GET_HOSTSITE.");
    return NPERR_NO_ERROR;
  }
  NPError result = NPERR_NO_ERROR;
  if (CGpcWindow* window = WindowOf(instance)) {
    const CGpcWindow::InUse inUse(window);
    result = window->m_provider.OnNppDestroyStream(stream, reason);
    // A stream that is none of the provider's and that finished may be a navigation of the
    // window's own queue.
    if (result == NPERR_NO_DATA && reason == NPRES_DONE) {
      MacInfoTrace(
          "NPWRAP : NPP_DestroyStream,it is not gpc provider request, so need call gpcwindow handle this "
          "event, stream url = %s",
          (stream && stream->url) ? stream->url : "nil");
      result = window->OnNppDestroyStream(stream, NPRES_DONE);
    }
  }
  MacInfoTrace("NPWRAP : NPP_DestroyStream: return value is %d", result);
  return result;
}
GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)

void NPP_StreamAsFile(NPP instance, NPStream* stream, const char* fname) try {
  MacInfoTrace("NPWRAP : NPP_StreamAsFile");
  if (CGpcWindow* window = WindowOf(instance)) {
    const CGpcWindow::InUse inUse(window);
    window->m_provider.OnNppStreamAsFile(stream, fname);
  }
}
GPC_BOUNDARY_CATCH_VOID

void NPP_Print(NPP instance, NPPrint* platformPrint) try {
  MacInfoTrace("NPWRAP : NPP_Print");
  if (instance == nullptr || platformPrint == nullptr) return;
  // Full-page printing is left to the browser; embedded printing draws nothing.
  if (platformPrint->mode == NP_FULL) platformPrint->print.fullPrint.pluginPrinted = false;
}
GPC_BOUNDARY_CATCH_VOID

void NPP_URLNotify(NPP instance, const char* url, NPReason reason, void* notifyData) try {
  MacInfoTrace("NPWRAP : NPP_URLNotify,Reason : %d,inst = %08X, URL = %s, Data = %08X", reason, Low32(instance),
               url ? url : "", Low32(notifyData));
  if (instance == nullptr) return;
  if (reinterpret_cast<uintptr_t>(notifyData) == static_cast<uintptr_t>(NOTIFICATION_GET_HOSTSITE)) return;
  CGpcWindow* window = WindowOf(instance);
  if (window == nullptr) return;
  const CGpcWindow::InUse inUse(window);
  if (notifyData != nullptr) {
    window->m_provider.OnNppUrlNotify(url, reason, notifyData);
  } else {
    window->OnGetUrlNotify(url, reason);
  }
}
GPC_BOUNDARY_CATCH_VOID

int16_t NPP_HandleEvent(NPP instance, void* event) try {
  CGpcWindow* window = WindowOf(instance);
  if (window == nullptr) return 0;
  const CGpcWindow::InUse inUse(window);
  window->HandleEvent(event, true);
  // Never reported as handled, whatever the extension answered.
  return 0;
}
GPC_BOUNDARY_CATCH(0)
