#include "extension_package.h"

#include "gpc_host_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

extern char** environ;

namespace gpctest {

namespace {

// DigestInfo { sha1WithRSASignature (1.3.14.3.2.29) with NULL parameters, the digest's text }:
// the text is signed as it stands, not hashed again.
std::string DigestInfo(const std::string& digest) {
  static const unsigned char kAlgorithm[] = {0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1d, 0x05, 0x00};
  std::string body(reinterpret_cast<const char*>(kAlgorithm), sizeof kAlgorithm);
  body += '\x04';
  body += static_cast<char>(digest.size());
  body += digest;
  std::string info;
  info += '\x30';
  info += static_cast<char>(body.size());
  return info + body;
}

// An unlinked scratch file for a child's output; -1 on failure.
int AnonymousFile() {
  const char* home = getenv("GPC_TEST_HOME");
  std::string pattern = std::string(home != nullptr && *home != '\0' ? home : "/tmp") + "/toolrunXXXXXX";
  const int fd = mkstemp(&pattern[0]);
  if (fd >= 0) unlink(pattern.c_str());
  return fd;
}

std::string ReadFromStart(int fd) {
  std::string text;
  char chunk[4096];
  ssize_t got;
  lseek(fd, 0, SEEK_SET);
  while ((got = read(fd, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(got));
  return text;
}

}  // namespace

ToolRun RunTool(const std::vector<std::string>& argv) {
  ToolRun run;
  const int out = AnonymousFile(), err = AnonymousFile();
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  pid_t pid = -1;
  int status = 0;
  if (out >= 0 && err >= 0 && !argv.empty() &&
      posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) == 0 && waitpid(pid, &status, 0) == pid &&
      WIFEXITED(status)) {
    run.exitCode = WEXITSTATUS(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  if (out >= 0) {
    run.out = ReadFromStart(out);
    close(out);
  }
  if (err >= 0) {
    run.err = ReadFromStart(err);
    close(err);
  }
  return run;
}

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string ShellOutput(const std::string& command, bool* ok) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    if (ok != nullptr) *ok = false;
    return output;
  }
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, pipe)) > 0) output.append(chunk, got);
  const int status = pclose(pipe);
  if (ok != nullptr) *ok = status == 0;
  return output;
}

PackageSigner::PackageSigner(const std::string& folder) : folder_(folder) {
  ok_ = Run("openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -out root.pem -days 3650 "
            "-subj '/CN=Test Vendor Root' -addext basicConstraints=critical,CA:TRUE "
            "-addext keyUsage=critical,keyCertSign,cRLSign") &&
        AddSigner("vendor", "/O=Vantrel/CN=gpc.signer.talvo.us");
}

bool PackageSigner::Run(const std::string& command) const {
  return std::system(("cd " + ShellQuote(folder_) + " && (" + command + ") >/dev/null 2>&1").c_str()) == 0;
}

bool PackageSigner::AddSigner(const std::string& name, const std::string& subject, bool selfSigned) {
  const std::string key = name + ".key", pem = name + ".pem", quotedSubject = ShellQuote(subject);
  if (selfSigned) {
    return Run("openssl req -x509 -newkey rsa:2048 -nodes -keyout " + key + " -out " + pem +
               " -days 3650 -subj " + quotedSubject);
  }
  return Run("openssl req -new -newkey rsa:2048 -nodes -keyout " + key + " -out " + name + ".csr -subj " +
             quotedSubject) &&
         Run("openssl x509 -req -in " + name + ".csr -CA root.pem -CAkey root.key -CAcreateserial -days 3650 -out " +
             pem);
}

std::string PackageSigner::Chain(const std::string& name, bool withRoot) const {
  auto base64Der = [this](const std::string& pem) {
    return ShellOutput("cd " + ShellQuote(folder_) + " && openssl x509 -in " + pem +
                       " -outform DER | openssl base64 -A");
  };
  const std::string leaf = base64Der(name + ".pem");
  return withRoot ? base64Der("root.pem") + "|" + leaf : leaf;
}

std::string PackageSigner::Sign(const std::string& digest, const std::string& name) const {
  const std::string input = folder_ + "/digestinfo.bin";
  std::ofstream(input, std::ios::binary) << DigestInfo(digest);
  // Type 1 padding over the DigestInfo as it stands (pkeyutl refuses inputs longer than a hash).
  bool ok = false;
  std::string signature = ShellOutput("cd " + ShellQuote(folder_) + " && openssl rsautl -sign -inkey " + name +
                                          ".key -in digestinfo.bin 2>/dev/null | openssl base64 -A",
                                      &ok);
  return ok ? signature : std::string();
}

PageParams PackageSigner::PackageParameters(const std::string& package, const std::string& method,
                                            const std::string& name) const {
  const std::string digest = FileDigest(package, method);
  return {{"GpcExtHash", digest},
          {"GpcHashMethod", method},
          {"GpcExtSignature", Sign(digest, name)},
          {"GpcCertification", Chain(name)}};
}

std::string FileDigest(const std::string& path, const std::string& method) {
  bool ok = false;
  std::string out = ShellOutput("openssl dgst -" + method + " -r " + ShellQuote(path), &ok);
  return ok ? out.substr(0, out.find(' ')) : std::string();
}

bool PackExtension(const std::string& bundle, const std::string& version, const std::string& work,
                   const std::string& archive, const std::string& name, const std::string& sevenZipOptions) {
  const std::string copy = work + "/" + name + ".bundle";
  const std::string plist = copy + "/Contents/Info.plist";
  const std::string command =
      "rm -rf " + ShellQuote(copy) + " && cp -a " + ShellQuote(bundle) + " " + ShellQuote(copy) +
      " && sed -i '/<key>CFBundleVersion<\\/key>/{n;s|<string>.*</string>|<string>" + version + "</string>|}' " +
      ShellQuote(plist) + " && rm -f " + ShellQuote(archive) + " && cd " + ShellQuote(work) + " && 7z a " +
      sevenZipOptions + " " + ShellQuote(archive) + " " + ShellQuote(name + ".bundle") + " >/dev/null";
  return std::system(command.c_str()) == 0;
}

PageParams PackWithTheTool(const PackageSigner& signer, const std::string& bundle, const std::string& out) {
  bool ok = false;
  const std::string printed = ShellOutput(std::string(GPC_BIN_DIR) + "/gpc-pack pack --format json --key " +
                                              ShellQuote(signer.Path("vendor.key")) + " --cert " +
                                              ShellQuote(signer.Path("vendor.pem")) + " --chain " +
                                              ShellQuote(signer.Path("root.pem")) + " --out " + ShellQuote(out) + " " +
                                              ShellQuote(bundle),
                                          &ok);
  const std::vector<gpchost::JsonEvent> lines = gpchost::ParseJsonLines(printed);
  if (!ok || lines.empty()) return {};
  PageParams params;
  for (const char* name : {"GpcExtName", "GpcExtVersion", "GpcCompressMethod", "GpcHashMethod", "GpcExtHash",
                           "GpcExtSignature", "GpcCertification"}) {
    params.push_back({name, lines.back().Str(name)});
  }
  return params;
}

}  // namespace gpctest
