// The plug-in instance (CGpcWindow), its extension manager (CGpcExtMgr) and the records they
// keep: parameters, pending file fetches and pending navigations of the hosting page.
//
// Everything here runs on the browser's main thread. The instance owns every object it points
// to and frees all of them in its destructor. No GLib, curl or OpenSSL type appears here: the
// heartbeat's event-loop source is kept as its numeric id.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "platform/folder_lock.h"
#include "common/gpcdownloadtask.h"      // IGPCDownloadNotify, GPCDownloadTask
#include "plugin/plugin/npapi.h"
#include "plugin/plugin/npapiimp.h"  // CGpcProvider, the services; through it gpc/gpc_extension.h:
                                     // GPCMessage, GpcServiceTable, the entry-point and fetch types
#include "common/sitelock/sitelock.h"    // CSiteCheck<T>, IObjectSafetySiteLock::SiteList

class CGpcWindow;

// The start report that every new instance sends to the logging service.
constexpr int kGpcStartReportCode = 1000;

// Notification datum of the browser stream that carries the hosting page's URL.
#define NOTIFICATION_GET_HOSTSITE 100

// The unpacking library's one entry: extracts every entry of the archive below the folder.
typedef int32_t (*GpcDecompressFile7zProc)(const char* archive, const char* destinationFolder);

// One queued file fetch.
class CGetFileItem {
 public:
  CGetFileItem(GpcGetFileNotifyProc callback, void* context, const char* url)
      : m_pfnCallback(callback), m_pContext(context), m_strUrl(url ? url : "") {}

  GpcGetFileNotifyProc m_pfnCallback;
  void* m_pContext;
  std::string m_strUrl;
  uint32_t m_nReceivedBytes = 0;
};

// One pending navigation of the hosting page (or a frame of it).
class CFrameTarget {
 public:
  CFrameTarget(const char* target, const char* url)
      : m_strTarget(target ? target : ""), m_strUrl(url ? url : "") {}

  std::string m_strTarget;  // empty: no target
  std::string m_strUrl;
  bool m_bRequested = false;  // the browser has accepted the request; waiting for its notification
  int32_t m_nRetries = 0;     // failed loads so far
};

// The extension manager: where the extension lives, what it is called, where its package comes
// from, and the start of the update check. Its progress flags live in the owning window.
class CGpcExtMgr {
 public:
  explicit CGpcExtMgr(CGpcWindow* window);
  virtual ~CGpcExtMgr();

  // Starts the update check; the heartbeat calls it once per instance.
  void Init();

  // Folder of the local (shipped) or of the user (downloaded) extension; empty on failure.
  std::string GetExtensionDir(bool local);
  // File name of the user extension bundle ("GpcExtName" or "zrgpcext64", plus ".bundle").
  std::string GetExtensionName();
  // Full path of the local or the user extension bundle; the bare bundle name when the folder
  // cannot be found.
  std::string GetExtensionPath(bool local);
  // URL of the extension package under "GpcUrlRoot".
  std::string GetExtensionUrl();

  // Asks the next heartbeat to load the extension.
  void LoadExtension();

  // The update decision: load what is installed, or fetch the package.
  void CheckExtension();
  // True when `file` is missing or its version differs from `requiredVersion`.
  bool NeedUpdate(const char* file, const char* requiredVersion);
  // Receives the fetched package: installs it when it passes every check, else halts the
  // instance with the message shown.
  static void GpcGetFileNotify(void* instance, void* context, GPCGetFileNotifyMessageType type,
                               void* data);
  // Unpacks a verified package over the user extension and asks the next heartbeat to load it.
  void InstallPackage(const char* path);

  // Locks the user extension's folder against the installs and loads of other processes (browsers,
  // gpc-host): an install takes it alone, a load shares it, so no load meets an install half done.
  platform::FolderLock LockExtensionFolder(platform::FolderLock::Kind kind);
  // Whether the bundle this instance installed last is no longer at its path: another instance
  // of this process may have installed its own version there before this one's load. Asked once.
  bool InstalledBundleWasReplaced();

  CGpcWindow* m_pWindow;  // not owned

  // Records a milestone when the page names both a product version and a meeting.
  void RecordTimeStamp(const char* key);

 private:
  const char* GivenExtensionName();
  // The executable of the bundle installed last, held open until the load so that no other file
  // can take its inode; -1 when none waits to be loaded.
  Descriptor m_installedExecutable;
};

// How many direct downloads the instance runs at once.
constexpr int kDownloadSlotCount = 5;

