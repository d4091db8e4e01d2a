// The extension manager: where the extension lives, what it is called, where its package comes
// from, and the update decision: load what is installed, or fetch the package.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/gpctimereporter.h"
#include "common/hardening.h"
#include "common/gpcutil.h"
#include "plugin/plugin/npgpc_text.h"
#include "platform/bundle.h"
#include "platform/dynamic_library.h"
#include "platform/folders.h"
#include "plugin/plugin/npgpcimp.h"
#include "safestring/safe_lib.h"
#include "common/trace.h"
#include "common/versionfordylib.h"

namespace {

const char kDefaultExtensionName[] = "zrgpcext64";
const char kBundleSuffix[] = ".bundle";
const char kLocalExtensionBundle[] = "zrgpcext64.bundle";
const size_t kLongestPath = 1023;
const size_t kLongestExtensionName = 64;
const size_t kLongestUrlRoot = 949;
// Installed versions are read into a buffer of this size.
const size_t kVersionBufferSize = 256;
// The bound given for texts of unknown length.
const size_t kUnboundedText = 0x7fffffff;

void AppendSlash(std::string* path) {
  if (path->empty() || path->back() != '/') path->push_back('/');
}

}  // namespace

CGpcExtMgr::CGpcExtMgr(CGpcWindow* window) : m_pWindow(window) {
  MacInfoTrace("CGpcExtMgr::CGpcExtMgr");
}

CGpcExtMgr::~CGpcExtMgr() { MacInfoTrace("CGpcExtMgr::~CGpcExtMgr"); }

void CGpcExtMgr::Init() {
  MacInfoTrace("CGpcExtMgr::Init");
  if (m_pWindow->GetParameter("GpcUrlRoot") == nullptr) {
    MacInfoTrace("CGpcExtMgr::Init,GpcUrlRoot is nil!");
    m_pWindow->ShowMessage(100, nullptr);
    m_pWindow->m_bHalted = 1;
    return;
  }
  if (m_pWindow->GetParameter("GpcUnpackVersion") == nullptr ||
      m_pWindow->GetParameter("GpcExtVersion") == nullptr) {
    MacInfoTrace("CGpcExtMgr::Init,GpcUnpackVersion is nil or GpcExtVersion is nil!");
    m_pWindow->m_nExtCheckState = 1;
  }
  CheckExtension();
}

void CGpcExtMgr::CheckExtension() {
  MacInfoTrace("CGpcExtMgr::CheckExtension");
  RecordTimeStamp(tmr_gpc_check_extension);
  if (m_pWindow->m_nExtCheckState != 0) {
    // A version is missing from the page: whatever is on disk is loaded as it is.
    LoadExtension();
    return;
  }
  if (!NeedUpdate(GetExtensionPath(false).c_str(), m_pWindow->GetParameter("GpcExtVersion"))) {
    LoadExtension();
    return;
  }
  RecordTimeStamp(tmr_gpc_start_update_extension);
  const std::string url = GetExtensionUrl();
  m_pWindow->GetFileAtUrl(CGpcExtMgr::GpcGetFileNotify, this, url.c_str());
}

bool CGpcExtMgr::NeedUpdate(const char* file, const char* requiredVersion) {
  MacInfoTrace("CGpcExtMgr::NeedUpdate,lpszFile=%s,lpszRequireVersion=%s", file ? file : "(null)",
               requiredVersion ? requiredVersion : "(null)");
  if (file == nullptr || !FileExists(file)) {
    MacInfoTrace("CGpcExtMgr::NeedUpdate,%s is not exist,need update!", file ? file : "(null)");
    return true;
  }
  std::string required;
  FormalizeVersionString(required, requiredVersion);
  char installed[kVersionBufferSize] = {};
  if (!GetFileVersionString(file, installed, sizeof installed)) {
    MacInfoTrace("CGpcExtMgr::NeedUpdate,get %s version info failed,need update!", file);
    return true;
  }
  // An extraction that stopped half-way leaves the new version's Info.plist beside an executable
  // cut short, or beside a whole one with later files missing: its version must not keep it from
  // being replaced.
  if (IsBundleUnfinished(file)) {
    MacInfoTrace("CGpcExtMgr::NeedUpdate,%s was left unfinished,need update!", file);
    return true;
  }
  if (!platform::IsCompleteElfFile(platform::BundleExecutablePath(file))) {
    MacInfoTrace("CGpcExtMgr::NeedUpdate,%s has no whole executable,need update!", file);
    return true;
  }
  // Equality only: a newer bundle is replaced too, so the page gets exactly what it names. The
  // hardened build keeps a newer one: an old, vulnerable extension cannot be brought back.
  int differs = 1;
  if (gpc::GpcHardened() && IsVersionNewer(installed, required)) {
    MacInfoTrace("CGpcExtMgr::NeedUpdate,%s [%s] is newer than [%s], no downgrade!", file, installed, required.c_str());
    return false;
  }
  if (strcmp_s(installed, kUnboundedText, required.c_str(), &differs) != 0 || differs != 0) {
    MacInfoTrace("CGpcExtMgr::NeedUpdate,%s need update from [%s] to [%s]!", file, installed, required.c_str());
    return true;
  }
  MacInfoTrace("CGpcExtMgr::NeedUpdate,%s is not need update!", file);
  return false;
}

