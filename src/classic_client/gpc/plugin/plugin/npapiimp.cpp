// The stream provider, its lock, and the services of the extension service table.
#include "plugin/plugin/npapiimp.h"


#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <set>

#include "common/boundary.h"
#include "common/gpcutil.h"
#include "plugin/plugin/npgpc_text.h"
#include "plugin/plugin/npgpcimp.h"
#include "plugin/plugin/npplugin.h"
#include "common/trace.h"

namespace {

// What a post with an added header would need on top of its data.
constexpr char kPostHeaderTemplate[] =
    "Pragma:\tno-cache\nContent-Type:\tapplication/octet-stream\nContent-Length:\t%lu\n\n";
constexpr uint32_t kPostBufferSlack = 64;

// The low 32 bits of a pointer, as the logs print handles.
unsigned LowBits(const void* pointer) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

CGpcSap* AsSap(void* sap) { return static_cast<CGpcSap*>(sap); }
CGpcWindow* AsWindow(void* instance) { return static_cast<CGpcWindow*>(instance); }

// Every registered SAP of the process. A handle the extension still holds after unregistering it
// (or one it never had) is recognised without being read: it points at freed memory.
std::mutex g_liveSapsMutex;
std::set<const CGpcSap*>& LiveSaps() {
  static std::set<const CGpcSap*> saps;
  return saps;
}
bool IsLiveSap(const void* sap) {
  std::lock_guard<std::mutex> lock(g_liveSapsMutex);
  return LiveSaps().count(static_cast<const CGpcSap*>(sap)) != 0;
}

}  // namespace

// ---- CGpcCriticalSection -----------------------------------------------------------------

void CGpcCriticalSection::Lock() {
  std::unique_lock<std::mutex> guard(m_mutex);
  const std::thread::id self = std::this_thread::get_id();
  if (m_owner == self) {
    ++m_nCount;
    return;
  }
  m_cond.wait(guard, [this] { return m_owner == std::thread::id(); });
  m_owner = self;
  m_nCount = 1;
}

void CGpcCriticalSection::Unlock() {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (m_nCount == 0) return;  // an unbalanced Unlock must not wrap the count
  if (m_nCount-- == 1) {
    m_owner = std::thread::id();
    m_cond.notify_one();
  }
}

uint32_t CGpcCriticalSection::Depth() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_nCount;
}

// ---- CGpcSap, CGpcStream ------------------------------------------------------------------

int CGpcSap::SendMessage(GPCMessage* message) {
  if (message == nullptr || m_pfnCallback == nullptr) return 2;
  message->context = m_pContext;
  return m_pfnCallback(message);
}

bool CGpcStream::IsSameUrl(const char* url) const {
  if (url == nullptr) return false;
  return GpcNamesEqual(m_strUrl.c_str(), url);
}

// ---- CGpcProvider: life and SAPs ----------------------------------------------------------

CGpcProvider::CGpcProvider(CGpcWindow* window, NPP npp) : m_npp(npp), m_pWindow(window) {
  MacInfoTrace("CGpcProvider::CGpcProvider");
  m_pPostBuffer = new (std::nothrow) unsigned char[kGpcPostBufferInitialSize]();
  if (m_pPostBuffer != nullptr) m_nPostBufferSize = kGpcPostBufferInitialSize;
}

CGpcProvider::~CGpcProvider() {
  MacInfoTrace("CGpcProvider::~CGpcProvider");
  Cleanup();
  // The pending stream, and any stream the browser never opened or never finished.
  m_vectorLiveStream.clear();
  m_pPendingStream = nullptr;
  delete[] m_pPostBuffer;
  m_pPostBuffer = nullptr;
  m_nPostBufferSize = 0;
}

