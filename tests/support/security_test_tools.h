// Scratch folders and shell steps for the digest, certificate, signature and archive tests.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "extension_package.h"
#include "http_test_server.h"

namespace securitytest {

// A fresh folder under $GPC_TEST_HOME (or /tmp), removed with everything in it on destruction.
class ScratchFolder : public gpctest::TempFolder {
 public:
  ScratchFolder() : TempFolder("security") {}
  std::string operator/(const std::string& name) const { return path() + "/" + name; }
};

// Runs `command` through the shell and fails the current test when it does not exit 0.
inline void MustRun(const std::string& command) {
  bool ok = false;
  gpctest::ShellOutput(command, &ok);
  ASSERT_TRUE(ok) << "command failed: " << command;
}

}  // namespace securitytest