// One parallel download slot: the task (owned; null when free) and its URL.
struct GpcDownloadSlot {
  GPCDownloadTask* task;
  char url[1024];
};

class CGpcWindow : public CSiteCheck<CGpcWindow>, public IGPCDownloadNotify {
 public:
  // One page parameter: a name and a value; an empty value stands for an absent one.
  class CItem {
   public:
    CItem(const std::string& name, const std::string& value) : m_strName(name), m_strValue(value) {}
    CItem(const char* name, const char* value)
        : m_strName(name ? name : ""), m_strValue(value ? value : "") {}

    std::string m_strName;
    std::string m_strValue;
  };

  explicit CGpcWindow(NPP instance);

  // The host-page and URL-root approval: the trusted-site list, else the "gpcsitelock" escape.
  bool FApprovedDomain(const char* url, uint32_t reserved, const IObjectSafetySiteLock::SiteList* list,
                       int32_t count) override;
  ~CGpcWindow() override;
  void OnDownloadCompleate() override;
  void OnDataReceived(unsigned size, void* item) override;

  // Lifecycle and heartbeat.
  // Ends the instance for the browser: at once, or, while the instance is in use (an extension's
  // dialog may run a nested loop in which the browser destroys it), when the last use ends.
  // Meanwhile nothing reaches the browser.
  void Destroy();
  void InitGpcWindow();
  void ExitGpcWindow();
  void OnTimer();
  NPError SetWindow(NPWindow* window);
  bool HandleEvent(void* event, bool flag);
  void* GetGpcCookie() { return this; }
  NPWindow* GetPluginNativeWindow() { return m_pNativeWindow; }
  // True while the heartbeat timer is installed.
  bool HasHeartbeatTimer() const { return m_hTimer != 0; }

  // Parameters.
  bool SetParameters(int argc, char** argn, char** argv);
  bool SetParameter(const char* name, const char* value);
  void SetParameterVector(const std::string& name, const std::string& value);
  const char* GetParameter(const char* name);
  bool GetParameterAt(int index, const char** name, const char** value);
  int GetParameterCount();
  bool ValidateParameterLength(const char* name, const char* value);

  // Navigation of the hosting page.
  bool ChangeLocation(const char* target, const char* url);
  void AddFrameTargetLocation(const char* target, const char* url);
  CFrameTarget* GetNextFrameTargetLocation();
  void RemoveNextFrameTargetLocation();
  void CheckLocationChanging();
  void OnGetUrlNotify(const char* url, NPReason reason);
  NPError OnNppDestroyStream(NPStream* stream, NPReason reason);
  void CleanupFrameTargets();

  // Error reporting.
  void ShowMessage(int code, const char* extra);
  void ShowMessage(const char* text, const char* caption);
  std::string LoadResourceString(int id);
  bool WriteErrorLog(int code, const char* extra);

  // File fetching.
  bool GetFileAtUrl(GpcGetFileNotifyProc callback, void* context, const char* url);
  void CheckFileDownloading();
  // Frees the finished downloads whose file is gone; from a heartbeat inside no completion.
  void ForgetDownloadsWithoutFiles();
  bool OpenDownloadingStreamFile();
  void AppendToDownloadingStreamFile(unsigned char* data, unsigned len);
  void FinishDownloadingStreamFile(bool success);
  void CloseDownloadingStreamFile();
  // Closes the old-mode file, removes it and forgets its path.
  void DiscardDownloadingStreamFile();
  void CleanupDownloadingStreamFiles();
  void CheckDownloadingTasks();
  void StopDownload();
  bool isMyURL(std::string url);
  void OnGpcStreamMessage(GPCMessage* message);

  // The extension.
  void InitExtension();
  void ExitExtension();
  // `flags`: kUnpackOwnExtension for the install of the user extension (marked unfinished while it
  // is unpacked in place, and synced to disk); the extension's own unpacks pass 0.
  uint32_t UnpackFile(const char* archive, const char* destination, int flags);
  static constexpr int kUnpackOwnExtension = 1;

  // One use of the instance (a browser call, the heartbeat, a download's callback), counted so
  // that the instance outlives every use in progress.
  class InUse {
   public:
    explicit InUse(CGpcWindow* window) : m_window(window) { ++window->m_nInUse; }
    ~InUse();
    InUse(const InUse&) = delete;
    InUse& operator=(const InUse&) = delete;

   private:
    CGpcWindow* m_window;
  };

