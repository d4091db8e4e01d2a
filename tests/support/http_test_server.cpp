#include "http_test_server.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <ftw.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace gpctest {

namespace {

const int kStartAttempts = 3;
const int kStartTimeoutMs = 10000;

#ifndef GPC_SOURCE_DIR
#define GPC_SOURCE_DIR "."
#endif

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

bool MakeDirs(const std::string& path) {
  for (size_t slash = path.find('/', 1); ; slash = path.find('/', slash + 1)) {
    std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

bool ConnectsTo(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return ok;
}

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Starts argv[0] (searched in PATH) with its output appended to `logPath`. The child is killed
// when this process ends, even by a crash, so no server outlives its test.
pid_t StartChild(const char* const argv[], const std::string& logPath) {
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  int in = open("/dev/null", O_RDONLY);
  int out = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (in < 0 || out < 0) _exit(127);
  dup2(in, 0);
  dup2(out, 1);
  dup2(out, 2);
  execvp(argv[0], const_cast<char* const*>(argv));
  _exit(127);
}

}  // namespace

TempFolder::TempFolder(const std::string& prefix) {
  const char* home = getenv("GPC_TEST_HOME");
  std::string base = home && *home ? home : "/tmp";
  MakeDirs(base);
  std::string templ = base + "/" + prefix + "XXXXXX";
  std::vector<char> buffer(templ.begin(), templ.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data())) path_ = buffer.data();
}

TempFolder::~TempFolder() {
  if (!path_.empty()) nftw(path_.c_str(), &RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

bool WriteFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
  return static_cast<bool>(out);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

std::string PatternBytes(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  uint32_t state = 2463534242u ^ (seed * 2654435761u);
  for (size_t i = 0; i < size; ++i) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    bytes[i] = static_cast<char>(state & 0xff);
  }
  return bytes;
}

std::vector<std::string> PiecesInTmp(const std::string& content) {
  std::vector<std::string> pieces;
  DIR* dir = opendir("/tmp");
  if (dir == nullptr) return pieces;
  while (dirent* entry = readdir(dir)) {
    if (std::string(entry->d_name).rfind("gpc_tmp_", 0) != 0) continue;
    const std::string path = std::string("/tmp/") + entry->d_name;
    const std::string head = ReadFile(path);
    if (!head.empty() && content.compare(0, head.size(), head) == 0) pieces.push_back(path);
  }
  closedir(dir);
  return pieces;
}

bool ChildProcess::Spawn(const char* const argv[], const std::string& logPath) {
  Stop();
  pid_t pid = StartChild(argv, logPath);
  if (pid < 0) return false;
  pid_ = pid;
  return true;
}

bool ChildProcess::Running() {
  if (pid_ <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    return false;
  }
  return true;
}

void ChildProcess::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  for (int waited = 0; waited < 5000; waited += 10) {
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return;
    }
    SleepMs(10);
  }
  kill(pid_, SIGKILL);
  waitpid(pid_, &status, 0);
  pid_ = -1;
}

int RunCommand(const char* const argv[], const std::string& logPath) {
  pid_t pid = StartChild(argv, logPath);
  if (pid < 0) return -1;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int FindFreePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
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

NginxTestServer::NginxTestServer() : folder_("nginx") {}

NginxTestServer::~NginxTestServer() { process_.Stop(); }

// A certificate authority of its own and a server certificate it signs (browsers that check
// certificates trust the authority, never a self-signed server certificate); nginx sends both.
bool NginxTestServer::MakeCertificate() {
  const std::string dir = folder_.path();
  const std::string key = dir + "/key.pem", leaf = dir + "/leaf.pem", caKey = dir + "/ca.key", ca = AuthorityPath();
  // Valid for the loopback address and for the names tests reach through a proxy that sends
  // every host here: the approved domains and one that is not.
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
  const std::string log = dir + "/openssl.log";
  return RunCommand(authority, log) == 0 && RunCommand(server, log) == 0 &&
         WriteFile(dir + "/cert.pem", ReadFile(leaf) + ReadFile(ca));
}

bool NginxTestServer::WriteConfig() {
  const std::string& dir = folder_.path();
  std::ostringstream conf;
  conf << "master_process off;\n"
       << "daemon off;\n"
       << "worker_processes 1;\n"
       << "pid " << dir << "/nginx.pid;\n"
       << "error_log " << dir << "/error.log;\n"
       << "events { worker_connections 256; }\n"
       << "http {\n"
       << "  access_log " << dir << "/access.log;\n"
       << "  client_body_temp_path " << dir << "/temp/body;\n"
       << "  proxy_temp_path " << dir << "/temp/proxy;\n"
       << "  fastcgi_temp_path " << dir << "/temp/fastcgi;\n"
       << "  uwsgi_temp_path " << dir << "/temp/uwsgi;\n"
       << "  scgi_temp_path " << dir << "/temp/scgi;\n"
       << "  default_type application/octet-stream;\n"
       << "  sendfile on;\n"
       << "  server {\n"
       << "    listen 127.0.0.1:" << httpPort_ << ";\n"
       << "    listen 127.0.0.1:" << httpsPort_ << " ssl;\n"
       << "    ssl_certificate " << dir << "/cert.pem;\n"
       << "    ssl_certificate_key " << dir << "/key.pem;\n"
       << "    root " << dir << "/www;\n";
  if (!limitRate_.empty()) conf << "    limit_rate " << limitRate_ << ";\n";
  conf << "  }\n"
       << "}\n";
  return WriteFile(dir + "/nginx.conf", conf.str());
}

bool NginxTestServer::Start() {
  const std::string& dir = folder_.path();
  if (dir.empty() || !MakeDirs(dir + "/www") || !MakeDirs(dir + "/temp")) {
    error_ = "cannot make the server folder";
    return false;
  }
  if (!MakeCertificate()) {
    error_ = "openssl failed: " + ReadFile(dir + "/openssl.log");
    return false;
  }
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    httpPort_ = FindFreePort();
    httpsPort_ = FindFreePort();
    if (httpPort_ == httpsPort_ || !WriteConfig()) continue;
    std::string conf = dir + "/nginx.conf";
    const char* argv[] = {"nginx", "-p", dir.c_str(), "-c", conf.c_str(), nullptr};
    if (!process_.Spawn(argv, dir + "/nginx.log")) break;
    if (WaitForPort(httpPort_, kStartTimeoutMs, &process_) &&
        WaitForPort(httpsPort_, kStartTimeoutMs, &process_)) {
      return true;
    }
    process_.Stop();
  }
  error_ = "nginx did not start: " + ReadFile(dir + "/nginx.log") + ReadFile(dir + "/error.log");
  return false;
}