void CGpcProvider::Cleanup() {
  MacInfoTrace("CGpcProvider::Cleanup()");
  while (!m_vectorSap.empty()) {
    size_t before = m_vectorSap.size();
    GpcUnregisterStreamSap(m_vectorSap.front());
    if (m_vectorSap.size() >= before) break;  // never spin on a SAP that will not go
  }
}

CGpcSap* CGpcProvider::RegisterSap(GPCStreamMessageProc callback, void* context) {
  MacInfoTrace("CGpcProvider::RegisterSap");
  std::unique_ptr<CGpcSap> sap(new CGpcSap(this, callback, context));
  AddSap(sap.get());
  return sap.release();
}

bool CGpcProvider::AddSap(CGpcSap* sap) {
  CGpcAutoLock lock(m_lock);
  m_vectorSap.push_back(sap);
  try {
    std::lock_guard<std::mutex> live(g_liveSapsMutex);
    LiveSaps().insert(sap);
  } catch (...) {
    m_vectorSap.pop_back();
    throw;
  }
  return true;
}

bool CGpcProvider::UnregisterSap(void* sap) {
  MacInfoTrace("CGpcProvider::UnregisterSap");
  CGpcSap* removed = RemoveSap(AsSap(sap));
  if (removed == nullptr) return false;
  {
    // Streams of this SAP run on without it: their later events produce no messages.
    CGpcAutoLock lock(m_lock);
    for (const std::unique_ptr<CGpcStream>& stream : m_vectorLiveStream) {
      if (stream->m_pSap == removed) stream->m_pSap = nullptr;
    }
  }
  delete removed;
  return true;
}

CGpcSap* CGpcProvider::RemoveSap(CGpcSap* sap) {
  CGpcAutoLock lock(m_lock);
  auto found = std::find(m_vectorSap.begin(), m_vectorSap.end(), sap);
  if (found == m_vectorSap.end()) return nullptr;
  m_vectorSap.erase(found);
  std::lock_guard<std::mutex> live(g_liveSapsMutex);
  LiveSaps().erase(sap);
  return sap;
}

CGpcSap* CGpcProvider::GetSap(void* sap) {
  CGpcAutoLock lock(m_lock);
  if (sap == nullptr) return nullptr;
  auto found = std::find(m_vectorSap.begin(), m_vectorSap.end(), AsSap(sap));
  return found == m_vectorSap.end() ? nullptr : *found;
}

bool CGpcProvider::IsPending() {
  CGpcAutoLock lock(m_lock);
  return m_pPendingStream != nullptr;
}

CGpcStream* CGpcProvider::PendingStream() {
  CGpcAutoLock lock(m_lock);
  return m_pPendingStream;
}

size_t CGpcProvider::SapCount() {
  CGpcAutoLock lock(m_lock);
  return m_vectorSap.size();
}

bool CGpcProvider::IsLiveStream(CGpcStream* stream) {
  CGpcAutoLock lock(m_lock);
  return stream != nullptr && FindLiveStream(stream) != m_vectorLiveStream.end();
}

std::vector<std::unique_ptr<CGpcStream>>::iterator CGpcProvider::FindLiveStream(const CGpcStream* stream) {
  return std::find_if(m_vectorLiveStream.begin(), m_vectorLiveStream.end(),
                      [stream](const std::unique_ptr<CGpcStream>& live) { return live.get() == stream; });
}

void CGpcProvider::ForgetStream(CGpcStream* stream) {
  CGpcAutoLock lock(m_lock);
  auto found = FindLiveStream(stream);
  if (found == m_vectorLiveStream.end()) return;
  if (m_pPendingStream == stream) m_pPendingStream = nullptr;
  m_vectorLiveStream.erase(found);
}

CGpcStream* CGpcProvider::StreamOf(NPStream* stream) {
  if (stream == nullptr) return nullptr;
  CGpcStream* own = static_cast<CGpcStream*>(stream->pdata);
  return IsLiveStream(own) ? own : nullptr;
}

// ---- CGpcProvider: requests ----------------------------------------------------------------

