// HTTP(S) transfers with the libcurl multi interface, driven from the GLib default main context
// on the calling thread. The loader only collects what arrives; it never calls back into the
// plug-in, so that the plug-in may start new transfers from anything the host delivers.
#pragma once
#include <curl/curl.h>
#include <functional>
#include <glib.h>
#include <map>
#include <memory>
#include <string>

struct Transfer {
  int id = 0;
  std::string url;
  bool post = false;
  std::string post_body;

  // Filled as the answer arrives.
  bool headers_done = false;  // the final response's headers are in
  long status = 0;            // HTTP status; 0 for none
  std::string final_url;      // where redirects ended; empty when there were none
  std::string content_type;
  std::string headers;  // the final response's status line and header lines, "\n"-terminated
  int64_t content_length = -1;
  std::string data;  // body bytes received and not yet taken by the host
  bool paused = false;  // the body waits until the host has taken what it holds

  bool finished = false;
  CURLcode result = CURLE_OK;
  std::string error;  // curl's message when result is not CURLE_OK

  CURL* easy = nullptr;
  char errbuf[CURL_ERROR_SIZE] = {0};
};

class UrlLoader {
 public:
  // `changed` runs (inside the loader's own callbacks) whenever a transfer has news.
  explicit UrlLoader(std::function<void()> changed);
  ~UrlLoader();
  UrlLoader(const UrlLoader&) = delete;
  UrlLoader& operator=(const UrlLoader&) = delete;

  // Starts a GET, or a POST of `body` when `post`. Returns the transfer (owned by the loader)
  // or null when curl refuses it.
  Transfer* Start(const std::string& url, bool post, const std::string& body, const char* user_agent);

  Transfer* Find(int id);
  // Stops and forgets a transfer, finished or not.
  void Release(int id);
  // Lets a paused body come on once the host has taken most of what it held.
  void ResumeIfTaken(Transfer* transfer);

 private:
  struct SocketWatch;
  static int OnSocket(CURL* easy, curl_socket_t fd, int what, void* self, void* watch);
  static int OnTimer(CURLM* multi, long timeout_ms, void* self);
  static gboolean OnTimeout(gpointer self);
  static gboolean OnSocketReady(GIOChannel* channel, GIOCondition condition, gpointer self);
  static size_t OnHeader(char* data, size_t size, size_t count, void* transfer);
  static size_t OnBody(char* data, size_t size, size_t count, void* transfer);
  void SetWatch(curl_socket_t fd, int what, SocketWatch* watch, CURL* easy);
  void RemoveWatch(SocketWatch* watch);
  void Drive(curl_socket_t fd, int action);
  void CollectFinished();

  CURLM* m_multi = nullptr;
  guint timeout_source_ = 0;
  int next_id_ = 1;
  std::map<int, std::unique_ptr<Transfer>> m_transfers;
  std::function<void()> m_changed;
};
