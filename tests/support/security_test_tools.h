// Helpers for the digest, certificate and signature tests: a scratch folder that removes itself,
// running a command-line tool and reading or writing whole files.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace securitytest {

// A fresh folder under $GPC_TEST_HOME (or /tmp), removed with everything in it on destruction.
class ScratchFolder {
 public:
  ScratchFolder() {
    const char* home = getenv("GPC_TEST_HOME");
    std::string pattern = std::string(home && *home ? home : "/tmp") + "/securityXXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) != nullptr) path_ = buffer.data();
  }
  ~ScratchFolder() {
    if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Runs `command` through the shell; its standard output goes to `output` when given. True when
// it exits with status 0.
inline bool RunTool(const std::string& command, std::string* output = nullptr) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return false;
  std::string text;
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, pipe)) > 0) text.append(chunk, got);
  const int status = pclose(pipe);
  if (output != nullptr) *output = text;
  return status == 0;
}

// Runs `command` and fails the current test when it does not succeed.
inline void MustRun(const std::string& command) {
  ASSERT_TRUE(RunTool(command + " 2>/dev/null")) << "command failed: " << command;
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline void WriteFile(const std::string& path, const std::vector<unsigned char>& bytes) {
  WriteFile(path, std::string(bytes.begin(), bytes.end()));
}

inline std::vector<unsigned char> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in),
                                    std::istreambuf_iterator<char>());
}

// The first word of a tool's output (the digest printed by sha1sum and sha256sum).
inline std::string FirstWord(const std::string& text) {
  std::istringstream in(text);
  std::string word;
  in >> word;
  return word;
}

}  // namespace securitytest
