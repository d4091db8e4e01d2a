/*
 * Sample GPC extension.
 *
 * A complete, working extension that shows how an extension talks to the GPC plug-in. Copy it as
 * the starting point of your own. It is built against the two public headers alone
 * (gpc/gpc_extension.h and gpc/gpc_trace.h) and links nothing but the C library: everything it
 * needs from the plug-in comes through the service table handed to GpcInitInstance, or is looked
 * up at run time.
 *
 * What it does, driven by four page parameters:
 *   "GpcSampleFiles"      URLs separated by "|"; each is fetched with GpcGetFileAtUrl.
 *   "GpcSampleStream"     one URL read as the browser's local copy, through a stream access point
 *                         (GpcRegisterStreamSap, GpcGetStream); it counts as one more fetch.
 *   "GpcSampleUnpackDir"  a folder not there yet; the first fetched file whose URL ends in ".7z"
 *                         is unpacked there (an existing folder is left as it is).
 *   "GpcSampleDoneUrl"    once every fetch has completed (successfully or not), the page goes to
 *                         this URL with "fetched=N&failed=M&unpacked=K&params=P" appended.
 * Without files, it navigates on the first heartbeat; without "GpcSampleDoneUrl", nowhere.
 * Every step is traced at info level under the module name "GPCSample".
 *
 * Rules every extension must follow (the plug-in calls the entry points on the browser's main
 * thread, one at a time, so no locking is needed):
 *   - Keep your state in a datum of your own and store it in *extData in GpcInitInstance; the
 *     plug-in passes it back on every call. It can be NULL (a failed GpcInitInstance), so every
 *     entry point checks it.
 *   - Strings returned by the services (parameters, fetched paths) belong to the plug-in. Copy what
 *     you keep, and use a fetched file's path only during the completion callback (for a stream,
 *     during its GPC_STREAM_FILE message).
 *   - The plug-in takes one stream request at a time: GpcGetStream answers GPC_ERR_REQUEST_PENDING
 *     while another one waits for the browser, and every access point hears GPC_PENDING_RELEASE
 *     when it may ask again.
 *   - The context given to GpcGetFileAtUrl must stay valid until GpcExitInstance: the plug-in may
 *     call back at any time until then, and drops its queue afterwards.
 *   - Never pass text you did not write as a format string.
 */

/* dladdr, RTLD_DEFAULT and RTLD_NOLOAD are GNU extensions of <dlfcn.h>. */
#define _GNU_SOURCE

#include <dlfcn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "gpc/gpc_extension.h"
#include "gpc/gpc_trace.h"

/* The module is built with hidden symbols; only the six entry points are exported. */
#define SAMPLE_EXPORT __attribute__((visibility("default")))

#define SAMPLE_TRACE_MODULE "GPCSample"
#define SAMPLE_FILES_PARAM "GpcSampleFiles"
#define SAMPLE_UNPACK_DIR_PARAM "GpcSampleUnpackDir"
#define SAMPLE_DONE_URL_PARAM "GpcSampleDoneUrl"
#define SAMPLE_STREAM_PARAM "GpcSampleStream"
#define SAMPLE_URL_SEPARATOR '|'
#define SAMPLE_ARCHIVE_SUFFIX ".7z"
/* Progress is traced for a file's first block and then once per this many bytes. */
#define SAMPLE_PROGRESS_TRACE_STEP (1024ul * 1024ul)

/* Results of GpcInitInstance. The plug-in only logs the value, so make each failure distinct. */
enum {
  SAMPLE_INIT_OK = 0,
  SAMPLE_INIT_BAD_ARGUMENTS = 1,
  SAMPLE_INIT_BAD_VERSION = 2,
  SAMPLE_INIT_NO_MEMORY = 3
};

/* The type of GpcTracePost (gpc/gpc_trace.h), for the pointer found at run time. */
typedef int (*SampleTracePostProc)(const char* module, int level, const char* text);

struct SampleState;

/* One requested file. Its address is the context of the fetch, so it lives as long as the state. */
typedef struct SampleFetch {
  struct SampleState* state;
  char* url;                /* our own copy */
  unsigned long received;   /* bytes reported by progress notifications so far */
  int completed;            /* a completion has arrived */
} SampleFetch;

