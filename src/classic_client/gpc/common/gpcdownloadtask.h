// Downloads one URL into a temporary file with GPCNetworkHttp, reports progress and completion to
// an IGPCDownloadNotify, and watches itself for stalls: a task that receives nothing for 17
// seconds is stopped, started once more if it never received anything, and otherwise failed.
// Of a gap between two checks, at most kUnwatchedSeconds count: a main thread blocked (or a
// machine asleep) could not read the data meanwhile, and checks that come slowly still end a stall.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/gpcnetworkhttp.h"

// Told about the progress of download tasks, on the main thread.
class IGPCDownloadNotify {
 public:
  // `size` bytes arrived for the task serving `item` (its item field).
  virtual void OnDataReceived(unsigned int size, void* item) = 0;
  // Some task has reached kDownloadFinished; the receiver finds which by looking at its tasks.
  virtual void OnDownloadCompleate() = 0;

 protected:
  ~IGPCDownloadNotify() = default;
};

enum GPCDownloadStatus {
  kDownloadNone = 0,      // constructed, never started
  kDownloading = 1,       // a request is running
  kDownloadFinished = 2,  // the file is complete; GetLocalFile() names it
  kDownloadFailed = 3,    // could not start, returned no data, could not be saved, or stalled for good
  kDownloadStopped = 4,   // stopped by Stop (also the passing state while a stall is handled)
  kDownloadNeedProxy = 5  // the server asked for credentials; the task gave up
};

class GPCDownloadTask : public INetworkHttpSink {
 public:
  // Seconds without any data after which CheckTask stops a running download.
  static constexpr uint32_t kStallSeconds = 17;
  // Of a longer gap between two checks, only this much counts towards a stall.
  static constexpr uint32_t kUnwatchedSeconds = 5;

  GPCDownloadTask(const char* url, bool block, IGPCDownloadNotify* notify);
  // Stops the request and removes the task's file (in file mode).
  virtual ~GPCDownloadTask();

  GPCDownloadTask(const GPCDownloadTask&) = delete;
  GPCDownloadTask& operator=(const GPCDownloadTask&) = delete;

  // Starts the download (status kDownloading) and returns 0, or 0xFFFFFFFF with status
  // kDownloadFailed. While the task still has its HTTP client, only refreshes the stall timer
  // and counters.
  unsigned Start();
  // Drops the request and the task's file; status kDownloadStopped.
  void Stop();
  // The stall watchdog; the owner calls it on every heartbeat for a task that is kDownloading.
  void CheckTask();
  // Body bytes received by the current request (0 without one).
  unsigned int GetDownloadedSize() const;

  void OnHttpReturn(void* handle, int size, void* data) override;
  void OnDataReceived(unsigned int size) override;
  bool OnAskProxy(std::string& user, std::string& password) override;

  void SetItem(void* item) { m_pItem = item; }
  void* GetItem() const { return m_pItem; }
  int GetStatus() const { return m_nStatus; }
  const std::string& GetURL() const { return m_strURL; }
  // The downloaded file once the status is kDownloadFinished, else empty.
  const std::string& GetLocalFile() const { return m_strLocalFile; }
  // Whether a finished file-mode task's file is still at its name, so that the task's end will
  // remove it; a task that has none to remove can go at once.
  bool HoldsItsFile() const;
  // 1 (the default): the body goes straight to a temporary file; 0: collected in memory and
  // saved as "/tmp/gpc_tmp_<n>_<seconds>" at the end.
  void SetFileMode(int fileMode) { m_nFileMode = fileMode; }
  int GetTotalPackage() const { return m_totalPackage; }
  int GetCheckTimes() const { return m_checkTimes; }

 private:
  void ReleaseClient();
  void SaveMemoryBody(int size, char* data);

  void* m_pItem = nullptr;
  GPCNetworkHttp* m_pHttp = nullptr;
  std::string m_strURL;
  int m_nStatus = kDownloadNone;
  bool m_bBlock = false;
  std::string m_strLocalFile;
  int m_nFileMode = 1;
  IGPCDownloadNotify* m_pNotify = nullptr;
  int64_t m_nLastActivityTime = 0;  // monotonic microseconds of the last data or (re)start
  int m_totalPackage = 0;           // data events since the last Start
  int64_t m_nStartTime = 0;         // monotonic microseconds of the last Start
  int64_t m_nLastCheckTime = 0;     // monotonic microseconds of the last Start or CheckTask
  int m_checkTimes = 0;              // Start calls so far
  std::shared_ptr<bool> m_pAlive;
};
