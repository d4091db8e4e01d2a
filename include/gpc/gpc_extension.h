/*
 * The extension's side of the plug-in: everything an extension bundle needs to be loaded and
 * served by the GPC plug-in. The plug-in hands each extension instance a table of service
 * functions (GpcServiceTable) in "GpcInitInstance"; stream access points registered through it
 * receive GPCMessage records, file fetches report through a GpcGetFileNotifyProc.
 *
 * Plain C; all calls are made on the browser's main thread. Handles (instance, SAP, stream) are
 * opaque pointers owned by the plug-in.
 */
#ifndef GPC_GPC_EXTENSION_H
#define GPC_GPC_EXTENSION_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Version of the service interface that GpcGetVersion reports. */
#define GPC_SERVICE_VERSION_MAJOR 3
#define GPC_SERVICE_VERSION_MINOR 0

/* ---- Stream messages ------------------------------------------------------------------------ */

/* Message types delivered to a stream access point's callback. */
#define GPC_STREAM_READY 1    /* how many bytes the stream can take: set payload.ready.result */
#define GPC_STREAM_DATA 2     /* a block of data: payload.data */
#define GPC_STREAM_FILE 3     /* the browser's local copy of the stream: payload.file */
#define GPC_STREAM_DESTROY 4  /* the browser ended the stream: payload.destroy.reason */
#define GPC_STREAM_DELETE 5   /* the stream handle goes away: payload.destroy.reason */
#define GPC_PENDING_RELEASE 6 /* the provider accepts a new request (sent to every SAP) */
#define GPC_SAP_DETACH 7      /* the SAP was cut off from its provider (never sent today) */

/* Preset of payload.ready.result: accept everything. */
#define GPC_STREAM_READY_ALL 0x0FFFFFFF

/* Reasons carried by GPC_STREAM_DESTROY and GPC_STREAM_DELETE (the browser's stream reasons). */
#define GPC_REASON_DONE 0
#define GPC_REASON_NETWORK_ERROR 1
#define GPC_REASON_USER_BREAK 2

/* The record passed to a SAP callback. It belongs to the caller and lives only during the call. */
typedef struct GPCMessage {
  void* context;   /* the SAP's context, as given at registration */
  int32_t type;    /* GPC_STREAM_READY ... GPC_SAP_DETACH */
  void* stream;    /* the stream handle; NULL for GPC_PENDING_RELEASE */
  const char* url; /* the stream's URL; NULL for GPC_PENDING_RELEASE */
  union {
    struct {
      int32_t result; /* in/out: preset to GPC_STREAM_READY_ALL, may be lowered */
    } ready;
    struct {
      int32_t offset; /* position of this block in the stream */
      int32_t length; /* bytes in the block */
      void* buffer;   /* the bytes, valid only during the call */
      int32_t result; /* in/out: preset to length; the number of bytes consumed */
    } data;
    struct {
      const char* fileName; /* local path of the browser's copy */
    } file;
    struct {
      int32_t reason; /* GPC_REASON_* */
    } destroy;
  } payload;
} GPCMessage;

/* A stream access point's callback; its result is ignored except through the payload. */
typedef int (*GPCStreamMessageProc)(GPCMessage* message);

/* ---- Result codes of the services ----------------------------------------------------------- */

#define GPC_RESULT_OK 0u
#define GPC_ERR_NO_BROWSER_INSTANCE 20001u /* the provider has no browser instance */
#define GPC_ERR_SAP_NOT_REGISTERED 20002u  /* the SAP is not registered with this provider */
#define GPC_ERR_REQUEST_PENDING 20003u     /* another request is pending; wait for GPC_PENDING_RELEASE */
#define GPC_ERR_BROWSER_REFUSED 20004u     /* the browser refused the request */
#define GPC_ERR_NO_POST_BUFFER 20005u      /* the post buffer could not be obtained */
#define GPC_ERR_NO_INSTANCE 20007u         /* no plug-in instance given; GpcUnpackFile: no unpacker */
#define GPC_ERR_NULL_ARGUMENT 20008u       /* a required argument is NULL */
#define GPC_ERR_NOT_7Z_ARCHIVE 20009u      /* GpcUnpackFile: the source is not a 7z archive */
#define GPC_ERR_NO_PROVIDER 20100u         /* the SAP has no provider; GpcUnpackFile: no source */

/* ---- File fetching -------------------------------------------------------------------------- */

