#include "common/urlencode.h"

namespace {
bool IsKeptAsIs(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}
}  // namespace

char* URLEncode(const char* src, char* dst, int size) {
  if (src == nullptr || dst == nullptr) return nullptr;
  static const char kHex[] = "0123456789ABCDEF";
  int at = 0;
  for (const unsigned char* c = reinterpret_cast<const unsigned char*>(src); *c != '\0' && at < size - 2; ++c) {
    if (IsKeptAsIs(*c)) {
      dst[at++] = static_cast<char>(*c);
    } else {
      dst[at++] = '%';
      dst[at++] = kHex[*c >> 4];
      dst[at++] = kHex[*c & 0x0F];
    }
  }
  dst[at] = '\0';
  return dst;
}
