#include "common/gpcdownloadtask.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "common/gpcutil.h"
#include "platform/clock.h"
#include "common/trace.h"
#include "platform/folders.h"

namespace {

// Numbers the files saved from memory-mode downloads, process-wide.
// "/tmp/gpc_tmp_<n>_<seconds>", numbered from 1 for the whole process.
TempNameSeries g_savedBodyNames(1);

// Measured on the monotonic clock: a wall clock set back or forward is no stall and hides none.
bool StalledFor(int64_t lastActivity, uint32_t seconds) {
  return platform::MonotonicMicros() - lastActivity >= static_cast<int64_t>(seconds) * 1000000;
}

}  // namespace

GPCDownloadTask::GPCDownloadTask(const char* url, bool block, IGPCDownloadNotify* notify)
    : m_strURL(url ? url : ""), m_bBlock(block), m_pNotify(notify), m_pAlive(std::make_shared<bool>(true)) {}

GPCDownloadTask::~GPCDownloadTask() {
  *m_pAlive = false;
  ReleaseClient();
}

unsigned GPCDownloadTask::Start() {
  m_nLastActivityTime = platform::MonotonicMicros();
  m_nLastCheckTime = m_nLastActivityTime;
  m_totalPackage = 0;
  m_nStartTime = m_nLastActivityTime;
  ++m_checkTimes;
  if (m_pHttp) return 0;
  m_pHttp = new GPCNetworkHttp;
  m_nStatus = kDownloading;
  std::shared_ptr<bool> alive = m_pAlive;
  // No time-out of the client's own: stalls are caught by CheckTask.
  unsigned rc = m_pHttp->GetURL(m_strURL.c_str(), this, 0, m_bBlock, m_nFileMode != 0);
  if (rc != 0 && *alive) m_nStatus = kDownloadFailed;
  return rc;
}

void GPCDownloadTask::Stop() {
  ReleaseClient();
  m_nStatus = kDownloadStopped;
}

// Deletes the client and, in file mode, the task's file: the finished one, or else whatever part
// of an unfinished download the client had written. It runs in the destructor, so it takes no
// memory: the partial file's name is copied into a buffer of its own.
void GPCDownloadTask::ReleaseClient() {
  if (!m_pHttp) return;
  char partial[1024] = "";
  CopyBounded(partial, sizeof partial, m_pHttp->GetFilePath());  // copies "" for none
  const char* ours = !m_strLocalFile.empty() ? m_strLocalFile.c_str() : partial;
  // A file already deleted (an installed package) may have lent its name to another process's
  // download since: only our own file goes.
  const bool remove = m_nFileMode != 0 && ours[0] != '\0' && m_pHttp->IsOwnFile(ours);
  GPCNetworkHttp* client = m_pHttp;
  m_pHttp = nullptr;
  delete client;
  if (remove) unlink(ours);
}

void GPCDownloadTask::CheckTask() {
  if (m_nStatus != kDownloading) return;
  const int64_t now = platform::MonotonicMicros(), unwatched = now - m_nLastCheckTime;
  m_nLastCheckTime = now;
  const int64_t counted = static_cast<int64_t>(kUnwatchedSeconds) * 1000000;
  if (unwatched > counted) m_nLastActivityTime = std::min(now, m_nLastActivityTime + unwatched - counted);
  if (!StalledFor(m_nLastActivityTime, kStallSeconds)) return;
  m_nLastActivityTime = now;
  Stop();
  MacErrorTrace("CheckTask timeout, set it to failded, m_totalPackage = %d, url = %s", m_totalPackage,
                m_strURL.c_str());
  if (m_totalPackage == 0 && m_checkTimes < 2) {
    MacInfoTrace("still waiting, do it again!");
    Start();
    return;
  }
  MacErrorTrace("CheckTask timeout, m_totalPackage = %d, m_checkTimes = %d,set task status to kDownloadFailed!",
                m_totalPackage, m_checkTimes);
  m_nStatus = kDownloadFailed;
}

bool GPCDownloadTask::HoldsItsFile() const {
  return m_nFileMode != 0 && m_pHttp != nullptr && m_pHttp->IsOwnFile(m_strLocalFile.c_str());
}

unsigned int GPCDownloadTask::GetDownloadedSize() const {
  return m_pHttp ? m_pHttp->GetReceivedSize() : 0;
}

void GPCDownloadTask::OnHttpReturn(void*, int size, void* data) {
  if (m_nFileMode != 0) {
    if (size <= 0 || !data) {
      m_nStatus = kDownloadFailed;
      return;
    }
    m_strLocalFile = static_cast<const char*>(data);
    m_nStatus = kDownloadFinished;
    if (m_pNotify) m_pNotify->OnDownloadCompleate();
    return;
  }
  if (size <= 0 || !data) {
    MacErrorTrace("GPCDownloadTask::OnHttpReturn return content length <= 0 ");
    m_nStatus = kDownloadFailed;
    return;
  }
  SaveMemoryBody(size, static_cast<char*>(data));
}

void GPCDownloadTask::SaveMemoryBody(int size, char* data) {
  data[size] = '\0';
  const int seconds = static_cast<int>(platform::WallClockMicros() / 1000000);
  std::string name;
  g_savedBodyNames.Take(
      [seconds](uint32_t n) {
        return std::string(platform::kSharedTempFolder) + "/gpc_tmp_" + std::to_string(n) + "_" + std::to_string(seconds);
      },
      [](const std::string& taken) { return EntryExists(taken.c_str()); }, true, name);
  const char* path = name.c_str();
  // Appends like "a+w", but only to a file of its own, the user's alone: a name planted under /tmp is
  // skipped.
  int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
  FILE* file = fd >= 0 ? fdopen(fd, "a+") : nullptr;
  if (!file) {
    if (fd >= 0) close(fd);
    MacErrorTrace("Open file %s failed", path);
    m_nStatus = kDownloadFailed;
    return;
  }
  const bool written = fwrite(data, 1, static_cast<size_t>(size), file) == static_cast<size_t>(size);
  if (fclose(file) != 0 || !written) {
    // A file cut short (a full disk) is no download.
    MacErrorTrace("GPCDownloadTask::OnHttpReturn,write file %s failed: %s", path, strerror(errno));
    unlink(path);
    m_nStatus = kDownloadFailed;
    return;
  }
  m_strLocalFile = path;
  m_nStatus = kDownloadFinished;
  if (m_pNotify) m_pNotify->OnDownloadCompleate();
}

void GPCDownloadTask::OnDataReceived(unsigned int size) {
  std::shared_ptr<bool> alive = m_pAlive;
  if (m_pNotify) m_pNotify->OnDataReceived(size, m_pItem);
  if (!*alive) return;
  m_nLastActivityTime = platform::MonotonicMicros();
  ++m_totalPackage;
}

bool GPCDownloadTask::OnAskProxy(std::string&, std::string&) {
  // No credentials of our own: the owner fetches the file through the browser instead.
  Stop();
  m_nStatus = kDownloadNeedProxy;
  return false;
}
