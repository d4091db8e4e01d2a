// The module's outer skin toward the browser: the Unix NPAPI entry points, the plug-in's copy of
// the browser's call table with one NPN_* wrapper per browser function, and the Private_* table
// handed to the browser, which logs and forwards to the NPP_* handlers.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common/boundary.h"
#include "common/gpctracecatcher.h"
#include "common/trace.h"
#include "platform/debug_string.h"
#include "platform/system_version.h"
#include "plugin/plugin/npplugin.h"

#define GPC_EXPORT extern "C" __attribute__((visibility("default")))

NPNetscapeFuncs gNetscapeFuncs;
int32_t navMinorVers = 0;
int16_t gResFile = 0;

namespace {

constexpr const char* kMimeDescription = "application/x-talvo-gpc:gpc:Talvo GPC plug-in";
constexpr const char* kPluginName = "Talvo GPC";
constexpr const char* kPluginDescription =
    "Talvo GPC plug-in: sets up and drives the Talvo meeting client extension";

// Systems from this version on get the drawing and event models negotiated.
constexpr uint32_t kFirstNegotiatingSystem = 0x1060;

// Hands `text` to the platform's debug-string sink, then logs it at info level. A debug string the
// sink cannot take (for want of memory) is dropped.
void DebugAndLog(const char* text) noexcept {
  try {
    unsigned char pascal[256];
    platform::MakePascalString(text, pascal);
    platform::DebugStr(pascal);
  } catch (...) {
  }
  MacInfoTrace("%s", text);
}

// The browser's minor version, as the version gates see it.
int BrowserMinorVersion() { return gNetscapeFuncs.version & 0xff; }

void SetUpQD() {
  MacInfoTrace("SetUpQD");
  gResFile = platform::CurResFile();
}

// Copies one function of the browser's table, if the table as long as the browser says reaches it.
#define GPC_COPY_BROWSER_FUNC(browser, field)                                                   \
  do {                                                                                          \
    if ((browser)->size >= offsetof(NPNetscapeFuncs, field) + sizeof(gNetscapeFuncs.field)) \
      gNetscapeFuncs.field = (browser)->field;                                                  \
  } while (0)

NPError CopyBrowserFuncs(const NPNetscapeFuncs* browser) {
  if (browser == nullptr) return NPERR_INVALID_FUNCTABLE_ERROR;
  if (browser->version > 0xff) return NPERR_INCOMPATIBLE_VERSION_ERROR;

  navMinorVers = browser->version & 0xff;
  gNetscapeFuncs.version = browser->version;
  gNetscapeFuncs.size = browser->size;
  GPC_COPY_BROWSER_FUNC(browser, geturl);
  GPC_COPY_BROWSER_FUNC(browser, posturl);
  GPC_COPY_BROWSER_FUNC(browser, requestread);
  GPC_COPY_BROWSER_FUNC(browser, newstream);
  GPC_COPY_BROWSER_FUNC(browser, write);
  GPC_COPY_BROWSER_FUNC(browser, destroystream);
  GPC_COPY_BROWSER_FUNC(browser, status);
  GPC_COPY_BROWSER_FUNC(browser, uagent);
  GPC_COPY_BROWSER_FUNC(browser, memalloc);
  GPC_COPY_BROWSER_FUNC(browser, memfree);
  GPC_COPY_BROWSER_FUNC(browser, memflush);
  GPC_COPY_BROWSER_FUNC(browser, reloadplugins);
  if (navMinorVers >= NPVERS_HAS_NOTIFICATION) {
    GPC_COPY_BROWSER_FUNC(browser, getJavaEnv);
    GPC_COPY_BROWSER_FUNC(browser, getJavaPeer);
    GPC_COPY_BROWSER_FUNC(browser, geturlnotify);
    GPC_COPY_BROWSER_FUNC(browser, posturlnotify);
  }
  GPC_COPY_BROWSER_FUNC(browser, getvalue);
  GPC_COPY_BROWSER_FUNC(browser, setvalue);
  GPC_COPY_BROWSER_FUNC(browser, invalidaterect);
  GPC_COPY_BROWSER_FUNC(browser, invalidateregion);
  GPC_COPY_BROWSER_FUNC(browser, forceredraw);
  return NPERR_NO_ERROR;
}
#undef GPC_COPY_BROWSER_FUNC

NPError InitializeBrowserSide(NPNetscapeFuncs* browser) {
  gpc::GPCTraceCatcher::initGlobal();
  DebugAndLog("plugin,NP_Initialize start");
  NPError result = CopyBrowserFuncs(browser);
  DebugAndLog("plugin,NP_Initialize end");
  return result;
}

// ---- Private_* table -------------------------------------------------------------------------

NPError Private_Initialize(void) {
  DebugAndLog("Private_Initialize");
  return NPP_Initialize();
}

void Private_Shutdown(void) {
  DebugAndLog("Private_Shutdown");
  NPP_Shutdown();
}

// Asks the browser whether it offers a model (through `query`) and, when it does, selects it.
void NegotiateModel(NPP instance, NPNVariable query, NPPVariable selector, int model,
                    const char* query_log, const char* select_log) {
  NPBool supported = false;
  NPError result = gNetscapeFuncs.getvalue != nullptr
                       ? gNetscapeFuncs.getvalue(instance, query, &supported)
                       : static_cast<NPError>(NPERR_GENERIC_ERROR);
  if (result != NPERR_NO_ERROR || !supported) {
    MacInfoTrace(query_log, result);
    return;
  }
  NPError set = NPN_SetValue(instance, selector, reinterpret_cast<void*>(static_cast<intptr_t>(model)));
  if (set != NPERR_NO_ERROR) MacInfoTrace(select_log, set);
}

// Instances alive in this process. The process's collected trace lives while any of them does.
int g_nLiveInstances = 0;

bool HasInstanceData(NPP instance) { return instance != nullptr && instance->pdata != nullptr; }

// Starts the process's collected trace again when an earlier last instance ended it. Without
// memory for it the instance runs on untraced.
void RestartCollectedTrace() noexcept {
  try {
    gpc::GPCTraceCatcher::sharedInstance();
  } catch (...) {
  }
}

// Ends the process's collected trace.
void EndCollectedTrace() noexcept {
  try {
    gpc::GPCTraceCatcher::sharedInstance()->setAllTraceInfo(nullptr);
  } catch (...) {
  }
  gpc::GPCTraceCatcher::releaseGlobal();
}

NPError Private_New(NPMIMEType pluginType, NPP instance, uint16_t mode, int16_t argc, char* argn[],
                    char* argv[], NPSavedData* saved) {
  DebugAndLog("Private_New");
  if (platform::SystemVersion() >= kFirstNegotiatingSystem) {
    NegotiateModel(instance, NPNVsupportsCoreGraphicsBool, NPPVpluginDrawingModel,
                   NPDrawingModelCoreGraphics,
                   "Private_New,call gNetscapeFuncs.getvalue(NPNVsupportsCoreGraphicsBool) return value = %d",
                   "Private_New,call NPN_SetValue(NPPVpluginDrawingModel) return value = %d");
    NegotiateModel(instance, NPNVsupportsCocoaBool, NPPVpluginEventModel, NPEventModelCocoa,
                   "Private_New,call gNetscapeFuncs.getvalue(NPNVsupportsCocoaBool) return value = %d",
                   "Private_New,call NPN_SetValue(NPPVpluginEventModel) return value = %d");
  }
  const bool existed = HasInstanceData(instance);
  // Collecting starts before the instance is made: its first lines belong to its reports.
  const bool first = !existed && g_nLiveInstances == 0;
  if (first) RestartCollectedTrace();
  const NPError result = NPP_New(pluginType, instance, mode, argc, argn, argv, saved);
  if (!existed && HasInstanceData(instance)) {
    ++g_nLiveInstances;
  } else if (first) {
    EndCollectedTrace();
  }
  return result;
}

// The process's collected trace ends with the last instance; while another instance lives it
// goes on collecting.
NPError Private_Destroy(NPP instance, NPSavedData** save) {
  DebugAndLog("Private_Destroy");
  const bool existed = HasInstanceData(instance);
  NPError result = NPP_Destroy(instance, save);
  Private_Shutdown();
  if (existed && g_nLiveInstances > 0 && --g_nLiveInstances == 0) EndCollectedTrace();
  return result;
}

NPError Private_SetWindow(NPP instance, NPWindow* window) {
  MacInfoTrace("Private_SetWindow");
  return NPP_SetWindow(instance, window);
}

NPError Private_NewStream(NPP instance, NPMIMEType type, NPStream* stream, NPBool seekable,
                          uint16_t* stype) {
  MacInfoTrace("Private_NewStream");
  return NPP_NewStream(instance, type, stream, seekable, stype);
}

int32_t Private_WriteReady(NPP instance, NPStream* stream) { return NPP_WriteReady(instance, stream); }

int32_t Private_Write(NPP instance, NPStream* stream, int32_t offset, int32_t len, void* buffer) {
  return NPP_Write(instance, stream, offset, len, buffer);
}

void Private_StreamAsFile(NPP instance, NPStream* stream, const char* fname) {
  MacInfoTrace("Private_StreamAsFile");
  NPP_StreamAsFile(instance, stream, fname);
}

NPError Private_DestroyStream(NPP instance, NPStream* stream, NPReason reason) {
  MacInfoTrace("Private_DestroyStream");
  return NPP_DestroyStream(instance, stream, reason);
}

int16_t Private_HandleEvent(NPP instance, void* event) { return NPP_HandleEvent(instance, event); }

void Private_Print(NPP instance, NPPrint* platformPrint) {
  MacInfoTrace("Private_Print");
  NPP_Print(instance, platformPrint);
}

void Private_URLNotify(NPP instance, const char* url, NPReason reason, void* notifyData) {
  MacInfoTrace("Private_URLNotify");
  NPP_URLNotify(instance, url, reason, notifyData);
}

void* Private_GetJavaClass(void) {
  MacInfoTrace("Private_GetJavaClass");
  return nullptr;
}

// The plug-in answers no browser query and accepts no browser setting, deliberately.
NPError Private_GetValue(NPP, NPPVariable, void*) {
  MacInfoTrace("Private_GetValue");
  return NPERR_GENERIC_ERROR;
}

NPError Private_SetValue(NPP, NPNVariable, void*) {
  MacInfoTrace("Private_SetValue");
  return NPERR_GENERIC_ERROR;
}

// The plug-in table's extent: the header padded to pointer alignment and fourteen pointers.
constexpr uint16_t kPluginFuncsSize =
    static_cast<uint16_t>(offsetof(NPPluginFuncs, setvalue) + sizeof(NPP_SetValueProcPtr));

NPError FillPluginFuncs(NPPluginFuncs* plugin) {
  DebugAndLog("plugin,NP_GetEntryPoints start");
  // A table too short for every entry is refused before anything is written into it.
  if (plugin == nullptr || plugin->size < kPluginFuncsSize) return NPERR_INVALID_FUNCTABLE_ERROR;

  plugin->version = NP_VERSION_MINOR;
  plugin->size = kPluginFuncsSize;
  plugin->newp = Private_New;
  plugin->destroy = Private_Destroy;
  plugin->setwindow = Private_SetWindow;
  plugin->newstream = Private_NewStream;
  plugin->destroystream = Private_DestroyStream;
  plugin->asfile = Private_StreamAsFile;
  plugin->writeready = Private_WriteReady;
  plugin->write = Private_Write;
  plugin->print = Private_Print;
  plugin->event = Private_HandleEvent;
  // Filled only for a browser that announced notifications in NP_Initialize.
  if (navMinorVers >= NPVERS_HAS_NOTIFICATION) {
    plugin->urlnotify = Private_URLNotify;
    plugin->javaClass = Private_GetJavaClass();
  }
  plugin->getvalue = Private_GetValue;
  plugin->setvalue = Private_SetValue;

  SetUpQD();
  NPError result = Private_Initialize();
  DebugAndLog("plugin,NP_GetEntryPoints end");
  return result;
}

}  // namespace

