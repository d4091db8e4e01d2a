#include "gpc_host_run.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <ftw.h>
#include <iterator>
#include <sstream>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace gpchost {

namespace {

// Finds `"key":` in a flat object and returns the position of its value, or npos.
size_t ValueAt(const std::string& line, const char* key) {
  std::string pattern = std::string("\"") + key + "\":";
  size_t at = line.find(pattern);
  return at == std::string::npos ? at : at + pattern.size();
}

std::string Unescape(const std::string& line, size_t at) {
  std::string out;
  for (size_t i = at + 1; i < line.size(); ++i) {
    char c = line[i];
    if (c == '"') break;
    if (c != '\\' || i + 1 >= line.size()) {
      out += c;
      continue;
    }
    char next = line[++i];
    switch (next) {
      case 'n': out += '\n'; break;
      case 'r': out += '\r'; break;
      case 't': out += '\t'; break;
      case 'u': {
        unsigned code = static_cast<unsigned>(std::strtoul(line.substr(i + 1, 4).c_str(), nullptr, 16));
        i += 4;
        if (code < 0x80) {
          out += static_cast<char>(code);
        } else if (code < 0x800) {
          out += static_cast<char>(0xC0 | (code >> 6));
          out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
          out += static_cast<char>(0xE0 | (code >> 12));
          out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
          out += static_cast<char>(0x80 | (code & 0x3F));
        }
        break;
      }
      default: out += next;
    }
  }
  return out;
}

// Runs argv, optionally capturing stdout and stderr into files; returns the exit status.
int SpawnAndWait(const std::vector<std::string>& args, const std::string& out_path, const std::string& err_path) {
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t pid = -1;
  int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

}  // namespace

std::string JsonEvent::Str(const char* key) const {
  size_t at = ValueAt(line, key);
  if (at == std::string::npos || at >= line.size() || line[at] != '"') return std::string();
  return Unescape(line, at);
}

long long JsonEvent::Int(const char* key, long long fallback) const {
  size_t at = ValueAt(line, key);
  if (at == std::string::npos) return fallback;
  const char* start = line.c_str() + at;
  char* end = nullptr;
  long long value = std::strtoll(start, &end, 10);
  return end == start ? fallback : value;
}

bool JsonEvent::IsNull(const char* key) const {
  size_t at = ValueAt(line, key);
  return at != std::string::npos && line.compare(at, 4, "null") == 0;
}

bool JsonEvent::Has(const char* key) const { return ValueAt(line, key) != std::string::npos; }

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
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) out.push_back(JsonEvent{text.substr(start, end - start)});
    start = end + 1;
  }
  return out;
}

HostRun RunHost(const std::vector<std::string>& args) {
  std::string folder = MakeTempFolder("gpchostrun");
  // GPC_HOST_WRAPPER (words split at blanks) runs the host under a tool, valgrind say.
  std::vector<std::string> command;
  if (const char* wrapper = std::getenv("GPC_HOST_WRAPPER")) {
    std::istringstream words(wrapper);
    for (std::string word; words >> word;) command.push_back(word);
  }
  command.push_back(std::string(GPC_BIN_DIR) + "/gpc-host");
  command.insert(command.end(), args.begin(), args.end());
  HostRun run;
  // A wrapper given by name is looked up in PATH.
  if (command.front().find('/') == std::string::npos) command.front() = "/usr/bin/" + command.front();
  run.exit_code = SpawnAndWait(command, folder + "/out", folder + "/err");
  run.events = ParseJsonLines(ReadWholeFile(folder + "/out"));
  run.stderr_text = ReadWholeFile(folder + "/err");
  RemoveTree(folder);
  return run;
}

RecordingServer::RecordingServer() = default;

RecordingServer::~RecordingServer() { Stop(); }

bool RecordingServer::Start(const std::vector<std::string>& fail_rules) {
  folder_ = MakeTempFolder("gpchostserver");
  std::vector<std::string> args = {"/usr/bin/python3", std::string(GPC_SOURCE_DIR) + "/tests/support/recording_http_server.py",
                                   "--log", folder_ + "/requests.log", "--port-file", folder_ + "/port"};
  for (const std::string& rule : fail_rules) {
    args.push_back("--fail");
    args.push_back(rule);
  }
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
    pid_ = -1;
    return false;
  }
  for (int waited = 0; waited < 100; ++waited) {
    std::string port = ReadWholeFile(folder_ + "/port");
    if (!port.empty()) {
      port_ = std::atoi(port.c_str());
      return port_ > 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

void RecordingServer::Stop() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }
  if (!folder_.empty()) RemoveTree(folder_);
  folder_.clear();
}

std::string RecordingServer::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<JsonEvent> RecordingServer::Requests() const {
  return ParseJsonLines(ReadWholeFile(folder_ + "/requests.log"));
}

std::string MakeTempFolder(const std::string& prefix) {
  const char* home = std::getenv("GPC_TEST_HOME");
  std::string templ = std::string(home != nullptr && *home == '/' ? home : "/tmp") + "/" + prefix + "XXXXXX";
  std::vector<char> buffer(templ.begin(), templ.end());
  buffer.push_back('\0');
  return mkdtemp(buffer.data()) != nullptr ? std::string(buffer.data()) : std::string();
}

void RemoveTree(const std::string& path) {
  if (path.empty()) return;
  nftw(
      path.c_str(), [](const char* name, const struct stat*, int, struct FTW*) { return remove(name); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace gpchost
