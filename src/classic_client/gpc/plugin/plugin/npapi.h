// NPAPI types and constants with the published layout (Unix flavour), as the browser and the
// plug-in exchange them. Only what this plug-in and its host use is declared.
#pragma once
#include <cstdint>

extern "C" {

typedef unsigned char NPBool;
typedef int16_t NPError;
typedef int16_t NPReason;
typedef char* NPMIMEType;

typedef struct _NPP {
  void* pdata;  // plug-in private data
  void* ndata;  // browser private data
} NPP_t;
typedef NPP_t* NPP;

typedef struct _NPStream {
  void* pdata;
  void* ndata;
  const char* url;
  uint32_t end;
  uint32_t lastmodified;
  void* notifyData;
  const char* headers;
} NPStream;

typedef struct _NPByteRange {
  int32_t offset;
  uint32_t length;
  struct _NPByteRange* next;
} NPByteRange;

typedef struct _NPSavedData {
  int32_t len;
  void* buf;
} NPSavedData;

typedef struct _NPRect {
  uint16_t top;
  uint16_t left;
  uint16_t bottom;
  uint16_t right;
} NPRect;

typedef void* NPRegion;

typedef enum { NPWindowTypeWindow = 1, NPWindowTypeDrawable } NPWindowType;

typedef struct _NPWindow {
  void* window;
  int32_t x;
  int32_t y;
  uint32_t width;
  uint32_t height;
  NPRect clipRect;
  void* ws_info;
  NPWindowType type;
} NPWindow;

typedef struct _NPFullPrint {
  NPBool pluginPrinted;
  NPBool printOne;
  void* platformPrint;
} NPFullPrint;

typedef struct _NPEmbedPrint {
  NPWindow window;
  void* platformPrint;
} NPEmbedPrint;

typedef struct _NPPrint {
  uint16_t mode;
  union {
    NPFullPrint fullPrint;
    NPEmbedPrint embedPrint;
  } print;
} NPPrint;

typedef enum {
  NPNVxDisplay = 1,
  NPNVxtAppContext = 2,
  NPNVnetscapeWindow = 3,
  NPNVjavascriptEnabledBool = 4,
  NPNVasdEnabledBool = 5,
  NPNVisOfflineBool = 6,
  NPNVToolkit = 13,
  NPNVSupportsXEmbedBool = 14,
  NPNVWindowNPObject = 15,
  NPNVPluginElementNPObject = 16,
  NPNVSupportsWindowless = 17,
  NPNVprivateModeBool = 18,
  NPNVsupportsCoreGraphicsBool = 2001,
  NPNVsupportsCocoaBool = 3001
} NPNVariable;

typedef enum {
  NPPVpluginNameString = 1,
  NPPVpluginDescriptionString = 2,
  NPPVpluginWindowBool = 3,
  NPPVpluginTransparentBool = 4,
  NPPVjavaClass = 5,
  NPPVpluginWindowSize = 6,
  NPPVpluginTimerInterval = 7,
  NPPVpluginNeedsXEmbed = 14,
  NPPVpluginScriptableNPObject = 15,
  NPPVpluginDrawingModel = 1000,
  NPPVpluginEventModel = 1001
} NPPVariable;

enum { NPDrawingModelCoreGraphics = 1 };
enum { NPEventModelCocoa = 1 };

// Modes of an instance and of a stream.
#define NP_EMBED 1
#define NP_FULL 2
#define NP_NORMAL 1
#define NP_SEEK 2
#define NP_ASFILE 3
#define NP_ASFILEONLY 4

// Error codes.
#define NPERR_NO_ERROR 0
#define NPERR_GENERIC_ERROR 1
#define NPERR_INVALID_INSTANCE_ERROR 2
#define NPERR_INVALID_FUNCTABLE_ERROR 3
#define NPERR_MODULE_LOAD_FAILED_ERROR 4
#define NPERR_OUT_OF_MEMORY_ERROR 5
#define NPERR_INVALID_PLUGIN_ERROR 6
#define NPERR_INVALID_PLUGIN_DIR_ERROR 7
#define NPERR_INCOMPATIBLE_VERSION_ERROR 8
#define NPERR_INVALID_PARAM 9
#define NPERR_INVALID_URL 10
#define NPERR_FILE_NOT_FOUND 11
#define NPERR_NO_DATA 12
#define NPERR_STREAM_NOT_SEEKABLE 13

// Reasons a stream or URL request ended.
#define NPRES_DONE 0
#define NPRES_NETWORK_ERR 1
#define NPRES_USER_BREAK 2

// Browser versions that bring a facility.
#define NPVERS_HAS_STREAMOUTPUT 8
#define NPVERS_HAS_NOTIFICATION 9

// The plug-in's own NPAPI version.
#define NP_VERSION_MAJOR 0
#define NP_VERSION_MINOR 18

// Browser functions, as the browser hands them to the plug-in.
typedef NPError (*NPN_GetURLProcPtr)(NPP, const char* url, const char* window);
typedef NPError (*NPN_PostURLProcPtr)(NPP, const char* url, const char* window, uint32_t len,
                                      const char* buf, NPBool file);
typedef NPError (*NPN_RequestReadProcPtr)(NPStream*, NPByteRange*);
typedef NPError (*NPN_NewStreamProcPtr)(NPP, NPMIMEType, const char* window, NPStream** stream);
typedef int32_t (*NPN_WriteProcPtr)(NPP, NPStream*, int32_t len, void* buffer);
typedef NPError (*NPN_DestroyStreamProcPtr)(NPP, NPStream*, NPReason);
typedef void (*NPN_StatusProcPtr)(NPP, const char* message);
typedef const char* (*NPN_UserAgentProcPtr)(NPP);
typedef void* (*NPN_MemAllocProcPtr)(uint32_t size);
typedef void (*NPN_MemFreeProcPtr)(void* ptr);
typedef uint32_t (*NPN_MemFlushProcPtr)(uint32_t size);
typedef void (*NPN_ReloadPluginsProcPtr)(NPBool reloadPages);
typedef void* (*NPN_GetJavaEnvProcPtr)(void);
typedef void* (*NPN_GetJavaPeerProcPtr)(NPP);
typedef NPError (*NPN_GetURLNotifyProcPtr)(NPP, const char* url, const char* window, void* notifyData);
typedef NPError (*NPN_PostURLNotifyProcPtr)(NPP, const char* url, const char* window, uint32_t len,
                                            const char* buf, NPBool file, void* notifyData);
typedef NPError (*NPN_GetValueProcPtr)(NPP, NPNVariable, void* value);
typedef NPError (*NPN_SetValueProcPtr)(NPP, NPPVariable, void* value);
typedef void (*NPN_InvalidateRectProcPtr)(NPP, NPRect* rect);
typedef void (*NPN_InvalidateRegionProcPtr)(NPP, NPRegion region);
typedef void (*NPN_ForceRedrawProcPtr)(NPP);

// The leading part of the browser's table that the plug-in uses; browsers pass a longer table.
typedef struct _NPNetscapeFuncs {
  uint16_t size;
  uint16_t version;
  NPN_GetURLProcPtr geturl;
  NPN_PostURLProcPtr posturl;
  NPN_RequestReadProcPtr requestread;
  NPN_NewStreamProcPtr newstream;
  NPN_WriteProcPtr write;
  NPN_DestroyStreamProcPtr destroystream;
  NPN_StatusProcPtr status;
  NPN_UserAgentProcPtr uagent;
  NPN_MemAllocProcPtr memalloc;
  NPN_MemFreeProcPtr memfree;
  NPN_MemFlushProcPtr memflush;
  NPN_ReloadPluginsProcPtr reloadplugins;
  NPN_GetJavaEnvProcPtr getJavaEnv;
  NPN_GetJavaPeerProcPtr getJavaPeer;
  NPN_GetURLNotifyProcPtr geturlnotify;
  NPN_PostURLNotifyProcPtr posturlnotify;
  NPN_GetValueProcPtr getvalue;
  NPN_SetValueProcPtr setvalue;
  NPN_InvalidateRectProcPtr invalidaterect;
  NPN_InvalidateRegionProcPtr invalidateregion;
  NPN_ForceRedrawProcPtr forceredraw;
} NPNetscapeFuncs;

// Plug-in functions, as the plug-in hands them to the browser.
typedef NPError (*NPP_NewProcPtr)(NPMIMEType, NPP, uint16_t mode, int16_t argc, char* argn[],
                                  char* argv[], NPSavedData* saved);
typedef NPError (*NPP_DestroyProcPtr)(NPP, NPSavedData** save);
typedef NPError (*NPP_SetWindowProcPtr)(NPP, NPWindow* window);
typedef NPError (*NPP_NewStreamProcPtr)(NPP, NPMIMEType, NPStream*, NPBool seekable, uint16_t* stype);
typedef NPError (*NPP_DestroyStreamProcPtr)(NPP, NPStream*, NPReason);
typedef void (*NPP_StreamAsFileProcPtr)(NPP, NPStream*, const char* fname);
typedef int32_t (*NPP_WriteReadyProcPtr)(NPP, NPStream*);
typedef int32_t (*NPP_WriteProcPtr)(NPP, NPStream*, int32_t offset, int32_t len, void* buffer);
typedef void (*NPP_PrintProcPtr)(NPP, NPPrint* platformPrint);
typedef int16_t (*NPP_HandleEventProcPtr)(NPP, void* event);
typedef void (*NPP_URLNotifyProcPtr)(NPP, const char* url, NPReason reason, void* notifyData);
typedef NPError (*NPP_GetValueProcPtr)(NPP, NPPVariable, void* value);
typedef NPError (*NPP_SetValueProcPtr)(NPP, NPNVariable, void* value);

typedef struct _NPPluginFuncs {
  uint16_t size;
  uint16_t version;
  NPP_NewProcPtr newp;
  NPP_DestroyProcPtr destroy;
  NPP_SetWindowProcPtr setwindow;
  NPP_NewStreamProcPtr newstream;
  NPP_DestroyStreamProcPtr destroystream;
  NPP_StreamAsFileProcPtr asfile;
  NPP_WriteReadyProcPtr writeready;
  NPP_WriteProcPtr write;
  NPP_PrintProcPtr print;
  NPP_HandleEventProcPtr event;
  NPP_URLNotifyProcPtr urlnotify;
  void* javaClass;
  NPP_GetValueProcPtr getvalue;
  NPP_SetValueProcPtr setvalue;
} NPPluginFuncs;

// Module entry points of the Unix flavour, exported by the plug-in.
typedef const char* (*NP_GetMIMEDescriptionFunc)(void);
typedef NPError (*NP_GetValueFunc)(void* future, NPPVariable variable, void* value);
typedef NPError (*NP_InitializeFunc)(NPNetscapeFuncs* browser, NPPluginFuncs* plugin);
typedef NPError (*NP_GetEntryPointsFunc)(NPPluginFuncs* plugin);
typedef NPError (*NP_ShutdownFunc)(void);

}  // extern "C"

static_assert(sizeof(void*) != 8 || sizeof(NPPluginFuncs) == 120, "plug-in table layout");
static_assert(sizeof(void*) != 8 || sizeof(NPNetscapeFuncs) == 8 + 21 * 8, "browser table layout");