static_assert(sizeof(void*) != 8 || kPluginFuncsSize == 120, "plug-in table extent");
static_assert(sizeof(void*) != 4 || kPluginFuncsSize == 60, "plug-in table extent");

// ---- Module entry points -----------------------------------------------------------------------
// Each ends in GPC_BOUNDARY_CATCH: no exception reaches the browser. (The Private_* table's
// functions add to the NPP_* handlers, which end in it too, only calls that never throw.)

GPC_EXPORT const char* NP_GetMIMEDescription(void) { return kMimeDescription; }

GPC_EXPORT NPError NP_GetValue(void*, NPPVariable variable, void* value) try {
  if (value == nullptr) return NPERR_INVALID_PARAM;
  switch (variable) {
    case NPPVpluginNameString:
      *static_cast<const char**>(value) = kPluginName;
      return NPERR_NO_ERROR;
    case NPPVpluginDescriptionString:
      *static_cast<const char**>(value) = kPluginDescription;
      return NPERR_NO_ERROR;
    default:
      return NPERR_INVALID_PARAM;
  }
}
GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)

// The Unix form: the browser hands both tables at once; the plug-in's table is filled only after
// the browser's has been accepted.
GPC_EXPORT NPError NP_Initialize(NPNetscapeFuncs* browserFuncs, NPPluginFuncs* pluginFuncs) try {
  NPError result = InitializeBrowserSide(browserFuncs);
  if (result != NPERR_NO_ERROR || pluginFuncs == nullptr) return result;
  return FillPluginFuncs(pluginFuncs);
}
GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)