unsigned char* CGpcProvider::GetBuffer(unsigned len) {
  uint64_t needed = uint64_t(strlen(kPostHeaderTemplate)) + len + kPostBufferSlack;
  if (needed > UINT32_MAX) return nullptr;
  if (needed > m_nPostBufferSize) {
    unsigned char* larger = new (std::nothrow) unsigned char[needed];
    if (larger == nullptr) return nullptr;  // the old buffer stays
    delete[] m_pPostBuffer;
    m_pPostBuffer = larger;
    m_nPostBufferSize = static_cast<uint32_t>(needed);
  }
  if (m_pPostBuffer != nullptr) memset(m_pPostBuffer, 0, m_nPostBufferSize);
  return m_pPostBuffer;
}

uint32_t CGpcProvider::RequestStream(RequestKind kind, void* sap, const char* url, const char* body,
                                     unsigned len, int asFile, void** out) {
  const char* name = kind == RequestKind::kGet                ? "CGpcProvider::StreamGet"
                     : kind == RequestKind::kPostWithoutHook ? "CGpcProvider::StreamPostWithoutHook"
                                                              : "CGpcProvider::StreamPostWithHook";
  CGpcAutoLock lock(m_lock);
  m_vectorLiveStream.push_back(std::make_unique<CGpcStream>(AsSap(sap), url, asFile));
  CGpcStream* stream = m_vectorLiveStream.back().get();
  const uint64_t serial = stream->m_nSerial = ++m_nLastStreamSerial;
  m_pPendingStream = stream;

  NPError result;
  if (kind == RequestKind::kGet) {
    result = NPN_GetURLNotify(m_npp, url, nullptr, stream);
  } else {
    result = NPN_PostURLNotify(m_npp, url, nullptr, len, body, false, stream);
  }

  if (result != NPERR_NO_ERROR) {
    if (kind == RequestKind::kGet) {
      MacInfoTrace("CGpcProvider::StreamGet : pending,request a GET stream failed at %s", url);
    } else {
      MacInfoTrace("%s : request a POST stream failed at %s", name, url);
    }
    ForgetStream(stream);
    m_pPendingStream = nullptr;
    return GPC_ERR_BROWSER_REFUSED;
  }

  if (kind == RequestKind::kGet) {
    MacInfoTrace("CGpcProvider::StreamGet : request a GET stream successfully at %s", url);
  } else if (kind == RequestKind::kPostWithoutHook) {
    MacInfoTrace("CGpcProvider::StreamPostWithoutHook : request a POST stream successfully at %s", url);
  } else {
    MacInfoTrace("CGpcProvider::StreamPostWithHook : request a POST stream successfully at %s, len = %lu",
                 url, static_cast<unsigned long>(len));
  }
  // A browser that notified the request's end before answering has had the stream freed already,
  // and another request may have its address by now.
  *out = IsLiveStream(stream) && stream->m_nSerial == serial ? stream : nullptr;
  return GPC_RESULT_OK;
}

uint32_t CGpcProvider::StreamGet(void* sap, const char* url, int asFile, void** stream) {
  if (url == nullptr || stream == nullptr) return GPC_ERR_NULL_ARGUMENT;
  MacInfoTrace("CGpcProvider::StreamGet,url = %s", url);
  *stream = nullptr;
  if (m_npp == nullptr) return GPC_ERR_NO_BROWSER_INSTANCE;
  if (GetSap(sap) == nullptr) return GPC_ERR_SAP_NOT_REGISTERED;
  if (IsPending()) {
    MacInfoTrace("CGpcProvider::StreamGet : pending");
    return GPC_ERR_REQUEST_PENDING;
  }
  return RequestStream(RequestKind::kGet, sap, url, nullptr, 0, asFile, stream);
}

