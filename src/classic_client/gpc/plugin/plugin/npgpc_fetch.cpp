// File fetching of the instance: the queue of requests and the old download mode, in which one
// file at a time comes through a browser stream of the instance's own access point.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/folders.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace.h"

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

void* CountAsPointer(unsigned count) { return reinterpret_cast<void*>(static_cast<uintptr_t>(count)); }

}  // namespace

bool CGpcWindow::GetFileAtUrl(GpcGetFileNotifyProc callback, void* context, const char* url) {
  if (url != nullptr)
    MacInfoTrace("CGpcWindow::GetFileAtUrl,url=[%s]", url);
  else
    MacInfoTrace("CGpcWindow::GetFileAtUrl");
  m_vectorFileItem.push_back(new CGetFileItem(callback, context, url));
  return true;
}

void CGpcWindow::CheckFileDownloading() {
  if (m_vectorFileItem.empty()) return;
  if (m_nFetchReady == 0) {
    if (m_streamSapId != nullptr) return;  // a GET stream is outstanding
    CGetFileItem* item = m_vectorFileItem.front();
    if (item == nullptr) return;
    OpenDownloadingStreamFile();
    const char* url = item->m_strUrl.empty() ? nullptr : item->m_strUrl.c_str();
    GpcGetStream(m_streamSap, url, 0, &m_streamSapId);
    if (m_streamSapId != nullptr) return;
    // Refused: the item stays first and is asked for again on the next heartbeat.
    CloseDownloadingStreamFile();
    if (!m_strStreamFilePath.empty()) unlink(m_strStreamFilePath.c_str());
    m_strStreamFilePath.clear();
    return;
  }
  // UNFINISHED: the parallel mode (up to five direct download tasks) comes with the
  // direct-download work. Until then queued requests wait here.
}

bool CGpcWindow::OpenDownloadingStreamFile() {
  m_strStreamFilePath.clear();
  const std::string dir = platform::TempDir();
  if (dir.empty()) return false;
  std::string name = dir + "APKXXXXXX";
  const int fd = mkstemp(&name[0]);
  if (fd < 0) return false;
  m_strStreamFilePath = name;
  MacInfoTrace("CGpcWindow::OpenDownloadingStreamFile,file=%s", name.c_str());
  m_pStreamFile = fdopen(fd, "wb");
  if (m_pStreamFile == nullptr) close(fd);
  return m_pStreamFile != nullptr;
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
    // The file is removed right after: the requester must use it before returning.
    const std::string path = m_strStreamFilePath;
    if (item->m_pfnCallback) {
      item->m_pfnCallback(this, item->m_pContext, GPC_GETFILE_COMPLETE,
                          success ? const_cast<char*>(path.c_str()) : nullptr);
    }
  }
  if (!m_strStreamFilePath.empty()) unlink(m_strStreamFilePath.c_str());
  m_strStreamFilePath.clear();
}

void CGpcWindow::CloseDownloadingStreamFile() {
  if (m_pStreamFile == nullptr) return;
  fclose(m_pStreamFile);
  m_pStreamFile = nullptr;
}

void CGpcWindow::CleanupDownloadingStreamFiles() {
  CloseDownloadingStreamFile();
  if (m_vectorFileItem.empty()) return;
  delete m_vectorFileItem.front();
  m_vectorFileItem.erase(m_vectorFileItem.begin());
}

void CGpcWindow::OnDataReceived(unsigned size, void* item) {
  if (item == nullptr) return;
  CGetFileItem* fileItem = static_cast<CGetFileItem*>(item);
  fileItem->m_nReceivedBytes += size;
  if (fileItem->m_pfnCallback) {
    fileItem->m_pfnCallback(this, fileItem->m_pContext, GPC_GETFILE_PROGRESS, CountAsPointer(size));
  }
}

void CGpcWindow::OnDownloadCompleate() { CheckDownloadingTasks(); }

void CGpcWindow::CheckDownloadingTasks() {
  // UNFINISHED: handing finished direct downloads to their requesters comes with the
  // direct-download work; until then no slot ever holds a task.
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
