#include "extension_package.h"

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "gpc_host_run.h"
#include "http_test_server.h"

namespace gpctest {

namespace {

// Runs `command` through the shell; returns its standard output and sets `status` as pclose gives it.
std::string Shell(const std::string& command, int* status) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  char chunk[4096];
  for (size_t got; pipe != nullptr && (got = fread(chunk, 1, sizeof chunk, pipe)) > 0;) {
    output.append(chunk, got);
  }
  *status = pipe != nullptr ? pclose(pipe) : -1;
  return output;
}

}  // namespace

ToolRun RunTool(const std::vector<std::string>& argv) {
  ToolRun run;
  if (argv.empty()) return run;
  TempFolder folder("toolrun");
  std::string command = "exec";
  for (const std::string& arg : argv) command += " " + ShellQuote(arg);
  int status = -1;
  run.out = Shell(command + " 2>" + ShellQuote(folder.path() + "/err"), &status);
  run.err = ReadFile(folder.path() + "/err");
  if (status != -1 && WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  return run;
}

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string ShellOutput(const std::string& command, bool* ok) {
  int status = -1;
  const std::string output = Shell(command, &status);
  if (ok != nullptr) *ok = status == 0;
  return output;
}

std::string DigestInfo(const std::string& digest) {
  // The text is signed as it stands, not hashed again.
  const std::string algorithm("\x30\x09\x06\x05\x2b\x0e\x03\x02\x1d\x05\x00", 11);
  const std::string body = algorithm + '\x04' + static_cast<char>(digest.size()) + digest;
  return '\x30' + (static_cast<char>(body.size()) + body);
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
  const std::string request =
      "openssl req -newkey rsa:2048 -nodes -keyout " + name + ".key -subj " + ShellQuote(subject);
  const std::string issue = " -out " + name + ".csr && openssl x509 -req -in " + name +
                            ".csr -CA root.pem -CAkey root.key -CAcreateserial";
  return Run(request + (selfSigned ? " -x509" : issue) + " -days 3650 -out " + name + ".pem");
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
  // Type 1 padding over the DigestInfo as it stands (pkeyutl refuses inputs longer than a hash).
  WriteFile(Path("digestinfo.bin"), DigestInfo(digest));
  bool ok = false;
  const std::string signature = ShellOutput(
      "cd " + ShellQuote(folder_) + " && openssl rsautl -sign -inkey " + name +
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
  const std::string out = ShellOutput("openssl dgst -" + method + " -r " + ShellQuote(path), &ok);
  return ok ? out.substr(0, out.find(' ')) : std::string();
}

bool PackExtension(const std::string& bundle, const std::string& version, const std::string& work,
                   const std::string& archive, const std::string& name, const std::string& sevenZipOptions) {
  const std::string copy = ShellQuote(work + "/" + name + ".bundle");
  const std::string command =
      "rm -rf " + copy + " && cp -a " + ShellQuote(bundle) + " " + copy + " && cd " + copy +
      " && sed -i '/<key>CFBundleVersion<\\/key>/{n;s|<string>.*</string>|<string>" + version +
      "</string>|}' Contents/Info.plist && rm -f " + ShellQuote(archive) + " && cd " + ShellQuote(work) +
      " && 7z a " + sevenZipOptions + " " + ShellQuote(archive) + " " + ShellQuote(name + ".bundle") +
      " >/dev/null";
  return std::system(command.c_str()) == 0;
}

PageParams PackWithTheTool(const PackageSigner& signer, const std::string& bundle, const std::string& out) {
  bool ok = false;
  const std::string printed = ShellOutput(
      std::string(GPC_BIN_DIR) + "/gpc-pack pack --format json --key " +
          ShellQuote(signer.Path("vendor.key")) + " --cert " + ShellQuote(signer.Path("vendor.pem")) +
          " --chain " + ShellQuote(signer.Path("root.pem")) + " --out " + ShellQuote(out) + " " +
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
