// The stream provider: GET and POST requests through the browser's own streams, delivered as
// GPCMessage records to registered stream access points (SAPs); its recursive lock; and the
// C-linkage services that fill the extension service table.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <memory>
#include <vector>

#include "gpc/gpc_extension.h"
#include "plugin/plugin/npapi.h"

class CGpcWindow;
class CGpcProvider;

// Abstract lock.
class CGpcLockable {
 public:
  virtual void Lock() = 0;
  virtual void Unlock() = 0;
  virtual ~CGpcLockable() = default;
};

// A recursive lock: the owning thread may take it again; each Lock needs its Unlock.
class CGpcCriticalSection : public CGpcLockable {
 public:
  CGpcCriticalSection() = default;
  CGpcCriticalSection(const CGpcCriticalSection&) = delete;
  CGpcCriticalSection& operator=(const CGpcCriticalSection&) = delete;
  ~CGpcCriticalSection() override = default;

  void Lock() override;
  // Releases one level; the last one frees the lock for other threads. The owner is not checked.
  void Unlock() override;

  // Current recursion depth (0 = free). For diagnostics and tests.
  uint32_t Depth();

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::thread::id m_owner;  // default id = free
  uint32_t m_nCount = 0;
};

// Holds a CGpcLockable for one scope.
class CGpcAutoLock {
 public:
  explicit CGpcAutoLock(CGpcLockable& lock) : m_lock(lock) { m_lock.Lock(); }
  ~CGpcAutoLock() { m_lock.Unlock(); }
  CGpcAutoLock(const CGpcAutoLock&) = delete;
  CGpcAutoLock& operator=(const CGpcAutoLock&) = delete;

 private:
  CGpcLockable& m_lock;
};

// A stream access point: a client's callback and context. Its address is the client's handle.
class CGpcSap {
 public:
  CGpcSap(CGpcProvider* provider, GPCStreamMessageProc callback, void* context)
      : m_pProvider(provider), m_pfnCallback(callback), m_pContext(context) {}

  // Sets the message's context to the SAP's and returns the callback's result;
  // 2 when the message or the callback is NULL.
  int SendMessage(GPCMessage* message);

  CGpcProvider* m_pProvider;
  GPCStreamMessageProc m_pfnCallback;
  void* m_pContext;
};

// One request of a SAP. Its address is the client's stream handle and the browser stream's
// notify datum and private data.
class CGpcStream {
 public:
  CGpcStream(CGpcSap* sap, const char* url, int asFile)
      : m_pSap(sap), m_strUrl(url ? url : ""), m_nAsFile(asFile) {}

  // Case-insensitive comparison of the whole URL; false for NULL.
  bool IsSameUrl(const char* url) const;

  CGpcSap* m_pSap;  // cleared when that SAP is unregistered
  std::string m_strUrl;
  int32_t m_nAsFile;
  bool m_bAborted = false;
  uint64_t m_nSerial = 0;  // which request made it: a freed stream's address may be given again
};

// The post buffer is at least this large.
constexpr uint32_t kGpcPostBufferInitialSize = 32768;

class CGpcProvider {
 public:
  CGpcProvider(CGpcWindow* window, NPP npp);
  ~CGpcProvider();
  CGpcProvider(const CGpcProvider&) = delete;
  CGpcProvider& operator=(const CGpcProvider&) = delete;

  // Unregisters (and deletes) every SAP.
  void Cleanup();

  // SAPs. RegisterSap never fails; UnregisterSap is false for an unknown SAP and otherwise
  // deletes it, leaving its streams without a SAP.
  // The browser has destroyed the instance: nothing more is asked of it for this provider.
  void ForgetBrowserInstance() { m_npp = nullptr; }
  CGpcSap* RegisterSap(GPCStreamMessageProc callback, void* context);
  bool AddSap(CGpcSap* sap);
  bool UnregisterSap(void* sap);
  CGpcSap* RemoveSap(CGpcSap* sap);
  CGpcSap* GetSap(void* sap);
  bool IsPending();

  // Requests. Each returns 0 with the new stream in *stream, or a GPC_ERR_* code with *stream
  // NULL (when `stream` is given). Only one request may be pending at a time.
  uint32_t StreamGet(void* sap, const char* url, int asFile, void** stream);
  uint32_t StreamPost(void* sap, const char* url, const char* data, unsigned len, int asFile,
                      void** stream);
  uint32_t StreamPostWithoutHook(void* sap, const char* url, const char* data, unsigned len,
                                 int asFile, void** stream);
  uint32_t StreamPostWithHook(void* sap, const char* url, const char* data, unsigned len, int asFile,
                              void** stream);
  // Ends the client's interest in `stream`: GPC_STREAM_DELETE (reason 2) to its SAP and the
  // provider is free again. The browser is not told: its stream runs on until it ends it.
  uint32_t AbortStream(void* sap, void* stream);