uint32_t CGpcProvider::StreamPost(void* sap, const char* url, const char* data, unsigned len,
                                  int asFile, void** stream) {
  int pluginMajor = 0, pluginMinor = 0, browserMajor = 0, browserMinor = 0;
  NPN_Version(&pluginMajor, &pluginMinor, &browserMajor, &browserMinor);  // asked, not used
  return StreamPostWithoutHook(sap, url, data, len, asFile, stream);
}

uint32_t CGpcProvider::StreamPostWithoutHook(void* sap, const char* url, const char* data, unsigned len,
                                             int asFile, void** stream) {
  if (url == nullptr || stream == nullptr) return GPC_ERR_NULL_ARGUMENT;
  if (data == nullptr && len > 0) return GPC_ERR_NULL_ARGUMENT;
  *stream = nullptr;
  if (m_npp == nullptr) return GPC_ERR_NO_BROWSER_INSTANCE;
  MacInfoTrace("CGpcProvider::StreamPostWithoutHook");
  if (GetSap(sap) == nullptr) return GPC_ERR_SAP_NOT_REGISTERED;
  if (IsPending()) {
    MacInfoTrace("CGpcProvider::StreamPostWithoutHook,is pending!");
    return GPC_ERR_REQUEST_PENDING;
  }
  if (GetBuffer(len) == nullptr) return GPC_ERR_NO_POST_BUFFER;
  return RequestStream(RequestKind::kPostWithoutHook, sap, url, data, len, asFile, stream);
}

uint32_t CGpcProvider::StreamPostWithHook(void* sap, const char* url, const char* data, unsigned len,
                                          int asFile, void** stream) {
  if (url == nullptr || stream == nullptr) return GPC_ERR_NULL_ARGUMENT;
  if (data == nullptr && len > 0) return GPC_ERR_NULL_ARGUMENT;
  *stream = nullptr;
  if (m_npp == nullptr) return GPC_ERR_NO_BROWSER_INSTANCE;
  if (GetSap(sap) == nullptr) return GPC_ERR_SAP_NOT_REGISTERED;
  if (IsPending()) {
    MacInfoTrace("CGpcProvider::StreamPostWithHook,is pending!");
    return GPC_ERR_REQUEST_PENDING;
  }
  unsigned char* buffer = GetBuffer(len);
  if (buffer == nullptr) return GPC_ERR_NO_POST_BUFFER;
  // Two newlines, the data and a closing newline; the closing one is written but not posted.
  buffer[0] = '\n';
  buffer[1] = '\n';
  if (len > 0) memcpy(buffer + 2, data, len);
  buffer[len + 2] = '\n';
  return RequestStream(RequestKind::kPostWithHook, sap, url, reinterpret_cast<const char*>(buffer),
                       len + 2, asFile, stream);
}

uint32_t CGpcProvider::AbortStream(void* sap, void* stream) {
  if (stream == nullptr) return GPC_ERR_NULL_ARGUMENT;
  if (m_npp == nullptr) return GPC_ERR_NO_BROWSER_INSTANCE;
  if (GetSap(sap) == nullptr) return GPC_ERR_SAP_NOT_REGISTERED;

  CGpcAutoLock lock(m_lock);
  CGpcStream* target = static_cast<CGpcStream*>(stream);
  if (m_pPendingStream != nullptr && m_pPendingStream != target) return GPC_RESULT_OK;
  if (!IsLiveStream(target)) {
    // Already finished by the browser: nothing is left to abort.
    MacWarnTrace("CGpcProvider::AbortStream : stream 0x%lx is gone", static_cast<unsigned long>(
                                                                         reinterpret_cast<uintptr_t>(stream)));
    return GPC_RESULT_OK;
  }
  if (target->m_bAborted) return GPC_RESULT_OK;  // its requester has heard of it once
  MacInfoTrace("CGpcProvider::AbortStream : Abort stream 0x%lx...",
               static_cast<unsigned long>(reinterpret_cast<uintptr_t>(stream)));
  target->m_bAborted = true;
  if (target->m_pSap != nullptr) {
    GPCMessage message = {};
    message.type = GPC_STREAM_DELETE;
    message.stream = target;
    message.url = target->m_strUrl.empty() ? nullptr : target->m_strUrl.c_str();
    message.payload.destroy.reason = NPRES_USER_BREAK;
    target->m_pSap->SendMessage(&message);
  }
  PendingReleased();
  return GPC_RESULT_OK;
}