/* The extension's datum: everything one instance needs. */
typedef struct SampleState {
  void* instance;              /* the plug-in's handle for this instance, opaque */
  GpcServiceTable* services;   /* owned by the plug-in, valid until GpcExitInstance */
  SampleTracePostProc tracePost; /* NULL when the plug-in's trace function was not found */

  SampleFetch* fetches;
  size_t fetchCount;
  size_t pending; /* fetches queued and not yet completed */
  unsigned fetched, failed, unpacked;

  /* The GpcSampleStream request. */
  char* streamUrl;    /* our own copy; NULL when the page asks for no stream */
  void* streamSap;    /* our access point; NULL when none is registered */
  int streamAsked;    /* the plug-in took the request */
  long streamBytes;   /* size of the browser's copy; -1 until it arrives */
  int streamEnded;

  unsigned long heartbeats;
  unsigned long events;
  void* window;  /* the last window record the browser gave */
  int finished;  /* the done step (navigation or not) has run */
} SampleState;

/* ---- Tracing --------------------------------------------------------------------------------- */

/* POSIX lets function and data pointers convert into each other (dlsym depends on it); ISO C does
 * not, so the conversions below copy the bits, which keeps -Wpedantic builds quiet. */
_Static_assert(sizeof(void*) == sizeof(SampleTracePostProc), "function and data pointers differ");

/*
 * Finds GpcTracePost in the plug-in module without linking against it. The first try asks the
 * module that holds the service functions, which is the plug-in that serves this instance: a
 * browser may have loaded another plug-in module of the same kind (a second install) whose
 * function the default search would find first. The default search finds it when the plug-in is
 * the program itself. Returns NULL when neither way finds it.
 */
static SampleTracePostProc FindTracePost(const GpcServiceTable* services) {
  void* symbol = NULL;
  if (services->GpcGetVersion != NULL) {
    void* serviceAddress;
    memcpy(&serviceAddress, &services->GpcGetVersion, sizeof serviceAddress);
    Dl_info info;
    if (dladdr(serviceAddress, &info) != 0 && info.dli_fname != NULL && info.dli_fname[0] != '\0') {
      /* RTLD_NOLOAD only hands out a handle on a module that is already loaded. */
      void* module = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
      if (module != NULL) {
        symbol = dlsym(module, "GpcTracePost");
        /* The plug-in stays loaded while it serves us, so the pointer outlives this handle. */
        dlclose(module);
      }
    }
  }
  if (symbol == NULL) symbol = dlsym(RTLD_DEFAULT, "GpcTracePost");
  SampleTracePostProc tracePost = NULL;
  if (symbol != NULL) memcpy(&tracePost, &symbol, sizeof tracePost);
  return tracePost;
}

/* Traces one line at info level. `format` is always a literal of this file; text from the page or
 * the network goes in as "%s" arguments. Each line starts with the module name because the
 * plug-in's trace file keeps the text of an entry but not its module. */
__attribute__((format(printf, 2, 3))) static void Trace(const SampleState* state, const char* format,
                                                        ...) {
  static const char prefix[] = SAMPLE_TRACE_MODULE ": ";
  const size_t prefixLength = sizeof prefix - 1;
  va_list args;
  va_start(args, format);
  int length = vsnprintf(NULL, 0, format, args);
  va_end(args);
  if (length < 0) return;
  char* line = malloc(prefixLength + (size_t)length + 1);
  if (line == NULL) return;
  memcpy(line, prefix, prefixLength);
  va_start(args, format);
  vsnprintf(line + prefixLength, (size_t)length + 1, format, args);
  va_end(args);
  if (state->tracePost != NULL) {
    state->tracePost(SAMPLE_TRACE_MODULE, GPC_TRACE_INFO, line);
  } else if (state->services->GpcOutputDebugString != NULL) {
    /* Logged as it stands, at debug level. */
    state->services->GpcOutputDebugString(state->instance, line);
  }
  free(line);
}

