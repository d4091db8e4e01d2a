#include "platform/folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace platform {

namespace {
constexpr int kPauseMillis = 10;
std::function<void()>& Pause() {
  static std::function<void()> pause;
  return pause;
}
}  // namespace

FolderLock::FolderLock(const std::string& folder, Kind kind) {
  m_fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_fd < 0) return;
  const int operation = (kind == kExclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
  for (int waited = 0;; waited += kPauseMillis) {
    if (flock(m_fd, operation) == 0) {
      m_held = true;
      return;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {  // no locks on this file system: none needed
      close(m_fd);
      m_fd = -1;
      return;
    }
    if (waited >= kFolderLockWaitMillis) return;
    if (Pause()) {
      Pause()();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(kPauseMillis));
    }
  }
}

FolderLock::FolderLock(FolderLock&& other) noexcept : m_fd(other.m_fd), m_held(other.m_held) {
  other.m_fd = -1;
  other.m_held = false;
}

FolderLock::~FolderLock() {
  if (m_fd >= 0) close(m_fd);  // releases the lock
}

void SetFolderLockPauseForTesting(std::function<void()> pause) { Pause() = std::move(pause); }

}  // namespace platform