GPC_EXPORT NPError NP_GetEntryPoints(NPPluginFuncs* pluginFuncs) try { return FillPluginFuncs(pluginFuncs); }
GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)

GPC_EXPORT NPError NP_Shutdown(void) try {
  DebugAndLog("NP_Shutdown");
  gpc::GPCTraceCatcher::releaseGlobal();
  Private_Shutdown();
  return NPERR_NO_ERROR;
}
GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)

// ---- Browser calls -----------------------------------------------------------------------------

void NPN_Version(int* pluginMajor, int* pluginMinor, int* netscapeMajor, int* netscapeMinor) {
  if (pluginMajor) *pluginMajor = NP_VERSION_MAJOR;
  if (pluginMinor) *pluginMinor = NP_VERSION_MINOR;
  if (netscapeMajor) *netscapeMajor = gNetscapeFuncs.version >> 8;
  if (netscapeMinor) *netscapeMinor = gNetscapeFuncs.version & 0xff;
}

// A browser function that is not in the table (a refused or missing table) is answered as a
// generic failure rather than called.
NPError NPN_GetURLNotify(NPP instance, const char* url, const char* target, void* notifyData) {
  if (url != nullptr) MacInfoTrace("NPN_GetURLNotify,url is %s.", url);
  if (BrowserMinorVersion() < NPVERS_HAS_NOTIFICATION) return NPERR_INCOMPATIBLE_VERSION_ERROR;
  if (gNetscapeFuncs.geturlnotify == nullptr) return NPERR_GENERIC_ERROR;
  return gNetscapeFuncs.geturlnotify(instance, url, target, notifyData);
}

