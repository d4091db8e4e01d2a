// File fetching of the instance: the queue of requests, up to five direct downloads at a time
// (the parallel mode), and the old download mode, in which one file at a time comes through a
// browser stream of the instance's own access point. The first direct download that fails or
// meets a credentials challenge switches the instance to the old mode for good.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "common/gpcutil.h"
#include "plugin/plugin/npgpcimp.h"
#include "common/tlvtrace/tlvtraceu.h"  // nlStrCpy
#include "common/trace.h"

namespace {

const char* MessageTypeName(int32_t type) {
  switch (type) {
    case GPC_STREAM_READY: return "GPC_STREAM_READY";
    case GPC_STREAM_DATA: return "GPC_STREAM_DATA";
    case GPC_STREAM_FILE: return "GPC_STREAM_FILE";
    case GPC_STREAM_DESTROY: return "GPC_STREAM_DESTROY";
    case GPC_STREAM_DELETE: return "GPC_STREAM_DELETE";
    case GPC_PENDING_RELEASE: return "GPC_PENDING_RELEASE";
    case GPC_SAP_DETACH: return "GPC_SAP_DETACH";
    default: return nullptr;
  }
}

// How many free names the old download mode tries for its file.
constexpr int kStreamFileAttempts = 16;

void* CountAsPointer(unsigned count) { return reinterpret_cast<void*>(static_cast<uintptr_t>(count)); }

}  // namespace

bool CGpcWindow::GetFileAtUrl(GpcGetFileNotifyProc callback, void* context, const char* url) {
  if (url != nullptr)
    MacInfoTrace("CGpcWindow::GetFileAtUrl,url=[%s]", url);
  else
    MacInfoTrace("CGpcWindow::GetFileAtUrl");
  std::unique_ptr<CGetFileItem> item(new CGetFileItem(callback, context, url));
  m_vectorFileItem.push_back(item.get());
  item.release();
  return true;
}

void CGpcWindow::CheckFileDownloading() {
  ForgetDownloadsWithoutFiles();
  if (m_vectorFileItem.empty()) return;
  if (m_nFetchReady == 0) {
    RequestHeadThroughBrowser();
    return;
  }
  if (AnyDirectDownloadGaveUp()) {
    MacInfoTrace("CGpcWindow::CheckFileDownloading,need use old download mode!");
    m_nFetchReady = 0;
    // Their items stay queued and come through the browser from the next heartbeat on.
    DestroyDownloadSlots();
    return;
  }
  for (GpcDownloadSlot& slot : m_downloadSlots) {
    if (slot.task != nullptr && slot.task->GetStatus() == kDownloading) slot.task->CheckTask();
  }
  StartDirectDownloads();
}

// A finished download lives on with its file until the instance goes, holding the file open to know
// it by (one descriptor each). Once the extension has installed, moved or deleted the file, nothing
// is left for it to remove, and it goes. Not from a heartbeat inside a task's completion (the
// extension's callback may run a loop): that task's own code is still under way.
void CGpcWindow::ForgetDownloadsWithoutFiles() {
  if (m_nCompletionDepth > 0) return;
  for (auto it = m_vectorDownloadTask.begin(); it != m_vectorDownloadTask.end();) {
    if ((*it)->HoldsItsFile()) {
      ++it;
      continue;
    }
    delete *it;
    it = m_vectorDownloadTask.erase(it);
  }
}

void CGpcWindow::RequestHeadThroughBrowser() {
  if (m_streamSapId != nullptr) return;  // a GET stream is outstanding
  CGetFileItem* item = m_vectorFileItem.front();
  if (item == nullptr) return;
  OpenDownloadingStreamFile();
  const char* url = item->m_strUrl.empty() ? nullptr : item->m_strUrl.c_str();
  GpcGetStream(m_streamSap, url, 0, &m_streamSapId);
  if (m_streamSapId != nullptr) return;
  // Refused: the item stays first and is asked for again on the next heartbeat.
  DiscardDownloadingStreamFile();
}

bool CGpcWindow::AnyDirectDownloadGaveUp() const {
  for (const GpcDownloadSlot& slot : m_downloadSlots) {
    if (slot.task == nullptr) continue;
    const int status = slot.task->GetStatus();
    if (status == kDownloadFailed || status == kDownloadNeedProxy) return true;
  }
  return false;
}

void CGpcWindow::DestroyDownloadSlots() {
  for (GpcDownloadSlot& slot : m_downloadSlots) {
    delete slot.task;
    slot.task = nullptr;
    std::memset(slot.url, 0, sizeof slot.url);
  }
}

bool CGpcWindow::IsServedBySlot(const CGetFileItem* item) const {
  for (const GpcDownloadSlot& slot : m_downloadSlots) {
    if (slot.task != nullptr && slot.task->GetItem() == item) return true;
  }
  return false;
}