/* For "%s" arguments that may be NULL. */
static const char* TextOrEmpty(const char* text) { return text != NULL ? text : ""; }

/* ---- Parameters ------------------------------------------------------------------------------ */

/* The parameter's value, or NULL when it is missing or empty. */
static const char* NonEmptyParam(const SampleState* state, const char* name) {
  const char* value = state->services->GpcGetParam(state->instance, name);
  return (value != NULL && value[0] != '\0') ? value : NULL;
}

static void TraceAllParams(const SampleState* state) {
  int count = state->services->GpcGetParamCount(state->instance);
  Trace(state, "page has %d parameters", count);
  for (int index = 0; index < count; ++index) {
    const char* name = NULL;
    const char* value = NULL;
    state->services->GpcGetParamAt(state->instance, index, &name, &value);
    Trace(state, "param[%d] %s=%s", index, TextOrEmpty(name), TextOrEmpty(value));
  }
}

/* ---- Navigation when everything is done ------------------------------------------------------ */

/* GpcSampleDoneUrl plus the counts as query arguments; NULL when out of memory. Free the result. */
static char* BuildDoneUrl(const SampleState* state, const char* doneUrl) {
  const char* separator = strchr(doneUrl, '?') != NULL ? "&" : "?";
  int params = state->services->GpcGetParamCount(state->instance);
  static const char format[] = "%s%sfetched=%u&failed=%u&unpacked=%u&params=%d";
  int length = snprintf(NULL, 0, format, doneUrl, separator, state->fetched, state->failed,
                        state->unpacked, params);
  if (length < 0) return NULL;
  char* url = malloc((size_t)length + 1);
  if (url == NULL) return NULL;
  snprintf(url, (size_t)length + 1, format, doneUrl, separator, state->fetched, state->failed,
           state->unpacked, params);
  return url;
}

/* Runs once, as soon as no fetch is pending: navigates the whole page to GpcSampleDoneUrl. */
static void FinishWhenAllFetched(SampleState* state) {
  const int streaming = state->streamUrl != NULL && !state->streamEnded;
  if (state->finished || state->pending > 0 || streaming) return;
  state->finished = 1;
  Trace(state, "all fetches complete: fetched=%u failed=%u unpacked=%u", state->fetched, state->failed,
        state->unpacked);
  const char* doneUrl = NonEmptyParam(state, SAMPLE_DONE_URL_PARAM);
  if (doneUrl == NULL) {
    Trace(state, "no %s, staying on the page", SAMPLE_DONE_URL_PARAM);
    return;
  }
  char* url = BuildDoneUrl(state, doneUrl);
  if (url == NULL) {
    Trace(state, "out of memory building the done URL");
    return;
  }
  uint32_t result = state->services->GpcChangeLocation(state->instance, url, "_top");
  Trace(state, "navigating to %s, result=%u", url, (unsigned)result);
  free(url);
}

/* ---- File fetching --------------------------------------------------------------------------- */

static int EndsWith(const char* text, const char* suffix) {
  size_t textLength = strlen(text);
  size_t suffixLength = strlen(suffix);
  return textLength >= suffixLength && strcmp(text + textLength - suffixLength, suffix) == 0;
}

/* Unpacks an archive now: `path` is valid only during the completion callback. */
static void UnpackIfArchive(SampleState* state, void* instance, const SampleFetch* fetch,
                            const char* path) {
  const char* dir = NonEmptyParam(state, SAMPLE_UNPACK_DIR_PARAM);
  struct stat info;
  if (dir == NULL || !EndsWith(fetch->url, SAMPLE_ARCHIVE_SUFFIX)) return;
  /* Unpacking replaces the folder, and the page names it: only a folder that is not there yet is
     used, so that no page can have a folder of the user's replaced. */
  if (lstat(dir, &info) == 0) {
    Trace(state, "not unpacking %s: %s already exists", fetch->url, dir);
    return;
  }
  uint32_t result = state->services->GpcUnpackFile(instance, path, dir);
  if (result == GPC_RESULT_OK) {
    ++state->unpacked;
    Trace(state, "unpacked %s into %s", fetch->url, dir);
  } else {
    Trace(state, "unpacking %s into %s failed, result=%u", fetch->url, dir, (unsigned)result);
  }
}

