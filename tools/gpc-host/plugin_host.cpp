#include "plugin_host.h"

#include <algorithm>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <unistd.h>
#include <vector>

#include <curl/curl.h>

#include "json_line.h"

namespace {

PluginHost* g_host = nullptr;

constexpr const char kPluginMime[] = "application/x-talvo-gpc";
constexpr const char kUserAgent[] = "Mozilla/5.0 (X11; Linux x86_64) gpc-host/1.0";
// The datum by which the plug-in recognises the stream that carries the page's own URL.
void* const kHostPageDatum = reinterpret_cast<void*>(100);
// A browser's table is longer than the part the plug-in reads; the host hands out a full one.
constexpr uint16_t kBrowserVersion = 0x0013;
constexpr int kMoreBrowserSlots = 40;
constexpr int32_t kMaxWriteChunk = 64 * 1024;
constexpr guint kWriteRetryMs = 10;

struct FullBrowserFuncs {
  NPNetscapeFuncs funcs;
  void* more[kMoreBrowserSlots];
};
struct FullPluginFuncs {
  NPPluginFuncs funcs;
  void* more[8];
};

std::string MimeOf(const std::string& content_type) {
  std::string mime = content_type.substr(0, content_type.find(';'));
  while (!mime.empty() && mime.back() == ' ') mime.pop_back();
  return mime.empty() ? "application/octet-stream" : mime;
}

// The body of a post: the buffer itself, or the file it names when `file` is set.
bool PostBody(const char* buf, uint32_t len, NPBool file, std::string* body) {
  if (!file) {
    body->assign(buf != nullptr ? buf : "", buf != nullptr ? len : 0);
    return true;
  }
  if (buf == nullptr) return false;
  std::string path(buf, strnlen(buf, len));
  if (path.rfind("file://", 0) == 0) path.erase(0, 7);
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  body->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

// What a browser's URL parser does: tabs and line breaks anywhere, and spaces and control
// characters at either end, are not part of the URL; a space or control character within it is
// sent percent-encoded (libcurl would refuse the URL).
std::string CleanUrl(const std::string& url) {
  std::string kept;
  for (char c : url)
    if (c != '\t' && c != '\n' && c != '\r') kept += c;
  size_t first = 0, last = kept.size();
  while (first < last && static_cast<unsigned char>(kept[first]) <= 0x20) ++first;
  while (last > first && static_cast<unsigned char>(kept[last - 1]) <= 0x20) --last;
  std::string out;
  for (size_t i = first; i < last; ++i) {
    const unsigned char c = static_cast<unsigned char>(kept[i]);
    if (c > 0x20 && c != 0x7f) {
      out += static_cast<char>(c);
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", c);
      out += escaped;
    }
  }
  return out;
}

// The URL a browser fetches for `url` on the page at `page`: a URL without a scheme of its own is
// relative to the page (its fragment aside). Left as it is without a page, or when it cannot be resolved.
std::string ResolvedUrl(std::string page, const std::string& url) {
  page = page.substr(0, page.find('#'));
  std::string resolved = url;
  CURLU* parts = curl_url();
  char* whole = nullptr;
  if (parts != nullptr && !page.empty() && curl_url_set(parts, CURLUPART_URL, url.c_str(), 0) != CURLUE_OK &&
      curl_url_set(parts, CURLUPART_URL, page.c_str(), 0) == CURLUE_OK &&
      curl_url_set(parts, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
      curl_url_get(parts, CURLUPART_URL, &whole, 0) == CURLUE_OK) {
    resolved = whole;
  }
  curl_free(whole);
  curl_url_cleanup(parts);
  return resolved;
}

const char* NullIfEmpty(const char* text) { return text != nullptr && *text != '\0' ? text : nullptr; }

// The host of the instance a call names; the module's own host for calls without one.
PluginHost* HostOf(NPP npp) {
  return npp != nullptr && npp->ndata != nullptr ? static_cast<PluginHost*>(npp->ndata) : g_host;
}

}  // namespace

struct PluginHost::Request {
  int id = 0;
  std::string call;
  std::string url;
  std::string stream_url;  // the URL the stream is opened under: where redirects ended
  std::string target;
  bool notify = false;
  void* notify_data = nullptr;
  bool post = false;
  std::string body;

  int transfer_id = 0;
  bool http_failed = false;
  NPStream stream = {};
  bool stream_open = false;
  uint16_t stype = NP_NORMAL;
  int64_t offset = 0;  // NPAPI's offsets are 32-bit: past 2 GiB the plug-in is told INT32_MAX
  std::string headers;
  std::string file_path;
  FILE* file = nullptr;
  bool copy_failed = false;  // the as-file copy is not whole (no file, a full disk): never handed on
  int64_t bytes = 0;
};

// ---- The browser's functions, as the plug-in calls them --------------------------------------------

struct BrowserCalls {
  static NPError GetURL(NPP npp, const char* url, const char* target) {
    return HostOf(npp)->OnGetURL("GetURL", url, target, false, nullptr, false, std::string());
  }
  static NPError GetURLNotify(NPP npp, const char* url, const char* target, void* data) {
    return HostOf(npp)->OnGetURL("GetURLNotify", url, target, true, data, false, std::string());
  }
  static NPError PostURL(NPP npp, const char* url, const char* target, uint32_t len, const char* buf, NPBool file) {
    std::string body;
    if (!PostBody(buf, len, file, &body)) return NPERR_FILE_NOT_FOUND;
    return HostOf(npp)->OnGetURL("PostURL", url, target, false, nullptr, true, body);
  }
  static NPError PostURLNotify(NPP npp, const char* url, const char* target, uint32_t len, const char* buf,
                               NPBool file, void* data) {
    std::string body;
    if (!PostBody(buf, len, file, &body)) return NPERR_FILE_NOT_FOUND;
    return HostOf(npp)->OnGetURL("PostURLNotify", url, target, true, data, true, body);
  }
  static NPError RequestRead(NPStream*, NPByteRange*) { return NPERR_STREAM_NOT_SEEKABLE; }
  // Streams from the plug-in to the browser are not offered by this host.
  static NPError NewStream(NPP, NPMIMEType type, const char* target, NPStream**) {
    JsonLine("plugin_stream").Add("mime", type).Add("target", target).Add("result", NPERR_GENERIC_ERROR).Emit();
    return NPERR_GENERIC_ERROR;
  }
  static int32_t Write(NPP, NPStream*, int32_t, void*) { return -1; }
  static NPError DestroyStream(NPP, NPStream*, NPReason) { return NPERR_GENERIC_ERROR; }
  static void Status(NPP, const char* message) { JsonLine("status").Add("message", message).Emit(); }
  static const char* UserAgent(NPP) { return kUserAgent; }
  static void* MemAlloc(uint32_t size) { return std::malloc(size); }
  static void MemFree(void* ptr) { std::free(ptr); }
  static uint32_t MemFlush(uint32_t) { return 0; }
  static void ReloadPlugins(NPBool) {}
  static void* GetJavaEnv(void) { return nullptr; }
  static void* GetJavaPeer(NPP) { return nullptr; }
  static NPError GetValue(NPP npp, NPNVariable variable, void* value) {
    if (value == nullptr) return NPERR_INVALID_PARAM;
    NPError result = NPERR_NO_ERROR;
    switch (variable) {
      case NPNVsupportsCoreGraphicsBool:
      case NPNVsupportsCocoaBool:
        *static_cast<NPBool*>(value) = HostOf(npp)->m_options.models;
        break;
      case NPNVSupportsXEmbedBool:
      case NPNVprivateModeBool:
      case NPNVisOfflineBool:
      case NPNVSupportsWindowless:
        *static_cast<NPBool*>(value) = false;
        break;
      case NPNVjavascriptEnabledBool:
        *static_cast<NPBool*>(value) = true;
        break;
      default:
        result = NPERR_GENERIC_ERROR;
    }
    JsonLine line("get_value");
    line.Add("variable", static_cast<int>(variable)).Add("result", result);
    if (result == NPERR_NO_ERROR) line.AddBool("value", *static_cast<NPBool*>(value) != 0);
    line.Emit();
    return result;
  }
  static NPError SetValue(NPP, NPPVariable variable, void* value) {
    JsonLine("set_value")
        .Add("variable", static_cast<int>(variable))
        .Add("value", static_cast<int64_t>(reinterpret_cast<intptr_t>(value)))
        .Emit();
    return NPERR_NO_ERROR;
  }
  static void InvalidateRect(NPP, NPRect*) {}
  static void InvalidateRegion(NPP, NPRegion) {}
  static void ForceRedraw(NPP) {}

  static void Fill(NPNetscapeFuncs* funcs) {
    funcs->size = sizeof(FullBrowserFuncs);
    funcs->version = kBrowserVersion;
    funcs->geturl = GetURL;
    funcs->posturl = PostURL;
    funcs->requestread = RequestRead;
    funcs->newstream = NewStream;
    funcs->write = Write;
    funcs->destroystream = DestroyStream;
    funcs->status = Status;
    funcs->uagent = UserAgent;
    funcs->memalloc = MemAlloc;
    funcs->memfree = MemFree;
    funcs->memflush = MemFlush;
    funcs->reloadplugins = ReloadPlugins;
    funcs->getJavaEnv = GetJavaEnv;
    funcs->getJavaPeer = GetJavaPeer;
    funcs->geturlnotify = GetURLNotify;
    funcs->posturlnotify = PostURLNotify;
    funcs->getvalue = GetValue;
    funcs->setvalue = SetValue;
    funcs->invalidaterect = InvalidateRect;
    funcs->invalidateregion = InvalidateRegion;
    funcs->forceredraw = ForceRedraw;
  }
};

// ---- Life of the module and the instance ---------------------------------------------------------

PluginHost::PluginHost(const HostOptions& options) : m_options(options) {
  g_host = this;
  auto* browser = new FullBrowserFuncs();
  BrowserCalls::Fill(&browser->funcs);
  browser_funcs_ = &browser->funcs;
  auto* plugin = new FullPluginFuncs();
  plugin->funcs.size = sizeof(FullPluginFuncs);
  plugin_funcs_ = &plugin->funcs;
  m_npp.ndata = this;
  m_loader = std::make_unique<UrlLoader>([this] { SchedulePump(); });
}

PluginHost::PluginHost(const HostOptions& options, const PluginHost& module)
    : m_options(options),
      owns_module_(false),
      browser_funcs_(module.browser_funcs_),
      plugin_funcs_(module.plugin_funcs_) {
  m_npp.ndata = this;
  m_loader = std::make_unique<UrlLoader>([this] { SchedulePump(); });
}

PluginHost::~PluginHost() {
  Unload();
  m_loader.reset();
  if (pump_source_ != 0) g_source_remove(pump_source_);
  if (notify_source_ != 0) g_source_remove(notify_source_);
  if (m_loop != nullptr) g_main_loop_unref(m_loop);
  if (!owns_module_) return;
  delete reinterpret_cast<FullBrowserFuncs*>(browser_funcs_);
  delete reinterpret_cast<FullPluginFuncs*>(plugin_funcs_);
  g_host = nullptr;
}

bool PluginHost::Load() {
  m_module = dlopen(m_options.plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_module == nullptr) {
    JsonLine("load").Add("plugin", m_options.plugin).AddBool("ok", false).Add("error", dlerror()).Emit();
    return false;
  }
  auto mime_description = reinterpret_cast<NP_GetMIMEDescriptionFunc>(dlsym(m_module, "NP_GetMIMEDescription"));
  auto get_value = reinterpret_cast<NP_GetValueFunc>(dlsym(m_module, "NP_GetValue"));
  auto initialize = reinterpret_cast<NP_InitializeFunc>(dlsym(m_module, "NP_Initialize"));
  m_shutdown = reinterpret_cast<NP_ShutdownFunc>(dlsym(m_module, "NP_Shutdown"));
  bool complete = initialize != nullptr && m_shutdown != nullptr;
  JsonLine("load").Add("plugin", m_options.plugin).AddBool("ok", complete).Emit();
  if (!complete) {
    m_shutdown = nullptr;  // a module that cannot start is not shut down either
    return false;
  }

  if (mime_description != nullptr)
    JsonLine("entry").Add("name", "NP_GetMIMEDescription").Add("value", mime_description()).Emit();
  NPError result = initialize(browser_funcs_, plugin_funcs_);
  JsonLine("entry")
      .Add("name", "NP_Initialize")
      .Add("result", result)
      .Add("plugin_table_size", plugin_funcs_->size)
      .Add("plugin_version", plugin_funcs_->version)
      .AddBool("urlnotify", plugin_funcs_->urlnotify != nullptr)
      .Emit();
  if (result != NPERR_NO_ERROR) {
    m_shutdown = nullptr;  // a module that refused to start is not shut down
    return false;
  }
  if (get_value != nullptr) {
    for (NPPVariable variable : {NPPVpluginNameString, NPPVpluginDescriptionString}) {
      const char* text = nullptr;
      NPError got = get_value(nullptr, variable, &text);
      JsonLine("entry")
          .Add("name", "NP_GetValue")
          .Add("variable", static_cast<int>(variable))
          .Add("result", got)
          .Add("value", got == NPERR_NO_ERROR ? text : nullptr)
          .Emit();
    }
  }
  return plugin_funcs_->newp != nullptr && plugin_funcs_->destroy != nullptr;
}

bool PluginHost::CreateInstance() {
  std::vector<char*> names, values;
  for (auto& param : m_options.params) {
    names.push_back(const_cast<char*>(param.first.c_str()));
    values.push_back(const_cast<char*>(param.second.c_str()));
  }
  char mime[] = "application/x-talvo-gpc";
  NPError result = plugin_funcs_->newp(mime, &m_npp, NP_EMBED, static_cast<int16_t>(names.size()),
                                       names.data(), values.data(), nullptr);
  JsonLine("instance").Add("mime", kPluginMime).Add("params", static_cast<int>(names.size())).Add("result", result).Emit();
  if (result != NPERR_NO_ERROR) return false;
  instance_live_ = true;

  if (!m_options.page_url.empty()) DeliverPageUrl();

  m_window.window = nullptr;
  m_window.width = m_options.width;
  m_window.height = m_options.height;
  m_window.clipRect = {0, 0, static_cast<uint16_t>(m_options.height), static_cast<uint16_t>(m_options.width)};
  m_window.type = NPWindowTypeDrawable;
  NPError set = plugin_funcs_->setwindow != nullptr ? plugin_funcs_->setwindow(&m_npp, &m_window)
                                                      : static_cast<NPError>(NPERR_GENERIC_ERROR);
  JsonLine("set_window").Add("width", static_cast<int>(m_window.width)).Add("height", static_cast<int>(m_window.height)).Add("result", set).Emit();
  return true;
}

// The page's URL reaches the plug-in as a stream of its own, marked by the datum 100.
void PluginHost::DeliverPageUrl() {
  NPStream stream = {};
  stream.url = m_options.page_url.c_str();
  stream.end = static_cast<uint32_t>(m_options.page_url.size());
  stream.notifyData = kHostPageDatum;
  uint16_t stype = NP_NORMAL;
  char mime[] = "text/plain";
  NPError opened = plugin_funcs_->newstream(&m_npp, mime, &stream, false, &stype);
  int32_t ready = 0, written = 0;
  NPError ended = NPERR_GENERIC_ERROR;
  if (opened == NPERR_NO_ERROR) {
    ready = plugin_funcs_->writeready(&m_npp, &stream);
    std::string body = m_options.page_url;
    written = plugin_funcs_->write(&m_npp, &stream, 0, static_cast<int32_t>(body.size()), &body[0]);
    ended = plugin_funcs_->destroystream(&m_npp, &stream, NPRES_DONE);
  }
  JsonLine("page_url")
      .Add("url", m_options.page_url)
      .Add("new_stream", opened)
      .Add("write_ready", ready)
      .Add("written", written)
      .Add("destroy_stream", ended)
      .Emit();
}

void PluginHost::Run() {
  if (m_loop == nullptr) m_loop = g_main_loop_new(nullptr, FALSE);
  if (!instance_live_) return;
  run_timer_ = g_timeout_add(
      static_cast<guint>(m_options.run_ms),
      [](gpointer self) -> gboolean {
        auto* host = static_cast<PluginHost*>(self);
        host->run_timer_ = 0;
        host->Quit("run-ms");
        return G_SOURCE_REMOVE;
      },
      this);
  g_main_loop_run(m_loop);
  if (run_timer_ != 0) g_source_remove(run_timer_);
  run_timer_ = 0;
}

void PluginHost::Quit(const char* reason) {
  if (exit_reason_.empty()) exit_reason_ = reason;
  if (m_loop != nullptr) g_main_loop_quit(m_loop);
}

void PluginHost::Unload() {
  if (instance_live_) {
    // Open requests end as the user leaving the page would end them.
    std::vector<int> ids;
    for (auto& entry : m_requests) ids.push_back(entry.first);
    for (int id : ids) {
      auto it = m_requests.find(id);
      if (it == m_requests.end()) continue;
      EndRequest(it->second.get(), NPRES_USER_BREAK);
      m_loader->Release(it->second->transfer_id);
      m_requests.erase(id);
    }
    m_notices.clear();
    m_awaiting.clear();
    NPSavedData* saved = nullptr;
    NPError result = plugin_funcs_->destroy(&m_npp, &saved);
    JsonLine("destroy").Add("result", result).Add("exit_reason", exit_reason_).Emit();
    if (saved != nullptr) {
      std::free(saved->buf);
      std::free(saved);
    }
    instance_live_ = false;
  }
  if (m_shutdown != nullptr) {
    NPError result = m_shutdown();
    JsonLine("shutdown").Add("result", result).Emit();
    m_shutdown = nullptr;
  }
  if (m_module != nullptr) {
    dlclose(m_module);
    m_module = nullptr;
  }
}

// ---- Requests ----------------------------------------------------------------------------------

NPError PluginHost::OnGetURL(const char* call, const char* url, const char* target, bool notify,
                             void* notify_data, bool post, const std::string& body) {
  auto request = std::make_unique<Request>();
  request->id = next_request_id_++;
  request->call = call;
  request->url = url != nullptr ? url : "";
  request->target = NullIfEmpty(target) != nullptr ? target : "";
  request->notify = notify;
  request->notify_data = notify_data;
  request->post = post;
  request->body = body;
  JsonLine line("request");
  line.Add("id", request->id).Add("call", call).Add("method", post ? "POST" : "GET").Add("url", url);
  line.Add("target", NullIfEmpty(target)).AddBool("notify", notify);
  if (post) line.Add("body_bytes", static_cast<int64_t>(body.size()));
  line.Emit();

  if (url == nullptr || *url == '\0') return NPERR_INVALID_URL;
  if (!request->target.empty()) {
    Navigate(request.release());
    return NPERR_NO_ERROR;
  }
  Transfer* transfer = m_loader->Start(ResolvedUrl(m_options.page_url, CleanUrl(request->url)), post, body, kUserAgent);
  if (transfer == nullptr) {
    JsonLine("fetch_end").Add("id", request->id).Add("url", request->url).Add("error", "refused by curl").Emit();
    return NPERR_GENERIC_ERROR;
  }
  request->transfer_id = transfer->id;
  m_requests[request->id] = std::move(request);
  return NPERR_NO_ERROR;
}

// A request into a frame loads there, not into the plug-in: it is recorded and, when asked for,
// reported back as done.
void PluginHost::Navigate(Request* raw) {
  std::unique_ptr<Request> request(raw);
  JsonLine("navigate")
      .Add("id", request->id)
      .Add("url", request->url)
      .Add("target", request->target)
      .Add("method", request->post ? "POST" : "GET")
      .Emit();
  if (m_events != nullptr && m_events->OnNavigate(request->id, request->url, request->target)) {
    if (request->notify) m_awaiting[request->id] = std::move(request);
    return;
  }
  bool matched = !m_options.exit_on_navigate.empty() &&
                 request->url.find(m_options.exit_on_navigate) != std::string::npos;
  if (matched) navigation_matched_ = true;
  if (request->notify) {
    NotifyLater(request.release());
  } else if (matched) {
    Quit("navigate");
  }
}

bool PluginHost::AnswerNavigation(int request_id, bool ok) {
  auto it = m_awaiting.find(request_id);
  if (it == m_awaiting.end() || !instance_live_) return false;
  std::unique_ptr<Request> request = std::move(it->second);
  m_awaiting.erase(it);
  NPReason reason = ok ? NPRES_DONE : NPRES_NETWORK_ERR;
  if (plugin_funcs_->urlnotify != nullptr)
    plugin_funcs_->urlnotify(&m_npp, request->url.c_str(), reason, request->notify_data);
  JsonLine("url_notify").Add("id", request->id).Add("url", request->url).Add("reason", reason).Emit();
  return true;
}

void PluginHost::NotifyLater(Request* request) {
  m_notices[request->id].reset(request);
  if (notify_source_ == 0) notify_source_ = g_idle_add(&PluginHost::OnNotify, this);
}

gboolean PluginHost::OnNotify(gpointer self) {
  auto* host = static_cast<PluginHost*>(self);
  host->notify_source_ = 0;
  while (!host->m_notices.empty() && host->instance_live_) {
    std::unique_ptr<Request> request = std::move(host->m_notices.begin()->second);
    host->m_notices.erase(host->m_notices.begin());
    if (host->plugin_funcs_->urlnotify != nullptr)
      host->plugin_funcs_->urlnotify(&host->m_npp, request->url.c_str(), NPRES_DONE, request->notify_data);
    JsonLine("url_notify").Add("id", request->id).Add("url", request->url).Add("reason", NPRES_DONE).Emit();
  }
  if (host->navigation_matched_) host->Quit("navigate");
  return G_SOURCE_REMOVE;
}

// ---- Streams -----------------------------------------------------------------------------------

void PluginHost::SchedulePump(guint delay_ms) {
  if (pump_source_ != 0) return;
  pump_source_ = delay_ms == 0 ? g_idle_add(&PluginHost::OnPump, this)
                               : g_timeout_add(delay_ms, &PluginHost::OnPump, this);
}

gboolean PluginHost::OnPump(gpointer self) {
  auto* host = static_cast<PluginHost*>(self);
  host->pump_source_ = 0;
  host->Pump();
  return G_SOURCE_REMOVE;
}

void PluginHost::Pump() {
  if (!instance_live_) return;
  // The plug-in may add requests from inside any call made here.
  std::vector<int> ids;
  for (auto& entry : m_requests) ids.push_back(entry.first);
  for (int id : ids) {
    auto it = m_requests.find(id);
    if (it == m_requests.end()) continue;
    if (!Advance(it->second.get())) continue;
    m_loader->Release(it->second->transfer_id);
    m_requests.erase(id);
  }
}

bool PluginHost::Advance(Request* request) {
  Transfer* transfer = m_loader->Find(request->transfer_id);
  if (transfer == nullptr) {
    EndRequest(request, NPRES_NETWORK_ERR);
    return true;
  }
  if (!transfer->headers_done) return false;
  // No answer to stream: nothing came back, or a redirect chain broke off (too many hops, a bad
  // Location) at a 3xx whose body is not the resource. A browser opens no stream for either.
  const bool redirect_status = transfer->status >= 300 && transfer->status < 400;
  bool failed_before_answer = transfer->finished && transfer->result != CURLE_OK &&
                              (transfer->status == 0 || redirect_status) && transfer->data.empty();
  if (!request->stream_open && !request->http_failed && !failed_before_answer) {
    if (transfer->status >= 400) {
      request->http_failed = true;  // no stream for an error page
    } else if (!OpenStream(request, MimeOf(transfer->content_type))) {
      EndRequest(request, NPRES_NETWORK_ERR);
      return true;
    }
  }
  if (request->stream_open && !Deliver(request)) {
    EndRequest(request, NPRES_USER_BREAK);
    return true;
  }
  if (!transfer->finished) return false;
  if (request->http_failed || !request->stream_open) transfer->data.clear();
  if (!transfer->data.empty()) return false;  // the plug-in is not ready for the rest yet
  bool ok = transfer->result == CURLE_OK && !request->http_failed && request->stream_open;
  EndRequest(request, ok ? NPRES_DONE : NPRES_NETWORK_ERR);
  return true;
}

bool PluginHost::OpenStream(Request* request, const std::string& mime) {
  Transfer* transfer = m_loader->Find(request->transfer_id);
  request->headers = transfer->headers;
  request->stream = {};
  request->stream.ndata = this;
  // As browsers do, a redirected request's stream carries the URL it ended at.
  request->stream_url = transfer->final_url.empty() ? request->url : transfer->final_url;
  request->stream.url = request->stream_url.c_str();
  // 0, "unknown", for a length NPAPI's 32 bits cannot hold.
  const bool fits = transfer->content_length > 0 && transfer->content_length <= UINT32_MAX;
  request->stream.end = fits ? static_cast<uint32_t>(transfer->content_length) : 0;
  request->stream.notifyData = request->notify ? request->notify_data : nullptr;
  request->stream.headers = request->headers.empty() ? nullptr : request->headers.c_str();
  request->stype = NP_NORMAL;
  std::string type = mime;
  NPError result = plugin_funcs_->newstream(&m_npp, &type[0], &request->stream, false, &request->stype);
  JsonLine("stream_start")
      .Add("id", request->id)
      .Add("url", request->url)
      .Add("stream_url", request->stream_url)
      .Add("mime", mime)
      .Add("status", static_cast<int64_t>(transfer->status))
      .Add("result", result)
      .Add("stype", request->stype)
      .Emit();
  if (result != NPERR_NO_ERROR) return false;
  request->stream_open = true;
  if (request->stype == NP_ASFILE || request->stype == NP_ASFILEONLY) {
    // Closed on exec: the extension's own programs keep none of it.
    gchar* path = g_build_filename(g_get_tmp_dir(), "gpc-host-XXXXXX", nullptr);
    const int fd = g_mkstemp_full(path, O_RDWR | O_CLOEXEC, 0600);
    request->file = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (request->file != nullptr) {
      request->file_path = path;
    } else if (fd >= 0) {
      close(fd);
      unlink(path);
    }
    request->copy_failed = request->file == nullptr;
    g_free(path);
  }
  return true;
}

void PluginHost::CopyToFile(Request* request, const char* data, size_t size) {
  if (request->file != nullptr && std::fwrite(data, 1, size, request->file) != size) request->copy_failed = true;
}

bool PluginHost::Deliver(Request* request) {
  Transfer* transfer = m_loader->Find(request->transfer_id);
  std::string& data = transfer->data;
  if (request->stype == NP_ASFILEONLY) {
    CopyToFile(request, data.data(), data.size());
    request->bytes += static_cast<int64_t>(data.size());
    data.clear();
    ReportProgress(request, transfer);
    m_loader->ResumeIfTaken(transfer);
    return true;
  }
  // What the plug-in took goes from the front once, when it stops taking.
  size_t taken = 0;
  const bool ok = WriteToPlugin(request, transfer, &taken);
  data.erase(0, taken);
  m_loader->ResumeIfTaken(transfer);
  return ok;
}

bool PluginHost::WriteToPlugin(Request* request, Transfer* transfer, size_t* taken) {
  std::string& data = transfer->data;
  while (*taken < data.size()) {
    int32_t ready = plugin_funcs_->writeready(&m_npp, &request->stream);
    if (ready <= 0) {
      SchedulePump(kWriteRetryMs);
      return true;
    }
    const int64_t left = static_cast<int64_t>(data.size() - *taken);
    int32_t chunk = std::min<int64_t>({ready, left, kMaxWriteChunk});
    char* at = &data[*taken];
    int32_t written = plugin_funcs_->write(&m_npp, &request->stream,
                                           static_cast<int32_t>(std::min<int64_t>(request->offset, INT32_MAX)), chunk, at);
    if (written < 0) return false;
    written = std::min(written, chunk);
    CopyToFile(request, at, static_cast<size_t>(written));
    *taken += static_cast<size_t>(written);
    request->offset += written;
    request->bytes += written;
    ReportProgress(request, transfer);
    if (written == 0) {
      SchedulePump(kWriteRetryMs);
      return true;
    }
  }
  return true;
}

void PluginHost::ReportProgress(const Request* request, const Transfer* transfer) {
  if (m_events != nullptr) m_events->OnStreamProgress(request->url, request->bytes, transfer->content_length);
}

void PluginHost::EndRequest(Request* request, NPReason reason) {
  Transfer* transfer = m_loader->Find(request->transfer_id);
  if (request->stream_open) {
    if (request->file != nullptr && std::fclose(request->file) != 0) request->copy_failed = true;
    request->file = nullptr;
    // A copy cut short by a full disk ends the stream as a failed one, as a browser's download would.
    if (request->copy_failed && reason == NPRES_DONE) reason = NPRES_NETWORK_ERR;
    if (!request->file_path.empty() && reason == NPRES_DONE && plugin_funcs_->asfile != nullptr)
      plugin_funcs_->asfile(&m_npp, &request->stream, request->file_path.c_str());
    NPError result = plugin_funcs_->destroystream(&m_npp, &request->stream, reason);
    JsonLine("stream_end")
        .Add("id", request->id)
        .Add("url", request->url)
        .Add("reason", reason)
        .Add("bytes", request->bytes)
        .Add("result", result)
        .Emit();
    request->stream_open = false;
    if (!request->file_path.empty()) unlink(request->file_path.c_str());
  }
  JsonLine("fetch_end")
      .Add("id", request->id)
      .Add("url", request->url)
      .Add("status", static_cast<int64_t>(transfer != nullptr ? transfer->status : 0))
      .Add("reason", reason)
      .Add("error", transfer != nullptr && !transfer->error.empty() ? transfer->error.c_str() : nullptr)
      .Emit();
  if (request->notify && plugin_funcs_->urlnotify != nullptr) {
    plugin_funcs_->urlnotify(&m_npp, request->url.c_str(), reason, request->notify_data);
    JsonLine("url_notify").Add("id", request->id).Add("url", request->url).Add("reason", reason).Emit();
  }
}
