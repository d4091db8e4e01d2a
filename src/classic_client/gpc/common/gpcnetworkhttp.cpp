#include "common/gpcnetworkhttp.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/gpctimerproxy.h"
#include "common/gpcutil.h"
#include "common/trace.h"
#include "platform/folders.h"

namespace {

const unsigned kFailed = 0xFFFFFFFF;
const size_t kPathSize = 1024;
const size_t kMinimumUrlLength = 12;

// Numbers the generated temporary files of the whole process; it only ever increases.
// "/tmp/gpc_tmp_<n>", numbered from 1 for the whole process.
TempNameSeries g_downloadFileNames(1);

// Grows the memory-mode body.
void* (*g_pfnGrowBuffer)(void*, size_t) = realloc;

// A name is taken when anything is there, a dangling symbolic link included.
bool NameIsTaken(const char* path) {
  struct stat info;
  return lstat(path, &info) == 0;
}

// Opens `path` with stdio `mode` on a descriptor opened with `flags`, never through a symbolic
// link planted at the name. A file made here is the user's alone: it lies in the shared /tmp.
FILE* OpenNoFollow(const char* path, int flags, const char* mode) {
  int fd = open(path, flags | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  FILE* file = fdopen(fd, mode);
  if (!file) {
    close(fd);
    return nullptr;
  }
  setvbuf(file, nullptr, _IONBF, 0);  // each chunk is one write; no copy through a buffer
  return file;
}

// The shared download folder "/tmp/talvo/", open to every user.
void EnsureTalvoFolder() {
  const std::string folder = std::string(platform::kSharedTempFolder) + "/talvo/";
  struct stat info;
  if (stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return;
  if (!MakeDirectory(folder)) return;
  // Change the mode of the folder just made, never of what a link at that name points to.
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  fchmod(fd, 0777);
  close(fd);
}

}  // namespace

// The flag of one nested loop run by GetURL or SetBlock; a run started while another was waiting
// keeps the outer one, and stopping ends both (the outer request was dropped by the inner).
struct GPCNetworkHttp::BlockingRun {
  bool running = true;
  BlockingRun* outer = nullptr;
};

GPCNetworkHttp::GPCNetworkHttp() : m_pAlive(std::make_shared<bool>(true)) {}

GPCNetworkHttp::~GPCNetworkHttp() {
  *m_pAlive = false;
  TerminateOperate();
  free(m_pBody);
  m_pBody = nullptr;
  StopBlockingLoop();
  if (m_pFile) {
    fclose(m_pFile);
    m_pFile = nullptr;
  }
}

int GPCNetworkHttp::GetTempFileCounter() { return static_cast<int>(g_downloadFileNames.Last()); }

void GPCNetworkHttp::SetBufferGrowthForTesting(void* (*grow)(void*, size_t)) {
  g_pfnGrowBuffer = grow != nullptr ? grow : realloc;
}

unsigned GPCNetworkHttp::GetURL(const char* url, INetworkHttpSink* sink, unsigned timeoutMs,
                                bool block, bool toFile) {
  if (!url) {
    MacInfoTrace("GPCNetworkHttp::GetURL,url is nil,don't get it!");
    return kFailed;
  }
  std::string requested(url);  // `url` may be our own m_strURL (SetProxy)
  m_pSink = sink;
  m_nTimeout = timeoutMs;
  m_bBlock = block;
  m_bFileMode = toFile;
  m_strURL = requested;
  TerminateOperate();
  free(m_pBody);
  m_pBody = nullptr;
  m_nReceivedSize = 0;
  if (m_strURL.size() < kMinimumUrlLength) return FailStart();

  gpcnet::TransferRequest request;
  request.url = m_strURL;
  if (!gpcnet::IsWellFormedUrl(request.url)) {
    MacInfoTrace("GPCNetworkHttp::GetURL,CFURLCreateWithString failed,need use Escape try again!url is %s",
                 m_strURL.c_str());
    request.url = gpcnet::EscapeUrl(m_strURL);
    if (!gpcnet::IsWellFormedUrl(request.url)) return FailStart();
  }
  request.acceptAnyCertificate = strncasecmp(m_strURL.c_str(), "https://", 8) == 0;
  if (!m_strProxyUser.empty()) {
    request.proxyUser = m_strProxyUser;
    request.proxyPassword = m_strProxyPassword;
  }
  std::string error;
  m_pTransfer = gpcnet::StartTransfer(request, this, &error);
  if (!m_pTransfer) {
    MacInfoTrace("GPCNetworkHttp::GetURL,start request failed,url is %s,%s", m_strURL.c_str(), error.c_str());
    return FailStart();
  }
  if (m_nTimeout != 0) {
    delete m_pTimeoutTimer;
    m_pTimeoutTimer = new GPCTimerProxy(static_cast<float>(m_nTimeout) / 1000.0f,
                                        &GPCNetworkHttp::NetworkTimeoutTimerProc, this);
  }
  if (m_bBlock) RunBlockingLoop();  // the client may be gone when this returns
  return 0;
}

unsigned GPCNetworkHttp::FailStart() {
  TerminateOperate();
  return kFailed;
}

void GPCNetworkHttp::SetProxy(std::string user, std::string password) {
  m_strProxyUser = user;
  m_strProxyPassword = password;
  TerminateOperate();
  // A request issued again with proxy credentials always collects its body in memory.
  GetURL(m_strURL.c_str(), m_pSink, m_nTimeout, m_bBlock, false);
}

void GPCNetworkHttp::SetFileName(const char* name) {
  if (name) m_strFileName = name;
}

void GPCNetworkHttp::SetBlock() {
  if (m_pBlockingLoop || !m_pTransfer) return;
  m_bBlock = true;
  RunBlockingLoop();
}

void GPCNetworkHttp::TerminateOperate() {
  if (m_pTimeoutTimer) {
    GPCTimerProxy* timer = m_pTimeoutTimer;
    m_pTimeoutTimer = nullptr;
    delete timer;
  }
  m_pTransfer.reset();
}

void GPCNetworkHttp::CancelCurrentOperate() {
  TerminateOperate();
  StopBlockingLoop();
}

void GPCNetworkHttp::RunBlockingLoop() {
  // Only StopBlockingLoop ends the run, and it also forgets it, so nothing points to it after.
  std::unique_ptr<BlockingRun> run(new BlockingRun);
  run->outer = m_pBlockingLoop;
  m_pBlockingLoop = run.get();
  // Other sources of the main context (timers, other transfers) keep being served meanwhile.
  while (run->running) g_main_context_iteration(nullptr, TRUE);
}

void GPCNetworkHttp::StopBlockingLoop() {
  for (BlockingRun* run = m_pBlockingLoop; run; run = run->outer) run->running = false;
  if (m_pBlockingLoop) g_main_context_wakeup(nullptr);
  m_pBlockingLoop = nullptr;
}

void GPCNetworkHttp::FinishCallback() {
  StopBlockingLoop();
  if (m_nSelfDelete) delete this;
}

void GPCNetworkHttp::NetworkTimeoutTimerProc(GPCTimerProxy*, void* info) {
  GPCNetworkHttp* self = static_cast<GPCNetworkHttp*>(info);
  std::shared_ptr<bool> alive = self->m_pAlive;
  self->TerminateOperate();  // deletes this timer: a time-out fires once
  if (self->m_pSink) self->m_pSink->OnHttpReturn(self->m_pUserHandle, 0, nullptr);
  if (*alive) self->FinishCallback();
}

bool GPCNetworkHttp::OnTransferChunk(const char* data, size_t size) {
  return OnNewStream(const_cast<char*>(data), size);
}

void GPCNetworkHttp::OnTransferData(size_t size) {
  if (size > 0 && m_pSink) m_pSink->OnDataReceived(static_cast<unsigned int>(size));
}

void GPCNetworkHttp::OnTransferChallenge(long) {
  StopBlockingLoop();
  if (!m_pSink) return;
  TerminateOperate();
  std::shared_ptr<bool> alive = m_pAlive;
  std::string user;
  std::string password;
  bool retry = m_pSink->OnAskProxy(user, password);
  if (*alive && retry) SetProxy(user, password);
}

void GPCNetworkHttp::OnTransferEnd(bool complete, const char* error) {
  std::shared_ptr<bool> alive = m_pAlive;
  std::string reason(error ? error : "");  // the text lives in the transfer, dropped just below
  TerminateOperate();
  if (complete) {
    if (m_pSink) {
      MacInfoTrace("GPCNetworkHttp::ReadStreamClientCallBack,kCFStreamEventEndEncountered,recevice url[%s] data size = %d",
                   m_strURL.c_str(), static_cast<int>(m_nReceivedSize));
      m_pSink->OnHttpReturn(m_pUserHandle, static_cast<int>(m_nReceivedSize), m_pBody);
    }
  } else {
    MacInfoTrace("GPCNetworkHttp::ReadStreamClientCallBack,kCFStreamEventErrorOccurred,url[%s],%s",
                 m_strURL.c_str(), reason.c_str());
    if (m_pSink) m_pSink->OnHttpReturn(m_pUserHandle, 0, nullptr);
  }
  if (*alive) FinishCallback();
}

bool GPCNetworkHttp::OnNewStream(void* data, unsigned long size) {
  if (!m_bFileMode) return AppendToMemory(data, size);
  if (m_nReceivedSize == 0) return WriteFirstFileChunk(data, size);
  return AppendFileChunk(data, size);
}

bool GPCNetworkHttp::AppendToMemory(const void* data, unsigned long size) {
  char* grown = static_cast<char*>(g_pfnGrowBuffer(m_pBody, m_nReceivedSize + size + 1));
  if (!grown) {
    MacErrorTrace("GPCNetworkHttp::OnNewStream,no memory for %lu more bytes of url[%s]", size, m_strURL.c_str());
    return false;
  }
  m_pBody = grown;
  memcpy(m_pBody + m_nReceivedSize, data, size);
  m_nReceivedSize += size;
  m_pBody[m_nReceivedSize] = '\0';
  return true;
}

// How many names a new download file tries when others keep taking them first.
constexpr int kNameAttempts = 1000;

bool GPCNetworkHttp::WriteFirstFileChunk(const void* data, unsigned long size) {
  EnsureTalvoFolder();
  char path[kPathSize];
  const int flags = O_RDWR | O_CREAT;
  if (m_strFileName.empty()) {
    // Another process (a second browser, another user) may take a free name before we open it:
    // then the next free one is tried.
    const auto name = [](uint32_t n) { return std::string(platform::kSharedTempFolder) + "/gpc_tmp_" + std::to_string(n); };
    const auto taken = [](const std::string& candidate) { return NameIsTaken(candidate.c_str()); };
    std::string candidate;
    for (int attempt = 0; attempt < kNameAttempts && m_pFile == nullptr; ++attempt) {
      if (g_downloadFileNames.Take(name, taken, true, candidate) == 0) break;
      CopyBounded(path, sizeof path, candidate);
      m_pFile = OpenNoFollow(path, flags | O_EXCL, "w+");
      if (m_pFile == nullptr && errno != EEXIST) break;
    }
  } else {
    snprintf(path, sizeof path, "%s/%s", platform::kSharedTempFolder, m_strFileName.c_str());
    m_pFile = OpenNoFollow(path, flags | O_TRUNC, "w+");
  }
  if (!m_pFile) {
    MacInfoTrace("GPCNetworkHttp::OnNewStream ,1 fopen file = %s failed!", path);
    return false;
  }
  free(m_pBody);
  m_pBody = static_cast<char*>(calloc(kPathSize, 1));
  m_nKeptFile.Reset(fcntl(fileno(m_pFile), F_DUPFD_CLOEXEC, 0));
  if (!m_pBody || m_nKeptFile.get() < 0) {
    // Without its path, or held open to know it by, the file could never be handed over nor removed.
    fclose(m_pFile);
    m_pFile = nullptr;
    unlink(path);
    MacErrorTrace("GPCNetworkHttp::OnNewStream,cannot keep file = %s: %s", path, m_pBody ? strerror(errno) : "no memory");
    return false;
  }
  memcpy(m_pBody, path, strlen(path) + 1);
  return WriteChunkAndClose(data, size);
}

bool GPCNetworkHttp::AppendFileChunk(const void* data, unsigned long size) {
  const char* path = m_pBody ? m_pBody : "";
  // Only the file begun with the first piece: never a new one, nor another process's that took
  // the name after ours was deleted.
  m_pFile = IsOwnFile(path) ? OpenNoFollow(path, O_RDWR | O_APPEND, "a+") : nullptr;
  if (!m_pFile) {
    MacInfoTrace("GPCNetworkHttp::OnNewStream,2 fopen file = %s failed!", path);
    return false;
  }
  fseek(m_pFile, 2, SEEK_SET);  // append mode writes at the end wherever this points
  return WriteChunkAndClose(data, size);
}

bool GPCNetworkHttp::IsOwnFile(const char* path) const { return IsFileOpenAt(m_nKeptFile.get(), path); }

bool GPCNetworkHttp::WriteChunkAndClose(const void* data, unsigned long size) {
  const bool written = fwrite(data, 1, size, m_pFile) == size;
  const int writeError = errno;
  const bool closed = fclose(m_pFile) == 0;
  const int closeError = errno;
  m_pFile = nullptr;
  if (!written || !closed) {
    MacErrorTrace("GPCNetworkHttp::OnNewStream,write file = %s failed: %s", m_pBody,
                  strerror(written ? closeError : writeError));
    return false;
  }
  m_nReceivedSize += size;
  return true;
}