void CGpcProvider::PendingReleased() {
  CGpcAutoLock lock(m_lock);
  m_pPendingStream = nullptr;
  // The SAPs registered now each hear it once, unless a callback before them unregisters them.
  const std::vector<CGpcSap*> registered = m_vectorSap;
  for (CGpcSap* sap : registered) {
    if (GetSap(sap) == nullptr) continue;
    GPCMessage message = {};
    message.type = GPC_PENDING_RELEASE;
    sap->SendMessage(&message);
  }
}

// ---- CGpcProvider: browser stream events ---------------------------------------------------

NPError CGpcProvider::OnNppNewStream(NPMIMEType type, NPStream* stream, NPBool seekable,
                                     uint16_t* stype) {
  (void)type;
  (void)seekable;
  if (stream == nullptr) return NPERR_INVALID_INSTANCE_ERROR;
  CGpcAutoLock lock(m_lock);
  // A late stream of an earlier (aborted) request names that request: it is not the pending one,
  // even for the same URL. A stream naming the pending request is its stream even when the
  // browser gives the URL in its own form (a default port dropped, a relative URL made whole).
  void* const requester = stream->notifyData;
  const bool earlierRequest = requester != nullptr && requester != m_pPendingStream &&
                              IsLiveStream(static_cast<CGpcStream*>(requester));
  const bool pendingRequest = m_pPendingStream != nullptr &&
                              (requester == m_pPendingStream || m_pPendingStream->IsSameUrl(stream->url));
  if (!earlierRequest && pendingRequest) {
    if (stype != nullptr) *stype = m_pPendingStream->m_nAsFile ? NP_ASFILEONLY : NP_NORMAL;
    stream->pdata = m_pPendingStream;
    PendingReleased();
  } else {
    if (m_pPendingStream != nullptr) {
      MacInfoTrace(
          "CGpcProvider::OnNppNewStream : A mismatched stream for gpc provider,stream->url = %s, "
          "local url = %s!",
          stream->url ? stream->url : "", m_pPendingStream->m_strUrl.c_str());
    }
    stream->pdata = nullptr;
  }
  return NPERR_NO_ERROR;
}

int32_t CGpcProvider::OnNppWriteReady(NPStream* stream) {
  CGpcStream* own = StreamOf(stream);
  if (own == nullptr || own->m_pSap == nullptr || own->m_pSap->m_pfnCallback == nullptr) {
    return GPC_STREAM_READY_ALL;
  }
  GPCMessage message = {};
  message.type = GPC_STREAM_READY;
  message.stream = own;
  message.url = stream->url;
  message.payload.ready.result = GPC_STREAM_READY_ALL;
  own->m_pSap->SendMessage(&message);
  return message.payload.ready.result;
}

int32_t CGpcProvider::OnNppWrite(NPStream* stream, int32_t offset, int32_t len, void* buffer) {
  if (stream == nullptr) return 0;
  CGpcStream* own = StreamOf(stream);
  if (own == nullptr || own->m_pSap == nullptr) return len;  // consumed and dropped
  MacInfoTrace("CGpcProvider::OnNppWrite , pStream = %x,len = %d", LowBits(own), len);
  GPCMessage message = {};
  message.type = GPC_STREAM_DATA;
  message.stream = own;
  message.url = stream->url;
  message.payload.data.offset = offset;
  message.payload.data.length = len;
  message.payload.data.buffer = buffer;
  message.payload.data.result = len;
  own->m_pSap->SendMessage(&message);
  return message.payload.data.result;
}

