// The umask as libarchive learns it, inside lib7zip.so and the tools linked like it.
//
// libarchive's disk writer learns the umask by setting it to 0 and back. The umask belongs to the
// whole process: a file another thread of the browser makes in that instant is made without it,
// open to every local user. libarchive's calls to umask are bound here (the linker's --wrap), where
// the umask is read from the kernel's status of the calling thread and never changed.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

extern "C" mode_t __real_umask(mode_t mask);

namespace {

// The "Umask:" line of /proc/thread-self/status (Linux 4.7 and later); false when there is none.
bool ReadUmask(mode_t* mask) {
  const int fd = open("/proc/thread-self/status", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char status[4096];
  const ssize_t size = read(fd, status, sizeof status - 1);
  close(fd);
  if (size <= 0) return false;
  status[size] = '\0';
  const char* line = strstr(status, "\nUmask:");
  if (line == nullptr) return false;
  char* end = nullptr;
  const long value = strtol(line + strlen("\nUmask:"), &end, 8);
  if (end == line + strlen("\nUmask:") || value < 0 || value > 0777) return false;
  *mask = static_cast<mode_t>(value);
  return true;
}

}  // namespace

// Returns the umask and leaves it as it is, whatever `mask` asks: libarchive only ever sets it
// back to what it read. Without the kernel's status, the old way, for an instant.
extern "C" __attribute__((visibility("hidden"))) mode_t __wrap_umask(mode_t) {
  mode_t mask = 0;
  if (ReadUmask(&mask)) return mask;
  mask = __real_umask(0);
  __real_umask(mask);
  return mask;
}
