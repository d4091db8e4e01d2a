// Helpers for the digest, certificate, signature and archive tests, on top of the shared support code.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "extension_package.h"
#include "http_test_server.h"

namespace securitytest {

// A fresh folder under $GPC_TEST_HOME (or /tmp), removed with everything in it on destruction.
class ScratchFolder : public gpctest::TempFolder {
 public:
  ScratchFolder() : TempFolder("security") {}
  std::string operator/(const std::string& name) const { return path() + "/" + name; }
};

// Runs `command` through the shell; its standard output goes to `output` when given. True on exit 0.
inline bool RunTool(const std::string& command, std::string* output = nullptr) {
  bool ok = false;
  const std::string text = gpctest::ShellOutput(command, &ok);
  if (output != nullptr) *output = text;
  return ok;
}
// Runs `command` and fails the current test when it does not succeed.
inline void MustRun(const std::string& command) {
  ASSERT_TRUE(RunTool(command + " 2>/dev/null")) << "command failed: " << command;
}

using gpctest::WriteFile;
inline void WriteFile(const std::string& path, const std::vector<unsigned char>& bytes) {
  gpctest::WriteFile(path, std::string(bytes.begin(), bytes.end()));
}
inline std::vector<unsigned char> ReadFile(const std::string& path) {
  const std::string text = gpctest::ReadFile(path);
  return std::vector<unsigned char>(text.begin(), text.end());
}

}  // namespace securitytest
