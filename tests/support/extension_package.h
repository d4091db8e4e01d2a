// Signed extension packages for tests and benchmarks, made as a vendor makes them with the 7z and
// openssl tools. No gtest here: benchmarks compile this file too.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace gpctest {

typedef std::vector<std::pair<std::string, std::string>> PageParams;

// A root certificate and the signer "vendor" ("/O=Vantrel/CN=gpc.signer.talvo.us") it issued, in `folder`.
class PackageSigner {
 public:
  explicit PackageSigner(const std::string& folder);
  bool ok() const { return ok_; }
  // Issues another signer `name` with `subject` (e.g. "/CN=x.example.com"), by the root or self-signed.
  bool AddSigner(const std::string& name, const std::string& subject, bool selfSigned = false);
  // "GpcCertification": base64 DER of the root (unless `withRoot` is false), "|", that of signer `name`.
  std::string Chain(const std::string& name = "vendor", bool withRoot = true) const;
  // Base64 of signer `name`'s signature over the text `digest`; empty on failure.
  std::string Sign(const std::string& digest, const std::string& name = "vendor") const;
  // "GpcExtHash", "GpcHashMethod", "GpcExtSignature" and "GpcCertification" for the file `package`.
  PageParams PackageParameters(const std::string& package, const std::string& method = "sha256",
                               const std::string& name = "vendor") const;
  // A file of the signer's folder: "root.pem", "<name>.key", "<name>.pem".
  std::string Path(const std::string& file) const { return folder_ + "/" + file; }

 private:
  std::string folder_;
  bool ok_ = false;
};

// Packs a copy of `bundle` as "<name>.bundle" with CFBundleVersion `version` into the 7z archive `archive`
// (made in `work`, `sevenZipOptions` for "7z a"). False when a step fails.
bool PackExtension(const std::string& bundle, const std::string& version, const std::string& work,
                   const std::string& archive, const std::string& name = "zrgpcext64",
                   const std::string& sevenZipOptions = "-mx=1");
// Packs `bundle` with gpc-pack as `signer`'s vendor into the folder `out`: the embed parameters, or none.
PageParams PackWithTheTool(const PackageSigner& signer, const std::string& bundle, const std::string& out);

// DigestInfo { sha1WithRSASignature OID, NULL parameters, OCTET STRING `digest` }: what a signer signs.
std::string DigestInfo(const std::string& digest);
// The lower-case hex SHA-1 or SHA-256 ("sha1", "sha256") of a file, by the openssl tool; empty on failure.
std::string FileDigest(const std::string& path, const std::string& method);

struct ToolRun {  // what a program run by RunTool did
  int exitCode = -1;  // -1 when it could not run, 128 + the signal that ended it
  std::string out, err;
};
// Runs `argv` (argv[0] a path or a name in PATH) without a shell, waits for it and collects both outputs.
ToolRun RunTool(const std::vector<std::string>& argv);
// Runs `command` through the shell and returns its standard output; `ok` tells whether it exited 0.
std::string ShellOutput(const std::string& command, bool* ok = nullptr);
// `text` quoted for the shell.
std::string ShellQuote(const std::string& text);

}  // namespace gpctest