  // A zeroed post buffer large enough for `len` bytes of data and the post header; NULL when
  // it cannot be had.
  unsigned char* GetBuffer(unsigned len);

  // Clears the pending request and tells every SAP (GPC_PENDING_RELEASE).
  void PendingReleased();

  // Browser stream events for streams whose notify datum is not the instance's own.
  NPError OnNppNewStream(NPMIMEType type, NPStream* stream, NPBool seekable, uint16_t* stype);
  int32_t OnNppWriteReady(NPStream* stream);
  int32_t OnNppWrite(NPStream* stream, int32_t offset, int32_t len, void* buffer);
  NPError OnNppDestroyStream(NPStream* stream, NPReason reason);
  void OnNppStreamAsFile(NPStream* stream, const char* fname);
  void OnNppUrlNotify(const char* url, NPReason reason, void* notifyData);

  // For diagnostics and tests.
  CGpcStream* PendingStream();
  size_t SapCount();
  uint32_t PostBufferCapacity() const { return m_nPostBufferSize; }

 private:
  enum class RequestKind { kGet, kPostWithoutHook, kPostWithHook };
  uint32_t RequestStream(RequestKind kind, void* sap, const char* url, const char* body,
                         unsigned len, int asFile, void** stream);
  bool IsLiveStream(CGpcStream* stream);
  // Ends a stream for good: GPC_STREAM_DESTROY and, unless it was aborted, GPC_STREAM_DELETE to
  // its SAP (when still registered) with `reason`; frees the provider if the stream was pending;
  // deletes the stream.
  void EndStream(CGpcStream* stream, const char* url, NPReason reason);
  void SendEndMessage(CGpcStream* stream, int32_t type, const char* url, NPReason reason);
  void ForgetStream(CGpcStream* stream);
  CGpcStream* StreamOf(NPStream* stream);

  CGpcStream* m_pPendingStream = nullptr;
  NPP m_npp;
  CGpcCriticalSection m_lock;
  std::vector<CGpcSap*> m_vectorSap;
  unsigned char* m_pPostBuffer = nullptr;
  uint32_t m_nPostBufferSize = 0;
  CGpcWindow* m_pWindow;
  // Every stream object not yet finished by the browser. A stream the browser never opens
  // (refused or aborted before it opened) is freed with the provider.
  std::vector<std::unique_ptr<CGpcStream>> m_vectorLiveStream;
  uint64_t m_nLastStreamSerial = 0;
  std::vector<std::unique_ptr<CGpcStream>>::iterator FindLiveStream(const CGpcStream* stream);
};

// What a service answers when it could not get the memory it needed: the one code of the table
// that says that something could not be obtained.
constexpr uint32_t kGpcServiceOutOfMemory = GPC_ERR_NO_POST_BUFFER;

// ---- Services handed to the extension (slots of GpcServiceTable) ----------------------------
extern "C" {
uint32_t GpcGetVersion(int* major, int* minor);
uint32_t GpcRegisterStreamSap(GPCStreamMessageProc callback, void* context, void* instance,
                              void** sap);
uint32_t GpcUnregisterStreamSap(void* sap);
uint32_t GpcGetStream(void* sap, const char* url, int asFile, void** stream);
uint32_t GpcPostStream(void* sap, const char* url, const char* data, unsigned len, int asFile,
                       void** stream);
uint32_t GpcAbortStream(void* sap, void* stream);
int GpcGetParamCount(void* instance);
uint32_t GpcSetParam(void* instance, const char* name, const char* value);
const char* GpcGetParam(void* instance, const char* name);
int GpcGetParamAt(void* instance, int index, const char** name, const char** value);
uint32_t GpcChangeLocation(void* instance, const char* url, const char* target);
uint32_t GpcGetFileAtUrl(void* instance, GpcGetFileNotifyProc callback, void* context,
                         const char* url);
uint32_t GpcUnpackFile(void* instance, const char* archive, const char* destination);
uint32_t GpcSetHook(void* instance);
void* GpcGetPluginNativeWindow(void* instance);
void GpcStopDownload(void* instance);
unsigned GpcGetPluginDir(char* buffer, unsigned size);
uint32_t GpcShowMessage(void* instance, const char* message);
void GpcOutputDebugString(void* instance, const char* text);

// Outside the table.
void* GetGpcWindowObject(void* instance);
int GpcCheckDigitalSignature(void* instance, const char* path);
}

// Zero-fills `table` and stores the 19 services in slot order; the reserved slots stay NULL.
void FillGpcServiceTable(GpcServiceTable* table);