typedef enum GPCGetFileNotifyMessageType {
  GPC_GETFILE_COMPLETE = 0, /* data: local path of the fetched file, or NULL when it failed */
  GPC_GETFILE_PROGRESS = 1  /* data: bytes received in this block, carried in the pointer */
} GPCGetFileNotifyMessageType;

/* Completion and progress of a GpcGetFileAtUrl request. */
typedef void (*GpcGetFileNotifyProc)(void* instance, void* context, GPCGetFileNotifyMessageType type,
                                     void* data);

/* ---- The service table ---------------------------------------------------------------------- */

/* 24 pointer-sized slots; the order is fixed. Slots 19 to 23 are reserved and NULL. */
typedef struct GpcServiceTable {
  uint32_t (*GpcGetVersion)(int* major, int* minor);                                    /* 0 */
  uint32_t (*GpcRegisterStreamSap)(GPCStreamMessageProc callback, void* context, void* instance,
                                   void** sap);                                         /* 1 */
  uint32_t (*GpcUnregisterStreamSap)(void* sap);                                        /* 2 */
  uint32_t (*GpcGetStream)(void* sap, const char* url, int asFile, void** stream);      /* 3 */
  uint32_t (*GpcPostStream)(void* sap, const char* url, const char* data, unsigned len, int asFile,
                            void** stream);                                             /* 4 */
  uint32_t (*GpcAbortStream)(void* sap, void* stream);                                  /* 5 */
  int (*GpcGetParamCount)(void* instance);                                              /* 6 */
  uint32_t (*GpcSetParam)(void* instance, const char* name, const char* value);         /* 7 */
  const char* (*GpcGetParam)(void* instance, const char* name);                         /* 8 */
  int (*GpcGetParamAt)(void* instance, int index, const char** name, const char** value); /* 9 */
  uint32_t (*GpcChangeLocation)(void* instance, const char* url, const char* target);   /* 10 */
  uint32_t (*GpcGetFileAtUrl)(void* instance, GpcGetFileNotifyProc callback, void* context,
                              const char* url);                                         /* 11 */
  uint32_t (*GpcUnpackFile)(void* instance, const char* archive, const char* destination); /* 12 */
  uint32_t (*GpcSetHook)(void* instance);                                               /* 13 */
  void* (*GpcGetPluginNativeWindow)(void* instance);                                    /* 14 */
  void (*GpcStopDownload)(void* instance);                                              /* 15 */
  unsigned (*GpcGetPluginDir)(char* buffer, unsigned size);                             /* 16 */
  uint32_t (*GpcShowMessage)(void* instance, const char* message);                      /* 17 */
  void (*GpcOutputDebugString)(void* instance, const char* text);                       /* 18 */
  void* reserved[5];                                                                    /* 19-23 */
} GpcServiceTable;

#define GPC_SERVICE_TABLE_SLOTS 24
#define GPC_SERVICE_TABLE_USED_SLOTS 19

/* ---- The extension's entry points (exported by the extension under these names) --------------- */

/* The browser's window record, as declared by the NPAPI headers (NPWindow). */
struct _NPWindow;

/* "GpcInitInstance": the extension keeps `services` and stores its own datum in *extData.
 * The result is only logged. */
typedef int32_t (*GpcInitInstanceProc)(void* instance, GpcServiceTable* services, void** extData);
/* "GpcExitInstance": the instance is going away. */
typedef void (*GpcExitInstanceProc)(void* instance, void* extData);
/* "GpcHeartbeat": called every 50 ms while the instance runs. */
typedef void (*GpcHeartbeatProc)(void* instance, void* extData);
/* "GpcActionNotify": resolved by the plug-in but never called; reserved. */
typedef void (*GpcActionNotifyProc)(void* instance, void* extData);
/* "GpcSetWindow": the window record the browser has just given the plug-in. */
typedef void (*GpcSetWindowProc)(void* instance, struct _NPWindow* window, void* extData);
/* "GpcHandleEvent": `event` is the browser's event record; a non-zero result means handled. */
typedef int32_t (*GpcHandleEventProc)(void* instance, void* event, bool flag, void* extData);

#define GPC_ENTRY_INIT_INSTANCE "GpcInitInstance"
#define GPC_ENTRY_EXIT_INSTANCE "GpcExitInstance"
#define GPC_ENTRY_HEARTBEAT "GpcHeartbeat"
#define GPC_ENTRY_ACTION_NOTIFY "GpcActionNotify"
#define GPC_ENTRY_SET_WINDOW "GpcSetWindow"
#define GPC_ENTRY_HANDLE_EVENT "GpcHandleEvent"

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* GPC_GPC_EXTENSION_H */