std::string NginxTestServer::FilePath(const std::string& name) const {
  return folder_.path() + "/www/" + name;
}

bool NginxTestServer::AddFile(const std::string& name, const std::string& content) {
  std::string path = FilePath(name);
  std::string parent = path.substr(0, path.rfind('/'));
  return MakeDirs(parent) && WriteFile(path, content);
}

std::string NginxTestServer::HttpUrl(const std::string& name) const {
  return "http://127.0.0.1:" + std::to_string(httpPort_) + "/" + name;
}

std::string NginxTestServer::HttpsUrl(const std::string& name) const {
  return "https://127.0.0.1:" + std::to_string(httpsPort_) + "/" + name;
}

ScriptedHttpServer::ScriptedHttpServer() : folder_("scripted") {}

ScriptedHttpServer::~ScriptedHttpServer() { process_.Stop(); }

bool ScriptedHttpServer::Start() {
  const std::string& dir = folder_.path();
  std::string script = std::string(GPC_SOURCE_DIR) + "/tests/support/scripted_http_server.py";
  std::string portFile = dir + "/port";
  std::string requestLog = dir + "/requests.log";
  const char* argv[] = {"python3", script.c_str(), "--port-file", portFile.c_str(),
                        "--request-log", requestLog.c_str(), nullptr};
  if (dir.empty() || !process_.Spawn(argv, dir + "/server.log")) {
    error_ = "cannot run " + script;
    return false;
  }
  for (int waited = 0; waited < kStartTimeoutMs; waited += 20) {
    std::string text = ReadFile(portFile);
    if (!text.empty() && text.back() == '\n') {
      port_ = atoi(text.c_str());
      return true;
    }
    if (!process_.Running()) break;
    SleepMs(20);
  }
  error_ = "scripted server did not start: " + ReadFile(dir + "/server.log");
  return false;
}

std::string ScriptedHttpServer::Url(const std::string& pathAndQuery) const {
  return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

int ScriptedHttpServer::RequestCount(const std::string& path) const {
  std::istringstream log(ReadFile(folder_.path() + "/requests.log"));
  int count = 0;
  for (std::string line; std::getline(log, line);) {
    if (line == path) ++count;
  }
  return count;
}

TinyProxyServer::TinyProxyServer() : folder_("tinyproxy") {}

TinyProxyServer::~TinyProxyServer() { process_.Stop(); }

bool TinyProxyServer::Start(const std::string& user, const std::string& password) {
  const std::string& dir = folder_.path();
  for (int attempt = 0; attempt < kStartAttempts && !dir.empty(); ++attempt) {
    port_ = FindFreePort();
    std::ostringstream conf;
    conf << "Port " << port_ << "\n"
         << "Listen 127.0.0.1\n"
         << "Timeout 60\n"
         << "LogFile \"" << dir << "/tinyproxy.log\"\n"
         << "LogLevel Info\n"
         << "PidFile \"" << dir << "/tinyproxy.pid\"\n"
         << "MaxClients 20\n"
         << "Allow 127.0.0.1\n";
    if (!user.empty()) conf << "BasicAuth " << user << " " << password << "\n";
    std::string confPath = dir + "/tinyproxy.conf";
    if (!WriteFile(confPath, conf.str())) break;
    const char* argv[] = {"tinyproxy", "-d", "-c", confPath.c_str(), nullptr};
    if (!process_.Spawn(argv, dir + "/stdout.log")) break;
    if (WaitForPort(port_, kStartTimeoutMs, &process_)) return true;
    process_.Stop();
  }
  error_ = "tinyproxy did not start: " + ReadFile(dir + "/stdout.log") + ReadFile(dir + "/tinyproxy.log");
  return false;
}

std::string TinyProxyServer::Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

}  // namespace gpctest