NPError CGpcProvider::OnNppDestroyStream(NPStream* stream, NPReason reason) {
  MacInfoTrace("CGpcProvider::OnNppDestroyStream");
  if (stream == nullptr) return NPERR_INVALID_INSTANCE_ERROR;
  CGpcStream* own = StreamOf(stream);
  if (own == nullptr) return NPERR_NO_DATA;
  stream->pdata = nullptr;
  // A stream whose SAP is gone ends here without messages.
  const bool heard = GetSap(own->m_pSap) != nullptr;
  EndStream(own, stream->url, reason);
  return heard ? NPERR_NO_ERROR : NPERR_NO_DATA;
}

void CGpcProvider::EndStream(CGpcStream* own, const char* url, NPReason reason) {
  if (GetSap(own->m_pSap) != nullptr) {
    SendEndMessage(own, GPC_STREAM_DESTROY, url, reason);
    // The callback may have unregistered the SAP or aborted the stream meanwhile.
    if (!own->m_bAborted && own->m_pSap != nullptr) SendEndMessage(own, GPC_STREAM_DELETE, url, reason);
  }
  const bool wasPending = own == PendingStream();
  ForgetStream(own);
  if (wasPending) PendingReleased();
}

void CGpcProvider::SendEndMessage(CGpcStream* own, int32_t type, const char* url, NPReason reason) {
  GPCMessage message = {};
  message.type = type;
  message.stream = own;
  message.url = url;
  message.payload.destroy.reason = reason;
  own->m_pSap->SendMessage(&message);
}

void CGpcProvider::OnNppStreamAsFile(NPStream* stream, const char* fname) {
  MacInfoTrace("CGpcProvider::OnNppStreamAsFile");
  CGpcStream* own = StreamOf(stream);
  if (own == nullptr || own->m_pSap == nullptr) return;
  GPCMessage message = {};
  message.type = GPC_STREAM_FILE;
  message.stream = own;
  message.url = stream->url;
  message.payload.file.fileName = fname;
  own->m_pSap->SendMessage(&message);
}

void CGpcProvider::OnNppUrlNotify(const char* url, NPReason reason, void* notifyData) {
  MacInfoTrace("CGpcProvider::OnNppUrlNotify");
  // The browser notifies last, when it is done with a request. A request object still alive now
  // was never opened as a stream (refused, failed, redirected elsewhere, or aborted before it
  // opened) and never will be: its owner hears the end, with the notification's reason.
  CGpcStream* own = static_cast<CGpcStream*>(notifyData);
  const bool unopened = IsLiveStream(own);
  if (reason == NPRES_NETWORK_ERR) {
    MacErrorTrace("CGpcProvider::OnNppUrlNotify, receive NPRES_NETWORK_ERR");
    // The instance's own unopened request is finished by its GPC_STREAM_DESTROY below, and an
    // opened one by the GPC_STREAM_DESTROY of its stream's end, which clears m_streamSapId: the
    // first entry is then the next fetch, which may name the same URL and has not begun.
    if (!unopened && m_pWindow != nullptr && own == m_pWindow->m_streamSapId &&
        m_pWindow->isMyURL(url ? url : "")) {
      m_pWindow->FinishDownloadingStreamFile(false);
    }
  }
  if (unopened) EndStream(own, own->m_strUrl.c_str(), reason);
}

// ---- The extension service table --------------------------------------------------------
// Each service that does any work ends in GPC_BOUNDARY_CATCH: no exception reaches the extension.

