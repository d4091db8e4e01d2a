// HTTP transfers on libcurl's multi interface, driven from the main thread's GLib loop.
//
// The thread has one multi handle; each transfer has its own easy handle (found again through
// CURLINFO_PRIVATE, with its own error buffer); each socket libcurl watches has one GLib source.
// libcurl's socket and timer callbacks only arm and disarm those sources. A source that fires
// feeds curl_multi_socket_action and then reports what happened to the transfers' listeners, after
// libcurl has returned, so a listener may start, stop or delete transfers (and run a nested loop).
// The multi handle goes away when its last transfer does.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace gpcnet {

// The body arrives in pieces of at most this many bytes.
constexpr size_t kMaxChunk = 16383;

// Receives what one transfer produces, on the main thread.
class ITransferListener {
 public:
  // One piece of the body. Runs inside libcurl: store the data, never start, stop or delete a
  // transfer from here. Returns false when the piece cannot be kept (a full disk, no memory): the
  // transfer then ends through OnTransferEnd as failed.
  virtual bool OnTransferChunk(const char* data, size_t size) = 0;
  // `size` body bytes arrived in one round of socket activity (the sum of its pieces).
  virtual void OnTransferData(size_t size) = 0;
  // A response (also a proxy's) carried status 401, 403 or 407; the transfer is over.
  virtual void OnTransferChallenge(long status) = 0;
  // The transfer is over: `complete` when the whole body arrived, otherwise `error` says why.
  virtual void OnTransferEnd(bool complete, const char* error) = 0;

 protected:
  ~ITransferListener() = default;
};

struct TransferRequest {
  std::string url;
  // No certificate or host-name checks (the plug-in's https downloads accept any certificate).
  bool acceptAnyCertificate = false;
  // Basic credentials sent to the proxy as "Proxy-Authorization" when the user is not empty.
  std::string proxyUser;
  std::string proxyPassword;
};

class CurlTransfer;
struct CurlTransferDeleter {
  void operator()(CurlTransfer* transfer) const;
};
// Deleting a transfer stops it at once, in any state.
using CurlTransferPtr = std::unique_ptr<CurlTransfer, CurlTransferDeleter>;

// Starts a GET of request.url (redirects followed, the environment's http_proxy, https_proxy and
// no_proxy obeyed). Returns null, with the reason in *error, when libcurl refuses the request.
CurlTransferPtr StartTransfer(const TransferRequest& request, ITransferListener* listener,
                              std::string* error);

// Whether libcurl accepts `url` as an absolute URL as it is written.
bool IsWellFormedUrl(const std::string& url);

// Percent-escapes the bytes that may not appear in a URL (blanks, controls, non-ASCII and
// "\"<>\\^`{|}"); "%" itself is left as it is.
std::string EscapeUrl(const std::string& url);

}  // namespace gpcnet
