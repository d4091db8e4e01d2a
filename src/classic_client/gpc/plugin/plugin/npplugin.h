// The plug-in's side of NPAPI: the browser-call wrappers the rest of the plug-in uses, and the
// per-instance handlers the browser's calls are routed to.
#pragma once
#include "plugin/plugin/npapi.h"

// The plug-in's copy of the browser's table and the browser's minor version (zero until
// NP_Initialize has filled them).
extern NPNetscapeFuncs gNetscapeFuncs;
extern int32_t navMinorVers;

// Browser calls. Each returns NPERR_INCOMPATIBLE_VERSION_ERROR without calling where the
// browser is too old for the facility.
void NPN_Version(int* pluginMajor, int* pluginMinor, int* netscapeMajor, int* netscapeMinor);
NPError NPN_GetURLNotify(NPP instance, const char* url, const char* target, void* notifyData);
NPError NPN_GetURL(NPP instance, const char* url, const char* target);
NPError NPN_PostURLNotify(NPP instance, const char* url, const char* target, uint32_t len,
                          const char* buf, NPBool file, void* notifyData);
NPError NPN_PostURL(NPP instance, const char* url, const char* target, uint32_t len, const char* buf,
                    NPBool file);
NPError NPN_RequestRead(NPStream* stream, NPByteRange* rangeList);
NPError NPN_NewStream(NPP instance, NPMIMEType type, const char* target, NPStream** stream);
int32_t NPN_Write(NPP instance, NPStream* stream, int32_t len, void* buffer);
NPError NPN_DestroyStream(NPP instance, NPStream* stream, NPReason reason);
void NPN_Status(NPP instance, const char* message);
const char* NPN_UserAgent(NPP instance);
void* NPN_MemAlloc(uint32_t size);
void NPN_MemFree(void* ptr);
uint32_t NPN_MemFlush(uint32_t size);
void NPN_ReloadPlugins(NPBool reloadPages);
void* NPN_GetJavaEnv(void);
void* NPN_GetJavaPeer(NPP instance);
NPError NPN_GetValue(NPP instance, NPNVariable variable, void* value);
NPError NPN_SetValue(NPP instance, NPPVariable variable, void* value);
void NPN_InvalidateRect(NPP instance, NPRect* invalidRect);
void NPN_InvalidateRegion(NPP instance, NPRegion invalidRegion);
void NPN_ForceRedraw(NPP instance);

// Per-instance handlers.
NPError NPP_Initialize(void);
void NPP_Shutdown(void);
void* NPP_GetJavaClass(void);
NPError NPP_New(NPMIMEType pluginType, NPP instance, uint16_t mode, int16_t argc, char* argn[],
                char* argv[], NPSavedData* saved);
NPError NPP_Destroy(NPP instance, NPSavedData** save);
NPError NPP_SetWindow(NPP instance, NPWindow* window);
NPError NPP_NewStream(NPP instance, NPMIMEType type, NPStream* stream, NPBool seekable, uint16_t* stype);
int32_t NPP_WriteReady(NPP instance, NPStream* stream);
int32_t NPP_Write(NPP instance, NPStream* stream, int32_t offset, int32_t len, void* buffer);
NPError NPP_DestroyStream(NPP instance, NPStream* stream, NPReason reason);
void NPP_StreamAsFile(NPP instance, NPStream* stream, const char* fname);
void NPP_Print(NPP instance, NPPrint* platformPrint);
void NPP_URLNotify(NPP instance, const char* url, NPReason reason, void* notifyData);
int16_t NPP_HandleEvent(NPP instance, void* event);

// Module entry points, exported with C linkage (the Unix flavour).
extern "C" {
const char* NP_GetMIMEDescription(void);
NPError NP_GetValue(void* future, NPPVariable variable, void* value);
NPError NP_Initialize(NPNetscapeFuncs* browserFuncs, NPPluginFuncs* pluginFuncs);
NPError NP_GetEntryPoints(NPPluginFuncs* pluginFuncs);
NPError NP_Shutdown(void);
}
