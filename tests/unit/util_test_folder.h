// A scratch folder for one test, made under the program's own test home and removed afterwards,
// with small helpers to lay out files, links and folders in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

class ScratchFolder {
 public:
  ScratchFolder() {
    const char* home = std::getenv("GPC_TEST_HOME");
    std::string templ = std::string(home != nullptr && home[0] == '/' ? home : "/tmp") + "/scratchXXXXXX";
    path_ = mkdtemp(templ.data()) != nullptr ? templ : std::string();
  }
  ~ScratchFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  // Writes `text` to `name` (folders along the way are made) and returns its full path.
  std::string Write(const std::string& name, const std::string& text = "x") const {
    std::string full = *this / name;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream(full, std::ios::binary) << text;
    return full;
  }
  std::string Folder(const std::string& name) const {
    std::string full = *this / name;
    std::filesystem::create_directories(full);
    return full;
  }
  std::string Link(const std::string& name, const std::string& target) const {
    std::string full = *this / name;
    symlink(target.c_str(), full.c_str());
    return full;
  }

 private:
  std::string path_;
};

inline bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

inline bool IsSymlink(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}