  // Fields, in this order.
  NPP m_nppInstance;
  NPWindow* m_pNativeWindow = nullptr;
  CGpcProvider m_provider;
  CGpcExtMgr m_extMgr;
  void* m_streamSapId = nullptr;
  void* m_streamSap = nullptr;
  GpcServiceTable m_serviceTable;
  bool m_bNeedInitExtension = false;
  void* m_hExtBundle = nullptr;  // the loaded extension bundle; ExitExtension releases it
  GpcInitInstanceProc m_pfnGpcInitInstance = nullptr;
  GpcExitInstanceProc m_pfnGpcExitInstance = nullptr;
  GpcHeartbeatProc m_pfnGpcHeartbeat = nullptr;
  GpcActionNotifyProc m_pfnGpcActionNotify = nullptr;
  GpcSetWindowProc m_pfnGpcSetWindow = nullptr;
  GpcHandleEventProc m_pfnGpcHandleEvent = nullptr;
  std::vector<CGetFileItem*> m_vectorFileItem;
  int32_t m_nStreamFileId = -1;
  std::vector<CFrameTarget*> m_vectorFrameTarget;
  std::vector<CItem*> m_vectorParam;
  std::string m_strStreamFilePath;
  FILE* m_pStreamFile = nullptr;
  Descriptor m_nStreamFileKept;  // the closed file, held open until it is removed: only that file is ours
  int32_t m_bExtMgrStarted = 0;
  int32_t m_bHalted = 1;
  int32_t m_nTimerDepth = 0;
  int32_t m_bSuspendFetching = 0;
  int32_t m_bParamsValid = 1;
  std::string m_strBadParamName;
  void* m_pExtData = nullptr;
  int32_t m_nExtCheckState = 0;
  int32_t m_nFetchReady = 1;
  GpcDownloadSlot m_downloadSlots[kDownloadSlotCount] = {};
  std::vector<GPCDownloadTask*> m_vectorDownloadTask;
  unsigned m_hTimer = 0;  // the heartbeat's event-loop source id; 0 when none is installed
  void* m_h7zLib = nullptr;
  GpcDecompressFile7zProc m_pfnDecompressFile7z = nullptr;
  int32_t m_nInUse = 0;
  int32_t m_nCompletionDepth = 0;  // direct-download completions under way
  bool m_bDestroyPending = false;  // the browser destroyed the instance while it was in use

 private:
  // Old download mode: asks the browser for the head of the queue unless a stream is outstanding.
  void RequestHeadThroughBrowser();
  // Parallel mode.
  bool AnyDirectDownloadGaveUp() const;
  void DestroyDownloadSlots();
  bool IsServedBySlot(const CGetFileItem* item) const;
  int FirstFreeDownloadSlot() const;  // -1 when all are busy
  void StartDirectDownloads();
  // Takes `item` off the queue and hands the requester its file.
  void HandOverDownloadedFile(CGetFileItem* item, const std::string& localFile);

  void InstallHeartbeatTimer();
  void RemoveHeartbeatTimer();
  void FillServiceTable();
};

// Extension bundles. LoadLibrary opens the executable of the bundle at `bundlePath` and returns
// its handle, or null when the path is empty, the bundle has no executable or it cannot be
// loaded. GetFunctionPointer gives an exported symbol, null when either argument is null or the
// name is not exported. FreeLibrary releases a handle and returns true.
void* LoadLibrary(const char* bundlePath);
void* GetFunctionPointer(void* bundle, const char* name);
bool FreeLibrary(void* bundle);

// A file that stands beside the user extension's bundle while an install unpacks it in its place:
// a bundle found with it was cut short by a crash or a power loss, whatever its Info.plist says,
// and is neither trusted nor loaded.
std::string UnfinishedMarkerOf(const std::string& bundlePath);
bool IsBundleUnfinished(const std::string& bundlePath);

// Appends `item` to a vector that owns its pointers; when the vector cannot grow, the item is
// freed before the failure goes on, so nothing leaks.
template <typename T>
void AppendOwned(std::vector<T*>* owner, T* item) {
  std::unique_ptr<T> held(item);
  owner->push_back(item);
  held.release();
}

// The heartbeat timer's callback: a null datum is ignored.
void GPCWindowTimerProc(void* timer, void* datum);

// The callback of the instance's own stream access point.
int GpcStreamCallback(GPCMessage* message);

// Writes the page's parameters to "talvoparameters.txt" in the product version's folder.
bool SaveParameters(int argc, char** argn, char** argv);

// What NPP_New keeps in the browser's NPP record (pdata).
struct InstanceRecord {
  void* nativeWindowSubclass;
  int32_t mode;
  CGpcWindow* gpcWindow;
};
