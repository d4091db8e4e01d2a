#include "gpc_host_run.h"

#include <cstdlib>
#include <sstream>

namespace gpchost {

namespace {

// Finds `"key":` in a flat object and returns the position of its value, or npos.
size_t ValueAt(const std::string& line, const char* key) {
  std::string pattern = std::string("\"") + key + "\":";
  size_t at = line.find(pattern);
  return at == std::string::npos ? at : at + pattern.size();
}

}  // namespace

std::string JsonEvent::Str(const char* key) const {
  size_t at = ValueAt(line, key);
  if (at == std::string::npos || at >= line.size() || line[at] != '"') return std::string();
  std::string out;
  for (size_t i = at + 1; i < line.size() && line[i] != '"'; ++i) {
    if (line[i] != '\\' || i + 1 >= line.size()) {
      out += line[i];
    } else if (line[++i] == 'u') {  // the printers escape only control characters this way
      out += static_cast<char>(std::strtoul(line.substr(i + 1, 4).c_str(), nullptr, 16));
      i += 4;
    } else {
      out += line[i] == 'n' ? '\n' : line[i] == 'r' ? '\r' : line[i] == 't' ? '\t' : line[i];
    }
  }
  return out;
}

long long JsonEvent::Int(const char* key, long long fallback) const {
  size_t at = ValueAt(line, key);
  if (at == std::string::npos) return fallback;
  const char* start = line.c_str() + at;
  char* end = nullptr;
  long long value = std::strtoll(start, &end, 10);
  return end == start ? fallback : value;
}

std::vector<JsonEvent> HostRun::Of(const std::string& name) const {
  std::vector<JsonEvent> out;
  for (const JsonEvent& event : events)
    if (event.Name() == name) out.push_back(event);
  return out;
}

int HostRun::Find(const std::string& name, const char* key, const std::string& part, int from) const {
  for (size_t i = static_cast<size_t>(from < 0 ? 0 : from); i < events.size(); ++i)
    if (events[i].Name() == name && events[i].Str(key).find(part) != std::string::npos) return static_cast<int>(i);
  return -1;
}

std::vector<JsonEvent> ParseJsonLines(const std::string& text) {
  std::vector<JsonEvent> out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) out.push_back(JsonEvent{line});
  return out;
}

HostRun RunHost(const std::vector<std::string>& args) {
  gpctest::TempFolder folder("gpchostrun");
  // GPC_HOST_WRAPPER (words split at blanks) runs the host under a tool, valgrind say.
  std::vector<std::string> command;
  std::istringstream wrapper(std::getenv("GPC_HOST_WRAPPER") ? std::getenv("GPC_HOST_WRAPPER") : "");
  for (std::string word; wrapper >> word;) command.push_back(word);
  command.push_back(std::string(GPC_BIN_DIR) + "/gpc-host");
  command.insert(command.end(), args.begin(), args.end());
  std::vector<const char*> argv;
  for (const std::string& word : command) argv.push_back(word.c_str());
  argv.push_back(nullptr);
  HostRun run;
  run.exit_code = gpctest::RunCommand(argv.data(), folder.path() + "/out", folder.path() + "/err");
  run.events = ParseJsonLines(gpctest::ReadFile(folder.path() + "/out"));
  run.stderr_text = gpctest::ReadFile(folder.path() + "/err");
  return run;
}

}  // namespace gpchost
