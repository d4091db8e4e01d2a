// Sets (or, with a null value, removes) one environment variable for the life of the object.
#pragma once
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
