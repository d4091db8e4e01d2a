// `gpc-pack verify` and the judgement of a package that `pack` also makes on what it wrote.
#include <fcntl.h>
#include <ftw.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "bundle_archive.h"
#include "commands.h"
#include "common/gpcutil.h"
#include "common/versionfordylib.h"
#include "lib7zip/lib7zip.h"
#include "platform/folders.h"
#include "platform/system_version.h"

namespace {

// The plug-in's extension name when the page gives none, or one longer than it takes.
constexpr char kDefaultExtensionName[] = "zrgpcext64";
constexpr size_t kLongestExtensionName = 64;

GpcPackageParameters PageOf(const EmbedParams& params) {
  std::string value;
  return ReadPackageParameters([&](const char* name) {
    value = ParamValue(params, name);
    return value.c_str();
  });
}

std::string ExtensionNameOf(const EmbedParams& params) {
  const std::string name = ParamValue(params, "GpcExtName");
  return name.empty() || name.size() > kLongestExtensionName ? kDefaultExtensionName : name;
}

const char* UnpackFailureText(int32_t code) {
  switch (code) {
    case kGpc7zCannotReadArchive: return "it is unreadable, truncated, encrypted or no 7z archive";
    case kGpc7zUnsafeEntry: return "an entry would land or point outside the folder it is unpacked in";
    case kGpc7zLimitExceeded: return "it holds too many entries or bytes";
    default: return "it ran out of memory";
  }
}

// The unpacker restores the bundle's folder modes; a read-only one would keep its contents from
// being removed by anyone but root.
int OpenFolderForRemoval(const char* path, const struct stat* info, int type, FTW*) {
  if (type == FTW_D || type == FTW_DNR) chmod(path, (info->st_mode & 07777) | S_IRWXU);
  return 0;
}

// What the plug-in's own unpacker says of the archive, unpacking it into a private temporary
// folder: empty when it unpacks. A stop asked for meanwhile waits until the folder is gone.
std::string UnpackRefusal(const std::string& path) {
  sigset_t stops, before;
  sigemptyset(&stops);
  for (int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stops, number);
  sigprocmask(SIG_BLOCK, &stops, &before);
  const std::string temp = platform::TempDir();
  std::string folder = temp + "gpc-pack-XXXXXX";
  int32_t code = kGpc7zWriteFailed;
  if (!temp.empty() && mkdtemp(&folder[0]) != nullptr) {
    code = GpcDecompressFile7z(path.c_str(), (folder + "/unpacked").c_str());
    nftw(folder.c_str(), OpenFolderForRemoval, 16, FTW_PHYS);
    RemoveFile(folder);
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
  if (code == kGpc7zSuccess) return std::string();
  if (code == kGpc7zWriteFailed) {  // this machine's limit, not the plug-in's verdict
    return "cannot check the archive: unpacking it into " + (temp.empty() ? std::string("$TMPDIR") : temp) +
           " failed (is there room?)";
  }
  return std::string("the plug-in's unpacker refuses the archive: ") + UnpackFailureText(code) + " (lib7zip code " +
         std::to_string(code) + ")";
}

// What keeps a package that passed CheckPackage from being installed and recognised; empty when
// nothing does.
std::string ArchiveRefusal(const std::string& path, const EmbedParams& params) {
  const std::string method = ParamValue(params, "GpcCompressMethod");
  if (strcasecmp(method.c_str(), "7zip") != 0) {  // an empty or absent method fetches the zip too
    return (method.empty() ? std::string("GpcCompressMethod is missing")
                           : "GpcCompressMethod is \"" + method + "\", not \"7zip\"") +
           ": the plug-in would fetch a .bundle.zip";
  }
  const std::string wanted = ParamValue(params, "GpcExtVersion");
  if (!wanted.empty() && ParamValue(params, "GpcUnpackVersion").empty()) {
    return "GpcUnpackVersion is missing: the plug-in would compare no versions and never fetch the package";
  }
  const std::string nameRefusal = ExtensionNameRefusal(ExtensionNameOf(params));
  if (!nameRefusal.empty()) return nameRefusal;
  ArchiveFacts facts;
  std::string error;
  if (!InspectArchive(path, &facts, &error)) return error;
  const std::string bundle = ExtensionNameOf(params) + ".bundle";
  if (facts.topFolder != bundle) {
    return "the archive's top folder is \"" + (facts.topFolder.empty() ? std::string("(none)") : facts.topFolder) +
           "\", not \"" + bundle + "\"";
  }
  const std::string unpackRefusal = UnpackRefusal(path);
  if (!unpackRefusal.empty()) return unpackRefusal;
  if (wanted.empty()) return std::string();
  std::string required;
  FormalizeVersionString(required, wanted.c_str());
  if (!facts.hasInfoPlist) return "the archive has no " + bundle + "/Contents/Info.plist";
  if (facts.version != required) {
    return "the bundle's version \"" + facts.version + "\" does not match GpcExtVersion \"" + wanted + "\"";
  }
  if (!facts.hasExecutable) {
    return "the archive has no " + bundle + "/Contents/MacOS/" + facts.executable +
           ": the plug-in would not see the version it installed";
  }
  return std::string();
}

bool ReadParamsFile(const std::string& path, EmbedParams* params, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read " + path + ": " + strerror(errno);
    return false;
  }
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!ParseEmbedJson(text, params, error)) {
    *error = path + ": " + *error;
    return false;
  }
  return true;
}

bool CheckReadable(const std::string& path, std::string* error) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = "cannot read " + path + ": " + strerror(errno);
    return false;
  }
  close(fd);
  return true;
}

}  // namespace

PackageJudgement JudgePackage(const std::string& path, const EmbedParams& params, uint32_t systemVersion) {
  PackageJudgement judgement;
  judgement.verdict = CheckPackage(path.c_str(), PageOf(params), systemVersion);
  if (!judgement.verdict.accepted()) {
    judgement.refusal = std::string(PackageCheckName(judgement.verdict.check)) + " (message " +
                        std::to_string(judgement.verdict.message()) + ")";
    return judgement;
  }
  judgement.refusal = ArchiveRefusal(path, params);
  return judgement;
}

int RunVerify(const PackOptions& options) {
  // Named parameters come first: the plug-in takes the first of a name.
  EmbedParams params(options.params.begin(), options.params.end());
  std::string error;
  if ((!options.paramsFile.empty() && !ReadParamsFile(options.paramsFile, &params, &error)) ||
      !CheckReadable(options.package, &error)) {
    fprintf(stderr, "gpc-pack: %s\n", error.c_str());
    return kExitFailed;
  }
  const PackageJudgement judgement = JudgePackage(options.package, params, platform::SystemVersion());
  if (!judgement.refusal.empty()) {
    printf("%s\n", judgement.refusal.c_str());
    return kExitFailed;
  }
  if (judgement.verdict.check == GpcPackageCheck::kAcceptedUnchecked) {
    printf("ok: %s\n", PackageCheckName(judgement.verdict.check));
  } else {
    printf("ok\n");
  }
  return kExitOk;
}
