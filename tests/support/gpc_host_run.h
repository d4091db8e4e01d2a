// Running the plug-in host (gpc-host) from tests and reading the JSON lines it (or a loopback server's
// request log) prints. No gtest here: benchmarks compile this file too.
#pragma once
#include <string>
#include <vector>

#include "http_test_server.h"

namespace gpchost {

// One flat JSON object of the host's output (or of the server's request log).
struct JsonEvent {
  std::string line;
  std::string Name() const { return Str("event"); }
  // The value of a string field, unescaped; empty when missing or null.
  std::string Str(const char* key) const;
  // The value of a number field; `fallback` when missing or not a number.
  long long Int(const char* key, long long fallback = -1) const;
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
// `text` as a JSON string, in its quotes; only quotes and backslashes are escaped (no control bytes).
inline std::string JsonQuote(const std::string& text) {
  std::string out = "\"";
  for (char c : text) out += (c == '"' || c == '\\') ? std::string("\\") + c : std::string(1, c);
  return out + "\"";
}

}  // namespace gpchost