NPError NPN_GetURL(NPP instance, const char* url, const char* target) {
  if (gNetscapeFuncs.geturl == nullptr) return NPERR_GENERIC_ERROR;
  return gNetscapeFuncs.geturl(instance, url, target);
}

NPError NPN_PostURLNotify(NPP instance, const char* url, const char* target, uint32_t len,
                          const char* buf, NPBool file, void* notifyData) {
  if (BrowserMinorVersion() < NPVERS_HAS_NOTIFICATION) return NPERR_INCOMPATIBLE_VERSION_ERROR;
  if (gNetscapeFuncs.posturlnotify == nullptr) return NPERR_GENERIC_ERROR;
  return gNetscapeFuncs.posturlnotify(instance, url, target, len, buf, file, notifyData);
}

NPError NPN_PostURL(NPP instance, const char* url, const char* target, uint32_t len, const char* buf,
                    NPBool file) {
  if (gNetscapeFuncs.posturl == nullptr) return NPERR_GENERIC_ERROR;
  return gNetscapeFuncs.posturl(instance, url, target, len, buf, file);
}

NPError NPN_RequestRead(NPStream* stream, NPByteRange* rangeList) {
  if (gNetscapeFuncs.requestread == nullptr) return NPERR_GENERIC_ERROR;
  return gNetscapeFuncs.requestread(stream, rangeList);
}

