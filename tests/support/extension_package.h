// Signed extension packages for tests and benchmarks, made as a vendor makes them: an extension
// bundle packed by the 7z tool, its digest, a certificate chain issued by a root made with the
// openssl tool, and the PKCS #1 v1.5 sha1WithRSA signature over the digest's text.
// No gtest here: benchmarks compile this file too.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace gpctest {

typedef std::vector<std::pair<std::string, std::string>> PageParams;

// A root certificate and signing certificates issued by it, in a folder of their own.
class PackageSigner {
 public:
  // Makes the root and one signer whose common name is "gpc.signer.talvo.us"; ok() tells whether
  // every openssl call succeeded.
  explicit PackageSigner(const std::string& folder);
  bool ok() const { return ok_; }

  // Issues another signer named `name` with `subject` (e.g. "/CN=gpc.signer.example.com"), by the
  // root, or self-signed.
  bool AddSigner(const std::string& name, const std::string& subject, bool selfSigned = false);

  // "GpcCertification" for signer `name`: base64 DER of the root, "|", base64 DER of the signer
  // (the root left out when `withRoot` is false).
  std::string Chain(const std::string& name = "vendor", bool withRoot = true) const;
  // Base64 of the signature over the text `digest`, by signer `name`; empty on failure.
  std::string Sign(const std::string& digest, const std::string& name = "vendor") const;

  // The package parameters a page gives for the file at `package`: "GpcExtHash", "GpcHashMethod",
  // "GpcExtSignature" and "GpcCertification", signed by `name`.
  PageParams PackageParameters(const std::string& package, const std::string& method = "sha256",
                               const std::string& name = "vendor") const;

  // The path of a file of the signer's folder: "root.pem", "<name>.key", "<name>.pem".
  std::string Path(const std::string& file) const { return folder_ + "/" + file; }

 private:
  bool Run(const std::string& command) const;
  std::string folder_;
  bool ok_ = false;
};

// Packs a copy of the extension bundle at `bundle` as "<name>.bundle" with CFBundleVersion
// `version` (dots, e.g. "2.0.0.7") into the 7z archive `archive`, from the folder `work`.
// `7zOptions` go to "7z a" (e.g. "-mx=5"). False when a step fails.
bool PackExtension(const std::string& bundle, const std::string& version, const std::string& work,
                   const std::string& archive, const std::string& name = "zrgpcext64",
                   const std::string& sevenZipOptions = "-mx=1");

// Packs the bundle folder `bundle` with gpc-pack, signed by `signer`'s vendor certificate and its
// root, into the folder `out`; returns the embed parameters the tool printed (none on failure).
PageParams PackWithTheTool(const PackageSigner& signer, const std::string& bundle, const std::string& out);

// The lower-case hex SHA-1 or SHA-256 of a file, by the openssl tool; empty on failure.
std::string FileDigest(const std::string& path, const std::string& method);

// Runs `command` through the shell and returns its standard output; `ok` tells whether it exited 0.
std::string ShellOutput(const std::string& command, bool* ok = nullptr);

// `text` quoted for the shell.
std::string ShellQuote(const std::string& text);

// What a program run by RunTool did.
struct ToolRun {
  int exitCode = -1;  // -1 when it could not run or did not exit normally
  std::string out, err;
};

// Runs `argv` (argv[0] a path) without a shell, waits for it and collects both outputs.
ToolRun RunTool(const std::vector<std::string>& argv);

}  // namespace gpctest