static void OnFetchComplete(SampleFetch* fetch, void* instance, const char* path) {
  SampleState* state = fetch->state;
  if (fetch->completed) {
    Trace(state, "ignoring a second completion of %s", fetch->url);
    return;
  }
  fetch->completed = 1;
  --state->pending;
  if (path == NULL) {
    ++state->failed;
    Trace(state, "fetch of %s failed", fetch->url);
  } else {
    ++state->fetched;
    Trace(state, "fetched %s to %s, %lu bytes", fetch->url, path, fetch->received);
    UnpackIfArchive(state, instance, fetch, path);
  }
  FinishWhenAllFetched(state);
}

/* The fetch callback given to GpcGetFileAtUrl; `context` is one of our SampleFetch records. */
static void OnFetchNotify(void* instance, void* context, GPCGetFileNotifyMessageType type, void* data) {
  SampleFetch* fetch = context;
  if (fetch == NULL) return;
  if (type == GPC_GETFILE_PROGRESS) {
    /* The byte count of this block travels in the pointer itself. */
    unsigned long bytes = (unsigned long)(uintptr_t)data;
    unsigned long before = fetch->received;
    fetch->received += bytes;
    /* Blocks are small: trace the first one, then one line per step, not one per block. */
    if (before == 0 || before / SAMPLE_PROGRESS_TRACE_STEP != fetch->received / SAMPLE_PROGRESS_TRACE_STEP)
      Trace(fetch->state, "progress of %s: %lu bytes so far", fetch->url, fetch->received);
  } else if (type == GPC_GETFILE_COMPLETE) {
    OnFetchComplete(fetch, instance, data);
  }
}

/* Number of non-empty entries in a "|"-separated list. */
static size_t CountUrls(const char* list) {
  size_t count = 0;
  for (const char* start = list; *start != '\0';) {
    const char* end = strchr(start, SAMPLE_URL_SEPARATOR);
    size_t length = end != NULL ? (size_t)(end - start) : strlen(start);
    count += (length > 0);
    start += length + (end != NULL);
  }
  return count;
}

/* Queues one fetch. A request the plug-in refuses counts as failed at once. */
static void QueueFetch(SampleState* state, SampleFetch* fetch) {
  uint32_t result =
      state->services->GpcGetFileAtUrl(state->instance, OnFetchNotify, fetch, fetch->url);
  if (result == GPC_RESULT_OK) {
    ++state->pending;
    Trace(state, "fetch queued: %s", fetch->url);
  } else {
    fetch->completed = 1;
    ++state->failed;
    Trace(state, "fetch of %s refused, result=%u", fetch->url, (unsigned)result);
  }
}

/* Copies the URLs of GpcSampleFiles into fetch records and queues them. Returns 0 when out of
 * memory (nothing is queued then). */
static int StartFetches(SampleState* state) {
  const char* list = NonEmptyParam(state, SAMPLE_FILES_PARAM);
  size_t count = list != NULL ? CountUrls(list) : 0;
  if (count == 0) {
    Trace(state, "no %s, nothing to fetch", SAMPLE_FILES_PARAM);
    return 1;
  }
  state->fetches = calloc(count, sizeof *state->fetches);
  if (state->fetches == NULL) return 0;
  /* Copy every URL first: the parameter's text may change once the plug-in is called again. */
  for (const char* start = list; *start != '\0';) {
    const char* end = strchr(start, SAMPLE_URL_SEPARATOR);
    size_t length = end != NULL ? (size_t)(end - start) : strlen(start);
    if (length > 0) {
      SampleFetch* fetch = &state->fetches[state->fetchCount];
      fetch->state = state;
      fetch->url = strndup(start, length);
      if (fetch->url == NULL) return 0;
      ++state->fetchCount;
    }
    start += length + (end != NULL);
  }
  for (size_t index = 0; index < state->fetchCount; ++index) QueueFetch(state, &state->fetches[index]);
  return 1;
}

