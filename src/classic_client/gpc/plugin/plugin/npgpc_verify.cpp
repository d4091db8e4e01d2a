// The check of a fetched extension package before it replaces the installed extension, and its
// installation. The decision itself is CheckPackage (packagecheck.h); here it is logged, shown to
// the user on a refusal, and acted on.
#include <fcntl.h>

#include <string>

#include "common/gpctimereporter.h"
#include "common/packagecheck.h"
#include "platform/dynamic_library.h"
#include "platform/system_version.h"
#include "plugin/plugin/npgpcimp.h"
#include "common/trace.h"

namespace {

void LogMissingParts(const char* path, const GpcPackageParameters& page) {
  if (page.siteLock == "0" && path != nullptr) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,gpcsitelock is 0 means it run not check domain mode. we will check hashvalue of current package but hash or certification is invalid!");
  } else if (page.hash.empty()) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,Check domain is pass, but Hash value is nil!");
  } else if (page.certification.empty() || page.certification == "null") {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,Check domain is pass, but Certification is nil!");
  }
}

// The log lines of a verdict, in the order the checks are made.
void LogVerdict(const char* path, const GpcPackageParameters& page, const GpcPackageVerdict& verdict) {
  if (verdict.check == GpcPackageCheck::kMissing) {
    LogMissingParts(path, page);
    return;
  }
  MacInfoTrace("CGpcExtMgr::GpcGetFileNotify, start to check site lock");
  switch (verdict.check) {
    case GpcPackageCheck::kAcceptedUnchecked:
      MacInfoTrace("CGpcExtMgr::GpcGetFileNotify,10.5 system not support sha256. we just ignore this hash value compare");
      break;
    case GpcPackageCheck::kDigestMismatch:
      MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,hash value not same,local hash=%s, remote hash= %s!",
                    verdict.digest.c_str(), page.hash.c_str());
      break;
    case GpcPackageCheck::kNoSignature:
      MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, GpcExtSignature value is nil!");
      break;
    case GpcPackageCheck::kCertificationShort:
    case GpcPackageCheck::kLeafUnreadable:
      MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,invalid certification!");
      break;
    case GpcPackageCheck::kUntrusted:
      MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, invalid certification file or cannot believe!");
      break;
    case GpcPackageCheck::kNoCommonName:
      MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, invalid certification file or cannot believe, No common name!");
      break;
    case GpcPackageCheck::kForeignCommonName:
      MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, invalid certification file or cannot believe, common name is not end by %s",
                    kGpcVendorCommonNameSuffix);
      break;
    case GpcPackageCheck::kNoPublicKey:
      MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, Failed to get public RSA object from certification!");
      break;
    default:  // accepted, or a signature that does not verify: no line of its own
      break;
  }
}

}  // namespace

void CGpcExtMgr::GpcGetFileNotify(void* instance, void* context, GPCGetFileNotifyMessageType type, void* data) {
  (void)instance;
  MacInfoTrace("CGpcExtMgr::GpcGetFileNotify,GPCGetFileNotifyMessageType=%d", static_cast<int>(type));
  if (context == nullptr || type != GPC_GETFILE_COMPLETE) return;
  const uint32_t system = platform::SystemVersion();
  CGpcExtMgr* manager = static_cast<CGpcExtMgr*>(context);
  CGpcWindow* window = manager->m_pWindow;
  if (window == nullptr) return;
  manager->RecordTimeStamp(tmr_gpc_finish_download_extension);

  const char* path = static_cast<const char*>(data);
  const GpcPackageParameters page =
      ReadPackageParameters([window](const char* name) { return window->GetParameter(name); });
  const GpcPackageVerdict verdict = CheckPackage(path, page, system);
  LogVerdict(path, page, verdict);
  if (!verdict.accepted()) {
    // The instance stops with the message shown; nothing is installed or loaded.
    window->ShowMessage(verdict.message(), nullptr);
    window->m_bHalted = 1;
    return;
  }
  manager->InstallPackage(path);
}

void CGpcExtMgr::InstallPackage(const char* path) {
  const std::string target = GetExtensionPath(false);
  MacInfoTrace("CGpcExtMgr::GpcGetFileNotify,Unpack extension from %s to %s", path, target.c_str());
  uint32_t result = 0;
  {
    const platform::FolderLock lock = LockExtensionFolder(platform::FolderLock::kExclusive);
    result = m_pWindow->UnpackFile(path, target.c_str(), CGpcWindow::kUnpackOwnExtension);
    const std::string executable = platform::BundleExecutablePath(target);
    m_installedExecutable.Reset(result == 0 ? open(executable.c_str(), O_RDONLY | O_CLOEXEC) : -1);
  }
  RecordTimeStamp(tmr_gpc_finish_update_extension);
  if (result == 0) {
    MacInfoTrace("CGpcExtMgr::GpcGetFileNotify,Load extension : %s", target.c_str());
  } else {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,Fail to decompress extension!");
  }
  // Also after a failed unpack: what is left (the old copy, or the local one) is loaded.
  m_pWindow->m_bNeedInitExtension = true;
}
