#include "common/net/curl_transfer.h"

#include "common/hardening.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <glib-unix.h>
#include <glib.h>
#include <mutex>
#include <set>
#include <sys/socket.h>
#include <vector>

#include "common/boundary.h"

namespace gpcnet {

namespace {

class MultiDriver;

// The multi handle of this thread; null while no transfer exists.
thread_local MultiDriver* t_driver = nullptr;

// One socket libcurl asked us to watch, with its GLib source.
struct SocketWatch {
  curl_socket_t fd = CURL_SOCKET_BAD;
  guint sourceId = 0;
  MultiDriver* driver = nullptr;
};

bool IsChallengeStatus(long status) { return status == 401 || status == 403 || status == 407; }

}  // namespace

// One request: its easy handle and what happened to it since the listener last heard.
class CurlTransfer {
 public:
  CURL* easy = nullptr;
  ITransferListener* listener = nullptr;
  MultiDriver* driver = nullptr;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  long headerStatus = 0;   // status of the response whose header is arriving
  long challenge = 0;      // 401/403/407 once seen; the transfer was aborted for it
  size_t pendingBytes = 0; // body bytes not yet reported through OnTransferData
  // Body bytes gathered into a whole piece; what is left over is handed out after each round.
  char staged[kMaxChunk];
  size_t stagedBytes = 0;
  bool finished = false;   // libcurl reported the transfer done, or a piece could not be kept
  bool storeFailed = false;  // the listener could not keep a piece: the transfer has failed
  CURLcode result = CURLE_OK;
  bool endReported = false;

  ~CurlTransfer();
};

namespace {

// Hands `size` bytes to the listener; a piece it cannot keep fails the transfer, and nothing
// more is handed over.
void HandOver(CurlTransfer* transfer, const char* data, size_t size) {
  if (transfer->storeFailed) return;
  if (!transfer->listener->OnTransferChunk(data, size)) transfer->storeFailed = true;
}

void FlushStaged(CurlTransfer* transfer) {
  if (transfer->stagedBytes == 0) return;
  size_t bytes = transfer->stagedBytes;
  transfer->stagedBytes = 0;
  HandOver(transfer, transfer->staged, bytes);
}

}  // namespace

namespace {

class MultiDriver {
 public:
  static MultiDriver* ForThisThread() {
    if (!t_driver) t_driver = new MultiDriver();
    return t_driver;
  }

  bool Ok() const { return m_multi != nullptr; }

  bool Add(CurlTransfer* transfer, std::string* error) {
    CURLMcode rc = curl_multi_add_handle(m_multi, transfer->easy);
    if (rc != CURLM_OK) {
      *error = curl_multi_strerror(rc);
      return false;
    }
    m_transfers.push_back(transfer);
    return true;
  }

  void Remove(CurlTransfer* transfer) {
    curl_multi_remove_handle(m_multi, transfer->easy);
    m_transfers.erase(std::remove(m_transfers.begin(), m_transfers.end(), transfer), m_transfers.end());
    RetireWhenIdle();
  }

  // Drops the driver (after a transfer has gone) unless transfers remain or a report is running.
  void RetireWhenIdle() {
    if (m_depth == 0 && m_transfers.empty()) delete this;
  }

