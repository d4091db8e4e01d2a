// Hexadecimal and base64 decoding (NSString+Hex.h) of any text, as signatures and certificates arrive: a
// pair of characters gives one byte, and canonical base64 decodes as OpenSSL's block decoder has it.
#include <openssl/evp.h>

#include <cstring>
#include <memory>

#include "common/NSString+Hex.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact copy of the text up to its first NUL: any read past its end is caught.
  std::unique_ptr<char[]> text(new char[size + 1]);
  memcpy(text.get(), data, size);
  text[size] = '\0';
  const size_t length = strlen(text.get());
  if (decodeFromHexidecimal(text.get()).size() != length / 2) fuzz::Fail("%zu hex characters", length);
  const GpcBytes decoded = base64Decode(text.get());
  if (decoded.size() > length) fuzz::Fail("base64 decoded to more bytes than it had characters");
  size_t padding = 0;
  while (padding < 2 && padding < length && text[length - 1 - padding] == '=') ++padding;
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (length == 0 || length % 4 != 0 || strspn(text.get(), kAlphabet) != length - padding) return 0;
  GpcBytes expected(length / 4 * 3);
  EVP_DecodeBlock(expected.data(), reinterpret_cast<const unsigned char*>(text.get()),
                  static_cast<int>(length));
  expected.resize(expected.size() - padding);
  if (decoded != expected) fuzz::Fail("canonical base64 of %zu characters decoded wrongly", length);
  return 0;
}