int CGpcWindow::FirstFreeDownloadSlot() const {
  for (int index = 0; index < kDownloadSlotCount; ++index) {
    if (m_downloadSlots[index].task == nullptr) return index;
  }
  return -1;
}

void CGpcWindow::StartDirectDownloads() {
  // By index: a task that fails at once must not invalidate the walk.
  for (size_t i = 0; i < m_vectorFileItem.size(); ++i) {
    CGetFileItem* item = m_vectorFileItem[i];
    if (item == nullptr || IsServedBySlot(item)) continue;
    const int index = FirstFreeDownloadSlot();
    if (index < 0) continue;
    MacInfoTrace("CGpcWindow::CheckFileDownloading,index[%d] stream is nil,create new download task!", index);
    MacInfoTrace("CGpcWindow::CheckFileDownloading,url=[%s]", item->m_strUrl.c_str());
    GpcDownloadSlot& slot = m_downloadSlots[index];
    slot.task = new GPCDownloadTask(item->m_strUrl.c_str(), false, this);
    slot.task->SetItem(item);
    slot.task->Start();
    nlStrCpy(slot.url, sizeof slot.url, item->m_strUrl.c_str());
  }
}

bool CGpcWindow::OpenDownloadingStreamFile() {
  const std::string dir = GetTempPath();
  // A name found free may be taken before the file is made; the next free one is tried then.
  for (int attempt = 0; attempt < kStreamFileAttempts; ++attempt) {
    m_strStreamFilePath.clear();
    if (dir.empty() || GetTempFileName(dir.c_str(), "APK", m_strStreamFilePath) == 0) m_strStreamFilePath.clear();
    MacInfoTrace("CGpcWindow::OpenDownloadingStreamFile,file=%s", m_strStreamFilePath.c_str());
    if (m_strStreamFilePath.empty()) break;
    m_pStreamFile = CreateNewFile(m_strStreamFilePath);
    if (m_pStreamFile != nullptr) return true;
    if (errno != EEXIST) break;
  }
  // Whatever is at the name is not ours to remove later.
  m_strStreamFilePath.clear();
  return false;
}

void CGpcWindow::AppendToDownloadingStreamFile(unsigned char* data, unsigned len) {
  if (m_pStreamFile == nullptr) return;
  if (fwrite(data, 1, len, m_pStreamFile) < len) {
    ShowMessage(109, nullptr);
    MacErrorTrace("CGpcWindow::AppendToDownloadingStreamFile,write file failed, maybe disk is full!");
    return;
  }
  if (m_vectorFileItem.empty() || m_vectorFileItem.front() == nullptr) return;
  CGetFileItem* item = m_vectorFileItem.front();
  item->m_nReceivedBytes += len;
  MacInfoTrace("CGpcWindow::AppendToDownloadingStreamFile,dwonloading file=%s,%u bytes", item->m_strUrl.c_str(),
               item->m_nReceivedBytes);
  if (item->m_pfnCallback) item->m_pfnCallback(this, item->m_pContext, GPC_GETFILE_PROGRESS, CountAsPointer(len));
}

void CGpcWindow::FinishDownloadingStreamFile(bool success) {
  MacInfoTrace("CGpcWindow::FinishDownloadingStreamFile,bsuccess=%d", success ? 1 : 0);
  CloseDownloadingStreamFile();
  const size_t index = m_nStreamFileId < 0 ? 0 : static_cast<size_t>(m_nStreamFileId);
  CGetFileItem* item = index < m_vectorFileItem.size() ? m_vectorFileItem[index] : nullptr;
  if (item != nullptr) {
    if (item->m_nReceivedBytes != 0) {
      MacInfoTrace("CGpcWindow::FinishDownloadingStreamFile,dwonloaded file=%s,%u bytes", item->m_strUrl.c_str(),
                   item->m_nReceivedBytes);
    } else if (item->m_strUrl.find("/client/") != std::string::npos) {
      MacErrorTrace("CGpcWindow::FinishDownloadingStreamFile,[%s] Can't Find on Client Package!",
                    item->m_strUrl.c_str());
    }
    // The file is removed right after: the requester must use it before returning. Without a
    // file (none could be made) the fetch failed, whatever the stream did.
    const std::string path = m_strStreamFilePath;
    if (item->m_pfnCallback) {
      item->m_pfnCallback(this, item->m_pContext, GPC_GETFILE_COMPLETE,
                          success && !path.empty() ? const_cast<char*>(path.c_str()) : nullptr);
    }
  }
  DiscardDownloadingStreamFile();
}

void CGpcWindow::CloseDownloadingStreamFile() {
  if (m_pStreamFile == nullptr) return;
  if (m_nStreamFileKept.get() < 0) m_nStreamFileKept.Reset(fcntl(fileno(m_pStreamFile), F_DUPFD_CLOEXEC, 0));
  fclose(m_pStreamFile);
  m_pStreamFile = nullptr;
}

