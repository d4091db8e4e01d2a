// Hexadecimal and base64 decoding (NSString+Hex.h), as signatures and certificates arrive.
//
// Input: the text (it ends at its first NUL, as C text). Well-formed input must decode to the
// bytes it encodes; anything else must decode without harm.
#include <cstring>
#include <memory>
#include <string>

#include "NSString+Hex.h"
#include "fuzz_support.h"
#include "fuzz_trace.h"

namespace {

fuzz::ScratchTrace* g_trace = nullptr;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void CheckHex(const char* text) {
  const size_t length = strlen(text);
  const GpcBytes bytes = decodeFromHexidecimal(text);
  if (bytes.size() != length / 2) fuzz::Fail("%zu hex characters gave %zu bytes", length, bytes.size());
  for (size_t i = 0; i < bytes.size(); ++i) {
    const int high = HexValue(text[2 * i]);
    const int low = HexValue(text[2 * i + 1]);
    if (high >= 0 && low >= 0 && bytes[i] != high * 16 + low) fuzz::Fail("hex pair %zu decoded wrongly", i);
    if (strToChar(text[2 * i], text[2 * i + 1]) != bytes[i]) fuzz::Fail("strToChar disagrees at pair %zu", i);
  }
}

int Base64Value(char c) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const char* at = c != '\0' ? strchr(kAlphabet, c) : nullptr;
  return at != nullptr ? static_cast<int>(at - kAlphabet) : -1;
}

// The bytes of canonical base64 (whole quads, "=" only as padding at the end); false for other text.
bool DecodeCanonicalBase64(const std::string& text, GpcBytes* out) {
  if (text.empty() || text.size() % 4 != 0) return false;
  size_t padding = 0;
  while (padding < 2 && text[text.size() - 1 - padding] == '=') ++padding;
  for (size_t i = 0; i < text.size() - padding; ++i) {
    if (Base64Value(text[i]) < 0) return false;
  }
  uint32_t bits = 0;
  int count = 0;
  for (size_t i = 0; i < text.size() - padding; ++i) {
    bits = bits << 6 | static_cast<uint32_t>(Base64Value(text[i]));
    count += 6;
    if (count >= 8) {
      count -= 8;
      out->push_back(static_cast<unsigned char>(bits >> count));
    }
  }
  return true;
}

void CheckBase64(const char* text) {
  const GpcBytes decoded = base64Decode(text);
  GpcBytes expected;
  if (DecodeCanonicalBase64(text, &expected) && decoded != expected) {
    fuzz::Fail("canonical base64 of %zu characters decoded to %zu bytes, expected %zu", strlen(text), decoded.size(),
               expected.size());
  }
  if (decoded.size() > strlen(text)) fuzz::Fail("base64 decoded to more bytes than it had characters");
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
