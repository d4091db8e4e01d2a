// A scratch folder for one test, removed afterwards, that lays out files, links and folders and
// describes what it holds.
#pragma once

#include <filesystem>
#include <fstream>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "http_test_server.h"

class ScratchFolder : public gpctest::TempFolder {
 public:
  ScratchFolder() : TempFolder("scratch") {}
  std::string operator/(const std::string& name) const { return path() + "/" + name; }
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
  // Lays out entries named in `layout`, separated by blanks: "a/b" a file, "d/" a folder, "l@t" a link to t.
  void Lay(const std::string& layout) const {
    std::istringstream words(layout);
    for (std::string w; words >> w;) {
      const size_t at = w.find('@');
      if (at != std::string::npos) symlink(w.substr(at + 1).c_str(), (*this / w.substr(0, at)).c_str());
      else if (w.back() == '/') Folder(w);
      else Write(w);
    }
  }
  // Everything inside, sorted, in Lay's notation; a link shows its target as written.
  std::string Describe() const {
    std::set<std::string> names;
    for (const auto& e : std::filesystem::recursive_directory_iterator(path())) {
      std::string name = e.path().string().substr(path().size() + 1);
      if (e.is_symlink()) name += "@" + std::filesystem::read_symlink(e.path()).string();
      else if (e.is_directory()) name += "/";
      names.insert(name);
    }
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : " ") + name;
    return text;
  }
};

inline bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// A binary property list with the string `value` under `key`; "~" in `value` stands for a NUL,
// which an XML list cannot hold. A value with a character beyond ASCII is stored as UTF-16, whose
// NULs libplist keeps in the string's length.
inline std::string BinaryPlist(const std::string& key, const std::string& value) {
  const std::string command =
      "python3 -c \"import plistlib, sys; sys.stdout.buffer.write(plistlib.dumps({sys.argv[1]: "
      "sys.argv[2].replace('~', chr(0))}, fmt=plistlib.FMT_BINARY))\" '" + key + "' '" + value + "'";
  std::string bytes;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char chunk[256];
    for (size_t got; (got = fread(chunk, 1, sizeof chunk, pipe)) > 0;) bytes.append(chunk, got);
    pclose(pipe);
  }
  return bytes;
}
