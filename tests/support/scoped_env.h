// Process settings a test changes for the life of an object: one environment variable, and the
// size limit of written files.
#pragma once
#include <signal.h>
#include <sys/resource.h>

#include <cstdlib>
#include <optional>
#include <string>

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = getenv(name)) old_ = old;
    if (value) setenv(name, value, 1); else unsetenv(name);
  }
  ScopedEnv(const char* name, const std::string& value) : ScopedEnv(name, value.c_str()) {}
  ~ScopedEnv() {
    if (old_) setenv(name_.c_str(), old_->c_str(), 1); else unsetenv(name_.c_str());
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> old_;
};

// A full disk as the process meets it: files may not grow past `bytes` (0 keeps the limit), and a
// write past it fails with EFBIG instead of ending the process with SIGXFSZ.
class ScopedFileSizeLimit {
 public:
  explicit ScopedFileSizeLimit(rlim_t bytes) : handler_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &old_);
    rlimit lowered = old_;
    if (bytes != 0) lowered.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &lowered);
  }
  ~ScopedFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, handler_);
  }
  ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
  ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

 private:
  void (*handler_)(int);
  rlimit old_{};
};
