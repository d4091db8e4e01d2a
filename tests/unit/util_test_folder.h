// A scratch folder for one test under the program's own test home, removed afterwards, with helpers
// to lay out files, links and folders in it and to describe what it holds.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
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
    std::filesystem::create_directories(std::filesystem::path(*this / name).parent_path());
    std::ofstream(*this / name, std::ios::binary) << text;
    return *this / name;
  }
  std::string Folder(const std::string& name) const {
    std::filesystem::create_directories(*this / name);
    return *this / name;
  }
  std::string Link(const std::string& name, const std::string& target) const {
    symlink(target.c_str(), (*this / name).c_str());
    return *this / name;
  }
  // Lays out entries named in `spec`, separated by blanks: "a/b" a file, "d/" a folder, "l@t" a link to t.
  void Lay(const std::string& spec) const {
    std::istringstream words(spec);
    for (std::string w; words >> w;) {
      size_t at = w.find('@');
      if (at != std::string::npos) Link(w.substr(0, at), w.substr(at + 1));
      else if (w.back() == '/') Folder(w);
      else Write(w);
    }
  }
  // Everything inside, sorted, in Lay's notation; a link shows the last name of its target.
  std::string Describe() const {
    std::set<std::string> names;
    for (const auto& e : std::filesystem::recursive_directory_iterator(path_)) {
      std::string name = e.path().string().substr(path_.size() + 1);
      if (e.is_symlink()) name += "@" + std::filesystem::read_symlink(e.path()).filename().string();
      else if (e.is_directory()) name += "/";
      names.insert(name);
    }
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : " ") + name;
    return text;
  }

 private:
  std::string path_;
};

inline bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}
