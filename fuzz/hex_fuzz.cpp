// Hexadecimal and base64 decoding (NSString+Hex.h), as signatures and certificates arrive.
// Input: the text (up to its first NUL, as C text). Well-formed text must decode to the bytes it
// encodes; anything else must decode without harm.
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "common/NSString+Hex.h"
#include "fuzz_support.h"
#include "fuzz_trace.h"

namespace {

fuzz::ScratchTrace* g_trace = nullptr;

void CheckHex(const char* text) {
  const GpcBytes bytes = decodeFromHexidecimal(text);
  const size_t length = strlen(text);
  if (bytes.size() != length / 2) fuzz::Fail("%zu hex characters gave %zu bytes", length, bytes.size());
  for (size_t i = 0; i < bytes.size(); ++i) {
    const char pair[3] = {text[2 * i], text[2 * i + 1], '\0'};
    const bool digits = strspn(pair, "0123456789abcdefABCDEF") == 2;
    if (digits && bytes[i] != strtoul(pair, nullptr, 16)) fuzz::Fail("hex pair %zu decoded wrongly", i);
    if (strToChar(pair[0], pair[1]) != bytes[i]) fuzz::Fail("strToChar disagrees at pair %zu", i);
  }
}

// Canonical base64 (whole quads of the alphabet, "=" only as the last one or two characters) decodes
// as OpenSSL's block decoder has it; no text decodes to more bytes than it has characters.
void CheckBase64(const char* text) {
  const GpcBytes decoded = base64Decode(text);
  const size_t length = strlen(text);
  if (decoded.size() > length) fuzz::Fail("base64 decoded to more bytes than it had characters");
  size_t padding = 0;
  while (padding < 2 && padding < length && text[length - 1 - padding] == '=') ++padding;
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (length == 0 || length % 4 != 0 || strspn(text, kAlphabet) != length - padding) return;
  GpcBytes expected(length / 4 * 3);
  EVP_DecodeBlock(expected.data(), reinterpret_cast<const unsigned char*>(text), static_cast<int>(length));
  expected.resize(expected.size() - padding);
  if (decoded != expected) fuzz::Fail("canonical base64 of %zu characters decoded wrongly", length);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_trace = new fuzz::ScratchTrace(fuzz::MakeScratchFolder("hex"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact copy: any read past the text's end is caught.
  std::unique_ptr<char[]> text(new char[size + 1]);
  memcpy(text.get(), data, size);
  text[size] = '\0';
  CheckHex(text.get());
  CheckBase64(text.get());
  g_trace->Tick();
  return 0;
}
