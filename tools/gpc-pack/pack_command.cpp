// `gpc-pack pack`: the package is written to a hidden temporary file beside its final name,
// judged as the plug-in will judge it, and only then moved into place, so that a failure or an
// interruption never leaves a half-written or refused package behind.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/NSString+Hex.h"
#include "bundle_archive.h"
#include "commands.h"
#include "platform/system_version.h"
#include "signing_identity.h"

namespace {

// The temporary file an interruption must remove; written before the handlers can run.
char g_pendingPath[PATH_MAX] = {};

void RemovePendingAndStop(int number) {
  if (g_pendingPath[0] != '\0') unlink(g_pendingPath);
  signal(number, SIG_DFL);
  raise(number);
}

// A package being written: removed by the destructor unless it was moved into place.
class PendingPackage {
 public:
  PendingPackage() = default;
  ~PendingPackage() {
    if (m_fd >= 0) close(m_fd);
    if (!m_path.empty()) unlink(m_path.c_str());
    g_pendingPath[0] = '\0';
  }
  PendingPackage(const PendingPackage&) = delete;
  PendingPackage& operator=(const PendingPackage&) = delete;

  bool Create(const std::string& folder, const std::string& fileName, std::string* error) {
    std::string pattern = folder + "/." + fileName + ".XXXXXX";
    if (pattern.size() >= sizeof g_pendingPath) {
      *error = "the output path " + pattern + " is too long";
      return false;
    }
    m_fd = mkostemp(&pattern[0], O_CLOEXEC);
    if (m_fd < 0) {
      *error = "cannot write in " + folder + ": " + strerror(errno);
      return false;
    }
    m_path = pattern;
    memcpy(g_pendingPath, m_path.c_str(), m_path.size() + 1);
    // A signal the caller has us ignore (nohup, a job in the background) stays ignored.
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
      struct sigaction current {};
      if (sigaction(number, nullptr, &current) == 0 && current.sa_handler != SIG_IGN)
        signal(number, RemovePendingAndStop);
    }
    return true;
  }

  int fd() const { return m_fd; }
  const std::string& path() const { return m_path; }

  // Gives the file the mode of any new file and makes it durable.
  bool Close(std::string* error) {
    const mode_t mask = umask(0);
    umask(mask);
    const bool ok = fchmod(m_fd, 0666 & ~mask) == 0 && fsync(m_fd) == 0;
    const bool closed = close(m_fd) == 0;
    m_fd = -1;
    if (!ok || !closed) *error = "cannot write " + m_path + ": " + strerror(errno);
    return ok && closed;
  }

  bool MoveTo(const std::string& target, bool replace, std::string* error) {
    int moved = replace ? rename(m_path.c_str(), target.c_str())
                        : renameat2(AT_FDCWD, m_path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
    // A file system without the no-replace flag: look first.
    if (moved != 0 && !replace && errno == EINVAL) {
      struct stat info;
      moved = lstat(target.c_str(), &info) == 0 ? (errno = EEXIST, -1) : rename(m_path.c_str(), target.c_str());
    }
    if (moved != 0) {
      *error = errno == EEXIST ? target + " exists; use --force to replace it"
                               : "cannot move the package to " + target + ": " + strerror(errno);
      return false;
    }
    m_path.clear();
    g_pendingPath[0] = '\0';
    return true;
  }

 private:
  int m_fd = -1;
  std::string m_path;
};

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// Whether the folder `inner` is `outer` or lies below it; a package written there would pack itself.
bool LiesInside(const std::string& inner, const std::string& outer) {
  char* innerReal = realpath(inner.c_str(), nullptr);
  char* outerReal = realpath(outer.c_str(), nullptr);
  const std::string in = innerReal != nullptr ? innerReal : "", out = outerReal != nullptr ? outerReal : "";
  free(innerReal);
  free(outerReal);
  return !in.empty() && !out.empty() && (in == out || in.compare(0, out.size() + 1, out + "/") == 0);
}

std::string DigestOf(const std::string& path, const std::string& method) {
  return method == "sha1" ? Sha1OfFile(path.c_str()) : Sha256OfFile(path.c_str());
}

// Judges the package as the plug-in of this system will, and with every check made when this
// system's plug-in would skip them.
std::string RefusalOf(const std::string& path, const EmbedParams& params) {
  PackageJudgement judgement = JudgePackage(path, params, platform::SystemVersion());
  if (judgement.refusal.empty() && judgement.verdict.check == GpcPackageCheck::kAcceptedUnchecked) {
    judgement = JudgePackage(path, params, platform::kDefaultSystemVersion);
  }
  return judgement.refusal;
}

void PrintParams(const EmbedParams& params, const std::string& format) {
  std::string text;
  if (format != "json") text += EmbedHtml(params);
  if (format == "both") text += "\n";
  if (format != "html") text += EmbedJson(params);
  fwrite(text.data(), 1, text.size(), stdout);
  fflush(stdout);
}

int Fail(const std::string& message) {
  fprintf(stderr, "gpc-pack: %s\n", message.c_str());
  return kExitFailed;
}

}  // namespace

int RunPack(const PackOptions& options) {
  std::string error;
  BundleFacts bundle;
  SigningIdentity identity;
  if (!ReadBundleFacts(options.bundle, &bundle, &error) ||
      !LoadSigningIdentity(options.key, options.cert, options.chain, &identity, &error)) {
    return Fail(error);
  }
  if (LiesInside(options.out, bundle.folder)) return Fail("the output folder " + options.out + " lies inside the bundle");
  const std::string fileName = bundle.name + ".bundle.7z";
  const std::string target = options.out + "/" + fileName;
  if (!options.force && Exists(target)) return Fail(target + " exists; use --force to replace it");

  PendingPackage package;
  if (!package.Create(options.out, fileName, &error) || !WriteBundleArchive(bundle, package.fd(), &error) ||
      !package.Close(&error)) {
    return Fail(error);
  }
  const std::string digest = DigestOf(package.path(), options.hash);
  std::string signature;
  if (digest.empty()) return Fail("cannot compute the digest of " + package.path());
  if (!SignDigest(identity, digest, &signature, &error)) return Fail(error);

  const EmbedParams params = {
      {"GpcExtName", bundle.name},         {"GpcExtVersion", bundle.version},
      {"GpcUnpackVersion", "1,0"},         {"GpcCompressMethod", "7zip"},
      {"GpcHashMethod", options.hash},
      {"GpcExtHash", digest},              {"GpcExtSignature", signature},
      {"GpcCertification", CertificationText(identity)},
  };
  const std::string refusal = RefusalOf(package.path(), params);
  if (!refusal.empty()) return Fail("the plug-in would refuse this package: " + refusal);
  if (!package.MoveTo(target, options.force, &error)) return Fail(error);
  PrintParams(params, options.format);
  fprintf(stderr, "gpc-pack: wrote %s\n", target.c_str());
  return kExitOk;
}
