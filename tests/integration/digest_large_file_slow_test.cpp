// A package-sized file is digested by streaming and agrees with the system tools.
#include <gtest/gtest.h>

#include <string>

#include "NSString+Hex.h"
#include "security_test_tools.h"

namespace {

using securitytest::FirstWord;
using securitytest::MustRun;
using securitytest::RunTool;
using securitytest::ScratchFolder;

TEST(LargeFileDigest, HundredMegabytesAgreeWithSha1sumAndSha256sum) {
  ScratchFolder folder;
  const std::string path = folder / "package.7z";
  // 100 MB that is not a multiple of the 4096-byte chunk.
  MustRun("head -c 104857601 /dev/urandom > '" + path + "'");
  std::string sha1sum, sha256sum;
  ASSERT_TRUE(RunTool("sha1sum '" + path + "'", &sha1sum));
  ASSERT_TRUE(RunTool("sha256sum '" + path + "'", &sha256sum));
  EXPECT_EQ(Sha1OfFile(path.c_str()), FirstWord(sha1sum));
  EXPECT_EQ(Sha256OfFile(path.c_str()), FirstWord(sha256sum));
}

}  // namespace
