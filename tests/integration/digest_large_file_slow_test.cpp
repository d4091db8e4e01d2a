// A package-sized file is digested by streaming and agrees with the openssl tool.
#include <gtest/gtest.h>

#include <string>

#include "common/NSString+Hex.h"
#include "security_test_tools.h"

TEST(LargeFileDigest, HundredMegabytesAgreeWithTheTool) {
  securitytest::ScratchFolder folder;
  const std::string path = folder / "package.7z";
  securitytest::MustRun("head -c 104857601 /dev/urandom > '" + path + "'");  // not a multiple of a chunk
  EXPECT_EQ(Sha1OfFile(path.c_str()), gpctest::FileDigest(path, "sha1"));
  EXPECT_EQ(Sha256OfFile(path.c_str()), gpctest::FileDigest(path, "sha256"));
}