void CGpcExtMgr::RecordTimeStamp(const char* key) {
  const char* productVersion = m_pWindow->GetParameter("GpcProductVersion");
  const char* meetingId = m_pWindow->GetParameter("MeetingID");
  if (productVersion == nullptr || meetingId == nullptr) return;
  gpctimereporter::appendTimeStamp(productVersion, meetingId, key);
}

platform::FolderLock CGpcExtMgr::LockExtensionFolder(platform::FolderLock::Kind kind) {
  const std::string folder = GetExtensionDir(false);
  if (kind == platform::FolderLock::kExclusive) platform::MakeFolders(folder, 0700);
  platform::FolderLock lock(folder, kind);
  if (lock.timedOut()) MacWarnTrace("CGpcExtMgr::LockExtensionFolder,%s stays locked, going on without", folder.c_str());
  return lock;
}

bool CGpcExtMgr::InstalledBundleWasReplaced() {
  const Descriptor installed(m_installedExecutable.Release());
  if (installed.get() < 0) return false;
  const std::string executable = platform::BundleExecutablePath(GetExtensionPath(false));
  // Followed as the loader follows it: an executable may be a link into the bundle.
  return !IsFileOpenAt(installed.get(), executable.c_str(), true);
}

void CGpcExtMgr::LoadExtension() { m_pWindow->m_bNeedInitExtension = true; }

std::string CGpcExtMgr::GetExtensionDir(bool local) {
  std::string dir;
  if (local) {
    MacInfoTrace("CGpcExtMgr::GetExtensionDir,Get Local Extension Dir!");
    dir = platform::PluginBundlePath();
    if (dir.empty()) return std::string();
    if (dir.size() > kLongestPath) {
      MacErrorTrace("CGpcExtMgr::GetExtensionDir,Local,call FSRefMakePath result code =%d", kPathTooLongResult);
      return std::string();
    }
    AppendSlash(&dir);
    dir += "Contents/Frameworks";
    return dir;
  }
  return TalvoFolderFor("CGpcExtMgr::GetExtensionDir");
}

// "GpcExtName" as given. The hardened build refuses one that could leave "Talvo Folder" or the
// root's folder ("/", "\", "%", "?", "#", control bytes, "." or ".."): the default name stands.
const char* CGpcExtMgr::GivenExtensionName() {
  const char* name = m_pWindow->GetParameter("GpcExtName");
  if (name == nullptr || !gpc::GpcHardened() || IsPlainExtensionName(name)) {
    return name;
  }
  MacErrorTrace("CGpcExtMgr::GetExtensionName,GpcExtName %s is refused!", name);
  return nullptr;
}

std::string CGpcExtMgr::GetExtensionName() {
  const char* name = GivenExtensionName();
  std::string bundle = (name == nullptr || std::strlen(name) > kLongestExtensionName)
                           ? std::string(kDefaultExtensionName)
                           : std::string(name);
  return bundle + kBundleSuffix;
}

std::string CGpcExtMgr::GetExtensionPath(bool local) {
  std::string path = GetExtensionDir(local);
  const std::string bundle = local ? std::string(kLocalExtensionBundle) : GetExtensionName();
  if (!path.empty()) AppendSlash(&path);
  return path + bundle;
}

std::string CGpcExtMgr::GetExtensionUrl() {
  std::string url;
  const char* root = m_pWindow->GetParameter("GpcUrlRoot");
  if (root == nullptr) {
    MacInfoTrace("CGpcExtMgr::GetExtensionUrl,GpcUrlRoot is nil!");
  } else {
    url = root;
  }
  const bool overLong = url.size() > kLongestUrlRoot;
  // The hardened build fetches an "http" root as the "https" one it was approved as.
  if (gpc::GpcHardened() && GpcNamesEqual(url.substr(0, 5).c_str(), "http:")) url = "https" + url.substr(4);
  // An over-long root goes back whole; the fetch then fails on it.
  if (url.empty() || overLong) {
    MacInfoTrace("CGpcExtMgr::GetExtensionUrl,GpcUrlRoot is nil or lenth is over!");
    return url;
  }
  AppendSlash(&url);
  std::string name;
  if (const char* given = GivenExtensionName()) {
    name = given;
  } else {
    MacInfoTrace("CGpcExtMgr::GetExtensionUrl,GpcExtName is nil!");
    name = kDefaultExtensionName;
  }
  name += GpcNamesEqual(m_pWindow->GetParameter("GpcCompressMethod"), "7zip") ? ".bundle.7z" : ".bundle.zip";
  return url + name;
}