 private:
  MultiDriver() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    m_multi = curl_multi_init();
    if (!m_multi) return;
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, &MultiDriver::OnSocket);
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, &MultiDriver::OnTimer);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
  }

  ~MultiDriver() {
    // Closing cached connections may still call OnSocket, so the watches go last.
    CURLM* multi = m_multi;
    m_multi = nullptr;
    if (multi) curl_multi_cleanup(multi);
    for (SocketWatch* watch : m_watches) {
      if (watch->sourceId) g_source_remove(watch->sourceId);
      delete watch;
    }
    m_watches.clear();
    RemoveTimer();
    if (t_driver == this) t_driver = nullptr;
  }

  static guint AttachRecursive(GSource* source, GSourceFunc func, gpointer data) {
    // A listener may run a nested loop from a report; the loop must still serve our sources.
    g_source_set_can_recurse(source, TRUE);
    g_source_set_callback(source, func, data, nullptr);
    guint id = g_source_attach(source, nullptr);
    g_source_unref(source);
    return id;
  }

  void RemoveTimer() {
    if (m_timerId == 0) return;
    guint id = m_timerId;
    m_timerId = 0;
    g_source_remove(id);
  }

  // CURLMOPT_TIMERFUNCTION: a new time-out replaces the old one, -1 removes it.
  static int OnTimer(CURLM*, long timeoutMs, void* userp) {
    MultiDriver* self = static_cast<MultiDriver*>(userp);
    self->RemoveTimer();
    if (timeoutMs < 0) return 0;
    guint ms = timeoutMs > G_MAXINT ? G_MAXINT : static_cast<guint>(timeoutMs);
    self->m_timerId = AttachRecursive(g_timeout_source_new(ms), &MultiDriver::OnTimerFired, self);
    return 0;
  }

  static gboolean OnTimerFired(gpointer data) {
    MultiDriver* self = static_cast<MultiDriver*>(data);
    self->m_timerId = 0;  // this source finishes now; libcurl may ask for a new one below
    self->Act(CURL_SOCKET_TIMEOUT, 0);
    return G_SOURCE_REMOVE;
  }

  // CURLMOPT_SOCKETFUNCTION: keeps one GLib source per socket, watching what libcurl waits for.
  // A watch that cannot be made fails the socket's transfers (-1), as libcurl documents.
  static int OnSocket(CURL*, curl_socket_t fd, int what, void* userp, void* socketp) try {
    MultiDriver* self = static_cast<MultiDriver*>(userp);
    SocketWatch* watch = static_cast<SocketWatch*>(socketp);
    if (what == CURL_POLL_REMOVE) {
      if (watch) self->DropWatch(watch);
      return 0;
    }
    if (!watch) {
      watch = new SocketWatch;
      watch->fd = fd;
      watch->driver = self;
      self->m_watches.insert(watch);
      curl_multi_assign(self->m_multi, fd, watch);
    }
    if (watch->sourceId) {
      g_source_remove(watch->sourceId);
      watch->sourceId = 0;
    }
    int condition = G_IO_ERR | G_IO_HUP;
    if (what & CURL_POLL_IN) condition |= G_IO_IN;
    if (what & CURL_POLL_OUT) condition |= G_IO_OUT;
    GSource* source = g_unix_fd_source_new(fd, static_cast<GIOCondition>(condition));
    watch->sourceId = AttachRecursive(source, G_SOURCE_FUNC(&MultiDriver::OnSocketReady), watch);
    return 0;
  }
  GPC_BOUNDARY_CATCH(-1)

  void DropWatch(SocketWatch* watch) {
    if (watch->sourceId) g_source_remove(watch->sourceId);
    m_watches.erase(watch);
    if (m_multi) curl_multi_assign(m_multi, watch->fd, nullptr);
    delete watch;
  }

  static gboolean OnSocketReady(gint fd, GIOCondition condition, gpointer data) {
    MultiDriver* self = static_cast<SocketWatch*>(data)->driver;
    int mask = 0;
    if (condition & (G_IO_IN | G_IO_HUP)) mask |= CURL_CSELECT_IN;
    if (condition & G_IO_OUT) mask |= CURL_CSELECT_OUT;
    if (condition & G_IO_ERR) mask |= CURL_CSELECT_ERR;
    // The watch (and the driver) may be gone after this; touch neither.
    self->Act(fd, mask);
    return G_SOURCE_CONTINUE;
  }

  // One round of socket activity: let libcurl work, then tell the listeners. It runs from the event
  // loop: nothing a listener throws goes on into GLib.
  void Act(curl_socket_t fd, int mask) noexcept {
    ++m_depth;
    try {
      ActAndReport(fd, mask);
    } catch (...) {
      ::gpc::LogStoppedException("MultiDriver::Act");
    }
    --m_depth;
    RetireWhenIdle();
  }

  void ActAndReport(curl_socket_t fd, int mask) {
    int running = 0;
    curl_multi_socket_action(m_multi, fd, mask, &running);
    for (CurlTransfer* transfer : m_transfers) FlushStaged(transfer);
    CollectFinished();
    // A transfer whose data could not be kept ends now, whatever libcurl thinks of it.
    for (CurlTransfer* transfer : m_transfers) {
      transfer->finished = transfer->finished || transfer->storeFailed;
    }
    Report();
  }

  void CollectFinished() {
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(m_multi, &left)) {
      if (msg->msg != CURLMSG_DONE) continue;
      CurlTransfer* transfer = nullptr;
      curl_easy_getinfo(msg->easy_handle, CURLINFO_PRIVATE, reinterpret_cast<char**>(&transfer));
      if (!transfer) continue;
      transfer->finished = true;
      transfer->result = msg->data.result;
      long connectCode = 0;
      curl_easy_getinfo(msg->easy_handle, CURLINFO_HTTP_CONNECTCODE, &connectCode);
      if (!transfer->challenge && IsChallengeStatus(connectCode)) transfer->challenge = connectCode;
    }
  }

  bool IsLive(CurlTransfer* transfer) const {
    return std::find(m_transfers.begin(), m_transfers.end(), transfer) != m_transfers.end();
  }

  // Listeners may delete any transfer (and start new ones), so every step re-checks.
  void Report() {
    std::vector<CurlTransfer*> snapshot = m_transfers;
    for (CurlTransfer* transfer : snapshot) {
      if (!IsLive(transfer)) continue;
      if (transfer->pendingBytes > 0) {
        size_t bytes = transfer->pendingBytes;
        transfer->pendingBytes = 0;
        transfer->listener->OnTransferData(bytes);
        if (!IsLive(transfer)) continue;
      }
      if (!transfer->finished || transfer->endReported) continue;
      transfer->endReported = true;
      if (transfer->challenge) {
        transfer->listener->OnTransferChallenge(transfer->challenge);
      } else {
        bool complete = transfer->result == CURLE_OK && !transfer->storeFailed;
        const char* error = transfer->storeFailed      ? curl_easy_strerror(CURLE_WRITE_ERROR)
                            : transfer->errorBuffer[0] ? transfer->errorBuffer
                                                       : curl_easy_strerror(transfer->result);
        transfer->listener->OnTransferEnd(complete, complete ? "" : error);
      }
    }
  }

  CURLM* m_multi = nullptr;
  guint m_timerId = 0;
  int m_depth = 0;
  std::vector<CurlTransfer*> m_transfers;
  std::set<SocketWatch*> m_watches;
};