extern "C" {

uint32_t GpcGetVersion(int* major, int* minor) {
  if (major != nullptr) *major = GPC_SERVICE_VERSION_MAJOR;
  if (minor != nullptr) *minor = GPC_SERVICE_VERSION_MINOR;
  return GPC_RESULT_OK;
}

uint32_t GpcRegisterStreamSap(GPCStreamMessageProc callback, void* context, void* instance,
                              void** sap) try {
  if (sap == nullptr || callback == nullptr) return GPC_ERR_NULL_ARGUMENT;
  if (instance == nullptr) return GPC_ERR_NO_INSTANCE;
  MacInfoTrace("GpcRegisterStreamSap");
  *sap = AsWindow(instance)->m_provider.RegisterSap(callback, context);
  return GPC_RESULT_OK;
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

uint32_t GpcUnregisterStreamSap(void* sap) try {
  if (sap == nullptr) return GPC_ERR_NULL_ARGUMENT;
  MacInfoTrace("GpcUnregisterStreamSap");
  if (!IsLiveSap(sap)) return GPC_RESULT_OK;  // already gone, or never registered
  CGpcProvider* provider = AsSap(sap)->m_pProvider;
  if (provider == nullptr) return GPC_ERR_NO_PROVIDER;
  provider->UnregisterSap(sap);
  return GPC_RESULT_OK;
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

uint32_t GpcGetStream(void* sap, const char* url, int asFile, void** stream) try {
  if (sap == nullptr || url == nullptr) return GPC_ERR_NULL_ARGUMENT;
  MacInfoTrace("GpcGetStream,url = %s", url);
  if (!IsLiveSap(sap)) return GPC_ERR_SAP_NOT_REGISTERED;
  CGpcProvider* provider = AsSap(sap)->m_pProvider;
  if (provider == nullptr) return GPC_ERR_NO_PROVIDER;
  return provider->StreamGet(sap, url, asFile, stream);
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

uint32_t GpcPostStream(void* sap, const char* url, const char* data, unsigned len, int asFile,
                       void** stream) try {
  if (sap == nullptr || url == nullptr) return GPC_ERR_NULL_ARGUMENT;
  MacInfoTrace("GpcPostStream,url = %s", url);
  if (!IsLiveSap(sap)) return GPC_ERR_SAP_NOT_REGISTERED;
  CGpcProvider* provider = AsSap(sap)->m_pProvider;
  if (provider == nullptr) return GPC_ERR_NO_PROVIDER;
  int pluginMajor = 0, pluginMinor = 0, browserMajor = 0, browserMinor = 0;
  NPN_Version(&pluginMajor, &pluginMinor, &browserMajor, &browserMinor);  // asked, not used
  return provider->StreamPostWithoutHook(sap, url, data, len, asFile, stream);
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

uint32_t GpcAbortStream(void* sap, void* stream) try {
  if (sap == nullptr) return GPC_ERR_NULL_ARGUMENT;
  MacInfoTrace("GpcAbortStream");
  if (!IsLiveSap(sap)) return GPC_ERR_SAP_NOT_REGISTERED;
  CGpcProvider* provider = AsSap(sap)->m_pProvider;
  if (provider == nullptr) return GPC_ERR_NO_PROVIDER;
  return provider->AbortStream(sap, stream);
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

int GpcGetParamCount(void* instance) try {
  return instance == nullptr ? 0 : AsWindow(instance)->GetParameterCount();
}
GPC_BOUNDARY_CATCH(0)

uint32_t GpcSetParam(void* instance, const char* name, const char* value) try {
  if (instance == nullptr) return GPC_ERR_NO_INSTANCE;
  AsWindow(instance)->SetParameter(name, value);
  return GPC_RESULT_OK;
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

const char* GpcGetParam(void* instance, const char* name) try {
  return instance == nullptr ? nullptr : AsWindow(instance)->GetParameter(name);
}
GPC_BOUNDARY_CATCH(nullptr)

int GpcGetParamAt(void* instance, int index, const char** name, const char** value) try {
  if (instance == nullptr) return 0;
  AsWindow(instance)->GetParameterAt(index, name, value);
  return 1;  // whatever the lookup found
}
GPC_BOUNDARY_CATCH(0)

uint32_t GpcChangeLocation(void* instance, const char* url, const char* target) try {
  if (instance == nullptr) return GPC_ERR_NO_INSTANCE;
  AsWindow(instance)->ChangeLocation(target, url);
  return GPC_RESULT_OK;
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

uint32_t GpcGetFileAtUrl(void* instance, GpcGetFileNotifyProc callback, void* context, const char* url) try {
  if (instance == nullptr) return GPC_ERR_NO_INSTANCE;
  AsWindow(instance)->GetFileAtUrl(callback, context, url);
  return GPC_RESULT_OK;
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

uint32_t GpcUnpackFile(void* instance, const char* archive, const char* destination) try {
  if (instance == nullptr) return GPC_ERR_NO_INSTANCE;
  return AsWindow(instance)->UnpackFile(archive, destination, 0);
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

uint32_t GpcSetHook(void* instance) {
  return instance == nullptr ? GPC_ERR_NO_INSTANCE : GPC_RESULT_OK;
}

void* GpcGetPluginNativeWindow(void* instance) {
  return instance == nullptr ? nullptr : AsWindow(instance)->GetPluginNativeWindow();
}

void GpcStopDownload(void* instance) try {
  if (instance != nullptr) AsWindow(instance)->StopDownload();
}
GPC_BOUNDARY_CATCH_VOID

unsigned GpcGetPluginDir(char* buffer, unsigned size) try {
  const std::string path = TalvoFolderFor("GpcGetPluginDir");
  if (path.empty()) return 0;
  // Callers receive at most a pointer's size of it, terminator included (kept as it always was).
  return static_cast<unsigned>(CopyBounded(buffer, std::min<size_t>(size, sizeof(void*)), path));
}
GPC_BOUNDARY_CATCH(0)

uint32_t GpcShowMessage(void* instance, const char* message) try {
  if (instance == nullptr) return GPC_ERR_NO_INSTANCE;
  AsWindow(instance)->ShowMessage(message, nullptr);
  return GPC_RESULT_OK;
}
GPC_BOUNDARY_CATCH(kGpcServiceOutOfMemory)

void GpcOutputDebugString(void* instance, const char* text) {
  (void)instance;
  if (text == nullptr) return;
  // Logged as it stands: a "%" in the extension's text is a character, never a directive.
  MacDebugTrace("%s", text);
}

void* GetGpcWindowObject(void* instance) { return instance; }

int GpcCheckDigitalSignature(void* instance, const char* path) {
  (void)path;
  return instance != nullptr ? 1 : 0;
}

}  // extern "C"

void FillGpcServiceTable(GpcServiceTable* table) {
  if (table == nullptr) return;
  memset(table, 0, sizeof(*table));
  table->GpcGetVersion = GpcGetVersion;
  table->GpcRegisterStreamSap = GpcRegisterStreamSap;
  table->GpcUnregisterStreamSap = GpcUnregisterStreamSap;
  table->GpcGetStream = GpcGetStream;
  table->GpcPostStream = GpcPostStream;
  table->GpcAbortStream = GpcAbortStream;
  table->GpcGetParamCount = GpcGetParamCount;
  table->GpcSetParam = GpcSetParam;
  table->GpcGetParam = GpcGetParam;
  table->GpcGetParamAt = GpcGetParamAt;
  table->GpcChangeLocation = GpcChangeLocation;
  table->GpcGetFileAtUrl = GpcGetFileAtUrl;
  table->GpcUnpackFile = GpcUnpackFile;
  table->GpcSetHook = GpcSetHook;
  table->GpcGetPluginNativeWindow = GpcGetPluginNativeWindow;
  table->GpcStopDownload = GpcStopDownload;
  table->GpcGetPluginDir = GpcGetPluginDir;
  table->GpcShowMessage = GpcShowMessage;
  table->GpcOutputDebugString = GpcOutputDebugString;
}
