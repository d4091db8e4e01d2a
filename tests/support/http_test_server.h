// Real servers on 127.0.0.1 for the networking tests and benchmarks, each started in its own
// temporary folder and stopped (and the folder removed) by its destructor.
//
// - NginxTestServer: static files over http and https (a self-signed certificate made by openssl).
// - ScriptedHttpServer: tests/support/scripted_http_server.py, for what nginx cannot do: a server
//   that never answers or stalls, a connection reset mid-body, 401/403/407, redirects, echoing the
//   request headers.
// - TinyProxyServer: a forwarding proxy, optionally demanding Basic credentials.
//
// No gtest here: the benchmarks compile this file too.
#pragma once

#include <string>
#include <vector>
#include <sys/types.h>

namespace gpctest {

// A folder under $GPC_TEST_HOME (else /tmp) removed with its contents by the destructor.
class TempFolder {
 public:
  explicit TempFolder(const std::string& prefix);
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Writes `data` to `path`; false on failure.
bool WriteFile(const std::string& path, const std::string& data);
// The whole file, or an empty string when it cannot be read.
std::string ReadFile(const std::string& path);
// Deterministic content of `size` bytes that differs with `seed` (no long runs of equal bytes).
std::string PatternBytes(size_t size, unsigned seed = 1);

// The download client's temporary files ("/tmp/gpc_tmp_...") holding a non-empty beginning of
// `content`: pieces of that download, whatever other processes write to /tmp meanwhile.
std::vector<std::string> PiecesInTmp(const std::string& content);
// Runs argv[0] (searched in PATH) with output to `logPath`, and waits for it. Returns its exit code,
// or -1 when it could not run.
int RunCommand(const char* const argv[], const std::string& logPath);

// A child process with output to a log file; the destructor stops it (TERM, then KILL).
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess() { Stop(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  bool Spawn(const char* const argv[], const std::string& logPath);
  bool Running();
  void Stop();

 private:
  pid_t pid_ = -1;
};

class NginxTestServer {
 public:
  NginxTestServer();
  ~NginxTestServer();
  // Starts nginx; false (with the reason in error()) when it does not come up.
  bool Start();
  // Before Start: limits every response to `rate` per connection (nginx "limit_rate", e.g.
  // "10m" for 10 MB/s). Unlimited by default.
  void SetLimitRate(const std::string& rate) { limitRate_ = rate; }
  // Puts a file with `content` at the URL path "/<name>" (sub-folders created).
  bool AddFile(const std::string& name, const std::string& content);
  // The path on disk of the URL path "/<name>" (for files too large to build in memory).
  std::string FilePath(const std::string& name) const;
  std::string HttpUrl(const std::string& name) const;
  std::string HttpsUrl(const std::string& name) const;
  int http_port() const { return httpPort_; }
  int https_port() const { return httpsPort_; }
  const std::string& error() const { return error_; }
  // The authority that signed the server's certificate, PEM (after Start).
  std::string AuthorityPath() const { return folder_.path() + "/ca.pem"; }
  // The file nginx appends each answered request to, a line each ("GET /path?query HTTP/1.1"
  // among its fields).
  std::string AccessLogPath() const { return folder_.path() + "/access.log"; }

 private:
  bool MakeCertificate();
  bool WriteConfig();
  TempFolder folder_;
  ChildProcess process_;
  int httpPort_ = 0;
  int httpsPort_ = 0;
  std::string limitRate_;
  std::string error_;
};

class ScriptedHttpServer {
 public:
  ScriptedHttpServer();
  ~ScriptedHttpServer();
  bool Start();
  std::string Url(const std::string& pathAndQuery) const;
  int port() const { return port_; }
  // How many requests for `path` (without query) have reached the server so far.
  int RequestCount(const std::string& path) const;
  const std::string& error() const { return error_; }

 private:
  TempFolder folder_;
  ChildProcess process_;
  int port_ = 0;
  std::string error_;
};

class TinyProxyServer {
 public:
  TinyProxyServer();
  ~TinyProxyServer();
  // With a non-empty `user`, the proxy admits only requests with these Basic credentials.
  bool Start(const std::string& user = "", const std::string& password = "");
  std::string Url() const;
  int port() const { return port_; }
  const std::string& error() const { return error_; }

 private:
  TempFolder folder_;
  ChildProcess process_;
  int port_ = 0;
  std::string error_;
};

// A port on 127.0.0.1 that was free a moment ago.
int FindFreePort();
// Whether something accepts connections on 127.0.0.1:`port`, waiting up to `timeoutMs`.
bool WaitForPort(int port, int timeoutMs, ChildProcess* owner);

}  // namespace gpctest
