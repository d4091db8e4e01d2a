#include "http_test_server.h"

#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <ftw.h>
#include <iterator>
#include <signal.h>
#include <sstream>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "gpc_host_run.h"

namespace gpctest {

namespace {

bool MakeDirs(const std::string& path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

// Starts argv[0] (searched in PATH) with its output appended to `outPath`, its errors to `errPath`.
// The child is killed when this process ends, even by a crash, so no server outlives its test.
pid_t StartChild(const char* const argv[], const std::string& outPath, const std::string& errPath) {
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  int in = open("/dev/null", O_RDONLY);
  int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(127);
  signal(SIGXFSZ, SIG_DFL);  // as a shell starts it, whatever a test ignores for itself
  execvp(argv[0], const_cast<char* const*>(argv));
  _exit(127);
}

}  // namespace

std::string MakeTempFolder(const std::string& prefix) {
  const char* home = getenv("GPC_TEST_HOME");
  std::string base = home != nullptr && *home == '/' ? home : "/tmp";
  MakeDirs(base);
  std::string templ = base + "/" + prefix + "XXXXXX";
  return mkdtemp(&templ[0]) != nullptr ? templ : std::string();
}

void RemoveTree(const std::string& path) {
  if (path.empty()) return;
  auto remove = [](const char* name, const struct stat*, int, struct FTW*) { return ::remove(name); };
  nftw(path.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
}

ScopedLocale::ScopedLocale(int category, const std::string& name) : category_(category) {
  const std::string made = folder_.path() + "/" + name + ".UTF-8";
  const std::string make = "localedef -i " + name + " -f UTF-8 '" + made + "' >/dev/null 2>&1";
  setenv("LOCPATH", folder_.path().c_str(), 1);
  ok_ = system(make.c_str()) == 0 && setlocale(category, (name + ".UTF-8").c_str()) != nullptr;
}

ScopedLocale::~ScopedLocale() {
  setlocale(category_, "C");
  unsetenv("LOCPATH");
}

bool WriteFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
  return static_cast<bool>(out);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string PatternBytes(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  uint32_t state = 2463534242u ^ (seed * 2654435761u);
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<char>(state & 0xff);
  }
  return bytes;
}

std::vector<std::string> PiecesInTmp(const std::string& content) {
  std::vector<std::string> pieces;
  DIR* dir = opendir("/tmp");
  while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
    if (std::string(entry->d_name).rfind("gpc_tmp_", 0) != 0) continue;
    const std::string path = std::string("/tmp/") + entry->d_name;
    const std::string head = ReadFile(path);
    if (!head.empty() && content.compare(0, head.size(), head) == 0) pieces.push_back(path);
  }
  if (dir != nullptr) closedir(dir);
  return pieces;
}

int RunCommand(const char* const argv[], const std::string& logPath, const std::string& errPath) {
  pid_t pid = StartChild(argv, logPath, errPath.empty() ? logPath : errPath);
  int status = 0;
  while (pid > 0 && waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (pid <= 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool InChild(const std::function<bool()>& body, bool ordinaryUser) {
  const pid_t child = fork();
  if (child == 0) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct caps[2] = {};
    syscall(SYS_capget, &header, caps);
    if (ordinaryUser) caps[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH) | (1u << CAP_FOWNER));
    _exit(syscall(SYS_capset, &header, caps) == 0 && body() ? 0 : 1);
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

LoopbackServer::~LoopbackServer() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

bool LoopbackServer::Start(const std::vector<std::string>& options) {
  const std::string& dir = folder_.path();
  const std::string portFile = dir + "/port", log = dir + "/server.log";
  if (dir.empty() || !MakeDirs(dir + "/www")) {
    error_ = "cannot make the server's folder";
    return false;
  }
  std::vector<std::string> args = {"python3", std::string(GPC_SOURCE_DIR) + "/tests/support/loopback_server.py",
                                   "--port-file", portFile, "--log", AccessLogPath(), "--root", dir + "/www",
                                   "--certificate", dir + "/cert.pem", "--key", dir + "/key.pem", "--rate", rate_};
  args.insert(args.end(), options.begin(), options.end());
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  argv.push_back(nullptr);
  pid_ = StartChild(argv.data(), log, log);
  for (int waited = 0; pid_ > 0 && waited < 10000; waited += 20) {
    std::istringstream ports(ReadFile(portFile));
    if (ports >> httpPort_ >> httpsPort_) return true;
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  error_ = "the loopback server did not start: " + ReadFile(log);
  return false;
}

bool LoopbackServer::AddFile(const std::string& name, const std::string& content) {
  std::string path = FilePath(name);
  return MakeDirs(path.substr(0, path.rfind('/'))) && WriteFile(path, content);
}

std::string LoopbackServer::HttpsUrl(const std::string& name) const {
  return "https://127.0.0.1:" + std::to_string(httpsPort_) + "/" + name;
}

std::string LoopbackServer::Url(const std::string& pathAndQuery) const {
  return "http://127.0.0.1:" + std::to_string(httpPort_) + pathAndQuery;
}

int LoopbackServer::RequestCount(const std::string& path) const {
  int count = 0;
  for (const gpchost::JsonEvent& request : gpchost::ParseJsonLines(ReadFile(AccessLogPath()))) {
    const std::string asked = request.Str("path");
    count += asked.substr(0, asked.find('?')) == path;
  }
  return count;
}

}  // namespace gpctest
