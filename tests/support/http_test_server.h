// Real servers on 127.0.0.1 for the networking tests and benchmarks, each started in its own
// temporary folder and stopped (and the folder removed) by its destructor. No gtest here: the
// benchmarks compile this file too.
#pragma once

#include <string>
#include <vector>
#include <sys/types.h>

namespace gpctest {

// A new folder under $GPC_TEST_HOME (else /tmp); empty when it cannot be made.
std::string MakeTempFolder(const std::string& prefix);
// Removes `path` and everything under it (links are not followed).
void RemoveTree(const std::string& path);

// A folder made by MakeTempFolder, removed with its contents by the destructor.
class TempFolder {
 public:
  explicit TempFolder(const std::string& prefix) : path_(MakeTempFolder(prefix)) {}
  ~TempFolder() { RemoveTree(path_); }
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
// Runs argv[0] (searched in PATH) with its output to `logPath` (its errors to `errPath` when given)
// and waits for it. Returns its exit code, 128 + the signal that ended it, or -1 when it could not run.
int RunCommand(const char* const argv[], const std::string& logPath, const std::string& errPath = "");

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

// tests/support/loopback_server.py: the files put here over http and https (a certificate from a
// test authority naming 127.0.0.1, localhost and the test domains), and where no file has the path,
// the script's scripted answers (silence, stalls, resets, challenges, redirects, header echo).
class LoopbackServer {
 public:
  LoopbackServer() : folder_("loopback") {}
  // Before Start: at most `rate` bytes a second per response, "256k", "1m" or a count as nginx takes.
  void SetLimitRate(const std::string& rate) { rate_ = rate; }
  // Starts the server with further options of the script; false (the reason in error()) when it
  // does not come up.
  bool Start(const std::vector<std::string>& options = {});
  void Stop() { process_.Stop(); }
  // Puts a file with `content` at the URL path "/<name>" (sub-folders created).
  bool AddFile(const std::string& name, const std::string& content);
  // The path on disk of the URL path "/<name>" (for files too large to build in memory).
  std::string FilePath(const std::string& name) const { return folder_.path() + "/www/" + name; }
  std::string HttpUrl(const std::string& name) const { return Url("/" + name); }
  std::string HttpsUrl(const std::string& name) const;
  std::string Url(const std::string& pathAndQuery) const;
  int http_port() const { return httpPort_; }
  int https_port() const { return httpsPort_; }
  int port() const { return httpPort_; }
  // How many requests for `path` (without query) have reached the server so far.
  int RequestCount(const std::string& path) const;
  const std::string& error() const { return error_; }
  // The authority that signed the server's certificate, PEM (after Start).
  std::string AuthorityPath() const { return folder_.path() + "/ca.pem"; }
  // A JSON line per request: method, path, body and request ("GET /path?query HTTP/1.1").
  std::string AccessLogPath() const { return folder_.path() + "/access.log"; }

 private:
  bool MakeCertificate();
  TempFolder folder_;
  ChildProcess process_;
  int httpPort_ = 0;
  int httpsPort_ = 0;
  std::string rate_;
  std::string error_;
};

using NginxTestServer = LoopbackServer;
using ScriptedHttpServer = LoopbackServer;

// tinyproxy: a forwarding proxy, optionally demanding Basic credentials.
class TinyProxyServer {
 public:
  TinyProxyServer() : folder_("tinyproxy") {}
  // With a non-empty `user`, the proxy admits only requests with these Basic credentials.
  bool Start(const std::string& user = "", const std::string& password = "");
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
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
