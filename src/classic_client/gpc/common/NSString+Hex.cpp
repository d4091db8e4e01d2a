#include "common/NSString+Hex.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/CryptoWrapper.h"
#include "common/gpcutil.h"
#include "common/trace.h"

// A bad argument or a missing crypto function is logged and the function gives its failure
// value; nothing aborts.
#define HEX_SOURCE_PATH "src/classic_client/gpc/common/NSString+Hex.cpp"
#define HEX_ASSERT_OR_RETURN(condition, failure)                                  \
  do {                                                                            \
    if (!GPC_ASSERT_TEXT(condition, #condition, HEX_SOURCE_PATH)) return failure; \
  } while (0)

namespace {

constexpr size_t kDigestChunkSize = 4096;
constexpr size_t kReadAheadSize = 65536;
constexpr int kBase64ReadChunkSize = 1024;

// The slots one kind of digest needs, with its context type and length.
template <typename Context>
struct DigestFunctions {
  int (*init)(Context*);
  int (*update)(Context*, const void*, size_t);
  int (*final)(unsigned char*, Context*);
  size_t length;
};

std::string ToLowerHex(const unsigned char* bytes, size_t length) {
  std::string text;
  text.reserve(length * 2);
  char pair[3];
  for (size_t i = 0; i < length; ++i) {
    snprintf(pair, sizeof pair, "%02x", bytes[i]);
    text += pair;
  }
  return text;
}

// The length measured by seeking to the end; -1 when the file cannot be measured.
long MeasureAndRewind(FILE* file) {
  if (fseek(file, 0, SEEK_END) != 0) return -1;
  const long length = ftell(file);
  if (fseek(file, 0, SEEK_SET) != 0) return -1;
  return length;
}

template <typename Context>
std::string DigestOfFile(const char* path, const DigestFunctions<Context>& digest) {
  HEX_ASSERT_OR_RETURN(path != NULL, std::string());
  HEX_ASSERT_OR_RETURN(digest.init != NULL && digest.update != NULL && digest.final != NULL,
                       std::string());
  FILE* file = fopen(path, "rbe");
  if (file == nullptr) return std::string();
  // The stream reads ahead in larger blocks than the digest's chunks: one system call per
  // 4096 bytes would cost more than the digest itself on fast hashes.
  std::unique_ptr<char[]> readAhead(new char[kReadAheadSize]);
  setvbuf(file, readAhead.get(), _IOFBF, kReadAheadSize);
  if (MeasureAndRewind(file) <= 0) {
    fclose(file);
    return std::string();
  }
  Context context;
  digest.init(&context);
  unsigned char chunk[kDigestChunkSize];
  for (;;) {
    memset(chunk, 0, sizeof chunk);
    const size_t got = fread(chunk, 1, sizeof chunk, file);
    if (got == 0) break;
    digest.update(&context, chunk, got);
  }
  // A read that failed part-way (a folder, an I/O error) must not pass for a digest of the
  // bytes read so far.
  const bool failed = ferror(file) != 0;
  const int readErrno = errno;
  fclose(file);
  unsigned char value[32];
  memset(value, 0, sizeof value);
  digest.final(value, &context);
  if (failed) {
    MacErrorTrace("DigestOfFile, read of %s failed: %s", path, strerror(readErrno));
    return std::string();
  }
  return ToLowerHex(value, digest.length);
}

// The character count of UTF-8 text as a string object counts it (UTF-16 units): base64 input is
// read up to that many bytes, which only differs from the byte count for non-ASCII text. Never more
// than the byte count: a lead byte of a four-byte form counts two units even when its
// continuation bytes are missing (or it is no UTF-8 at all), and the read must stay in the text.
size_t Utf16Length(const char* text) {
  size_t units = 0;
  size_t bytes = 0;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p, ++bytes) {
    if ((*p & 0xC0) == 0x80) continue;  // continuation byte
    units += (*p >= 0xF0) ? 2 : 1;
  }
  return units < bytes ? units : bytes;
}

}  // namespace

std::string Sha1OfFile(const char* path) {
  CryptoWrapper* crypto = CryptoWrapper::sharedInstance();
  const DigestFunctions<SHA_CTX> sha1 = {crypto->SHA_Init(), crypto->SHA1_Update(),
                                         crypto->SHA1_Final(), SHA_DIGEST_LENGTH};
  return DigestOfFile(path, sha1);
}

std::string Sha256OfFile(const char* path) {
  CryptoWrapper* crypto = CryptoWrapper::sharedInstance();
  const DigestFunctions<SHA256_CTX> sha256 = {crypto->SHA256_Init(), crypto->SHA256_Update(),
                                              crypto->SHA256_Final(), SHA256_DIGEST_LENGTH};
  return DigestOfFile(path, sha256);
}

namespace {

// The value of one hexadecimal digit, or -1 for any other character.
int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

unsigned char strToChar(char high, char low) {
  // Only the leading run of digits counts: no blanks, signs or prefixes as a number parser takes.
  const int first = HexDigitValue(high);
  if (first < 0) return 0;
  const int second = HexDigitValue(low);
  if (second < 0) return static_cast<unsigned char>(first);
  return static_cast<unsigned char>(first * 16 + second);
}

GpcBytes decodeFromHexidecimal(const char* text) {
  HEX_ASSERT_OR_RETURN(text != NULL, GpcBytes());
  const size_t length = strlen(text);
  GpcBytes bytes;
  bytes.reserve(length / 2);
  for (size_t i = 0; i + 1 < length; i += 2) bytes.push_back(strToChar(text[i], text[i + 1]));
  return bytes;
}

GpcBytes base64Decode(const char* text) {
  HEX_ASSERT_OR_RETURN(text != NULL, GpcBytes());
  CryptoWrapper* crypto = CryptoWrapper::sharedInstance();
  HEX_ASSERT_OR_RETURN(crypto->BIO_new() != NULL && crypto->BIO_f_base64() != NULL &&
                           crypto->BIO_new_mem_buf() != NULL && crypto->BIO_push() != NULL &&
                           crypto->BIO_read() != NULL && crypto->BIO_free_all() != NULL &&
                           crypto->BIO_free() != NULL && crypto->BIO_set_flags() != NULL,
                       GpcBytes());
  GpcBytes decoded;
  BIO* base64 = crypto->BIO_new()(crypto->BIO_f_base64()());
  if (base64 == nullptr) return decoded;
  BIO* source = crypto->BIO_new_mem_buf()(text, static_cast<int>(Utf16Length(text)));
  if (source == nullptr) {
    crypto->BIO_free()(base64);
    return decoded;
  }
  BIO* chain = crypto->BIO_push()(base64, source);
  crypto->BIO_set_flags()(chain, BIO_FLAGS_BASE64_NO_NL);
  unsigned char chunk[kBase64ReadChunkSize];
  for (;;) {
    const int got = crypto->BIO_read()(chain, chunk, sizeof chunk);
    if (got <= 0) break;
    decoded.insert(decoded.end(), chunk, chunk + got);
  }
  crypto->BIO_free_all()(chain);
  return decoded;
}