/* ---- Reading a stream as a file ------------------------------------------------------------- */

/* The stream counts like a fetch: fetched when the browser's copy arrived and the stream ended
 * normally, failed otherwise. Stream messages come from inside the browser's calls, so the next
 * heartbeat, not this one, navigates. */
static void EndStream(SampleState* state, int32_t reason) {
  if (state->streamEnded) return;
  state->streamEnded = 1;
  if (state->streamBytes >= 0 && reason == GPC_REASON_DONE) {
    ++state->fetched;
  } else {
    ++state->failed;
    Trace(state, "stream of %s failed, reason=%d", state->streamUrl, (int)reason);
  }
}

/* Asks for the stream; while another request is pending, GPC_PENDING_RELEASE brings us back. */
static void AskForStream(SampleState* state) {
  void* stream = NULL;
  uint32_t result = state->services->GpcGetStream(state->streamSap, state->streamUrl, 1, &stream);
  if (result == GPC_RESULT_OK) {
    state->streamAsked = 1;
    Trace(state, "stream requested: %s", state->streamUrl);
  } else if (result == GPC_ERR_REQUEST_PENDING) {
    Trace(state, "stream of %s waits for the pending request", state->streamUrl);
  } else {
    Trace(state, "stream of %s refused, result=%u", state->streamUrl, (unsigned)result);
    EndStream(state, GPC_REASON_NETWORK_ERROR);
  }
}

/* The size of a file, or -1 when it cannot be read. */
static long FileSize(const char* path) {
  FILE* file = path != NULL ? fopen(path, "rb") : NULL;
  if (file == NULL) return -1;
  long size = fseek(file, 0, SEEK_END) == 0 ? ftell(file) : -1;
  fclose(file);
  return size;
}

/* The access point's callback; `context` is our state. */
static int OnStreamMessage(GPCMessage* message) {
  SampleState* state = message->context;
  if (state == NULL || state->streamEnded) return 0;
  switch (message->type) {
    case GPC_PENDING_RELEASE:
      if (!state->streamAsked) AskForStream(state);
      break;
    case GPC_STREAM_FILE:
      /* The browser's copy is ours to read only now. */
      state->streamBytes = FileSize(message->payload.file.fileName);
      Trace(state, "streamed %s to %s, %ld bytes", state->streamUrl,
            TextOrEmpty(message->payload.file.fileName), state->streamBytes);
      break;
    case GPC_STREAM_DELETE: /* the handle's last message, also after an abort */
      EndStream(state, message->payload.destroy.reason);
      break;
    default: /* data is preset as consumed; an as-file stream needs none of it */
      break;
  }
  return 0;
}

/* Copies the URL of GpcSampleStream. Returns 0 when out of memory. */
static int CopyStreamUrl(SampleState* state) {
  const char* url = NonEmptyParam(state, SAMPLE_STREAM_PARAM);
  state->streamBytes = -1;
  if (url == NULL) return 1;
  state->streamUrl = strdup(url);
  return state->streamUrl != NULL;
}

/* Registers an access point and asks for the stream. */
static void StartStream(SampleState* state) {
  if (state->streamUrl == NULL) return;
  uint32_t result =
      state->services->GpcRegisterStreamSap(OnStreamMessage, state, state->instance, &state->streamSap);
  if (result != GPC_RESULT_OK) {
    state->streamSap = NULL;
    Trace(state, "no stream access point, result=%u", (unsigned)result);
    EndStream(state, GPC_REASON_NETWORK_ERROR);
    return;
  }
  AskForStream(state);
}

static void FreeState(SampleState* state) {
  free(state->streamUrl);
  for (size_t index = 0; index < state->fetchCount; ++index) free(state->fetches[index].url);
  free(state->fetches);
  free(state);
}

/* ---- Entry points ---------------------------------------------------------------------------- */