size_t OnHeader(char* buffer, size_t size, size_t count, void* userp) {
  CurlTransfer* transfer = static_cast<CurlTransfer*>(userp);
  size_t length = size * count;
  if (length >= 5 && memcmp(buffer, "HTTP/", 5) == 0) {
    const char* blank = static_cast<const char*>(memchr(buffer, ' ', length));
    transfer->headerStatus = blank ? strtol(blank + 1, nullptr, 10) : 0;
  } else if (length <= 2 && (buffer[0] == '\r' || buffer[0] == '\n')) {
    // The header is complete: an authentication challenge ends the transfer here.
    if (IsChallengeStatus(transfer->headerStatus)) {
      transfer->challenge = transfer->headerStatus;
      return 0;
    }
  }
  return length;
}

// libcurl hands over the body in blocks of its own size (often one more byte than a piece may
// hold); gathering them into whole pieces keeps the listener's work per byte low.
size_t OnBody(char* data, size_t size, size_t count, void* userp) {
  CurlTransfer* transfer = static_cast<CurlTransfer*>(userp);
  size_t length = size * count;
  transfer->pendingBytes += length;
  while (length > 0 && !transfer->storeFailed) {
    size_t take = std::min(kMaxChunk - transfer->stagedBytes, length);
    if (transfer->stagedBytes == 0 && take == kMaxChunk) {
      HandOver(transfer, data, take);
    } else {
      memcpy(transfer->staged + transfer->stagedBytes, data, take);
      transfer->stagedBytes += take;
      if (transfer->stagedBytes == kMaxChunk) FlushStaged(transfer);
    }
    data += take;
    length -= take;
  }
  // Anything short of the whole block makes libcurl stop the transfer.
  return transfer->storeFailed ? 0 : size * count;
}

