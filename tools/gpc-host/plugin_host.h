// The browser side of one plug-in module and one embedded instance: the module's entry points,
// the browser call table handed to it, the URL requests it makes and the streams that answer them.
#pragma once
#include <glib.h>
#include <map>
#include <memory>
#include <string>

#include "host_options.h"
#include "plugin/plugin/npapi.h"
#include "url_loader.h"

// What an embedding program (the native-messaging bridge) hears of one instance. Calls come from
// inside the plug-in's own calls; none may destroy the host.
class HostEvents {
 public:
  virtual ~HostEvents() = default;
  // A request into a frame (request numbers count per instance from 1). Returning true keeps it
  // open until AnswerNavigation; false lets the host answer it as done at once, as without events.
  virtual bool OnNavigate(int request, const std::string& url, const std::string& target) = 0;
  // Bytes of a stream handed to the plug-in so far, of `total` (-1 when the server gave no length).
  virtual void OnStreamProgress(const std::string& /*url*/, int64_t /*done*/, int64_t /*total*/) {}
};

class PluginHost {
 public:
  explicit PluginHost(const HostOptions& options);
  // Another instance of the module that `module` has loaded; Load must not be called on it, and
  // `module` must outlive it. Unload then ends only this instance.
  PluginHost(const HostOptions& options, const PluginHost& module);
  ~PluginHost();
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;

  // Loads the module and starts it (NP_GetMIMEDescription, NP_Initialize, NP_GetValue).
  bool Load();
  // NPP_New with the parameters, SetWindow, and the host-page stream when a page URL is given.
  bool CreateInstance();
  // Runs the main loop until the time is up or the awaited navigation happened.
  void Run();
  // Ends open streams, NPP_Destroy, NP_Shutdown, dlclose.
  void Unload();

  // Routes this instance's events to `events` (null: none); set before CreateInstance.
  void SetEvents(HostEvents* events) { m_events = events; }
  // Answers a navigation that OnNavigate kept open: NPP_URLNotify with NPRES_DONE when `ok`,
  // else NPRES_NETWORK_ERR. Returns false when no such navigation waits.
  bool AnswerNavigation(int request, bool ok);

  bool navigation_matched() const { return navigation_matched_; }
  // Why the loop ended: "run-ms" or "navigate".
  const std::string& exit_reason() const { return exit_reason_; }

 private:
  struct Request;
  friend struct BrowserCalls;

  // Requests from the plug-in.
  NPError OnGetURL(const char* call, const char* url, const char* target, bool notify, void* notify_data,
                   bool post, const std::string& body);
  void Navigate(Request* request);
  void Fetch(std::unique_ptr<Request> request);

  // Delivery of fetched data as streams, always from the main loop, never from inside curl.
  void SchedulePump(guint delay_ms = 0);
  static gboolean OnPump(gpointer self);
  void Pump();
  // Moves one request on; returns true when it has ended and may be forgotten.
  bool Advance(Request* request);
  bool OpenStream(Request* request, const std::string& mime);
  bool Deliver(Request* request);  // false when the plug-in asked to stop the stream
  void CopyToFile(Request* request, const char* data, size_t size);  // to the as-file copy, if any
  // Hands the plug-in what it is ready for from the body, counting it in `taken`.
  bool WriteToPlugin(Request* request, Transfer* transfer, size_t* taken);
  void ReportProgress(const Request* request, const Transfer* transfer);
  void EndRequest(Request* request, NPReason reason);
  void NotifyLater(Request* request);
  static gboolean OnNotify(gpointer self);

  void DeliverPageUrl();
  void Quit(const char* reason);

  HostOptions m_options;
  bool owns_module_ = true;
  HostEvents* m_events = nullptr;
  std::map<int, std::unique_ptr<Request>> m_awaiting;  // navigations left to the events' answer
  void* m_module = nullptr;
  NP_ShutdownFunc m_shutdown = nullptr;
  NPNetscapeFuncs* browser_funcs_ = nullptr;
  NPPluginFuncs* plugin_funcs_ = nullptr;
  NPP_t m_npp = {nullptr, nullptr};
  bool instance_live_ = false;
  NPWindow m_window = {};

  std::unique_ptr<UrlLoader> m_loader;
  std::map<int, std::unique_ptr<Request>> m_requests;  // fetches, by request id
  std::map<int, std::unique_ptr<Request>> m_notices;   // navigations waiting for NPP_URLNotify
  int next_request_id_ = 1;
  guint pump_source_ = 0;
  guint notify_source_ = 0;

  GMainLoop* m_loop = nullptr;
  guint run_timer_ = 0;
  bool navigation_matched_ = false;
  std::string exit_reason_;
};
