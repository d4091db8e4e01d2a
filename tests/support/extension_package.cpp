#include "extension_package.h"

#include "gpc_host_run.h"
#include "http_test_server.h"

namespace gpctest {

ToolRun RunTool(const std::vector<std::string>& argv) {
  ToolRun run;
  TempFolder folder("toolrun");
  std::vector<const char*> args;
  for (const std::string& arg : argv) args.push_back(arg.c_str());
  args.push_back(nullptr);
  if (argv.empty()) return run;
  run.exitCode = RunCommand(args.data(), folder.path() + "/out", folder.path() + "/err");
  run.out = ReadFile(folder.path() + "/out");
  run.err = ReadFile(folder.path() + "/err");
  return run;
}

std::string ShellOutput(const std::string& command, bool* ok) {
  const ToolRun run = RunTool({"/bin/sh", "-c", command});
  if (ok != nullptr) *ok = run.exitCode == 0;
  return run.out;
}

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string DigestInfo(const std::string& digest) {
  // The text is signed as it stands, not hashed again.
  const std::string algorithm("\x30\x09\x06\x05\x2b\x0e\x03\x02\x1d\x05\x00", 11);
  const std::string body = algorithm + '\x04' + static_cast<char>(digest.size()) + digest;
  return '\x30' + (static_cast<char>(body.size()) + body);
}

namespace {

// Runs `command` through the shell in `folder` and returns its standard output; `ok` as ShellOutput's.
std::string RunIn(const std::string& folder, const std::string& command, bool* ok) {
  return ShellOutput("cd " + ShellQuote(folder) + " && " + command, ok);
}

}  // namespace

PackageSigner::PackageSigner(const std::string& folder) : folder_(folder) {
  RunIn(folder_, "openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -out root.pem -days 3650 -subj "
                 "'/CN=Test Vendor Root' -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,"
                 "keyCertSign,cRLSign", &ok_);
  ok_ = ok_ && AddSigner("vendor", "/O=Vantrel/CN=gpc.signer.talvo.us");
}

bool PackageSigner::AddSigner(const std::string& name, const std::string& subject, bool selfSigned) {
  const std::string issue = " -out " + name + ".csr && openssl x509 -req -in " + name +
                            ".csr -CA root.pem -CAkey root.key -CAcreateserial";
  bool ok = false;
  RunIn(folder_, "openssl req -newkey rsa:2048 -nodes -keyout " + name + ".key -subj " + ShellQuote(subject) +
                     (selfSigned ? " -x509" : issue) + " -days 3650 -out " + name + ".pem", &ok);
  return ok;
}

std::string PackageSigner::Chain(const std::string& name, bool withRoot) const {
  auto base64Der = [this](const std::string& pem) {
    return RunIn(folder_, "openssl x509 -in " + pem + " -outform DER | openssl base64 -A", nullptr);
  };
  return withRoot ? base64Der("root.pem") + "|" + base64Der(name + ".pem") : base64Der(name + ".pem");
}

std::string PackageSigner::Sign(const std::string& digest, const std::string& name) const {
  // Type 1 padding over the DigestInfo as it stands (pkeyutl refuses inputs longer than a hash).
  WriteFile(Path("digestinfo.bin"), DigestInfo(digest));
  bool ok = false;
  const std::string signature = RunIn(
      folder_, "openssl rsautl -sign -inkey " + name + ".key -in digestinfo.bin | openssl base64 -A", &ok);
  return ok ? signature : std::string();
}

PageParams PackageSigner::PackageParameters(const std::string& package, const std::string& method,
                                            const std::string& name) const {
  const std::string digest = FileDigest(package, method);
  return {{"GpcExtHash", digest}, {"GpcHashMethod", method}, {"GpcExtSignature", Sign(digest, name)},
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
  bool ok = false;
  ShellOutput("rm -rf " + copy + " && cp -a " + ShellQuote(bundle) + " " + copy + " && cd " + copy +
                  " && sed -i '/<key>CFBundleVersion<\\/key>/{n;s|<string>.*</string>|<string>" + version +
                  "</string>|}' Contents/Info.plist && rm -f " + ShellQuote(archive) + " && cd " +
                  ShellQuote(work) + " && 7z a " + sevenZipOptions + " " + ShellQuote(archive) + " " +
                  ShellQuote(name + ".bundle"),
              &ok);
  return ok;
}

PageParams PackWithTheTool(const PackageSigner& signer, const std::string& bundle, const std::string& out) {
  const ToolRun run = RunTool({std::string(GPC_BIN_DIR) + "/gpc-pack", "pack", "--format", "json", "--key",
                               signer.Path("vendor.key"), "--cert", signer.Path("vendor.pem"), "--chain",
                               signer.Path("root.pem"), "--out", out, bundle});
  const std::vector<gpchost::JsonEvent> lines = gpchost::ParseJsonLines(run.out);
  PageParams params;
  for (const char* name : {"GpcExtName", "GpcExtVersion", "GpcCompressMethod", "GpcHashMethod", "GpcExtHash",
                           "GpcExtSignature", "GpcCertification"}) {
    if (run.exitCode == 0 && !lines.empty()) params.push_back({name, lines.back().Str(name)});
  }
  return params;
}

}  // namespace gpctest
