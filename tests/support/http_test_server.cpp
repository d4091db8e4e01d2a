#include "http_test_server.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <ftw.h>
#include <iterator>
#include <netinet/in.h>
#include <signal.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "gpc_host_run.h"

namespace gpctest {

namespace {

const int kStartTimeoutMs = 10000;

bool MakeDirs(const std::string& path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool ConnectsTo(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(port);
  bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

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
  execvp(argv[0], const_cast<char* const*>(argv));
  _exit(127);
}

std::vector<const char*> Argv(const std::vector<std::string>& args) {
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  argv.push_back(nullptr);
  return argv;
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

bool ChildProcess::Spawn(const char* const argv[], const std::string& logPath) {
  Stop();
  pid_ = StartChild(argv, logPath, logPath);
  return pid_ > 0;
}

bool ChildProcess::Running() {
  int status = 0;
  if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) pid_ = -1;
  return pid_ > 0;
}

void ChildProcess::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  for (int waited = 0; waited < 5000 && Running(); waited += 10) SleepMs(10);
  if (pid_ > 0) kill(pid_, SIGKILL);
  while (pid_ > 0 && waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
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

int FindFreePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  int port = 0;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  if (fd >= 0) close(fd);
  return port;
}

bool WaitForPort(int port, int timeoutMs, ChildProcess* owner) {
  for (int waited = 0; waited < timeoutMs; waited += 20) {
    if (ConnectsTo(port)) return true;
    if (owner && !owner->Running()) return false;
    SleepMs(20);
  }
  return false;
}

// A certificate authority of its own and a server certificate it signs (browsers that check
// certificates trust the authority, never a self-signed server certificate); both are sent. The
// names are the loopback ones and those tests reach through a proxy that sends every host here.
bool LoopbackServer::MakeCertificate() {
  const std::string dir = folder_.path(), ca = AuthorityPath(), caKey = dir + "/ca.key";
  const std::string key = dir + "/key.pem", leaf = dir + "/leaf.pem", log = dir + "/openssl.log";
  const char* names =
      "subjectAltName=IP:127.0.0.1,DNS:localhost,DNS:talvo.us,DNS:*.talvo.us,DNS:talvo.com,DNS:*.talvo.com,"
      "DNS:vantrel.com,DNS:*.vantrel.com,DNS:example.org,DNS:*.example.org";
  const char* authority[] = {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                             "-nodes", "-keyout", caKey.c_str(), "-out", ca.c_str(), "-days", "2",
                             "-subj", "/CN=Test Server Authority", nullptr};
  const char* server[] = {"openssl", "req", "-x509", "-CA", ca.c_str(), "-CAkey", caKey.c_str(), "-newkey", "ec",
                          "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key.c_str(),
                          "-out", leaf.c_str(), "-days", "2", "-subj", "/CN=127.0.0.1", "-addext", names,
                          "-addext", "basicConstraints=critical,CA:FALSE", "-addext",
                          "extendedKeyUsage=serverAuth", nullptr};
  return RunCommand(authority, log) == 0 && RunCommand(server, log) == 0 &&
         WriteFile(dir + "/cert.pem", ReadFile(leaf) + ReadFile(ca));
}

bool LoopbackServer::Start(const std::vector<std::string>& options) {
  const std::string& dir = folder_.path();
  const std::string portFile = dir + "/port", log = dir + "/server.log";
  if (dir.empty() || !MakeDirs(dir + "/www") || !MakeCertificate()) {
    error_ = "cannot make the server's folder and certificate: " + ReadFile(dir + "/openssl.log");
    return false;
  }
  std::vector<std::string> args = {"python3", std::string(GPC_SOURCE_DIR) + "/tests/support/loopback_server.py",
                                   "--port-file", portFile, "--log", AccessLogPath(), "--root", dir + "/www",
                                   "--certificate", dir + "/cert.pem", "--key", dir + "/key.pem", "--rate", rate_};
  args.insert(args.end(), options.begin(), options.end());
  if (!process_.Spawn(Argv(args).data(), log)) {
    error_ = "cannot run python3";
    return false;
  }
  for (int waited = 0; waited < kStartTimeoutMs && process_.Running(); waited += 20) {
    std::istringstream ports(ReadFile(portFile));
    if (ports >> httpPort_ >> httpsPort_) return true;
    SleepMs(20);
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

bool TinyProxyServer::Start(const std::string& user, const std::string& password) {
  const std::string& dir = folder_.path();
  const std::string confPath = dir + "/tinyproxy.conf", log = dir + "/tinyproxy.log";
  for (int attempt = 0; attempt < 3 && !dir.empty(); ++attempt) {
    port_ = FindFreePort();
    std::ostringstream conf;
    conf << "Port " << port_ << "\nListen 127.0.0.1\nTimeout 60\nLogFile \"" << log << "\"\nLogLevel Info\n"
         << "PidFile \"" << dir << "/tinyproxy.pid\"\nMaxClients 20\nAllow 127.0.0.1\n";
    if (!user.empty()) conf << "BasicAuth " << user << " " << password << "\n";
    const char* argv[] = {"tinyproxy", "-d", "-c", confPath.c_str(), nullptr};
    if (!WriteFile(confPath, conf.str()) || !process_.Spawn(argv, dir + "/stdout.log")) break;
    if (WaitForPort(port_, kStartTimeoutMs, &process_)) return true;
    process_.Stop();
  }
  error_ = "tinyproxy did not start: " + ReadFile(dir + "/stdout.log") + ReadFile(log);
  return false;
}

}  // namespace gpctest
