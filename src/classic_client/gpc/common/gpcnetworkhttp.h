// One HTTP(S) GET at a time on the main thread's GLib loop, with the body collected in memory or
// written piece by piece to a temporary file, and the result handed to an INetworkHttpSink.
#pragma once

#include <sys/types.h>

#include <ctime>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "common/gpcutil.h"
#include "common/net/curl_transfer.h"

class GPCTimerProxy;

// Callbacks of a request, all on the main thread.
class INetworkHttpSink {
 public:
  // The request ended. `size` is the number of body bytes (0 on error or time-out); `data` is the
  // NUL-terminated body in memory mode, the temporary file's full path in file mode, and NULL on
  // error (a body that could not be stored whole among them), on time-out and for an empty body.
  // `handle` is the client's user handle (always 0).
  virtual void OnHttpReturn(void* handle, int size, void* data) = 0;
  // `size` bytes arrived in one read event (not a running total).
  virtual void OnDataReceived(unsigned int size) = 0;
  // The server (or proxy) answered 401, 403 or 407 and the request is over. Fill in credentials
  // and return true to have it issued again with them as Basic proxy credentials.
  virtual bool OnAskProxy(std::string& user, std::string& password) = 0;

 protected:
  ~INetworkHttpSink() = default;
};

class GPCNetworkHttp : private gpcnet::ITransferListener {
 public:
  GPCNetworkHttp();
  // Safe in any state, also mid-transfer and from inside one of this client's sink callbacks.
  virtual ~GPCNetworkHttp();

  GPCNetworkHttp(const GPCNetworkHttp&) = delete;
  GPCNetworkHttp& operator=(const GPCNetworkHttp&) = delete;

  // Starts a GET of `url` (the previous request, if any, is dropped first). Returns 0 once started
  // (with `block`, once the request has ended), 0xFFFFFFFF when it could not start; then no
  // callback follows. A nonzero `timeoutMs` ends the request with OnHttpReturn(0, NULL) when it
  // has not ended by then.
  unsigned GetURL(const char* url, INetworkHttpSink* sink, unsigned timeoutMs, bool block, bool toFile);
  // Keeps the proxy credentials and issues the current request again with them, in memory mode.
  void SetProxy(std::string user, std::string password);
  // Names the file of file mode: "/tmp/<name>" instead of a generated "/tmp/gpc_tmp_<n>". NULL is ignored.
  void SetFileName(const char* name);
  // Waits in a nested loop until the running request ends. Does nothing while already waiting or
  // when no request is running.
  void SetBlock();
  // Drops the time-out and the running request without any callback.
  void TerminateOperate();
  // TerminateOperate, and ends a blocking wait.
  void CancelCurrentOperate();

  static void NetworkTimeoutTimerProc(GPCTimerProxy* timer, void* info);
  // Stores one received chunk in memory or in the temporary file. False (logged) when it could not
  // be stored whole: the file cannot be opened or written (a full disk), or memory is short.
  bool OnNewStream(void* data, unsigned long size);

  unsigned int GetReceivedSize() const { return m_nReceivedSize; }
  // The temporary file's path in file mode once a chunk was written to it, else NULL.
  const char* GetFilePath() const { return m_bFileMode ? m_pBody : nullptr; }
  // True while `path` names the very file this client created (not one that took its name after
  // it was deleted: the names under /tmp are shared with every other process).
  bool IsOwnFile(const char* path) const;
  // The number in the last generated "/tmp/gpc_tmp_<n>" name (0 before the first).
  static int GetTempFileCounter();
  // Replaces what grows the memory-mode body (realloc; null restores it), so that tests can make
  // the growth fail.
  static void SetBufferGrowthForTesting(void* (*grow)(void* buffer, size_t size));

 private:
  struct BlockingRun;

  bool OnTransferChunk(const char* data, size_t size) override;
  void OnTransferData(size_t size) override;
  void OnTransferChallenge(long status) override;
  void OnTransferEnd(bool complete, const char* error) override;

  bool AppendToMemory(const void* data, unsigned long size);
  bool WriteFirstFileChunk(const void* data, unsigned long size);
  bool AppendFileChunk(const void* data, unsigned long size);
  // Writes the chunk to the open file and closes it; counts it only when all of it got there.
  bool WriteChunkAndClose(const void* data, unsigned long size);
  void RunBlockingLoop();
  void StopBlockingLoop();
  // What every ending callback does last, unless the sink deleted the client.
  void FinishCallback();
  unsigned FailStart();

  gpcnet::CurlTransferPtr m_pTransfer;  // the request in flight; null when idle
  GPCTimerProxy* m_pTimeoutTimer = nullptr;
  INetworkHttpSink* m_pSink = nullptr;
  uint32_t m_nReceivedSize = 0;
  char* m_pBody = nullptr;  // memory: body + NUL; file mode: 1024-byte path
  std::string m_strURL;
  bool m_bBlock = false;
  uint32_t m_nTimeout = 0;
  bool m_bFileMode = false;
  FILE* m_pFile = nullptr;
  // The file made for the body, held open so that its inode cannot pass to another file: a file at
  // its name with its device and inode is ours.
  Descriptor m_nKeptFile;
  std::string m_strFileName;
  int m_nSelfDelete = 0;
  std::string m_strProxyUser;
  std::string m_strProxyPassword;
  BlockingRun* m_pBlockingLoop = nullptr;
  void* m_pUserHandle = nullptr;
  // Cleared by the destructor so that a callback can tell whether its sink deleted the client.
  std::shared_ptr<bool> m_pAlive;
};
