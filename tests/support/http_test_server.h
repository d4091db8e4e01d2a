// Scratch folders, files and child processes for the tests and benchmarks, and the loopback server
// (tests/support/loopback_server.py) they fetch from. No gtest here: the benchmarks compile this file too.
#pragma once

#include <functional>
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

// The process under the locale `name` ("tr_TR", made here with localedef, UTF-8) for `category`
// while the object lives, as a browser that sets its user's locale runs the plug-in.
class ScopedLocale {
 public:
  ScopedLocale(int category, const std::string& name);
  ~ScopedLocale();
  bool ok() const { return ok_; }

 private:
  TempFolder folder_{"locales"};
  int category_;
  bool ok_ = false;
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
// Runs `body` in a forked child; true when it returned true. As an `ordinaryUser` the child, even
// as root, must respect file modes as their owner does (no override of permissions or ownership).
bool InChild(const std::function<bool()>& body, bool ordinaryUser = false);

// The script in a folder of its own: the files put here over http and https (a certificate from a
// test authority naming 127.0.0.1, localhost and the test domains), else the script's scripted
// answers. The http port is also a proxy. The destructor stops it and removes the folder.
class LoopbackServer {
 public:
  LoopbackServer() : folder_("loopback") {}
  ~LoopbackServer();
  // Before Start: at most `rate` bytes a second per response, "256k", "1m" or a count.
  void SetLimitRate(const std::string& rate) { rate_ = rate; }
  // Starts the server with further options of the script; false (the reason in error()) when it
  // does not come up.
  bool Start(const std::vector<std::string>& options = {});
  // Puts a file with `content` at the URL path "/<name>" (sub-folders created).
  bool AddFile(const std::string& name, const std::string& content);
  // The path on disk of the URL path "/<name>" (for files too large to build in memory).
  std::string FilePath(const std::string& name) const { return folder_.path() + "/www/" + name; }
  std::string HttpUrl(const std::string& name) const { return Url("/" + name); }
  std::string HttpsUrl(const std::string& name) const;
  std::string Url(const std::string& pathAndQuery) const;
  int http_port() const { return httpPort_; }
  int https_port() const { return httpsPort_; }
  // How many requests for `path` (without query; a full URL for those sent to the proxy) so far.
  int RequestCount(const std::string& path) const;
  const std::string& error() const { return error_; }
  // The authority that signed the server's certificate, PEM (after Start).
  std::string AuthorityPath() const { return folder_.path() + "/ca.pem"; }
  // A JSON line per request: method, path, body and request ("GET /path?query HTTP/1.1").
  std::string AccessLogPath() const { return folder_.path() + "/access.log"; }

 private:
  TempFolder folder_;
  pid_t pid_ = -1;
  int httpPort_ = 0;
  int httpsPort_ = 0;
  std::string rate_;
  std::string error_;
};

}  // namespace gpctest
