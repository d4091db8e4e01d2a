// Loading the extension bundle into the browser, initialising it with the service table and
// ending it with the instance.
#include <string>

#include "common/gpctimereporter.h"
#include "platform/dynamic_library.h"
#include "plugin/plugin/npgpcimp.h"
#include "common/trace.h"

namespace {

const int kMessageExtensionNotLoaded = 107;

// The user bundle when it exists and was built for this machine; else the one shipped with
// the plug-in.
std::string ChooseExtensionBundle(CGpcExtMgr& manager) {
  std::string path = manager.GetExtensionPath(false);
  const std::string executable = platform::BundleExecutablePath(path);
  if (executable.empty() || IsBundleUnfinished(path)) {
    MacInfoTrace("CGpcWindow::InitExtension, cannot load bundle %s,  We will switch to local plugin's extention",
                 path.c_str());
    return manager.GetExtensionPath(true);
  }
  if (!platform::ExecutableMatchesOwnArchitecture(executable)) {
    MacInfoTrace("CGpcWindow::InitExtension, bundle( %s ) has no arch 64bit. We will switch to local plugin's extention",
                 path.c_str());
    return manager.GetExtensionPath(true);
  }
  return path;
}

template <typename Proc>
void Resolve(void* bundle, const char* name, Proc* slot) {
  *slot = reinterpret_cast<Proc>(GetFunctionPointer(bundle, name));
}

}  // namespace

void* LoadLibrary(const char* bundlePath) {
  if (bundlePath == nullptr || *bundlePath == '\0') return nullptr;
  const std::string executable = platform::BundleExecutablePath(bundlePath);
  if (executable.empty()) return nullptr;
  std::string error;
  void* bundle = platform::OpenLibrary(executable, &error);
  if (bundle == nullptr) MacErrorTrace("LoadLibrary,cannot open %s: %s", executable.c_str(), error.c_str());
  return bundle;
}

void* GetFunctionPointer(void* bundle, const char* name) { return platform::LibrarySymbol(bundle, name); }

bool FreeLibrary(void* bundle) {
  platform::CloseLibrary(bundle);
  return true;
}

void CGpcWindow::InitExtension() {
  MacInfoTrace("CGpcWindow::InitExtension,Begin");
  std::string path;
  {
    const platform::FolderLock lock = m_extMgr.LockExtensionFolder(platform::FolderLock::kShared);
    if (m_extMgr.InstalledBundleWasReplaced()) {
      // Loaded now, this instance would run the version another instance asked for.
      MacInfoTrace("CGpcWindow::InitExtension,the installed extension was replaced, check it again");
      m_extMgr.CheckExtension();
      return;
    }
    m_extMgr.RecordTimeStamp(tmr_gpc_load_extension);
    path = ChooseExtensionBundle(m_extMgr);
    m_hExtBundle = LoadLibrary(path.c_str());
  }
  if (m_hExtBundle != nullptr) {
    MacInfoTrace("CGpcWindow::InitExtension,load GPC extension:%s success!", path.c_str());
    Resolve(m_hExtBundle, GPC_ENTRY_INIT_INSTANCE, &m_pfnGpcInitInstance);
    Resolve(m_hExtBundle, GPC_ENTRY_EXIT_INSTANCE, &m_pfnGpcExitInstance);
    Resolve(m_hExtBundle, GPC_ENTRY_HEARTBEAT, &m_pfnGpcHeartbeat);
    Resolve(m_hExtBundle, GPC_ENTRY_ACTION_NOTIFY, &m_pfnGpcActionNotify);
    Resolve(m_hExtBundle, GPC_ENTRY_SET_WINDOW, &m_pfnGpcSetWindow);
    Resolve(m_hExtBundle, GPC_ENTRY_HANDLE_EVENT, &m_pfnGpcHandleEvent);
  } else {
    MacErrorTrace("CGpcWindow::InitExtension,load GPC extension:%s failed!", path.c_str());
    ShowMessage(kMessageExtensionNotLoaded, nullptr);
    m_bHalted = 1;
  }
  if (m_pfnGpcInitInstance != nullptr) {
    MacInfoTrace("CGpcWindow::InitExtension,Initialize GPC extension...");
    const int32_t result = m_pfnGpcInitInstance(this, &m_serviceTable, &m_pExtData);
    MacInfoTrace("CGpcWindow::InitExtension,Initialize GPC extension,return value =%d", result);
  } else {
    // Also after a failed load: the message then shows a second time.
    MacErrorTrace("CGpcWindow::InitExtension,real load GPC extension:%s failed!", path.c_str());
    ShowMessage(kMessageExtensionNotLoaded, nullptr);
    m_bHalted = 1;
  }
  MacInfoTrace("CGpcWindow::InitExtension,End");
}

void CGpcWindow::ExitExtension() {
  MacInfoTrace("CGpcWindow::ExitExtension,Begin");
  if (m_pfnGpcExitInstance != nullptr) {
    // Cleared first, so that an exit entered again cannot call it twice.
    GpcExitInstanceProc exitInstance = m_pfnGpcExitInstance;
    m_pfnGpcExitInstance = nullptr;
    exitInstance(this, m_pExtData);
  }
  if (m_hExtBundle != nullptr) FreeLibrary(m_hExtBundle);
  m_hExtBundle = nullptr;
  m_pfnGpcInitInstance = nullptr;
  m_pfnGpcHeartbeat = nullptr;
  m_pfnGpcActionNotify = nullptr;
  m_pfnGpcSetWindow = nullptr;
  m_pfnGpcHandleEvent = nullptr;
  MacInfoTrace("CGpcWindow::ExitExtension,End");
}