// The connection closes on exec: a program the browser or the extension starts must not keep it,
// and with it the server's side, open after the download ends.
curl_socket_t OpenSocketClosedOnExec(void*, curlsocktype, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

bool Configure(CurlTransfer* transfer, const TransferRequest& request) {
  CURL* easy = transfer->easy;
  bool ok = curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str()) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errorBuffer) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L) == CURLE_OK;
  // A transfer stopped while its host name is looked up leaves the lookup to finish on its own;
  // libcurl would otherwise hold the browser's thread until the resolver answers.
  ok = ok && curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &OpenSocketClosedOnExec) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1)) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https") == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 20L) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &OnHeader) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &OnBody) == CURLE_OK;
  ok = ok && curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer) == CURLE_OK;
  // The hardened build verifies every server against the system's anchors.
  if (request.acceptAnyCertificate && !gpc::GpcHardened()) {
    ok = ok && curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L) == CURLE_OK;
    ok = ok && curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L) == CURLE_OK;
  }
  if (!request.proxyUser.empty()) {
    ok = ok && curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, request.proxyUser.c_str()) == CURLE_OK;
    ok = ok && curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, request.proxyPassword.c_str()) == CURLE_OK;
    ok = ok && curl_easy_setopt(easy, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC)) == CURLE_OK;
  }
  return ok;
}

}  // namespace

CurlTransfer::~CurlTransfer() {
  if (!easy) return;
  if (driver) driver->Remove(this);  // may retire the driver
  curl_easy_cleanup(easy);
}

void CurlTransferDeleter::operator()(CurlTransfer* transfer) const { delete transfer; }

CurlTransferPtr StartTransfer(const TransferRequest& request, ITransferListener* listener,
                              std::string* error) {
  std::string ignored;
  if (!error) error = &ignored;
  MultiDriver* driver = MultiDriver::ForThisThread();
  if (!driver->Ok()) {
    *error = "curl_multi_init failed";
    driver->RetireWhenIdle();
    return nullptr;
  }
  CurlTransferPtr transfer(new CurlTransfer);
  transfer->listener = listener;
  transfer->easy = curl_easy_init();
  if (!transfer->easy || !Configure(transfer.get(), request)) {
    *error = transfer->easy ? "curl_easy_setopt failed" : "curl_easy_init failed";
    transfer.reset();
    driver->RetireWhenIdle();
    return nullptr;
  }
  if (!driver->Add(transfer.get(), error)) {
    transfer.reset();
    driver->RetireWhenIdle();
    return nullptr;
  }
  transfer->driver = driver;
  return transfer;
}

bool IsWellFormedUrl(const std::string& url) {
  CURLU* handle = curl_url();
  if (!handle) return false;
  bool ok = curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK;
  curl_url_cleanup(handle);
  return ok;
}

std::string EscapeUrl(const std::string& url) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(url.size());
  for (unsigned char c : url) {
    bool illegal = c <= 0x20 || c >= 0x7f || strchr("\"<>\\^`{|}", c) != nullptr;
    if (!illegal) {
      escaped += static_cast<char>(c);
      continue;
    }
    escaped += '%';
    escaped += kHex[c >> 4];
    escaped += kHex[c & 0xf];
  }
  return escaped;
}

}  // namespace gpcnet
