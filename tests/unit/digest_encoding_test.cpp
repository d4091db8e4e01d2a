// File digests and the hexadecimal and base64 decoders, against the openssl tool.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "common/CryptoWrapper.h"
#include "common/NSString+Hex.h"
#include "security_test_tools.h"

namespace {

using securitytest::ScratchFolder;

std::string Text(const GpcBytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

TEST(FileDigest, AgreesWithTheToolAcrossChunksAndIsEmptyWithoutTheLibraryOrForWhatCannotBeRead) {
  ScratchFolder folder;
  for (size_t size : {1, 4096, 4097, 3 * 4096 + 17}) {
    const std::string path = folder / std::to_string(size);
    gpctest::WriteFile(path, gpctest::PatternBytes(size, size));
    EXPECT_EQ(Sha1OfFile(path.c_str()), gpctest::FileDigest(path, "sha1")) << size;
    EXPECT_EQ(Sha256OfFile(path.c_str()), gpctest::FileDigest(path, "sha256")) << size;
  }
  gpctest::WriteFile(folder / "empty", "");
  gpctest::WriteFile(folder / "locked", "abc");
  chmod((folder / "locked").c_str(), 0);
  const std::string locked = geteuid() == 0 ? folder / "empty" : folder / "locked";  // the superuser reads it
  for (const std::string& path : {folder / "empty", folder / "missing", folder.path(), locked}) {
    EXPECT_EQ(Sha1OfFile(path.c_str()) + Sha256OfFile(path.c_str()), "") << path;
  }
  CryptoWrapper::SetLibraryMissingForTesting(true);
  CryptoWrapper::destorySharedInstance();
  EXPECT_EQ(Sha1OfFile((folder / "1").c_str()) + Sha256OfFile((folder / "1").c_str()), "");
  EXPECT_TRUE(base64Decode("YWJj").empty());
  CryptoWrapper::SetLibraryMissingForTesting(false);
  CryptoWrapper::destorySharedInstance();
}

TEST(HexDecoding, PairsOfDigitsInEitherCaseUpToTheFirstBadDigit) {
  const std::pair<const char*, GpcBytes> cases[] = {  // text, bytes
      {"0aFF1", {0x0a, 0xff}}, {"aBcD", {0xab, 0xcd}}, {"", {}}, {"7", {}}, {"1gzz -1", {0x01, 0x00, 0x00}},
      {"x1", {0}}, {"9 ", {9}}, {"1g", {1}}, {"g1", {0}}, {" f", {0}}, {"+f", {0}}, {"0x", {0}}};
  for (const auto& [text, bytes] : cases) EXPECT_EQ(decodeFromHexidecimal(text), bytes) << text;
  GpcBytes every(256);
  std::string text;
  for (int value = 0; value < 256; ++value) {
    every[value] = static_cast<unsigned char>(value);
    text += std::string(1, "0123456789abcdef"[value >> 4]) + "0123456789ABCDEF"[value & 15];
  }
  EXPECT_EQ(decodeFromHexidecimal(text.c_str()), every);
}

TEST(Base64Decoding, OneLineOfCanonicalTextOnly) {
  ScratchFolder folder;
  const std::string blob = gpctest::PatternBytes(5000, 7);  // more than one read chunk
  gpctest::WriteFile(folder / "blob", blob);
  bool ok = false;
  const std::string encoded = gpctest::ShellOutput("openssl base64 -A -in '" + (folder / "blob") + "'", &ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(Text(base64Decode(encoded.c_str())), blob);
  const std::string lines = std::string(64, 'Q') + "\n" + std::string(64, 'Q') + "\n";
  const std::pair<const char*, const char*> exact[] = {{"aGVsbG8=", "hello"}, {"aGVsbA==", "hell"},
      {"aGVsbG8h", "hello!"}, {"aGVsbG8", "hel"}, {"", ""}, {"!!!!####", ""}, {lines.c_str(), ""}};
  for (const auto& [text, decoded] : exact) EXPECT_EQ(Text(base64Decode(text)), decoded) << text;
  // Garbage inside must not be read past or crash; non-ASCII text is read as far as its UTF-16 length.
  EXPECT_LE(base64Decode("aGVs*bG8=").size(), 6u);
  EXPECT_LE(base64Decode("\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9").size(), 3u);
}

}  // namespace
