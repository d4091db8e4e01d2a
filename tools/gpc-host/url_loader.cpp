#include "url_loader.h"

#include <cstring>
#include <strings.h>
#include <sys/socket.h>

struct UrlLoader::SocketWatch {
  curl_socket_t fd = CURL_SOCKET_BAD;
  GIOChannel* channel = nullptr;
  guint source = 0;
};

namespace {

constexpr size_t kHeldBodyBytes = 1 << 20;

// Marks the final response's headers as in, reading what curl knows of them.
void MarkHeadersDone(Transfer* transfer) {
  if (transfer->headers_done) return;
  transfer->headers_done = true;
  curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &transfer->status);
  long redirects = 0;
  char* final_url = nullptr;
  if (curl_easy_getinfo(transfer->easy, CURLINFO_REDIRECT_COUNT, &redirects) == CURLE_OK && redirects > 0 &&
      curl_easy_getinfo(transfer->easy, CURLINFO_EFFECTIVE_URL, &final_url) == CURLE_OK && final_url != nullptr)
    transfer->final_url = final_url;
  char* type = nullptr;
  if (curl_easy_getinfo(transfer->easy, CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type != nullptr)
    transfer->content_type = type;
  curl_off_t length = -1;
  if (curl_easy_getinfo(transfer->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK)
    transfer->content_length = length;
}

// Whether a response's header lines (its status line first) hold a Location header.
bool HasLocation(const std::string& headers) {
  for (size_t at = headers.find('\n'); at != std::string::npos; at = headers.find('\n', at + 1)) {
    if (strncasecmp(headers.c_str() + at + 1, "location:", 9) == 0) return true;
  }
  return false;
}

}  // namespace

UrlLoader::UrlLoader(std::function<void()> changed) : m_changed(std::move(changed)) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  m_multi = curl_multi_init();
  curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, &UrlLoader::OnSocket);
  curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, &UrlLoader::OnTimer);
  curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
}

UrlLoader::~UrlLoader() {
  while (!m_transfers.empty()) Release(m_transfers.begin()->first);
  if (timeout_source_ != 0) g_source_remove(timeout_source_);
  curl_multi_cleanup(m_multi);
  curl_global_cleanup();
}

namespace {

// The connection closes on exec: tlvtracer, started again while a fetch runs, must not keep it.
curl_socket_t OpenSocketClosedOnExec(void*, curlsocktype, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

}  // namespace

Transfer* UrlLoader::Start(const std::string& url, bool post, const std::string& body,
                           const char* user_agent) {
  CURL* easy = curl_easy_init();
  if (easy == nullptr) return nullptr;
  auto transfer = std::make_unique<Transfer>();
  transfer->id = next_id_++;
  transfer->url = url;
  transfer->post = post;
  transfer->post_body = body;
  transfer->easy = easy;
  curl_easy_setopt(easy, CURLOPT_URL, transfer->url.c_str());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errbuf);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &UrlLoader::OnHeader);
  // A proxy's answer to CONNECT is no response of the server's: its blank line opens no stream.
  curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &UrlLoader::OnBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
  // As a browser: no page reaches other services through schemes that send raw bytes (gopher, dict).
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, 30L);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);  // a stop mid-lookup does not wait for the resolver
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &OpenSocketClosedOnExec);
  if (user_agent != nullptr) curl_easy_setopt(easy, CURLOPT_USERAGENT, user_agent);
  if (post) {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, transfer->post_body.data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(transfer->post_body.size()));
  }
  if (curl_multi_add_handle(m_multi, easy) != CURLM_OK) {
    curl_easy_cleanup(easy);
    return nullptr;
  }
  Transfer* raw = transfer.get();
  m_transfers[raw->id] = std::move(transfer);
  return raw;
}

Transfer* UrlLoader::Find(int id) {
  auto it = m_transfers.find(id);
  return it == m_transfers.end() ? nullptr : it->second.get();
}

void UrlLoader::ResumeIfTaken(Transfer* transfer) {
  if (transfer == nullptr || !transfer->paused || transfer->data.size() >= kHeldBodyBytes / 2) return;
  transfer->paused = false;
  curl_easy_pause(transfer->easy, CURLPAUSE_CONT);
}

void UrlLoader::Release(int id) {
  auto it = m_transfers.find(id);
  if (it == m_transfers.end()) return;
  // Removing an unfinished handle closes its sockets through OnSocket.
  curl_multi_remove_handle(m_multi, it->second->easy);
  curl_easy_cleanup(it->second->easy);
  m_transfers.erase(it);
}