SAMPLE_EXPORT int32_t GpcInitInstance(void* instance, GpcServiceTable* services, void** extData) {
  if (extData == NULL) return SAMPLE_INIT_BAD_ARGUMENTS;
  *extData = NULL; /* a failed start leaves no datum */
  if (services == NULL || services->GpcGetVersion == NULL) return SAMPLE_INIT_BAD_ARGUMENTS;

  SampleState* state = calloc(1, sizeof *state);
  if (state == NULL) return SAMPLE_INIT_NO_MEMORY;
  state->instance = instance;
  state->services = services;
  state->tracePost = FindTracePost(services);

  /* The table's layout belongs to one major version of the interface: refuse any other. */
  int major = 0;
  int minor = 0;
  services->GpcGetVersion(&major, &minor);
  if (major != GPC_SERVICE_VERSION_MAJOR) {
    Trace(state, "GpcInitInstance: service interface %d.%d, need %d.x", major, minor,
          GPC_SERVICE_VERSION_MAJOR);
    FreeState(state);
    return SAMPLE_INIT_BAD_VERSION;
  }
  Trace(state, "GpcInitInstance: service interface %d.%d", major, minor);
  TraceAllParams(state);
  /* Everything is copied before the first request: a failure here leaves nothing queued. */
  if (!CopyStreamUrl(state) || !StartFetches(state)) {
    Trace(state, "GpcInitInstance: out of memory");
    FreeState(state);
    return SAMPLE_INIT_NO_MEMORY;
  }
  StartStream(state);
  *extData = state;
  return SAMPLE_INIT_OK;
}

SAMPLE_EXPORT void GpcExitInstance(void* instance, void* extData) {
  SampleState* state = extData;
  if (state == NULL) return;
  if (state->pending > 0) {
    Trace(state, "GpcExitInstance: stopping %zu pending downloads", state->pending);
    state->services->GpcStopDownload(instance);
  }
  Trace(state, "GpcExitInstance after %lu heartbeats and %lu events", state->heartbeats, state->events);
  /* A stream still running ends without further messages once its access point is gone. */
  if (state->streamSap != NULL) state->services->GpcUnregisterStreamSap(state->streamSap);
  /* The plug-in drops its fetch queue now, so no callback can reach the records after this. */
  FreeState(state);
}

SAMPLE_EXPORT void GpcHeartbeat(void* instance, void* extData) {
  (void)instance;
  SampleState* state = extData;
  if (state == NULL) return;
  /* Called every 50 ms: trace the first beat only. */
  if (++state->heartbeats == 1) Trace(state, "GpcHeartbeat: first heartbeat");
  /* Covers a page without files, or whose fetches were all refused. */
  FinishWhenAllFetched(state);
}

SAMPLE_EXPORT void GpcActionNotify(void* instance, void* extData) {
  /* Reserved: the plug-in resolves this entry point but does not call it. */
  (void)instance;
  (void)extData;
}

SAMPLE_EXPORT void GpcSetWindow(void* instance, struct _NPWindow* window, void* extData) {
  (void)instance;
  SampleState* state = extData;
  if (state == NULL) return;
  state->window = window;
  Trace(state, "GpcSetWindow: window record %p", (void*)window);
}

SAMPLE_EXPORT int32_t GpcHandleEvent(void* instance, void* event, bool flag, void* extData) {
  (void)instance;
  (void)event;
  (void)flag;
  SampleState* state = extData;
  if (state != NULL) ++state->events;
  return 0; /* not handled: the browser goes on with the event */
}

/* The compiler checks each entry point against the type the plug-in calls it through. */
#define SAMPLE_CHECK_ENTRY(function, type) \
  _Static_assert(__builtin_types_compatible_p(__typeof__(&function), type), #function " has the wrong type")
SAMPLE_CHECK_ENTRY(GpcInitInstance, GpcInitInstanceProc);
SAMPLE_CHECK_ENTRY(GpcExitInstance, GpcExitInstanceProc);
SAMPLE_CHECK_ENTRY(GpcHeartbeat, GpcHeartbeatProc);
SAMPLE_CHECK_ENTRY(GpcActionNotify, GpcActionNotifyProc);
SAMPLE_CHECK_ENTRY(GpcSetWindow, GpcSetWindowProc);
SAMPLE_CHECK_ENTRY(GpcHandleEvent, GpcHandleEventProc);
