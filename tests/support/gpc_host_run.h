// Running the plug-in host (gpc-host) from tests and benchmarks, reading its JSON-line events,
// and a loopback HTTP server that records what the plug-in asked of it.
// No gtest here: benchmarks compile this file too.
#pragma once
#include <string>
#include <sys/types.h>
#include <vector>

namespace gpchost {

// One flat JSON object of the host's output (or of the server's request log).
struct JsonEvent {
  std::string line;
  std::string Name() const { return Str("event"); }
  // The value of a string field, unescaped; empty when missing or null.
  std::string Str(const char* key) const;
  // The value of a number field; `fallback` when missing or not a number.
  long long Int(const char* key, long long fallback = -1) const;
  bool IsNull(const char* key) const;
  bool Has(const char* key) const;
};

struct HostRun {
  int exit_code = -1;
  std::vector<JsonEvent> events;
  std::string stderr_text;
  // The events of one kind, in order.
  std::vector<JsonEvent> Of(const std::string& name) const;
  // Index of the first event of `name` whose `key` contains `part`, from `from` on; -1 if none.
  int Find(const std::string& name, const char* key, const std::string& part, int from = 0) const;
};

// Runs gpc-host (GPC_BIN_DIR/gpc-host) with `args`, waits for it and collects its output.
HostRun RunHost(const std::vector<std::string>& args);

// Parses JSON lines (blank lines skipped).
std::vector<JsonEvent> ParseJsonLines(const std::string& text);

// tests/support/recording_http_server.py on 127.0.0.1, stopped by the destructor.
class RecordingServer {
 public:
  RecordingServer();
  ~RecordingServer();
  RecordingServer(const RecordingServer&) = delete;
  RecordingServer& operator=(const RecordingServer&) = delete;

  // Starts the server with `--fail` rules (SUBSTRING=STATUS[xCOUNT]); false when it does not
  // come up within a few seconds.
  bool Start(const std::vector<std::string>& fail_rules = {});
  void Stop();
  std::string Url(const std::string& path) const;
  // Every request so far: fields method, path, body.
  std::vector<JsonEvent> Requests() const;

 private:
  std::string folder_;
  pid_t pid_ = -1;
  int port_ = 0;
};

// A fresh folder under $GPC_TEST_HOME (else /tmp); removed by RemoveTree.
std::string MakeTempFolder(const std::string& prefix);
void RemoveTree(const std::string& path);
std::string ReadWholeFile(const std::string& path);

}  // namespace gpchost