size_t UrlLoader::OnHeader(char* data, size_t size, size_t count, void* opaque) {
  Transfer* transfer = static_cast<Transfer*>(opaque);
  size_t length = size * count;
  // Each response of a redirect chain starts with its status line; keep only the last.
  if (length >= 5 && strncasecmp(data, "HTTP/", 5) == 0) transfer->headers.clear();
  std::string line(data, length);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (!line.empty()) {
    transfer->headers += line + "\n";
    return length;
  }
  // The end of a response's headers: a browser opens the stream now, before any of the body.
  // Not for an interim (1xx) answer, nor for a redirect about to be followed.
  long status = 0;
  curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
  const bool redirect = status >= 300 && status < 400 && HasLocation(transfer->headers);
  if (status >= 200 && !redirect) MarkHeadersDone(transfer);
  return length;
}

size_t UrlLoader::OnBody(char* data, size_t size, size_t count, void* opaque) {
  Transfer* transfer = static_cast<Transfer*>(opaque);
  MarkHeadersDone(transfer);
  // An error page's body reaches no stream: it is not kept, however long the server sends it.
  if (transfer->status >= 400) return size * count;
  // A plug-in that reads slowly holds the body back: past about a megabyte the transfer waits, and
  // libcurl hands the same bytes again when it goes on.
  if (transfer->data.size() >= kHeldBodyBytes) {
    transfer->paused = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  transfer->data.append(data, size * count);
  return size * count;
}

int UrlLoader::OnSocket(CURL* easy, curl_socket_t fd, int what, void* self, void* watch) {
  UrlLoader* loader = static_cast<UrlLoader*>(self);
  SocketWatch* socket_watch = static_cast<SocketWatch*>(watch);
  if (what == CURL_POLL_REMOVE) {
    if (socket_watch != nullptr) {
      loader->RemoveWatch(socket_watch);
      curl_multi_assign(loader->m_multi, fd, nullptr);
    }
  } else {
    loader->SetWatch(fd, what, socket_watch, easy);
  }
  return 0;
}

void UrlLoader::SetWatch(curl_socket_t fd, int what, SocketWatch* watch, CURL*) {
  if (watch == nullptr) {
    watch = new SocketWatch;
    watch->fd = fd;
    watch->channel = g_io_channel_unix_new(fd);
    curl_multi_assign(m_multi, fd, watch);
  } else if (watch->source != 0) {
    g_source_remove(watch->source);
    watch->source = 0;
  }
  int condition = (what & CURL_POLL_IN ? G_IO_IN : 0) | (what & CURL_POLL_OUT ? G_IO_OUT : 0);
  watch->source = g_io_add_watch(watch->channel, static_cast<GIOCondition>(condition | G_IO_ERR | G_IO_HUP),
                                 &UrlLoader::OnSocketReady, this);
}

void UrlLoader::RemoveWatch(SocketWatch* watch) {
  if (watch->source != 0) g_source_remove(watch->source);
  g_io_channel_unref(watch->channel);
  delete watch;
}

gboolean UrlLoader::OnSocketReady(GIOChannel* channel, GIOCondition condition, gpointer self) {
  int action = (condition & G_IO_IN ? CURL_CSELECT_IN : 0) | (condition & G_IO_OUT ? CURL_CSELECT_OUT : 0) |
               (condition & (G_IO_ERR | G_IO_HUP) ? CURL_CSELECT_ERR : 0);
  // The watch may be replaced or removed while curl runs; curl re-adds what it still needs.
  static_cast<UrlLoader*>(self)->Drive(g_io_channel_unix_get_fd(channel), action);
  return G_SOURCE_CONTINUE;
}

int UrlLoader::OnTimer(CURLM*, long timeout_ms, void* self) {
  UrlLoader* loader = static_cast<UrlLoader*>(self);
  if (loader->timeout_source_ != 0) {
    g_source_remove(loader->timeout_source_);
    loader->timeout_source_ = 0;
  }
  if (timeout_ms >= 0)
    loader->timeout_source_ = g_timeout_add(static_cast<guint>(timeout_ms), &UrlLoader::OnTimeout, loader);
  return 0;
}

gboolean UrlLoader::OnTimeout(gpointer self) {
  UrlLoader* loader = static_cast<UrlLoader*>(self);
  loader->timeout_source_ = 0;
  loader->Drive(CURL_SOCKET_TIMEOUT, 0);
  return G_SOURCE_REMOVE;
}

void UrlLoader::Drive(curl_socket_t fd, int action) {
  int running = 0;
  curl_multi_socket_action(m_multi, fd, action, &running);
  CollectFinished();
  if (m_changed) m_changed();
}

void UrlLoader::CollectFinished() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    Transfer* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    if (transfer == nullptr) continue;
    transfer->result = message->data.result;
    if (transfer->result != CURLE_OK)
      transfer->error = transfer->errbuf[0] != '\0' ? transfer->errbuf : curl_easy_strerror(transfer->result);
    MarkHeadersDone(transfer);
    transfer->finished = true;
  }
}
