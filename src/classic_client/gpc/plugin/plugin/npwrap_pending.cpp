// Minimal instance handlers, replaced by the full ones at link time (these are weak).
#include "plugin/plugin/npplugin.h"

#define GPC_WEAK __attribute__((weak))

GPC_WEAK NPError NPP_Initialize(void) { return NPERR_NO_ERROR; }
GPC_WEAK void NPP_Shutdown(void) {}
GPC_WEAK void* NPP_GetJavaClass(void) { return nullptr; }
GPC_WEAK NPError NPP_New(NPMIMEType, NPP instance, uint16_t, int16_t, char*[], char*[], NPSavedData*) {
  if (instance == nullptr) return NPERR_INVALID_INSTANCE_ERROR;
  instance->pdata = NPN_MemAlloc(1);
  return instance->pdata != nullptr ? NPERR_NO_ERROR : NPERR_OUT_OF_MEMORY_ERROR;
}
GPC_WEAK NPError NPP_Destroy(NPP instance, NPSavedData**) {
  if (instance == nullptr) return NPERR_INVALID_INSTANCE_ERROR;
  NPN_MemFree(instance->pdata);
  instance->pdata = nullptr;
  return NPERR_NO_ERROR;
}
GPC_WEAK NPError NPP_SetWindow(NPP, NPWindow*) { return NPERR_NO_ERROR; }
GPC_WEAK NPError NPP_NewStream(NPP, NPMIMEType, NPStream*, NPBool, uint16_t*) { return NPERR_NO_ERROR; }
GPC_WEAK int32_t NPP_WriteReady(NPP, NPStream*) { return 0x0FFFFFFF; }
GPC_WEAK int32_t NPP_Write(NPP, NPStream*, int32_t, int32_t len, void*) { return len; }
GPC_WEAK NPError NPP_DestroyStream(NPP, NPStream*, NPReason) { return NPERR_NO_ERROR; }
GPC_WEAK void NPP_StreamAsFile(NPP, NPStream*, const char*) {}
GPC_WEAK void NPP_Print(NPP, NPPrint*) {}
GPC_WEAK void NPP_URLNotify(NPP, const char*, NPReason, void*) {}
GPC_WEAK int16_t NPP_HandleEvent(NPP, void*) { return 0; }