// The requester may have moved the file away or removed it (unpacking does); whatever took its
// name meanwhile is not ours.
void CGpcWindow::DiscardDownloadingStreamFile() {
  CloseDownloadingStreamFile();
  if (IsFileOpenAt(m_nStreamFileKept.get(), m_strStreamFilePath.c_str())) RemoveFile(m_strStreamFilePath);
  m_nStreamFileKept.Reset(-1);
  m_strStreamFilePath.clear();
}

void CGpcWindow::CleanupDownloadingStreamFiles() {
  // A browser download cut short leaves no half-written file behind.
  DiscardDownloadingStreamFile();
  if (m_vectorFileItem.empty()) return;
  delete m_vectorFileItem.front();
  m_vectorFileItem.erase(m_vectorFileItem.begin());
}

void CGpcWindow::OnDataReceived(unsigned size, void* item) {
  if (item == nullptr) return;
  const InUse inUse(this);
  CGetFileItem* fileItem = static_cast<CGetFileItem*>(item);
  fileItem->m_nReceivedBytes += size;
  if (fileItem->m_pfnCallback) {
    fileItem->m_pfnCallback(this, fileItem->m_pContext, GPC_GETFILE_PROGRESS, CountAsPointer(size));
  }
}

void CGpcWindow::OnDownloadCompleate() {
  const InUse inUse(this);
  ++m_nCompletionDepth;
  CheckDownloadingTasks();
  --m_nCompletionDepth;
}

void CGpcWindow::CheckDownloadingTasks() {
  for (int index = 0; index < kDownloadSlotCount; ++index) {
    GpcDownloadSlot& slot = m_downloadSlots[index];
    if (slot.task == nullptr || slot.task->GetStatus() != kDownloadFinished) continue;
    MacInfoTrace("CGpcWindow::CheckDownloadingTasks,begin handle stream[%d],url[%s]", index, slot.url);
    GPCDownloadTask* task = slot.task;
    const std::string localFile = task->GetLocalFile();
    // This runs inside the task's own completion: the task (and with it the file) lives on
    // until the instance goes.
    m_vectorDownloadTask.push_back(task);
    slot.task = nullptr;
    std::memset(slot.url, 0, sizeof slot.url);
    if (task->GetItem() != nullptr) HandOverDownloadedFile(static_cast<CGetFileItem*>(task->GetItem()), localFile);
    MacInfoTrace("CGpcWindow::CheckDownloadingTasks,end handle stream[%d]", index);
    if (m_bDestroyPending) return;
  }
}

void CGpcWindow::HandOverDownloadedFile(CGetFileItem* item, const std::string& localFile) {
  const GpcGetFileNotifyProc callback = item->m_pfnCallback;
  void* const context = item->m_pContext;
  const std::string url = item->m_strUrl;
  for (auto it = m_vectorFileItem.begin(); it != m_vectorFileItem.end(); ++it) {
    if (*it != item) continue;
    MacInfoTrace("CGpcWindow::CheckDownloadingTasks,m_vectorFileItem erase item[%s]", url.c_str());
    delete item;
    m_vectorFileItem.erase(it);
    break;
  }
  if (callback) callback(this, context, GPC_GETFILE_COMPLETE, const_cast<char*>(localFile.c_str()));
}

void CGpcWindow::StopDownload() {
  MacInfoTrace("CGpcWindow::StopDownload");
  m_bHalted = 1;
}

bool CGpcWindow::isMyURL(std::string url) {
  const size_t index = m_nStreamFileId < 0 ? 0 : static_cast<size_t>(m_nStreamFileId);
  if (m_vectorFileItem.size() < index + 1) return false;
  const CGetFileItem* item = m_vectorFileItem[index];
  return item != nullptr && item->m_strUrl == url;
}

void CGpcWindow::OnGpcStreamMessage(GPCMessage* message) {
  if (message == nullptr) return;
  const char* name = MessageTypeName(message->type);
  if (name == nullptr) return;
  MacInfoTrace("CGpcWindow::OnGpcStreamMessage:%s", name);
  switch (message->type) {
    case GPC_STREAM_DATA:
      AppendToDownloadingStreamFile(static_cast<unsigned char*>(message->payload.data.buffer),
                                    static_cast<unsigned>(message->payload.data.length));
      break;
    case GPC_STREAM_DESTROY:
      FinishDownloadingStreamFile(message->payload.destroy.reason == 0);
      if (!m_vectorFileItem.empty()) {
        delete m_vectorFileItem.front();
        m_vectorFileItem.erase(m_vectorFileItem.begin());
      }
      m_streamSapId = nullptr;
      break;
    case GPC_SAP_DETACH:
      m_streamSap = nullptr;
      m_streamSapId = nullptr;
      break;
    default:
      break;
  }
}
