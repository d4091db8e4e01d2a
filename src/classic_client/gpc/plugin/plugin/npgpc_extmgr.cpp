// The extension manager: where the extension lives, what it is called, where its package comes
// from, and the start of the update check.
#include <cerrno>
#include <cstring>
#include <string>

#include "npgpc_text.h"
#include "platform/bundle.h"
#include "platform/folders.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace.h"

namespace {

const char kDefaultExtensionName[] = "zrgpcext64";
const char kBundleSuffix[] = ".bundle";
const char kLocalExtensionBundle[] = "zrgpcext64.bundle";
const char kTalvoFolder[] = "Talvo Folder";
const size_t kLongestPath = 1023;
const size_t kLongestExtensionName = 64;
const size_t kLongestUrlRoot = 949;

// The "folder not found" result of the folder lookups.
const int kFolderNotFound = -43;

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
  // UNFINISHED: the version comparison, the package fetch and the request to load the
  // extension come with the direct-download work. Until then the check stops here and the
  // instance runs on without an extension.
}

void CGpcExtMgr::LoadExtension() { m_pWindow->m_bNeedInitExtension = true; }

std::string CGpcExtMgr::GetExtensionDir(bool local) {
  std::string dir;
  if (local) {
    MacInfoTrace("CGpcExtMgr::GetExtensionDir,Get Local Extension Dir!");
    dir = platform::PluginBundlePath();
    if (dir.empty()) return std::string();
    if (dir.size() > kLongestPath) {
      MacErrorTrace("CGpcExtMgr::GetExtensionDir,Local,call FSRefMakePath result code =%d", -ENAMETOOLONG);
      return std::string();
    }
    AppendSlash(&dir);
    dir += "Contents/Frameworks";
    return dir;
  }
  dir = platform::UserApplicationSupportDir();
  if (dir.empty()) {
    MacErrorTrace("CGpcExtMgr::GetExtensionDir,call FSFindFolder result code =%d", kFolderNotFound);
    return std::string();
  }
  if (dir.size() > kLongestPath) {
    MacErrorTrace("CGpcExtMgr::GetExtensionDir,call FSRefMakePath result code =%d", -ENAMETOOLONG);
    return std::string();
  }
  AppendSlash(&dir);
  dir += kTalvoFolder;
  return dir;
}

std::string CGpcExtMgr::GetExtensionName() {
  const char* name = m_pWindow->GetParameter("GpcExtName");
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
  // An over-long root goes back whole; the fetch then fails on it.
  if (url.empty() || url.size() > kLongestUrlRoot) {
    MacInfoTrace("CGpcExtMgr::GetExtensionUrl,GpcUrlRoot is nil or lenth is over!");
    return url;
  }
  AppendSlash(&url);
  std::string name;
  if (const char* given = m_pWindow->GetParameter("GpcExtName")) {
    name = given;
  } else {
    MacInfoTrace("CGpcExtMgr::GetExtensionUrl,GpcExtName is nil!");
    name = kDefaultExtensionName;
  }
  name += GpcNamesEqual(m_pWindow->GetParameter("GpcCompressMethod"), "7zip") ? ".bundle.7z" : ".bundle.zip";
  return url + name;
}