NPError NPN_NewStream(NPP instance, NPMIMEType type, const char* target, NPStream** stream) {
  if (BrowserMinorVersion() < NPVERS_HAS_STREAMOUTPUT) return NPERR_INCOMPATIBLE_VERSION_ERROR;
  if (gNetscapeFuncs.newstream == nullptr) return NPERR_GENERIC_ERROR;
  return gNetscapeFuncs.newstream(instance, type, target, stream);
}

int32_t NPN_Write(NPP instance, NPStream* stream, int32_t len, void* buffer) {
  if (BrowserMinorVersion() < NPVERS_HAS_STREAMOUTPUT) return NPERR_INCOMPATIBLE_VERSION_ERROR;
  if (gNetscapeFuncs.write == nullptr) return -1;
  return gNetscapeFuncs.write(instance, stream, len, buffer);
}

NPError NPN_DestroyStream(NPP instance, NPStream* stream, NPReason reason) {
  if (BrowserMinorVersion() < NPVERS_HAS_STREAMOUTPUT) return NPERR_INCOMPATIBLE_VERSION_ERROR;
  if (gNetscapeFuncs.destroystream == nullptr) return NPERR_GENERIC_ERROR;
  return gNetscapeFuncs.destroystream(instance, stream, reason);
}

void NPN_Status(NPP instance, const char* message) {
  if (gNetscapeFuncs.status != nullptr) gNetscapeFuncs.status(instance, message);
}

const char* NPN_UserAgent(NPP instance) {
  return gNetscapeFuncs.uagent != nullptr ? gNetscapeFuncs.uagent(instance) : nullptr;
}

void* NPN_MemAlloc(uint32_t size) {
  return gNetscapeFuncs.memalloc != nullptr ? gNetscapeFuncs.memalloc(size) : nullptr;
}

void NPN_MemFree(void* ptr) {
  if (gNetscapeFuncs.memfree != nullptr) gNetscapeFuncs.memfree(ptr);
}

uint32_t NPN_MemFlush(uint32_t size) {
  return gNetscapeFuncs.memflush != nullptr ? gNetscapeFuncs.memflush(size) : 0;
}

void NPN_ReloadPlugins(NPBool reloadPages) {
  if (gNetscapeFuncs.reloadplugins != nullptr) gNetscapeFuncs.reloadplugins(reloadPages);
}

// Hands out the stored pointer itself, without calling it; callers have always relied on that.
void* NPN_GetJavaEnv(void) { return reinterpret_cast<void*>(gNetscapeFuncs.getJavaEnv); }

void* NPN_GetJavaPeer(NPP instance) {
  return gNetscapeFuncs.getJavaPeer != nullptr ? gNetscapeFuncs.getJavaPeer(instance) : nullptr;
}

NPError NPN_GetValue(NPP instance, NPNVariable variable, void* value) {
  if (gNetscapeFuncs.getvalue == nullptr) return NPERR_GENERIC_ERROR;
  return gNetscapeFuncs.getvalue(instance, variable, value);
}

NPError NPN_SetValue(NPP instance, NPPVariable variable, void* value) {
  if (gNetscapeFuncs.setvalue == nullptr) return NPERR_GENERIC_ERROR;
  return gNetscapeFuncs.setvalue(instance, variable, value);
}

void NPN_InvalidateRect(NPP instance, NPRect* invalidRect) {
  if (gNetscapeFuncs.invalidaterect != nullptr) gNetscapeFuncs.invalidaterect(instance, invalidRect);
}

void NPN_InvalidateRegion(NPP instance, NPRegion invalidRegion) {
  if (gNetscapeFuncs.invalidateregion != nullptr) gNetscapeFuncs.invalidateregion(instance, invalidRegion);
}

void NPN_ForceRedraw(NPP instance) {
  if (gNetscapeFuncs.forceredraw != nullptr) gNetscapeFuncs.forceredraw(instance);
}
