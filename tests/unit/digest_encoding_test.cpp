#include <gtest/gtest.h>

#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "CryptoWrapper.h"
#include "NSString+Hex.h"
#include "security_test_tools.h"
#include "trace_capture.h"

namespace {

using securitytest::FirstWord;
using securitytest::RunTool;
using securitytest::ScratchFolder;
using securitytest::WriteFile;

std::string ToolDigest(const std::string& tool, const std::string& path) {
  std::string output;
  EXPECT_TRUE(RunTool(tool + " '" + path + "'", &output)) << tool;
  return FirstWord(output);
}

std::string RandomBytes(size_t count, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}

// Restores a working binding however a test leaves it.
class CryptoBindingGuard {
 public:
  ~CryptoBindingGuard() {
    CryptoWrapper::SetLibraryMissingForTesting(false);
    CryptoWrapper::destorySharedInstance();
  }
};

TEST(CryptoWrapper, FillsEverySlotFromTheLinkedLibrary) {
  CryptoBindingGuard guard;
  CryptoWrapper* crypto = CryptoWrapper::sharedInstance();
  EXPECT_EQ(crypto, CryptoWrapper::sharedInstance());
  ASSERT_TRUE(crypto->IsLoaded());
  const void* slots[] = {
      reinterpret_cast<const void*>(crypto->SHA_Init()),
      reinterpret_cast<const void*>(crypto->SHA1_Update()),
      reinterpret_cast<const void*>(crypto->SHA1_Final()),
      reinterpret_cast<const void*>(crypto->SHA256_Init()),
      reinterpret_cast<const void*>(crypto->SHA256_Update()),
      reinterpret_cast<const void*>(crypto->SHA256_Final()),
      reinterpret_cast<const void*>(crypto->BIO_free()),
      reinterpret_cast<const void*>(crypto->BIO_new()),
      reinterpret_cast<const void*>(crypto->BIO_free_all()),
      reinterpret_cast<const void*>(crypto->BIO_new_mem_buf()),
      reinterpret_cast<const void*>(crypto->BIO_set_flags()),
      reinterpret_cast<const void*>(crypto->BIO_f_base64()),
      reinterpret_cast<const void*>(crypto->BIO_push()),
      reinterpret_cast<const void*>(crypto->BIO_read()),
      reinterpret_cast<const void*>(crypto->RSA_free()),
      reinterpret_cast<const void*>(crypto->RSA_verify()),
      reinterpret_cast<const void*>(crypto->AES_set_encrypt_key()),
      reinterpret_cast<const void*>(crypto->AES_cbc_encrypt()),
      reinterpret_cast<const void*>(crypto->EVP_PKEY_free()),
      reinterpret_cast<const void*>(crypto->EVP_PKEY_get1_RSA()),
      reinterpret_cast<const void*>(crypto->X509_free()),
      reinterpret_cast<const void*>(crypto->X509_get_pubkey()),
      reinterpret_cast<const void*>(crypto->PEM_read_bio_RSAPrivateKey()),
      reinterpret_cast<const void*>(crypto->d2i_X509()),
      reinterpret_cast<const void*>(crypto->RSA_sign()),
  };
  for (size_t i = 0; i < sizeof slots / sizeof slots[0]; ++i) EXPECT_NE(slots[i], nullptr) << i;

  CryptoWrapper::destorySharedInstance();
  EXPECT_TRUE(CryptoWrapper::sharedInstance()->IsLoaded());
}

TEST(CryptoWrapper, WithoutTheLibraryEveryUserFailsCleanly) {
  CryptoBindingGuard guard;
  ScratchFolder folder;
  WriteFile(folder / "abc", "abc");
  CryptoWrapper::SetLibraryMissingForTesting(true);
  CryptoWrapper::destorySharedInstance();
  CryptoWrapper* crypto = CryptoWrapper::sharedInstance();
  EXPECT_FALSE(crypto->IsLoaded());
  EXPECT_EQ(crypto->SHA_Init(), nullptr);
  EXPECT_EQ(crypto->RSA_sign(), nullptr);
  EXPECT_EQ(Sha1OfFile((folder / "abc").c_str()), "");
  EXPECT_EQ(Sha256OfFile((folder / "abc").c_str()), "");
  EXPECT_TRUE(base64Decode("YWJj").empty());
}

class FileDigest : public ::testing::Test {
 protected:
  std::string Put(const std::string& name, const std::string& bytes) {
    const std::string path = folder_ / name;
    WriteFile(path, bytes);
    return path;
  }
  ScratchFolder folder_;
};

TEST_F(FileDigest, StandardVectors) {
  const std::string abc = Put("abc", "abc");
  EXPECT_EQ(Sha1OfFile(abc.c_str()), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(Sha256OfFile(abc.c_str()),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  const std::string long448 =
      Put("448", "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq");
  EXPECT_EQ(Sha1OfFile(long448.c_str()), "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(Sha256OfFile(long448.c_str()),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST_F(FileDigest, EmptyFileHasNoDigest) {
  const std::string empty = Put("empty", "");
  EXPECT_EQ(Sha1OfFile(empty.c_str()), "");
  EXPECT_EQ(Sha256OfFile(empty.c_str()), "");
}

TEST_F(FileDigest, AgreesWithTheToolsAroundChunkBoundaries) {
  for (size_t size : {size_t{1}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{8192},
                      size_t{3 * 4096 + 17}}) {
    const std::string path = Put("data" + std::to_string(size), RandomBytes(size, size));
    const std::string sha1 = Sha1OfFile(path.c_str());
    const std::string sha256 = Sha256OfFile(path.c_str());
    EXPECT_EQ(sha1.size(), 40u);
    EXPECT_EQ(sha256.size(), 64u);
    EXPECT_EQ(sha1, ToolDigest("sha1sum", path)) << size;
    EXPECT_EQ(sha256, ToolDigest("sha256sum", path)) << size;
  }
}

TEST_F(FileDigest, UnreadableInputGivesNoDigest) {
  ClearCapturedTraces();
  EXPECT_EQ(Sha1OfFile(nullptr), "");
  EXPECT_TRUE(TraceContains(3, "ASSERT path != NULL failed at file "
                               "src/classic_client/gpc/common/NSString+Hex.cpp, line "));
  EXPECT_EQ(Sha256OfFile(nullptr), "");
  EXPECT_EQ(Sha1OfFile((folder_ / "missing").c_str()), "");
  EXPECT_EQ(Sha256OfFile((folder_ / "missing").c_str()), "");
  // A folder opens but cannot be read: no digest of "what was read so far".
  EXPECT_EQ(Sha1OfFile(folder_.path().c_str()), "");
  EXPECT_EQ(Sha256OfFile(folder_.path().c_str()), "");
  const std::string locked = Put("locked", "abc");
  chmod(locked.c_str(), 0);
  if (geteuid() != 0) {  // the superuser reads it anyway
    EXPECT_EQ(Sha1OfFile(locked.c_str()), "");
    EXPECT_EQ(Sha256OfFile(locked.c_str()), "");
  }
}

TEST(HexDecoding, PairsOddTailAndCase) {
  EXPECT_EQ(decodeFromHexidecimal("0aFF1"), (GpcBytes{0x0A, 0xFF}));
  EXPECT_EQ(decodeFromHexidecimal("aBcD"), (GpcBytes{0xAB, 0xCD}));
  EXPECT_TRUE(decodeFromHexidecimal("").empty());
  EXPECT_TRUE(decodeFromHexidecimal("7").empty());
  EXPECT_TRUE(decodeFromHexidecimal(nullptr).empty());
}

TEST(HexDecoding, InvalidPairsGiveTheirValidLeadingPart) {
  // Only hexadecimal digits count: no blanks, signs or prefixes before them.
  const struct {
    const char* pair;
    unsigned char value;
  } kCases[] = {{"ff", 0xFF}, {"00", 0x00}, {"Ab", 0xAB}, {"x1", 0x00}, {"9 ", 0x09},
                {"1g", 0x01}, {"g1", 0x00}, {" f", 0x00}, {"+f", 0x00}, {"-1", 0x00},
                {"0x", 0x00}, {"\tf", 0x00}};
  for (const auto& c : kCases) {
    EXPECT_EQ(strToChar(c.pair[0], c.pair[1]), c.value) << c.pair;
    EXPECT_EQ(decodeFromHexidecimal(c.pair), GpcBytes{c.value}) << c.pair;
  }
  EXPECT_EQ(decodeFromHexidecimal("1gzz -1"), (GpcBytes{0x01, 0x00, 0x00}));
}

TEST(HexDecoding, EveryByteValueRoundTrips) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (int value = 0; value < 256; ++value) {
    text += kDigits[value >> 4];
    text += kDigits[value & 15];
  }
  const GpcBytes bytes = decodeFromHexidecimal(text.c_str());
  ASSERT_EQ(bytes.size(), 256u);
  for (int value = 0; value < 256; ++value) EXPECT_EQ(bytes[value], value);
}

TEST(Base64Decoding, OneLine) {
  const GpcBytes hello = base64Decode("aGVsbG8=");
  EXPECT_EQ(std::string(hello.begin(), hello.end()), "hello");
  EXPECT_TRUE(base64Decode("").empty());
  EXPECT_TRUE(base64Decode(nullptr).empty());
}

TEST(Base64Decoding, LongerThanOneReadChunkMatchesTheTool) {
  ScratchFolder folder;
  const std::string original = RandomBytes(5000, 7);
  WriteFile(folder / "blob", original);
  std::string encoded;
  ASSERT_TRUE(RunTool("openssl base64 -A -in '" + (folder / "blob") + "'", &encoded));
  const GpcBytes decoded = base64Decode(encoded.c_str());
  EXPECT_EQ(std::string(decoded.begin(), decoded.end()), original);
}

TEST(Base64Decoding, WrappedOrGarbageTextGivesLittleOrNothing) {
  const std::string line(64, 'Q');
  EXPECT_TRUE(base64Decode((line + "\n" + line + "\n").c_str()).empty());
  EXPECT_TRUE(base64Decode("!!!!####").empty());
  // Garbage in the middle must not be read past the text or crash; what comes out is at most
  // what the valid characters could give.
  EXPECT_LE(base64Decode("aGVs*bG8=").size(), 6u);
  EXPECT_LE(base64Decode("\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9").size(), 3u);
}

}  // namespace
