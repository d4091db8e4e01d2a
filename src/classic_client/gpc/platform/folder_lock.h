// A lock on a folder that the user's processes share: several browsers, or a browser and gpc-host,
// may install and load the same extension at once. The lock is an flock on the folder itself, so
// nothing is added to it, and it goes with the descriptor when a process dies.
#pragma once
#include <functional>
#include <string>

namespace platform {

class FolderLock {
 public:
  enum Kind { kShared, kExclusive };
  // Waits up to kFolderLockWaitMillis for the lock. A folder that does not exist, or a lock not
  // had in time (a process stopped while it held it), leaves it not held: the caller goes on
  // without it, as it would on a file system without locks.
  FolderLock(const std::string& folder, Kind kind);
  ~FolderLock();
  FolderLock(FolderLock&& other) noexcept;
  FolderLock& operator=(const FolderLock&) = delete;
  // Whether another process held the lock all the time it was waited for.
  bool timedOut() const { return m_fd >= 0 && !m_held; }

 private:
  int m_fd = -1;
  bool m_held = false;
};

constexpr int kFolderLockWaitMillis = 10000;

// Replaces the pause between two tries for a lock (a 10 ms sleep) with `pause`; an empty function
// restores it. Tests release the lock from there instead of waiting.
void SetFolderLockPauseForTesting(std::function<void()> pause);

}  // namespace platform
